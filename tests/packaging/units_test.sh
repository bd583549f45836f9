#!/bin/bash
# Checks the units with systemd's own tools. Usage: units_test.sh PACKAGING_DIRECTORY SERVER TOOL
#
# Works on copies that name the programs of the build instead of the installed ones, with instances of the
# templates.
set -euo pipefail
packaging=$1 server=$2 tool=$3
# What an attacker who has taken over the process may still do, as systemd counts it: 0 is nothing, 10 is everything.
max_exposure() {
    case $1 in
        v9-rtmp-watchdog) echo 0.5 ;;
        *) echo 1.5 ;;
    esac
}

copies=$(mktemp -d)
trap 'rm -rf "$copies"' EXIT
# Without blanks, which the checkout's path may have.
ln -s "$server" "$copies/v9_rtmp_server"
ln -s "$tool" "$copies/v9_rtmp_ctl"
failed=0
complain() {
    echo "$*"
    failed=1
}

# check_syntax UNIT: complains about everything that the tool prints. No manual page exists before the installation.
check_syntax() {
    local said
    said=$(systemd-analyze verify --man=no "$1" 2>&1) || complain "$(basename "$1") is not valid"
    [[ -z $said ]] || complain "$said"
}

units=("$packaging"/systemd/*.service)
((${#units[@]} >= 5)) || complain "only ${#units[@]} units in $packaging/systemd"
for unit in "${units[@]}"; do
    name=$(basename "$unit" .service)
    copy=$copies/${name/@/@cam1}.service
    sed "s|/usr/bin/v9_|$copies/v9_|" "$unit" >"$copy"
    check_syntax "$copy"
    limit=$(max_exposure "$name")
    # In tenths: the tool takes no fractions.
    report=$(systemd-analyze security --offline=yes --no-pager --threshold="$(tr -d . <<<"$limit")" "$copy" 2>&1) ||
        complain "$(tail -n 1 <<<"$report") More than $limit:"$'\n'"$(grep '^✗' <<<"$report")"
done

# The examples are checked as well, with the agent in the same directory.
ln -s "$packaging/scaling/v9-rtmp-agent" "$copies/v9-rtmp-agent"
for unit in "$packaging"/scaling/*.{service,socket}; do
    name=$(basename "$unit")
    sed "s|/usr/lib/v9-rtmp/|$copies/|" "$unit" >"$copies/${name/@/@cam1}"
done
for copy in "$copies"/v9-rtmp-{hls@cam1.service,agent@cam1.service}; do
    check_syntax "$copy"
done

# Proves that the checks above can fail.
sed 's/^PrivateUsers=yes/PrivateUsers=perhaps/' "$packaging/systemd/v9-rtmp-server.service" |
    sed "s|/usr/bin/v9_|$copies/v9_|" >"$copies/doctored.service"
[[ $(systemd-analyze verify --man=no "$copies/doctored.service" 2>&1) == *perhaps* ]] ||
    complain "a wrong word in a unit is not noticed"
grep -v '^SystemCallFilter=' "$packaging/systemd/v9-rtmp-server.service" >"$copies/doctored.service"
! systemd-analyze security --offline=yes --no-pager --threshold=15 "$copies/doctored.service" >/dev/null 2>&1 ||
    complain "a unit without a filter of system calls is not noticed"
exit $failed
