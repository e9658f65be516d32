#!/usr/bin/env bash
# whole_system_test.sh BUILD_DIR: the Debian package in a booted Debian 12 container with a user
# logged in on seat0. Checks what only the whole system shows: the GUI started in the user's own
# service manager with the user's ids and none of the daemon's descriptors, surviving the daemon's
# stop; socket activation; the journal; the restart after a crash; the exposure level; a clean
# removal. No part is faked. Without root or the tools: SKIP, exit 77. The root file system is
# cached under BUILD_DIR/system-rootfs, keyed by its package list; each run boots a copy.
set -uo pipefail

build=$(cd "${1:?usage: $0 BUILD_DIR}" && pwd)
package=vorbel-vpn-service unit=vorbel-vpn-service.service socket_unit=vorbel-vpn-service.socket
channel_socket=/run/com.kelvo.TunnelwrightService.socket tool_dir=/usr/libexec/$package
desktop_entry=/usr/share/applications/com.kelvo.KelvoTunnelwright.desktop
# A state the stand-in is told to report; the daemon's own answer without a GUI is "disconnected".
gui_state=answered-by-the-gui user=alice max_exposure=2.5 started=$SECONDS
skip() { echo "SKIP: $*"; exit 77; }

[ "$(id -u)" = 0 ] || skip "needs root (systemd-nspawn boots a container)"
for tool in mmdebstrap systemd-nspawn nsenter cpack dpkg-deb flock; do command -v "$tool" >/dev/null ||
    skip "$tool is not installed (scripts/install-deps.sh)"; done
unshare --mount --pid --fork true 2>/dev/null || skip "cannot create namespaces here"

# The package, built as DebianPackageTest builds it; the root file system holds its dependencies
# (installing it needs no package lists), a user session stack and the tools the checks use.
work=$build/system-test
mkdir -p "$work" && rm -rf "$work/package"
cpack --config "$build/CPackConfig.cmake" -B "$work/package" >"$work/cpack.log" 2>&1 || {
    cat "$work/cpack.log"; echo "FAIL: cpack"; exit 1; }
deb=$(echo "$work"/package/${package}_*.deb)
[ -f "$deb" ] || { echo "FAIL: no package in $work/package"; exit 1; }
depends=$(dpkg-deb -f "$deb" Depends | tr ',' '\n' | sed -E 's/\|.*//; s/\(.*\)//; s/[[:space:]]//g' | grep -v '^$' | sort -u)
include=$(echo "systemd systemd-sysv dbus dbus-user-session libpam-systemd procps iproute2 libglib2.0-bin curl $depends" |
          tr ' ' '\n' | grep -v '^$' | awk '!seen[$0]++' | paste -sd, -)
cache=$build/system-rootfs
rootfs=$cache/$(echo "bookworm minbase $include" | sha256sum | cut -c1-16)
mkdir -p "$cache"
{
    flock -w 600 9 || skip "timed out waiting for another run's root file system build"
    if [ ! -d "$rootfs" ]; then
        echo "building the root file system ($include)"
        rm -rf "$cache"/*.partial
        timeout 500 mmdebstrap --quiet --variant=minbase --include="$include" bookworm \
            "$rootfs.partial" >"$cache/mmdebstrap.log" 2>&1 || {
            tail -20 "$cache/mmdebstrap.log"; rm -rf "$rootfs.partial"
            skip "mmdebstrap could not build the root file system (no package mirror?)"; }
        find "$cache" -mindepth 1 -maxdepth 1 -type d ! -name "${rootfs##*/}.partial" -exec rm -rf {} +
        mv "$rootfs.partial" "$rootfs"
        echo "root file system built in $((SECONDS - started)) s"
    fi
} 9>"$cache/.lock"

# A copy, booted; cleanup powers it off, then kills systemd-nspawn if still there. The container
# part has a deadline of its own inside ctest's, so that cleanup always runs.
run=$(mktemp -d "$work/run.XXXXXX") nspawn_pid= pid1= watchdog=
root=$run/root
cleanup() {
    [ -n "$watchdog" ] && kill "$watchdog" 2>/dev/null
    if [ -n "$nspawn_pid" ] && kill -0 "$nspawn_pid" 2>/dev/null; then
        [ -n "$pid1" ] && nsenter -t "$pid1" -a -- systemctl poweroff --no-block >/dev/null 2>&1
        for _ in $(seq 100); do kill -0 "$nspawn_pid" 2>/dev/null || break; sleep 0.1; done
        kill -KILL "$nspawn_pid" 2>/dev/null; wait "$nspawn_pid" 2>/dev/null
    fi
    rm -rf "$run"
}
trap cleanup EXIT
trap 'exit 130' INT TERM
( trap 'kill $sleeper 2>/dev/null; exit 0' TERM; sleep 400 & sleeper=$!
  wait $sleeper && { echo "FAIL: deadline of 400 s passed"; kill -TERM $$; } ) &
watchdog=$!
cp -a --reflink=auto "$rootfs" "$root"
systemd-nspawn -q -D "$root" --register=no --private-network --keep-unit -b </dev/null >"$run/console.log" 2>&1 &
nspawn_pid=$!

inside() { timeout 120 nsenter -t "$pid1" -a -- env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LANG=C.UTF-8 "$@"; }
# Runs the command until it succeeds, for at most SECONDS (fractions allowed).
wait_until() {
    local seconds=$1; shift
    for _ in $(seq "$(awk "BEGIN { print int($seconds * 10) }")"); do "$@" >/dev/null 2>&1 && return 0; sleep 0.1; done
    "$@" >/dev/null 2>&1
}
abort() { echo "FAIL: $*"; echo "--- container console (last lines)"; tail -30 "$run/console.log"; exit 1; }
container_pid1() { pid1=$(pgrep -P "$nspawn_pid" -x systemd) && [ -n "$pid1" ]; }
wait_until 30 container_pid1 || abort "the container's systemd did not start"
booted() { inside systemctl is-system-running 2>/dev/null | grep -qxE 'running|degraded'; }
wait_until 60 booted || abort "the container did not finish booting: $(inside systemctl is-system-running)"
echo "container up after $((SECONDS - started)) s (PID 1 is $pid1 on the host)"

# Runs a check in this shell (checks set what later ones use); its output is the detail.
passed=0 failed=0 failures=()
check() {
    local name=$1; shift
    "$@" >"$run/detail" 2>&1
    local status=$? detail=$(cat "$run/detail")
    if [ $status = 0 ]; then passed=$((passed + 1)); echo "PASS $name${detail:+: $detail}"; return; fi
    failed=$((failed + 1)); failures+=("$name"); echo "FAIL $name: ${detail:-(no detail)}"
}
# An XML-RPC call from a page; prints the answer's value.
page_call() {
    inside curl -sS -m 30 -H 'Content-Type: text/xml' \
        --data "<?xml version=\"1.0\"?><methodCall><methodName>$1</methodName><params></params></methodCall>" \
        http://127.0.0.1:986/vpn | sed -n 's:.*<value><string>\(.*\)</string></value>.*:\1:p'
}
apt_get() { inside env DEBIAN_FRONTEND=noninteractive apt-get -y -q "$@" >"$run/apt.log" 2>&1 || { tail -5 "$run/apt.log"; return 1; }; }
property() { inside systemctl show -p "$1" --value "$unit"; }
unit_state() { inside systemctl is-active "$1" 2>/dev/null; }
service_active() { [ "$(unit_state $unit)" = active ]; }
states() { echo "socket $(unit_state $socket_unit), service $(unit_state $unit)"; }
gui_pids() { inside pgrep -u "$user" -x gui-standin; }
# A client is connected to the channel socket when the daemon's accepted end carries its path.
gui_connected() { inside ss -Hxn | grep -v LISTEN | grep -qF "$channel_socket"; }
has_alias() { inside ip -o -4 address show dev lo | grep -q '127\.94\.0\.1/32'; }

# Installing starts both units; the daemon adds its alias and listens on port 986.
install_package() {
    cp "$deb" "$root/root/" && apt_get install "/root/${deb##*/}" || return 1
    wait_until 10 inside sh -c "ss -Hltn 'sport = :986' | grep -q 127.94.0.1" || { echo "nothing listens on 127.94.0.1:986"; return 1; }
    [ "$(states)" = "socket active, service active" ] || { states; return 1; }
    wait_until 10 has_alias || { echo "no alias on lo: $(inside ip -o -4 address show dev lo)"; return 1; }
    echo "$(states), alias 127.94.0.1/32 on lo, listening on 986"
}
check "package installs and starts" install_package
service_active || abort "the service is not running; nothing else can be checked"

# With the service stopped and its socket listening, a GUI connecting starts the service.
socket_activation() {
    inside systemctl stop "$unit" 2>/dev/null || return 1
    [ "$(states)" = "socket active, service inactive" ] || { echo "after stop: $(states)"; return 1; }
    inside timeout -s INT 5 "$tool_dir/gui-standin" --quiet >/dev/null 2>&1 &
    local client=$! state; wait_until 10 service_active; state=$(unit_state $unit)
    kill -INT "$client" 2>/dev/null; wait "$client" 2>/dev/null
    [ "$state" = active ] || { echo "a client connected, the service stayed $state"; return 1; }
    echo "started by a client's connection"
}
check "socket activation" socket_activation

# The console user: a login session on seat0 with its own service manager, a supplementary group
# and the application's desktop entry.
log_user_in() {
    inside groupadd -f vpnusers && inside useradd -m -G vpnusers "$user" &&
        inside systemd-run -q -p PAMName=login -p User="$user" -p Environment=XDG_SEAT=seat0 \
            -p Environment=XDG_SESSION_TYPE=x11 -p Environment=XDG_SESSION_CLASS=user sleep infinity || return 1
    uid=$(inside id -u "$user")
    wait_until 20 inside test -S "/run/user/$uid/bus" || { echo "no bus for $user"; return 1; }
    mkdir -p "$root/etc/vorbel-system-test" "$root/usr/share/applications"
    echo "{\"state\": {\"content\": {\"result\": \"$gui_state\"}}}" >"$root/etc/vorbel-system-test/answers.json"
    printf '[Desktop Entry]\nType=Application\nName=Vorbel Tunnelwright\nExec=%s\nX-Kelvo-ShortVersion=1.0.0\nX-Kelvo-BuildVersion=1\n' \
        "$tool_dir/gui-standin --answers /etc/vorbel-system-test/answers.json" >"$root$desktop_entry"
    chmod 0644 "$root$desktop_entry" "$root/etc/vorbel-system-test/answers.json"
    inside chown -R root:root /usr/share/applications /etc/vorbel-system-test
    echo "$user (uid $uid) active on seat0: $(inside loginctl show-seat seat0 -p ActiveSession --value)"
}
uid=
check "console user logged in" log_user_in
[ -n "$uid" ] || abort "no console user; nothing else can be checked"

# A page's call finds no GUI, the daemon starts it for the console user, the GUI answers.
launch_on_call() {
    local begun=$SECONDS answer; answer=$(page_call state)
    [ "$answer" = "$gui_state" ] || { echo "state answered '$answer' (not the GUI's)"; return 1; }
    wait_until 5 gui_pids || { echo "the answer came, but no gui-standin of $user runs"; return 1; }
    echo "state answered '$answer' after $((SECONDS - begun)) s; GUI pid $(gui_pids | paste -sd' ')"
}
check "page call launches the GUI" launch_on_call
gui=$(gui_pids | head -1)
have_gui() { [ -n "$gui" ] || { echo "no GUI process"; return 1; }; }

gui_identity() {
    have_gui || return 1
    local status ids groups wanted primary; status=$(inside cat "/proc/$gui/status") primary=$(inside id -g "$user")
    ids=$(awk '/^(Uid|Gid):/ {print $2, $3, $4, $5}' <<<"$status" | paste -sd/)
    groups=$( (awk '/^Groups:/ {for (i = 2; i <= NF; i++) print $i}' <<<"$status"; echo "$primary") | sort -un | paste -sd' ')
    wanted=$(inside id -G "$user" | tr ' ' '\n' | sort -un | paste -sd' ')
    echo "uids/gids $ids, groups $groups"
    [ "$ids" = "$uid $uid $uid $uid/$primary $primary $primary $primary" ] && [ "$groups" = "$wanted" ] ||
        { echo "wanted uid $uid, gid $primary, groups $wanted"; return 1; }
}
check "GUI runs with the user's ids and groups" gui_identity

gui_in_user_manager() {
    have_gui || return 1
    local cgroup; cgroup=$(inside cat "/proc/$gui/cgroup" | awk -F: '$1 == 0 {u = $3} $2 == "name=systemd" {s = $3} END {print u != "" ? u : s}')
    [[ "$cgroup" == */user@$uid.service/app.slice/* ]] || { echo "cgroup $cgroup"; return 1; }
    echo "${cgroup##*/user@$uid.service/}"
}
check "GUI runs in the user's service manager" gui_in_user_manager

# Sockets and pipes, by inode: none the daemon holds may be open in a process of the user (the
# GUI, and any launcher still there), above all not its journal stream or listening sockets.
no_daemon_descriptors() {
    local daemon theirs ours leaked processes; daemon=$(property MainPID)
    [ "$daemon" -gt 0 ] 2>/dev/null || { echo "no daemon"; return 1; }
    theirs=$(inside find "/proc/$daemon/fd" -mindepth 1 -printf '%l\n' | grep -E '^(socket|pipe):' | sort -u)
    [ -n "$theirs" ] || { echo "the daemon (pid $daemon) shows no sockets"; return 1; }
    processes=$(inside pgrep -u "$user" | paste -sd' ')
    ours=$(for pid in $processes; do inside find "/proc/$pid/fd" -mindepth 1 -printf "$pid %l\n" 2>/dev/null; done)
    leaked=$(grep -F -f <(sed 's/^/ /' <<<"$theirs") <<<"$ours" | sort -u)
    if [ -n "$leaked" ]; then
        echo "the daemon's descriptors held by $user's processes (daemon's stderr is $(inside readlink "/proc/$daemon/fd/2")):"
        while read -r pid target; do echo "  pid $pid ($(inside cat /proc/$pid/comm 2>/dev/null)) holds $target"; done <<<"$leaked"
        return 1
    fi
    echo "$(wc -w <<<"$processes") processes of $user checked against $(wc -l <<<"$theirs") of the daemon's sockets and pipes"
}
check "GUI and launcher hold none of the daemon's descriptors" no_daemon_descriptors

journal_lines() {
    local lines missing=(); lines=$(inside journalctl -q -u "$unit" --no-pager -o cat)
    for text in "LumentideHelper started" "Client connected"; do grep -qF "$text" <<<"$lines" || missing+=("$text"); done
    ((${#missing[@]} == 0)) || { echo "missing: ${missing[*]}"; return 1; }
    echo "$(wc -l <<<"$lines") lines under the unit, the channel's start and the page's connection among them"
}
check "journal holds the daemon's lines" journal_lines

# The GUI belongs to the user: a stopped daemon leaves it running, and after the daemon's restart
# it reconnects (a page call finds it connected; no second GUI is started).
stop_and_restart() {
    have_gui && inside systemctl stop "$unit" 2>/dev/null || return 1
    inside kill -0 "$gui" 2>/dev/null || { echo "stopping the service ended the GUI (pid $gui)"; return 1; }
    inside systemctl start "$unit" || return 1
    # The stand-in retries every 250 ms; a page call before it is back would start a second GUI.
    wait_until 5 gui_connected || { echo "GUI $gui did not reconnect within 5 s"; return 1; }
    local begun=$SECONDS answer now; answer=$(page_call state); now=$(gui_pids | paste -sd' ')
    [ "$answer" = "$gui_state" ] && [ "$now" = "$gui" ] ||
        { echo "after the restart: state '$answer', GUI pids '$now' (was $gui)"; return 1; }
    echo "GUI $gui kept running and answered after the restart within $((SECONDS - begun)) s"
}
check "GUI outlives a stop and reconnects" stop_and_restart

crash_restart() {
    inside systemctl start "$unit" || return 1
    local before restarts after answer alias="alias 127.94.0.1 not on lo"
    before=$(property MainPID) restarts=$(property NRestarts)
    inside systemctl kill --kill-who=main -s SIGSEGV "$unit" || return 1
    restarted() { local now; now=$(property MainPID); [ "$now" -gt 0 ] && [ "$now" != "$before" ] && service_active; }
    wait_until 15 restarted || { echo "not running again 15 s after the crash of $before"; return 1; }
    after=$(property NRestarts) answer=$(page_call state)
    [ "$after" -gt "$restarts" ] || { echo "NRestarts $restarts -> $after"; return 1; }
    [ "$answer" = "$gui_state" ] || { echo "after the restart state answered '$answer'"; return 1; }
    has_alias && alias="alias 127.94.0.1 still on lo"
    echo "pid $before crashed, pid $(property MainPID) serves (NRestarts $restarts -> $after), $alias"
}
check "crash restarts the service" crash_restart

exposure() {
    local line level; line=$(inside systemd-analyze security --no-pager "$unit" | tail -1)
    level=$(grep -oE '[0-9]+\.[0-9]+' <<<"$line" | head -1)
    [ -n "$level" ] || { echo "no level in: $line"; return 1; }
    awk "BEGIN { exit !($level <= $max_exposure) }" || { echo "exposure $level above $max_exposure"; return 1; }
    echo "exposure $level (at most $max_exposure)"
}
check "exposure level of the installed unit" exposure

remove_package() {
    apt_get remove "$package" || return 1
    local left=() listening alias=gone; listening=$(inside ss -Hltn 'sport = :986')
    [[ "$(states)" == *" active"* ]] && left+=("$(states)")
    [ -n "$listening" ] && left+=("listening on 986: $listening")
    inside test -e "$channel_socket" && left+=("$channel_socket exists")
    inside pgrep -f "^/usr/sbin/$package" >/dev/null && left+=("a daemon process runs")
    ((${#left[@]} == 0)) || { printf '%s\n' "${left[@]}"; return 1; }
    # Not a fault of removal: a crashed daemon left the alias, and the next one did not add it.
    has_alias && alias="left on lo"
    echo "$(states), nothing on 986, no $channel_socket; alias 127.94.0.1 $alias"
}
check "apt-get remove stops everything" remove_package

if ((failed)); then
    echo "--- the service's journal (last lines)"
    inside journalctl -q -u "$unit" -u "$socket_unit" --no-pager -o short-precise | tail -40
fi
echo "$passed passed, $failed failed${failures[*]:+; failed: ${failures[*]}}"
echo "total time $((SECONDS - started)) s"
((failed == 0))
