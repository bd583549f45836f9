#!/bin/bash
# Loads the completion that the tool prints and completes command lines with it. Usage: zsh_completion.sh V9_RTMP_CTL
# shellcheck source=tests/tools/completion_setup.sh
source "$(dirname "$0")/completion_setup.sh"

"$1" completion zsh >"$scratch/completion.zsh"
cat >"$scratch/typist.zsh" <<'TYPIST'
# Types each argument into another zsh as a line with a TAB at its end, and lets it run the line.
zmodload zsh/zpty
zpty shell zsh -f -i
await() {
    local text
    until [[ $text == *$1* ]]; do
        zpty -r -t shell REPLY && text+=$REPLY || sleep 0.01
    done
}
zpty -w shell "autoload -Uz compinit; compinit -u -D; source \$HOME/completion.zsh; unsetopt beep; print rea''dy"
await ready
for line; do
    zpty -w -n shell "$line"$'\t\n'
    zpty -w shell "print line''$((++lines))"
    await line$lines
done
TYPIST
timeout 50 zsh -f "$scratch/typist.zsh" "v9_rtmp_ctl drop id 1" "v9_rtmp_ctl --socket /run/other drop stream d" \
    "v9_rtmp_ctl --socket=/run/another drop stream c" "v9_rtmp_ctl list --sort=ra" "v9_rtmp_ctl drop id 3 1" \
    "v9_rtmp_ctl drop address 10.0.0.2" "v9_rtmp_ctl streams d" "v9_rtmp_ctl watch --uni" \
    "v9_rtmp_ctl watchdog --behind=o" || failed=1

# The stand-in was run for the listing, and then with the completed line.
for call in "drop id 12" "--plain --timeout 1 --socket /run/other list" "--socket /run/other drop stream demo" \
    "--plain --timeout 1 --socket=/run/another list" "--socket=/run/another drop stream cam1" "list --sort=rate" "drop id 3 12" "drop address 10.0.0.2" "streams demo" \
    "watchdog --behind=off"; do
    if ! grep -qxF -- "$call" "$scratch/calls"; then
        echo "the tool was not called with '$call' but:"
        cat "$scratch/calls"
        failed=1
    fi
done
exit_with_result
