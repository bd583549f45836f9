# shellcheck shell=bash
# Shared by the tests of the completions, which source it. A stand-in for the tool is first in PATH. It lists two
# connections, and one whose name a shell must not evaluate, and records its arguments in $scratch/calls.
set -u
scratch=$(mktemp -d)
trap 'rm -r "$scratch"' EXIT
cat >"$scratch/v9_rtmp_ctl" <<STANDIN
#!/bin/bash
echo "\$*" >>"$scratch/calls"
printf '0\tcam1\tpublish\t\t1\t2\t10.0.0.1:5\n12\tdemo\tplay\t\t1\t2\t10.0.0.2:5\n3\t\$(touch $scratch/owned)\tplay\t\t1\t2\t10.0.0.1:6\n'
STANDIN
chmod +x "$scratch/v9_rtmp_ctl"
touch "$scratch/calls"
export PATH=$scratch:$PATH HOME=$scratch
failed=0

# expect_sockets_asked '--socket PATH'...
expect_sockets_asked() {
    local socket
    for socket; do
        if ! grep -q -- "$socket list" "$scratch/calls"; then
            echo "the socket of the command line, $socket, is not asked"
            failed=1
        fi
    done
}

# exit_with_result ends the test.
exit_with_result() {
    if [[ -e $scratch/owned ]]; then
        echo "a stream name was executed"
        failed=1
    fi
    exit $failed
}
