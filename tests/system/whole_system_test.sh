#!/usr/bin/env bash
# The Debian package under a real systemd: boots a Debian 12 container, installs the package,
# logs a user in on seat0 and checks what only the whole system shows: the GUI application
# started in that user's own service manager with the user's ids and none of the daemon's
# descriptors, surviving the daemon's stop, socket activation, the journal, the restart after a
# crash, the unit's exposure level and a clean removal. No part is faked.
#
#   tests/system/whole_system_test.sh BUILD_DIR
#
# Needs root, mmdebstrap, systemd-nspawn and nsenter; without them it prints SKIP and exits 77.
# The container's root file system is built once (mmdebstrap, about 40 s) and cached under
# BUILD_DIR/system-rootfs, keyed by its package list; each run boots a copy of it.
# Prints one PASS or FAIL line per check and the total time; exits 1 when any check fails.
set -uo pipefail

build=$(cd "${1:?usage: $0 BUILD_DIR}" && pwd)
package=vorbel-vpn-service
unit=$package.service
socket_unit=$package.socket
channel_socket=/run/com.kelvo.TunnelwrightService.socket
tool_dir=/usr/libexec/$package
desktop_entry=/usr/share/applications/com.kelvo.KelvoTunnelwright.desktop
# A state the stand-in is told to report; the daemon's own answer without a GUI is "disconnected".
gui_state=answered-by-the-gui
user=alice
max_exposure=2.5

started=$SECONDS
skip() { echo "SKIP: $*"; exit 77; }

[ "$(id -u)" = 0 ] || skip "needs root (systemd-nspawn boots a container)"
for tool in mmdebstrap systemd-nspawn nsenter cpack dpkg-deb flock; do
    command -v "$tool" >/dev/null || skip "$tool is not installed (scripts/install-deps.sh)"
done
unshare --mount --pid --fork true 2>/dev/null || skip "cannot create namespaces here"

# --- The package, built the way DebianPackageTest builds it, into a directory of its own.
work=$build/system-test
mkdir -p "$work"
rm -rf "$work/package"
cpack --config "$build/CPackConfig.cmake" -B "$work/package" >"$work/cpack.log" 2>&1 || {
    cat "$work/cpack.log"; echo "FAIL: cpack"; exit 1; }
deb=$(echo "$work"/package/${package}_*.deb)
[ -f "$deb" ] || { echo "FAIL: no package in $work/package"; exit 1; }

# --- The root file system: the base system, a user session stack, the tools the checks use, and
# the package's own dependencies (so that installing it needs no package lists).
depends=$(dpkg-deb -f "$deb" Depends | tr ',' '\n' | sed -E 's/\|.*//; s/\(.*\)//; s/[[:space:]]//g' |
          grep -v '^$' | sort -u | paste -sd, -)
include=$(echo "systemd,systemd-sysv,dbus,dbus-user-session,libpam-systemd,procps,iproute2,libglib2.0-bin,curl,$depends" |
          tr ',' '\n' | awk '!seen[$0]++' | paste -sd, -)
key=$(echo "bookworm minbase $include" | sha256sum | cut -c1-16)
cache=$build/system-rootfs
rootfs=$cache/$key
mkdir -p "$cache"
{
    flock -w 600 9 || skip "timed out waiting for another run's root file system build"
    if [ ! -d "$rootfs" ]; then
        echo "building the root file system ($include)"
        rm -rf "$cache"/*.partial
        if ! timeout 500 mmdebstrap --quiet --variant=minbase --include="$include" bookworm \
                "$rootfs.partial" >"$cache/mmdebstrap.log" 2>&1; then
            tail -20 "$cache/mmdebstrap.log"
            rm -rf "$rootfs.partial"
            skip "mmdebstrap could not build the root file system (no package mirror?)"
        fi
        # Only the current list is kept.
        find "$cache" -mindepth 1 -maxdepth 1 -type d ! -name "$key.partial" -exec rm -rf {} +
        mv "$rootfs.partial" "$rootfs"
        echo "root file system built in $((SECONDS - started)) s"
    fi
} 9>"$cache/.lock"

# --- A copy of it, booted.
run=$(mktemp -d "$work/run.XXXXXX")
root=$run/root
nspawn_pid=
pid1=

watchdog=
cleanup() {
    [ -n "$watchdog" ] && kill "$watchdog" 2>/dev/null
    if [ -n "$nspawn_pid" ] && kill -0 "$nspawn_pid" 2>/dev/null; then
        [ -n "$pid1" ] && nsenter -t "$pid1" -a -- systemctl poweroff --no-block >/dev/null 2>&1
        for _ in $(seq 100); do kill -0 "$nspawn_pid" 2>/dev/null || break; sleep 0.1; done
        if kill -0 "$nspawn_pid" 2>/dev/null; then
            kill -KILL "$nspawn_pid" 2>/dev/null
        fi
        wait "$nspawn_pid" 2>/dev/null
    fi
    rm -rf "$run"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# The container's part has a deadline of its own, well inside ctest's, so that the container is
# always shut down by the cleanup above rather than left behind by a killed script.
(
    trap 'kill $sleeper 2>/dev/null; exit 0' TERM
    sleep 400 & sleeper=$!
    wait $sleeper && { echo "FAIL: deadline of 400 s passed"; kill -TERM $$; }
) &
watchdog=$!

cp -a --reflink=auto "$rootfs" "$root"
systemd-nspawn -q -D "$root" --register=no --private-network --keep-unit -b \
    </dev/null >"$run/console.log" 2>&1 &
nspawn_pid=$!

# Runs a command inside the container, with a clean environment and a bound.
inside() {
    timeout 120 nsenter -t "$pid1" -a -- env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LANG=C.UTF-8 "$@"
}
# Runs the command until it succeeds, for at most SECONDS (fractions allowed); false on timeout.
wait_until() {
    local seconds=$1; shift
    local tries=$(awk "BEGIN { print int($seconds * 10) }")
    for _ in $(seq "$tries"); do
        "$@" >/dev/null 2>&1 && return 0
        sleep 0.1
    done
    "$@" >/dev/null 2>&1
}
abort() {
    echo "FAIL: $*"
    echo "--- container console (last lines)"; tail -30 "$run/console.log"
    exit 1
}

container_pid1() { pid1=$(pgrep -P "$nspawn_pid" -x systemd) && [ -n "$pid1" ]; }
wait_until 30 container_pid1 || abort "the container's systemd did not start"
booted() { inside systemctl is-system-running 2>/dev/null | grep -qxE 'running|degraded'; }
wait_until 60 booted || abort "the container did not finish booting: $(inside systemctl is-system-running)"
echo "container up after $((SECONDS - started)) s (PID 1 is $pid1 on the host)"

# --- Checks. Each prints one line; the detail says what was seen.
passed=0
failed=0
failures=()
# Runs a check function in this shell (checks set what later ones use), its output kept as detail.
check() {
    local name=$1; shift
    local detail
    "$@" >"$run/detail" 2>&1
    local status=$?
    detail=$(cat "$run/detail")
    if [ $status = 0 ]; then
        passed=$((passed + 1))
        echo "PASS $name${detail:+: $detail}"
    else
        failed=$((failed + 1))
        failures+=("$name")
        echo "FAIL $name: ${detail:-(no detail)}"
    fi
}

# An XML-RPC call from a page; prints the answer's value.
page_call() {
    inside curl -sS -m "${2:-30}" -H 'Content-Type: text/xml' \
        --data "<?xml version=\"1.0\"?><methodCall><methodName>$1</methodName><params></params></methodCall>" \
        http://127.0.0.1:986/vpn | sed -n 's:.*<value><string>\(.*\)</string></value>.*:\1:p'
}
main_pid() { inside systemctl show -p MainPID --value "$unit"; }
unit_state() { inside systemctl is-active "$1" 2>/dev/null; }
gui_pids() { inside pgrep -u "$user" -x gui-standin; }
# Whether a client is connected to the channel socket (the daemon's accepted end carries its path).
gui_connected() { inside ss -Hxn | grep -v LISTEN | grep -qF "$channel_socket"; }

# Installing starts both units; the daemon adds its alias and listens on port 986.
install_package() {
    cp "$deb" "$root/root/"
    inside env DEBIAN_FRONTEND=noninteractive apt-get install -y -q "/root/$(basename "$deb")" \
        >"$run/apt-install.log" 2>&1 || { tail -5 "$run/apt-install.log"; return 1; }
    wait_until 10 inside sh -c "ss -Hltn 'sport = :986' | grep -q 127.94.0.1" ||
        { echo "nothing listens on 127.94.0.1:986"; return 1; }
    local states="socket $(unit_state $socket_unit), service $(unit_state $unit)"
    [ "$states" = "socket active, service active" ] || { echo "$states"; return 1; }
    local addresses
    wait_until 10 inside sh -c "ip -o -4 address show dev lo | grep -q '127\.94\.0\.1/32'" || {
        addresses=$(inside ip -o -4 address show dev lo)
        echo "no alias on lo: $addresses"; return 1
    }
    echo "$states, alias 127.94.0.1/32 on lo, listening on 986"
}
check "package installs and starts" install_package
[ "$(unit_state $unit)" = active ] || abort "the service is not running; nothing else can be checked"

# With the service stopped and its socket listening, a GUI connecting starts the service.
socket_activation() {
    inside systemctl stop "$unit" 2>/dev/null || return 1
    local states="socket $(unit_state $socket_unit), service $(unit_state $unit)"
    [ "$states" = "socket active, service inactive" ] || { echo "after stop: $states"; return 1; }
    inside timeout -s INT 5 "$tool_dir/gui-standin" --quiet >/dev/null 2>&1 &
    local client=$!
    wait_until 10 sh -c "[ \"\$(nsenter -t $pid1 -a -- systemctl is-active $unit)\" = active ]"
    local state; state=$(unit_state $unit)
    kill -INT "$client" 2>/dev/null; wait "$client" 2>/dev/null
    [ "$state" = active ] || { echo "a client connected, the service stayed $state"; return 1; }
    echo "started by a client's connection"
}
check "socket activation" socket_activation

# The console user: a login session on seat0 with its own service manager, a supplementary group
# and the application's desktop entry.
log_user_in() {
    inside groupadd -f vpnusers && inside useradd -m -G vpnusers "$user" || return 1
    inside systemd-run -q -p PAMName=login -p User="$user" -p Environment=XDG_SEAT=seat0 \
        -p Environment=XDG_SESSION_TYPE=x11 -p Environment=XDG_SESSION_CLASS=user sleep infinity ||
        return 1
    uid=$(inside id -u "$user")
    wait_until 20 inside test -S "/run/user/$uid/bus" || { echo "no bus for $user"; return 1; }
    mkdir -p "$root/etc/vorbel-system-test"
    echo "{\"state\": {\"content\": {\"result\": \"$gui_state\"}}}" \
        >"$root/etc/vorbel-system-test/answers.json"
    mkdir -p "$root/usr/share/applications"
    cat >"$root$desktop_entry" <<EOF
[Desktop Entry]
Type=Application
Name=Vorbel Tunnelwright
Exec=$tool_dir/gui-standin --answers /etc/vorbel-system-test/answers.json
X-Kelvo-ShortVersion=1.0.0
X-Kelvo-BuildVersion=1
EOF
    chmod 0644 "$root$desktop_entry" "$root/etc/vorbel-system-test/answers.json"
    inside chown -R root:root /usr/share/applications /etc/vorbel-system-test
    echo "$user (uid $uid) active on seat0: $(inside loginctl show-seat seat0 -p ActiveSession --value)"
}
uid=
check "console user logged in" log_user_in
[ -n "$uid" ] || abort "no console user; nothing else can be checked"

# A page's call finds no GUI, the daemon starts it for the console user, the GUI answers.
launch_on_call() {
    local begun=$SECONDS answer
    answer=$(page_call state 30)
    [ "$answer" = "$gui_state" ] || { echo "state answered '$answer' (not the GUI's)"; return 1; }
    wait_until 5 gui_pids || { echo "the answer came, but no gui-standin of $user runs"; return 1; }
    echo "state answered '$answer' after $((SECONDS - begun)) s; GUI pid $(gui_pids | paste -sd' ')"
}
check "page call launches the GUI" launch_on_call
gui=$(gui_pids | head -1)

gui_identity() {
    [ -n "$gui" ] || { echo "no GUI process"; return 1; }
    local status uid_line gid_line groups wanted primary
    status=$(inside cat "/proc/$gui/status")
    uid_line=$(awk '/^Uid:/ {print $2, $3, $4, $5}' <<<"$status")
    gid_line=$(awk '/^Gid:/ {print $2, $3, $4, $5}' <<<"$status")
    primary=$(inside id -g "$user")
    groups=$( (awk '/^Groups:/ {for (i = 2; i <= NF; i++) print $i}' <<<"$status"; echo "$primary") | sort -un | paste -sd' ')
    wanted=$(inside id -G "$user" | tr ' ' '\n' | sort -un | paste -sd' ')
    local seen="uids $uid_line, gids $gid_line, groups $groups"
    [ "$uid_line" = "$uid $uid $uid $uid" ] && [ "$gid_line" = "$primary $primary $primary $primary" ] &&
        [ "$groups" = "$wanted" ] || { echo "$seen; wanted uid $uid, gid $primary, groups $wanted"; return 1; }
    echo "$seen"
}
check "GUI runs with the user's ids and groups" gui_identity

gui_in_user_manager() {
    [ -n "$gui" ] || { echo "no GUI process"; return 1; }
    local cgroup; cgroup=$(inside cat "/proc/$gui/cgroup" | awk -F: '$1 == 0 {print $3}')
    [ -n "$cgroup" ] || cgroup=$(inside cat "/proc/$gui/cgroup" | awk -F: '$2 == "name=systemd" {print $3}')
    [[ "$cgroup" == */user@$uid.service/app.slice/* ]] || { echo "cgroup $cgroup"; return 1; }
    echo "${cgroup##*/user@$uid.service/}"
}
check "GUI runs in the user's service manager" gui_in_user_manager

# Sockets and pipes are compared by inode: any the daemon holds must not be open in a process
# of the user (the GUI, and any launcher still there), above all not the daemon's journal stream
# (its standard error) or its listening sockets.
no_daemon_descriptors() {
    local daemon; daemon=$(main_pid)
    [ "$daemon" -gt 0 ] 2>/dev/null || { echo "no daemon"; return 1; }
    local theirs ours leaked processes
    theirs=$(inside find "/proc/$daemon/fd" -mindepth 1 -printf '%l\n' | grep -E '^(socket|pipe):' | sort -u)
    [ -n "$theirs" ] || { echo "the daemon (pid $daemon) shows no sockets"; return 1; }
    processes=$(inside pgrep -u "$user" | paste -sd' ')
    ours=$(for pid in $processes; do
               inside find "/proc/$pid/fd" -mindepth 1 -printf "$pid %l\n" 2>/dev/null
           done | grep -E ' (socket|pipe):')
    leaked=$(grep -F -f <(sed 's/^/ /' <<<"$theirs") <<<"$ours" | sort -u)
    if [ -n "$leaked" ]; then
        local stream; stream=$(inside readlink "/proc/$daemon/fd/2")
        echo "the daemon's descriptors held by $user's processes (daemon's stderr is $stream):"
        while read -r pid target; do
            echo "  pid $pid ($(inside cat /proc/$pid/comm 2>/dev/null)) holds $target"
        done <<<"$leaked"
        return 1
    fi
    echo "$(wc -w <<<"$processes") processes of $user checked against $(wc -l <<<"$theirs") of the daemon's sockets and pipes"
}
check "GUI and launcher hold none of the daemon's descriptors" no_daemon_descriptors

journal_lines() {
    local lines; lines=$(inside journalctl -q -u "$unit" --no-pager -o cat)
    local missing=()
    for text in "LumentideHelper started" "Client connected"; do
        grep -qF "$text" <<<"$lines" || missing+=("$text")
    done
    ((${#missing[@]} == 0)) || { echo "missing: ${missing[*]}"; return 1; }
    echo "$(wc -l <<<"$lines") lines under the unit, the channel's start and the page's connection among them"
}
check "journal holds the daemon's lines" journal_lines

# The GUI belongs to the user: a stopped daemon leaves it running, and after the daemon's restart
# it reconnects (a page call finds it connected; no second GUI is started).
stop_and_restart() {
    [ -n "$gui" ] || { echo "no GUI process"; return 1; }
    inside systemctl stop "$unit" 2>/dev/null || return 1
    inside kill -0 "$gui" 2>/dev/null || { echo "stopping the service ended the GUI (pid $gui)"; return 1; }
    inside systemctl start "$unit" || return 1
    # The stand-in retries every 250 ms; a page call before it is back would start a second GUI.
    wait_until 5 gui_connected || { echo "GUI $gui did not reconnect within 5 s"; return 1; }
    local begun=$SECONDS answer
    answer=$(page_call state 30)
    local now; now=$(gui_pids | paste -sd' ')
    [ "$answer" = "$gui_state" ] && [ "$now" = "$gui" ] ||
        { echo "after the restart: state '$answer', GUI pids '$now' (was $gui)"; return 1; }
    echo "GUI $gui kept running and answered after the restart within $((SECONDS - begun)) s"
}
check "GUI outlives a stop and reconnects" stop_and_restart

crash_restart() {
    inside systemctl start "$unit" || return 1
    local before restarts; before=$(main_pid)
    restarts=$(inside systemctl show -p NRestarts --value "$unit")
    inside systemctl kill --kill-who=main -s SIGSEGV "$unit" || return 1
    restarted() {
        local now; now=$(main_pid)
        [ "$now" -gt 0 ] && [ "$now" != "$before" ] && [ "$(unit_state $unit)" = active ]
    }
    wait_until 15 restarted || { echo "not running again 15 s after the crash of $before"; return 1; }
    local after; after=$(inside systemctl show -p NRestarts --value "$unit")
    [ "$after" -gt "$restarts" ] || { echo "NRestarts $restarts -> $after"; return 1; }
    local answer; answer=$(page_call state 30)
    [ "$answer" = "$gui_state" ] || { echo "after the restart state answered '$answer'"; return 1; }
    local alias="alias 127.94.0.1 not on lo"
    inside ip -o address show dev lo | grep -q '127\.94\.0\.1/' && alias="alias 127.94.0.1 still on lo"
    echo "pid $before crashed, pid $(main_pid) serves (NRestarts $restarts -> $after), $alias"
}
check "crash restarts the service" crash_restart

exposure() {
    local line level
    line=$(inside systemd-analyze security --no-pager "$unit" | tail -1)
    level=$(grep -oE '[0-9]+\.[0-9]+' <<<"$line" | head -1)
    [ -n "$level" ] || { echo "no level in: $line"; return 1; }
    awk "BEGIN { exit !($level <= $max_exposure) }" || { echo "exposure $level above $max_exposure"; return 1; }
    echo "exposure $level (at most $max_exposure)"
}
check "exposure level of the installed unit" exposure

remove_package() {
    inside env DEBIAN_FRONTEND=noninteractive apt-get remove -y -q "$package" \
        >"$run/apt-remove.log" 2>&1 || { tail -5 "$run/apt-remove.log"; return 1; }
    local states="socket $(unit_state $socket_unit), service $(unit_state $unit)"
    local listening; listening=$(inside ss -Hltn 'sport = :986')
    local left=()
    [[ "$states" == *" active"* ]] && left+=("$states")
    [ -n "$listening" ] && left+=("listening on 986: $listening")
    inside test -e "$channel_socket" && left+=("$channel_socket exists")
    inside pgrep -f "^/usr/sbin/$package" >/dev/null && left+=("a daemon process runs")
    ((${#left[@]} == 0)) || { printf '%s\n' "${left[@]}"; return 1; }
    # Not a fault of removal: a daemon that crashed left the alias, and the one after it did not
    # add it, so it does not remove it either.
    local alias=gone
    inside ip -o address show dev lo | grep -q '127\.94\.0\.1/' && alias="left on lo"
    echo "$states, nothing on 986, no $channel_socket; alias 127.94.0.1 $alias"
}
check "apt-get remove stops everything" remove_package

if ((failed)); then
    echo "--- the service's journal (last lines)"
    inside journalctl -q -u "$unit" -u "$socket_unit" --no-pager -o short-precise | tail -40
fi
echo "$passed passed, $failed failed"
((failed == 0)) || echo "failed: ${failures[*]}"
echo "total time $((SECONDS - started)) s"
((failed == 0))
