#!/bin/bash
# Loads the completion that the tool prints and completes command lines with it. Usage: fish_completion.sh V9_RTMP_CTL
# shellcheck source=tests/tools/completion_setup.sh
source "$(dirname "$0")/completion_setup.sh"

"$1" completion fish >"$scratch/completion.fish"

# expect 'WORD WORD ...' LINE, of which the last word is being typed
expect() {
    local offered
    offered=$(fish --no-config -c 'source $argv[1]; complete -C $argv[2]' "$scratch/completion.fish" "v9_rtmp_ctl $2" |
        cut -f 1 | sort | tr '\n' ' ')
    if [[ $offered != "$1${1:+ }" ]]; then
        echo "v9_rtmp_ctl $2: '$offered' instead of '$1'"
        failed=1
    fi
}

expect "check completion drop events hello help list metrics raw serve streams version watch watchdog" ""
expect "address id stream unnamed" "drop "
expect "0 12 3" "drop id "
expect "0 12" "drop id 3 "
expect "10.0.0.1 10.0.0.2" "drop address "
expect "cam1 demo" "streams "
expect "address id stream unnamed" "help drop "
expect "12" "drop id 1"
expect "--stagger --stalled --state" "watchdog --sta"
expect "--behind=off" "watchdog --stalled 3 --behind="
expect "cam1 demo" "drop stream "
expect "--sort=id --sort=rate --sort=stream" "list --sort="
expect "cam1" "--socket /run/other drop stream c"
expect "demo" "--socket=/run/another drop stream d"

# Ids are in numeric order, each with its client.
listed=$(fish --no-config -c 'source $argv[1]; complete -C "v9_rtmp_ctl drop id "' "$scratch/completion.fish")
wanted=$(printf '0\tpublish cam1 10.0.0.1:5\n3\tplay $(touch %s/owned) 10.0.0.1:6\n12\tplay demo 10.0.0.2:5' "$scratch")
if [[ $listed != "$wanted" ]]; then
    echo "the ids are listed as '$listed'"
    failed=1
fi

expect_sockets_asked "--socket /run/other" "--socket=/run/another"
exit_with_result
