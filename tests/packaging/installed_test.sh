#!/bin/bash
# Runs in a minimal Debian with its own systemd, which scripts/package-test starts: installs the packages in
# /packages, publishes and plays through the server, upgrades to those in /packages/next, and purges.
set -euo pipefail
DEADLINE_S=30
mapfile -t packages < <(for file in /packages/*.deb; do dpkg-deb -f "$file" Package; done)
SOCKET_LINK=/var/run/v9_rtmp_server.socket

fail() {
    echo "FAILED: $*"
    systemctl --no-pager status v9-rtmp-server 2>&1 | tail -n 20 || true
    exit 1
}
step() { echo "== $*"; }
wait_for() {
    local what=$1 deadline=$((SECONDS + DEADLINE_S))
    shift
    until "$@" >/dev/null 2>&1; do
        ((SECONDS < deadline)) || fail "$what"
        sleep 0.05
    done
}
main_pid() { systemctl show --value -p MainPID v9-rtmp-server; }
status_field() { awk -v name="$1:" '$1 == name { print $2 }' "/proc/$(main_pid)/status"; }
answers() { v9_rtmp_ctl list; }
# Only looks at which the server has answered are counted.
watchdog_works() { grep -qE '"looks": ?[1-9]' /run/v9_rtmp_watchdog/watchdog.json; }
serve_works() (
    exec 4<>/dev/tcp/127.0.0.1/9935
    printf 'GET /healthz HTTP/1.1\r\nHost: 127.0.0.1:9935\r\nConnection: close\r\n\r\n' >&4
    [[ $(head -n 1 <&4) == *' 200 '* ]]
)
# Loses and damages no frame, or fails.
stream() { /opt/relay_load --server 127.0.0.1 --players 2 --kbit 1000 --seconds "$1" --warm-up 0.5 --late 9999; }

step "the packages are installed, and the server runs"
dpkg -i /packages/*.deb
wait_for "the server does not answer after the installation" answers
systemctl is-active v9-rtmp-server
for unit in v9-rtmp-watchdog v9-rtmp-forward@cam1 v9-rtmp-player@cam1; do
    ! systemctl is-active "$unit" || fail "$unit runs without being asked for"
done

step "it runs in its sandbox"
[[ $(stat -c %U "/proc/$(main_pid)") == v9-rtmp-server ]] || fail "it runs as another user"
[[ $(status_field CapEff) == 0000000000000000 ]] || fail "it has capabilities"
[[ $(status_field CapBnd) == 0000000000000000 ]] || fail "it can get capabilities"
[[ $(status_field NoNewPrivs) == 1 ]] || fail "it can get privileges"
[[ $(status_field Seccomp) == 2 ]] || fail "its system calls are not filtered"
[[ $(readlink $SOCKET_LINK) == v9-rtmp-server/v9_rtmp_server.socket ]] || fail "$SOCKET_LINK is not the link"
as_nobody=(setpriv --reuid nobody --clear-groups)
if "${as_nobody[@]}" --regid nogroup v9_rtmp_ctl list >/dev/null 2>&1; then fail "a stranger can list"; fi
"${as_nobody[@]}" --regid v9-rtmp v9_rtmp_ctl list >/dev/null || fail "a member of the group cannot list"
echo "stripped: $(stat -c %s /usr/bin/v9_rtmp_server) bytes; idle: $(status_field VmRSS) KiB"

step "a stream is published and played"
stream 3

step "its log is in a journal of its own"
has_logged() { journalctl --namespace=v9-rtmp -u v9-rtmp-server | grep -q 'is publishing'; }
wait_for "no line in the journal v9-rtmp" has_logged
if journalctl -u v9-rtmp-server | grep -q 'is publishing'; then fail "it logs to the machine's journal"; fi

step "a flood of lines is cut"
cat >/run/systemd/system/flood.service <<'UNIT'
[Service]
Type=oneshot
LogNamespace=v9-rtmp
ExecStart=/bin/sh -c 'yes flood | head -n 100000'
UNIT
systemctl daemon-reload
systemctl start flood
kept() { journalctl --namespace=v9-rtmp -u flood -o cat | grep -cx flood; }
echo "lines kept of 100000: $(kept)"
(($(kept) <= 30000)) || fail "too many lines were kept"
answers >/dev/null || fail "the server does not answer after the flood"

step "a killed server is back"
before=$(main_pid)
kill -KILL "$before"
is_back() { [[ $(main_pid) != "$before" && $(main_pid) != 0 ]] && answers; }
wait_for "it is not started again" is_back

step "a second start changes nothing"
before=$(main_pid)
systemctl start v9-rtmp-server
[[ $(main_pid) == "$before" ]] || fail "the unit runs twice"
! "${as_nobody[@]}" --regid v9-rtmp /usr/bin/v9_rtmp_server 2>/dev/null || fail "a start by another user succeeds"
answers >/dev/null || fail "a start by another user took the control socket"
! /usr/bin/v9_rtmp_server 2>/dev/null || fail "a start by root succeeds"
! answers >/dev/null 2>&1 || fail "a start by root has left the link, so the page is wrong"
systemd-tmpfiles --create v9-rtmp-server.conf
answers >/dev/null || fail "the link is not back"

for unit in watchdog serve; do
    if v9_rtmp_ctl help $unit >/dev/null 2>&1 && [[ -e /lib/systemd/system/v9-rtmp-$unit.service ]]; then
        step "$unit runs when the operator enables it"
        systemctl enable --now v9-rtmp-$unit
        before=$(systemctl show --value -p MainPID v9-rtmp-$unit)
        stream 2
        [[ $(systemctl show --value -p MainPID v9-rtmp-$unit) == "$before" ]] || fail "v9-rtmp-$unit has ended"
        systemctl is-active v9-rtmp-$unit
        wait_for "v9-rtmp-$unit does not do its work" ${unit}_works
    fi
done

step "an upgrade keeps the streams, until the restart"
echo "# changed by the operator" >>/etc/default/v9-rtmp-server
before=$(main_pid)
stream 10 &
load=$!
published() { v9_rtmp_ctl --plain list | grep -q publish; }
wait_for "nothing is published" published
dpkg -i /packages/next/*.deb
[[ $(main_pid) == "$before" ]] || fail "the upgrade has restarted the server"
wait $load || fail "the upgrade has cost frames"
grep -q "changed by the operator" /etc/default/v9-rtmp-server || fail "the upgrade has overwritten a setting"
systemctl restart v9-rtmp-server
wait_for "it does not answer after the restart" answers
[[ $(main_pid) != "$before" ]] || fail "a restart is none"
stream 1

step "a removal ends the services and keeps the settings, a purge removes them"
dpkg -r "${packages[@]}"
[[ ! -e /usr/bin/v9_rtmp_server && -e /etc/default/v9-rtmp-server ]] || fail "the removal is wrong"
! systemctl is-active v9-rtmp-server || fail "the server runs after its removal"
dpkg -P "${packages[@]}"
left=$(find /etc /usr /lib/systemd /var/lib/systemd /run -not -path '/run/host/*' \
    \( -name '*v9-rtmp*' -o -name '*v9_rtmp*' \) -not -path '/run/systemd/*' -not -path '/run/log/*')
[[ -z $left ]] || fail "the purge has left:"$'\n'"$left"
echo passed
