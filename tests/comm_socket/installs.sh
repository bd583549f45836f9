#!/bin/sh
# installs.sh CMAKE BUILD_DIR C_COMPILER PKG_CONFIG EXAMPLE SANITIZER
#
# Installs the control-socket library into a fresh prefix, builds the example against that alone and runs it.
set -eu
cmake=$1 build=$2 cc=$3 pkg_config=$4 example=$5 sanitizer=$6

prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT
"$cmake" --install "$build" --prefix "$prefix" --component comm_socket_v4 >"$prefix/log"

pc=$(find "$prefix" -name comm_socket_v4.pc)
test -n "$pc"
flags=$(PKG_CONFIG_PATH=$(dirname "$pc") "$pkg_config" --cflags --libs comm_socket_v4)
case $sanitizer in
    address) flags="$flags -fsanitize=address,undefined" ;;
    thread) flags="$flags -fsanitize=thread" ;;
esac
# shellcheck disable=SC2086  # the flags are several words
"$cc" -std=c99 -Wall -Wextra -Wpedantic -Werror "$example" -o "$prefix/hello" $flags

status=0
text=$("$prefix/hello" "$prefix/no.socket" 2>&1) || status=$?
echo "$text"
test "$status" -eq 3
test "$text" = "$prefix/no.socket: no such socket"
