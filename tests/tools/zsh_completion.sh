#!/bin/bash
# Loads the completion that the tool prints and completes command lines with it, against a stand-in for the tool
# that lists two connections and one with a name that a shell must not read. Usage: zsh_completion.sh V9_RTMP_CTL
set -u
ctl=$1
scratch=$(mktemp -d)
trap 'rm -r "$scratch"' EXIT
cat >"$scratch/v9_rtmp_ctl" <<STANDIN
#!/bin/bash
echo "\$*" >>"$scratch/calls"
printf '0\tcam1\tpublish\t\t1\t2\ta\n12\tdemo\tplay\t\t1\t2\tb\n3\t\$(touch $scratch/owned)\tplay\t\t1\t2\tc\n'
STANDIN
chmod +x "$scratch/v9_rtmp_ctl"
touch "$scratch/calls"
export PATH=$scratch:$PATH HOME=$scratch
failed=0

"$ctl" completion zsh >"$scratch/completion.zsh"
cat >"$scratch/typist.zsh" <<'TYPIST'
# Types the lines of its arguments into a zsh of its own, each with a TAB at its end, and lets that run them.
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
    "v9_rtmp_ctl --socket=/run/another drop stream c" "v9_rtmp_ctl list --sort=ra" || failed=1

# The stand-in was asked for the listing, and was then run with the completed line.
for call in "drop id 12" "--plain --timeout 1 --socket /run/other list" "--socket /run/other drop stream demo" \
    "--plain --timeout 1 --socket=/run/another list" "--socket=/run/another drop stream cam1" "list --sort=rate"; do
    if ! grep -qxF -- "$call" "$scratch/calls"; then
        echo "the tool was not called with '$call' but:"
        cat "$scratch/calls"
        failed=1
    fi
done
if [[ -e $scratch/owned ]]; then
    echo "a stream name was executed"
    failed=1
fi
exit $failed
