#!/bin/bash
# Loads the completion that the tool prints and completes command lines with it. Usage: bash_completion.sh V9_RTMP_CTL
# shellcheck source=tests/tools/completion_setup.sh
source "$(dirname "$0")/completion_setup.sh"

source <("$1" completion bash)

# expect 'WORD WORD ...' for the line in the arguments, the last of which is being typed
expect() {
    local wanted=$1
    shift
    COMP_WORDS=(v9_rtmp_ctl "$@")
    COMP_CWORD=$#
    COMPREPLY=()
    _v9_rtmp_ctl
    if [[ "${COMPREPLY[*]-}" != "$wanted" ]]; then
        echo "v9_rtmp_ctl $*: '${COMPREPLY[*]-}' instead of '$wanted'"
        failed=1
    fi
}

expect "hello list streams drop watch watchdog events check metrics serve raw completion version help" ""
expect "serve" ser
expect "--allow-drop" serve --allow
expect "--watchdog-state" metrics -o x --watch
expect "" serve --listen ""
expect "streams" str
expect "id stream address unnamed" drop ""
expect "0 3 12" drop id ""
expect "12" drop id 1
expect "cam1 demo" drop stream ""
expect "demo" --json drop stream d
expect "--stream" drop id --str
expect "0 12" drop id 3 ""
expect "demo" drop stream cam1 ""
expect "10.0.0.1 10.0.0.2" drop address ""
expect "10.0.0.1 10.0.0.2" list --address 10.0.0.1 --address ""
expect "0 3 12" --timeout 3 drop id ""
expect "demo" streams cam1 ""
expect "bytes bits" --unit ""
expect "stream rate" streams --sort ""
expect "cam1 demo" streams ""
expect "id stream address unnamed" help drop ""
expect "--version" --v
expect "--dry-run" drop stream demo --d
expect "cam1 demo" list --stream ""
expect "publish play none" list --mode ""
expect "id stream rate" list --sort ""
expect "--no-legend" list --no-l
expect "zsh" completion z
expect "--stalled --stagger --state" watchdog --sta
expect "off" watchdog --behind ""
expect "--exec" events --e
expect "--publish-test" check --rtmp host:1 --pub
expect "--socket" --so
expect "" raw hello ""
expect "publish play none" list --mode = ""
expect "publish" list --mode = pub
expect "id stream rate" list --sort =
expect "--sort=id" list --sort=i
expect "cam1 demo" list --stream =
expect "demo" drop id 3 --stream = d
expect "cam1" --socket /run/other drop stream c
expect "cam1" --socket = /run/another drop stream c

# If several ids match, each is shown with its client; a single one is completed.
for COMP_TYPE in 9 63; do
    expect '0 -- publish cam1 10.0.0.1:5 3 -- play $(touch '"$scratch"'/owned) 10.0.0.1:6 12 -- play demo 10.0.0.2:5' drop id ""
    expect "12" drop id 1
done
# When completions are cycled through, only the ids are inserted.
COMP_TYPE=37
expect "0 3 12" drop id ""
unset COMP_TYPE

expect_sockets_asked "--socket /run/other" "--socket /run/another"
exit_with_result
