#!/bin/bash
# Loads the completion that the tool prints and completes command lines with it, against a stand-in for the tool
# that lists two connections and one with a name that a shell must not read. Usage: fish_completion.sh V9_RTMP_CTL
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

"$ctl" completion fish >"$scratch/completion.fish"

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

expect "completion drop hello help list raw streams version watch" ""
expect "id stream unnamed" "drop "
expect "0 12 3" "drop id "
expect "12" "drop id 1"
expect "cam1 demo" "drop stream "
expect "--sort=id --sort=rate --sort=stream" "list --sort="
expect "cam1" "--socket /run/other drop stream c"
expect "demo" "--socket=/run/another drop stream d"

for socket in "--socket /run/other" "--socket=/run/another"; do
    if ! grep -q -- "$socket list" "$scratch/calls"; then
        echo "the socket of the command line, $socket, is not asked"
        failed=1
    fi
done
if [[ -e $scratch/owned ]]; then
    echo "a stream name was executed"
    failed=1
fi
exit $failed
