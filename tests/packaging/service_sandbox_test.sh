#!/bin/bash
# Runs the server as v9-rtmp-server.service does, as far as that goes without a running systemd: as its own user, with
# no capabilities, a read-only system and the directory of its control socket as its /run. The users, the directory and
# the link come from the files that are installed, by systemd's own tools. Not tested here: the filter of system calls,
# the control group, the journal.
#
# Usage: service_sandbox_test.sh PACKAGING_DIRECTORY SERVER TOOL. Needs root, because only root may become two
# other users; otherwise ends with status 77.
set -euo pipefail
if [[ ${4:-} != --inside ]]; then
    if [[ $(id -u) -ne 0 ]] || ! setpriv --reuid 65534 --clear-groups true 2>/dev/null; then
        echo "skipped: only root may become other users"
        exit 77
    fi
    exec unshare --mount --net --pid --fork --mount-proc --kill-child "$0" "$1" "$2" "$3" --inside
fi
packaging=$1 server=$2 tool=$3
SERVICE_DIR=/run/v9-rtmp-server
SOCKET_LINK=/var/run/v9_rtmp_server.socket
DEADLINE_S=20

fail() {
    echo "FAILED: $*"
    echo "--- the server's log"
    cat /run/log 2>/dev/null || true
    exit 1
}
step() { echo "== $*"; }

# wait_for WHAT COMMAND...: waits until the command succeeds.
wait_for() {
    local what=$1 deadline=$((SECONDS + DEADLINE_S))
    shift
    until "$@" >/dev/null 2>&1; do
        ((SECONDS < deadline)) || fail "$what"
        sleep 0.02
    done
}

# Prints the value of a setting of the unit.
setting() { sed -n "s/^$1=//p" "$packaging/systemd/v9-rtmp-server.service"; }

step "a machine with the users of the package, and a /run of its own"
mount --make-rprivate /
mount -t tmpfs -o mode=0755 tmpfs /run
ip link set lo up
mkdir -p /run/root/etc
cp /etc/passwd /etc/group /run/root/etc/
systemd-sysusers --root=/run/root - <"$packaging/sysusers/v9-rtmp-server.conf"
for file in passwd group; do mount --bind "/run/root/etc/$file" "/etc/$file"; done
id v9-rtmp-server
systemd-tmpfiles --create "$packaging/tmpfiles/v9-rtmp-server.conf"
[[ $(stat -c '%a %U %G' $SERVICE_DIR) == "750 v9-rtmp-server v9-rtmp" ]] || fail "$(stat $SERVICE_DIR)"
# Copies the programs to where every user may run them, whatever the checkout's directories permit.
mkdir /run/bin
install -m 755 "$server" /run/bin/v9_rtmp_server
install -m 755 "$tool" /run/bin/v9_rtmp_ctl
server=/run/bin/v9_rtmp_server tool=/run/bin/v9_rtmp_ctl

[[ $(setting BindPaths) == "$SERVICE_DIR:/run" ]] || fail "the unit binds $(setting BindPaths)"
start_service() {
    : >/run/log
    unshare --mount -- bash -c '
        set -eu
        server=$1 dir=$2
        mkdir -p /tmp
        mount -t tmpfs -o mode=0755 tmpfs /tmp
        install -m 755 "$server" /tmp/server
        mount -o bind,ro,remount / /
        mount -o ro,remount /tmp
        mount --bind "$dir" /run
        exec prlimit --nofile="$3" setpriv --reuid "$4" --regid "$5" --clear-groups --bounding-set=-all \
            --inh-caps=-all --no-new-privs /tmp/server
    ' service "$server" $SERVICE_DIR "$(setting LimitNOFILE)" "$(setting User)" "$(setting Group)" \
        </dev/null 2>>/run/log &
    service_pid=$!
    wait_for "the service does not answer through the link" "$tool" hello
}
as() {
    local user=$1 group=$2
    shift 2
    setpriv --reuid "$user" --regid "$group" --clear-groups "$@"
}

step "the server answers through the link"
start_service
[[ $(stat -c '%a %U %G' $SERVICE_DIR/v9_rtmp_server.socket) == "660 v9-rtmp-server v9-rtmp" ]] ||
    fail "$(stat $SERVICE_DIR/v9_rtmp_server.socket)"
[[ -L $SOCKET_LINK ]] || fail "$SOCKET_LINK is not a link"
status=/proc/$service_pid/status
[[ $(awk '/^CapEff/ { print $2 }' "$status") == 0000000000000000 ]] || fail "it has capabilities"

step "its group may use the control socket, others may not"
as nobody v9-rtmp "$tool" list >/dev/null || fail "a member of the group cannot list"
if as nobody nogroup "$tool" list >/dev/null 2>&1; then fail "a stranger can list"; fi

step "a stream is published and played"
ffmpeg -nostdin -loglevel error -re -f lavfi -i testsrc=size=160x120:rate=25 -c:v flv1 -g 5 \
    -f flv rtmp://127.0.0.1/ombrex-live/cam1 &
publisher=$!
wait_for "nothing is published" grep -q "is publishing 'cam1'" /run/log
ffmpeg -nostdin -loglevel error -i rtmp://127.0.0.1/ombrex-output/cam1 -frames:v 10 -c copy -f flv /run/played.flv ||
    fail "nothing is played"
[[ -s /run/played.flv ]] || fail "nothing was recorded"
"$tool" --plain list | grep -q cam1 || fail "the stream is not listed"

step "a second start by another user ends, and the control socket goes on"
status=0
as nobody nogroup "$server" 2>/run/second || status=$?
[[ $status -eq 1 ]] || fail "the second start ended with status $status"
grep -qx "Failed to create server socket" /run/second || fail "it said: $(cat /run/second)"
"$tool" --plain list | grep -q cam1 || fail "the control socket does not answer after it"
# In the group it may enter the directory, but not write to it or to /run.
status=0
as nobody v9-rtmp "$server" 2>/run/second || status=$?
[[ $status -eq 1 ]] || fail "the second start of a member of the group ended with status $status"
"$tool" --plain list | grep -q cam1 || fail "the control socket does not answer after a member's start"

step "a second start by root takes the link away, and systemd-tmpfiles brings it back"
status=0
"$server" 2>/run/second || status=$?
[[ $status -eq 1 ]] || fail "root's start ended with status $status"
grep -qx "Cannot bind socket" /run/second || fail "it said: $(cat /run/second)"
if "$tool" list >/dev/null 2>&1; then fail "root's start has left the link"; fi
"$tool" --socket $SERVICE_DIR/v9_rtmp_server.socket --plain list | grep -q cam1 ||
    fail "the service's own socket does not answer after root's start"
systemd-tmpfiles --create "$packaging/tmpfiles/v9-rtmp-server.conf"
"$tool" --plain list | grep -q cam1 || fail "the link is not back"
if grep -q "Lost server socket" /run/log; then fail "the service has lost its socket"; fi

step "it stops, and starts again beside what a killed one has left"
kill $publisher
kill "$service_pid"
status=0
wait "$service_pid" || status=$?
[[ $status -eq 0 ]] || fail "the service ended with status $status"
start_service
kill -KILL "$service_pid"
wait "$service_pid" 2>/dev/null || true
start_service
kill "$service_pid"
wait "$service_pid" || fail "the service did not end with status 0"
echo passed
