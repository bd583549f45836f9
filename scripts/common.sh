# The beginning of every script. It runs from the root of the checkout, wherever it was called from.
# shellcheck shell=bash

set -euo pipefail

unset CDPATH
ROOT_DIR=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$ROOT_DIR"
SCRIPT=$ROOT_DIR/scripts/$(basename "$0")

# Prints the current step.
say() { printf '==> %s\n' "$*"; }

# fail WHAT_HAPPENED [WHAT_TO_DO...]: ends the script with status 1.
fail() {
    printf '%s: %s\n' "$(basename "$0")" "$1" >&2
    shift
    local advice
    for advice in "$@"; do
        printf '    %s\n' "$advice" >&2
    done
    exit 1
}

# build_ahead PRESET...: builds in the background with otherwise idle processor time. Call stop_building_ahead before a
# foreground build of the same preset, which finishes the rest and shows the errors.
ahead_pid=
build_ahead() {
    setsid chrt --idle 0 scripts/build "$@" >/dev/null 2>&1 &
    ahead_pid=$!
}
stop_building_ahead() {
    if [[ -n $ahead_pid ]]; then
        kill -- "-$ahead_pid" 2>/dev/null || true
        wait "$ahead_pid" 2>/dev/null || true
        # Ninja removes what its compilers have not finished, and only then may another one begin.
        while kill -0 -- "-$ahead_pid" 2>/dev/null; do
            sleep 0.1
        done
        ahead_pid=
    fi
}

# The header of the calling script, from its second line to the first line that is not a comment.
print_usage() { sed -n -e '1d' -e '/^#/!q' -e 's/^# \{0,1\}//p' "$SCRIPT"; }
