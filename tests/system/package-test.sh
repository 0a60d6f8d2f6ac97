#!/usr/bin/env bash
# The Debian package under a real systemd (the throwaway sandbox): install,
# reports, stop times, upgrade, the updater restarting the agent, service
# orders on a real unit, the services report against systemctl, and purge.
#
#   package-test.sh SOURCE_DIR BUILD_DIR
#
# EDR_SYSTEMD_SANDBOX names the sandbox tool (default ../shared/tools next to
# the checkout, else systemd-sandbox on PATH). EDR_SYSTEST_DEB installs that
# .deb instead of one built from BUILD_DIR.
#
# Exit 77 (skipped) where the sandbox cannot run. Installing changes this
# machine's package database, so everything installed is purged on every way
# out. A check that leaves nothing to test (no package, no install, no unit)
# ends the run at once; any failure prints the agent's and the sandbox's logs.
set -uo pipefail
src=$(cd "$1" && pwd)
build=$(cd "$2" && pwd)
sandbox_tool=${EDR_SYSTEMD_SANDBOX:-$src/../shared/tools/systemd-sandbox}
[ -x "$sandbox_tool" ] || sandbox_tool=$(command -v systemd-sandbox || echo "$sandbox_tool")
skip() { echo "SKIP: $*"; exit 77; }

[ "$(id -u)" -eq 0 ] || skip "system tests need root"
[ -x "$sandbox_tool" ] || skip "no systemd sandbox at $sandbox_tool"
command -v dpkg-buildpackage >/dev/null || skip "dpkg-buildpackage missing (scripts/install-deps.sh)"
# The package lands in this machine's /etc, /var/lib and package database, so
# two checkouts testing at once would purge each other's install: take turns.
exec 9>/run/lock/edr-agent-system-tests.lock
flock -w 1800 9 || skip "another system test run held the lock for 30 minutes"
if dpkg-query -W -f='${Status}' edr-agent 2>/dev/null | grep -q installed; then
  skip "edr-agent is installed on this machine; the system tests would purge it"
fi

# The sandbox has /tmp, /run and /var/tmp of its own, and the checkout may be
# under any of them: whatever it must see (the .deb, the policy-rc.d, the
# updater's marker) lives under /var/lib, which it shares. Logs are copied to
# the build tree at the end.
work=$(mktemp -d /var/lib/edr-systest.XXXXXX) || { echo "FAIL - cannot create a work directory under /var/lib"; exit 1; }
logs=$build/system-tests
rm -rf "$logs"
mkdir -p "$work/src" "$work/debs" "$work/console" "$logs"
console_pid=""; sandbox=""
failures=0
check() { local what=$1; shift; if "$@"; then echo "ok - $what"; else echo "FAIL - $what"; failures=$((failures + 1)); return 1; fi; }
# A failed check that leaves nothing meaningful to test after it.
must() { check "$@" || { echo "Stopping: nothing after \"$1\" can pass."; exit 1; }; }
in_sandbox() { "$sandbox_tool" run "$sandbox" "$@"; }

# Polls CMD every 0.2 s for up to SECONDS seconds.
wait_for() {
  local limit=$1; shift
  local end=$((SECONDS + limit))
  until "$@"; do [ $SECONDS -ge $end ] && return 1; sleep 0.2; done
}

diagnostics() {
  echo "--- agent trace log (last 30 lines)"
  tail -n 30 /var/lib/edr-agent/EDR_Track.log 2>/dev/null || echo "(none)"
  if [ -n "$sandbox" ]; then
    echo "--- journal of edr-agent.service (last 30 lines)"
    in_sandbox journalctl --no-pager -q -n 30 -u edr-agent.service 2>&1
    echo "--- sandbox journal (last 30 lines)"
    in_sandbox journalctl --no-pager -q -n 30 2>&1
  fi
  for f in install.log package.log sandbox.err; do
    [ -s "$work/$f" ] && { echo "--- $f (last 15 lines)"; tail -n 15 "$work/$f"; }
  done
}

cleanup() {
  local rc=$?
  trap - EXIT
  [ "$rc" -ne 0 ] && [ "$rc" -ne 77 ] && diagnostics
  if [ -n "$sandbox" ]; then
    in_sandbox dpkg --purge edr-agent >/dev/null 2>&1
    in_sandbox systemctl disable --now edr-systest.service >/dev/null 2>&1
    in_sandbox dpkg --purge edr-early-probe >/dev/null 2>&1
    "$sandbox_tool" stop "$sandbox" 2>/dev/null
  fi
  # The sandbox shares /etc with this machine: whatever a test order left there goes.
  rm -f /etc/systemd/system/edr-systest.service /etc/systemd/system/multi-user.target.wants/edr-systest.service
  dpkg-query -W edr-agent >/dev/null 2>&1 && dpkg --purge edr-agent >/dev/null 2>&1
  dpkg-query -W edr-early-probe >/dev/null 2>&1 && dpkg --purge edr-early-probe >/dev/null 2>&1
  [ -n "$console_pid" ] && kill "$console_pid" 2>/dev/null && wait "$console_pid" 2>/dev/null
  cp "$work"/*.log "$work"/*.out "$logs"/ 2>/dev/null
  rm -rf "$work"
  exit "$rc"
}
trap cleanup EXIT
trap 'exit 1' INT TERM

# --- the package, from the build tree ctest runs in (no second compile;
# debian/build is a `make package` tree, not needed here)
if [ -n "${EDR_SYSTEST_DEB:-}" ]; then
  cp "$EDR_SYSTEST_DEB" "$work/debs/edr-agent_given_amd64.deb" || must "the given package $EDR_SYSTEST_DEB is readable" false
else
  tar -C "$src" --exclude=debian/build -cf - debian packaging | tar -C "$work/src" -xf -
  (cd "$work/src" && EDR_DEB_PREBUILT="$build" EDR_DEB_DESTDIR="$work/debs" \
      dpkg-buildpackage -us -uc -b -d --buildinfo-file="$work/debs/x.buildinfo" \
      --changes-file="$work/debs/x.changes" --buildinfo-option=-u"$work/debs" \
      --changes-option=-u"$work/debs") >"$work/package.log" 2>&1
  must "the package builds" test $? -eq 0
fi
deb=$(ls "$work"/debs/edr-agent_*.deb)

sandbox=$("$sandbox_tool" start 2>"$work/sandbox.err") || { sandbox=""; skip "systemd sandbox cannot start here ($(head -n 1 "$work/sandbox.err"))"; }

# --- the console on loopback (the sandbox shares the network)
printf '<AgentInfo><Enabled>1</Enabled><Run_on_Start>1</Run_on_Start><Interval>15</Interval><Retry_Interval>15</Retry_Interval></AgentInfo>\n' >"$work/schedule.db"
"$build/edr-console" --http-port 0 --socket-port 0 --data "$work/console" --schedule "$work/schedule.db" \
  --port-file "$work/ports.json" >"$work/console.out" 2>&1 &
console_pid=$!
must "console starts" wait_for 10 test -s "$work/ports.json"
http_port=$(jq -r .http "$work/ports.json")
socket_port=$(jq -r .socket "$work/ports.json")
listen_port=$(( 20000 + RANDOM % 20000 ))

count() { ls "$work/console/reports/"*"-${1//\//_}.json" 2>/dev/null | wc -l; }
at_least() { [ "$(count "$1")" -ge "$2" ]; }
# A log left behind by an interrupted earlier run (or kept by `apt remove`)
# must not count.
said_no_address() { log | tail -n +$((log_base + 1)) | grep -q "No server address"; }
log() { cat /var/lib/edr-agent/EDR_Track.log 2>/dev/null; }
unit_is() { [ "$(in_sandbox systemctl "$1" "$2" 2>/dev/null)" = "$3" ]; }
main_pid() { in_sandbox systemctl show -p MainPID --value edr-agent; }
pid_changed() { [ "$(main_pid)" != "$1" ]; }
in_request() { ss -tnH state established "dst 127.0.0.1:$http_port" | grep -q .; }
# Milliseconds that `systemctl stop edr-agent` takes.
stop_ms() {
  local t0; t0=$(date +%s%N)
  in_sandbox systemctl stop edr-agent
  echo $(( ($(date +%s%N) - t0) / 1000000 ))
}
listening() { (exec 3<>"/dev/tcp/127.0.0.1/$listen_port") 2>/dev/null; }
# Sends one command to the agent's local listener and expects "OK".
order() {
  local reply=""
  exec 3<>"/dev/tcp/127.0.0.1/$listen_port" || return 1
  printf '%s' "$1" >&3
  read -r -t 10 -N 2 reply <&3
  exec 3<&-
  [ "$reply" = OK ]
}
# The posted action result for request id $1: "status message".
action_result() {
  local f
  for f in "$work/console/reports/"*-settings_InvSettingsOutput.json; do
    jq -r --arg id "$1" 'select(.body._id == $id) | "\(.body.status) \(.body.message)"' "$f" 2>/dev/null
  done | grep .
}
result_is() { [ "$(action_result "$1" | cut -d' ' -f1)" = "$2" ]; }

# A container's policy-rc.d forbids starting services; a real machine has
# none, so inside the sandbox (its own mounts) it allows everything.
if [ -e /usr/sbin/policy-rc.d ]; then
  printf '#!/bin/sh\nexit 0\n' >"$work/policy-rc.d"; chmod +x "$work/policy-rc.d"
  must "permissive policy-rc.d in the sandbox" in_sandbox mount --bind "$work/policy-rc.d" /usr/sbin/policy-rc.d
fi

# --- install: enabled and started, waiting for an address
log_base=$(log | wc -l)
in_sandbox dpkg -i "$deb" >"$work/install.log" 2>&1
must "package installs" grep -q 'install ok installed' <(dpkg-query -W -f='${Status}' edr-agent 2>/dev/null)
must "unit enabled on install" unit_is is-enabled edr-agent enabled
must "unit active on install" wait_for 10 unit_is is-active edr-agent active
check "data directory is 0700" test "$(stat -c %a /var/lib/edr-agent)" = 700
check "agent says it has no server address" wait_for 10 said_no_address
t=$(stop_ms); check "stop while waiting for an address takes $t ms (<= 3000)" test "$t" -le 3000

# --- point it at the console: registration and start-up reports
cat >/etc/edr-agent/serverip.ini <<INI
[server]
EDRIP=127.0.0.1
ACIP=NA

[Server]
EDRPORT=$http_port
EDRSAPIVER=v1
EDRSPORT=$socket_port
EDRSLPORT=$listen_port
INI
in_sandbox systemctl start edr-agent
must "console receives machineInfo/registerAgent" wait_for 120 at_least machineInfo/registerAgent 1
for route in machineInfo/addMachineInfo machineInfo/addServicess machineInfo/addProcesses; do
  check "console receives $route" wait_for 120 at_least "$route" 1
done
t=$(stop_ms); check "stop while running takes $t ms (<= 3000)" test "$t" -le 3000
in_sandbox systemctl start edr-agent

# Upgrade (the same version again): the unit restarts, the edited serverip.ini
# (a conffile) stays.
before=$(main_pid)
in_sandbox dpkg -i "$deb" >"$work/upgrade.log" 2>&1
check "upgrade restarts the agent" wait_for 10 pid_changed "$before"
check "upgrade keeps the edited serverip.ini" grep -q "EDRPORT=$http_port" /etc/edr-agent/serverip.ini

# A server that accepts and never answers holds the agent in a request.
admin() { exec 3<>"/dev/tcp/127.0.0.1/$http_port" && printf 'POST %s HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: 0\r\nConnection: close\r\n\r\n' "$1" >&3 && cat <&3 >/dev/null; exec 3<&-; }
admin '/admin/fault?mode=silent'
in_sandbox systemctl restart edr-agent
wait_for 30 in_request
t=$(stop_ms); check "stop while a request hangs takes $t ms (<= 3000)" test "$t" -le 3000
admin '/admin/fault?mode=none'
in_sandbox systemctl start edr-agent

# --- the updater restarts the agent's unit and finishes its own work
marker=$work/updater.marker
cat >/opt/edr-agent/edragentupd.sh <<SH
systemctl restart edr-agent
echo finished > "$marker"
SH
wait_for 30 listening
before=$(main_pid)
# The updater may restart the agent before the listener's "OK" is out.
order 'UPD#$#AGENT' || true
check "updater finishes after restarting the agent" wait_for 60 test -s "$marker"
check "agent active again after the update" wait_for 10 unit_is is-active edr-agent active
check "agent was restarted by the updater" test "$(main_pid)" != "$before"

# --- service orders on a real unit
in_sandbox sh -c 'cat >/run/systemd/system/edr-systest.service' <<'UNIT'
[Unit]
Description=edr-agent system test unit

[Service]
ExecStart=/bin/sleep infinity

[Install]
WantedBy=multi-user.target
UNIT
in_sandbox systemctl daemon-reload
wait_for 30 listening
# code, verb, what systemctl says afterwards
n=0
while read -r code verb query expect; do
  n=$((n + 1))
  id="systest-$n-$verb"
  check "$verb order accepted" order "ACT#\$#2#\$#$code|edr-systest.service|$id"
  check "$verb posts status 0" wait_for 30 result_is "$id" 0 || action_result "$id"
  check "$verb leaves the unit $expect" wait_for 10 unit_is "$query" edr-systest.service "$expect"
done <<'ORDERS'
1 start is-active active
2 stop is-active inactive
5 enable is-enabled enabled
4 mask is-enabled masked
ORDERS
# --- early services reports: units changed behind the agent's back reach the
# console within 10 s. A tenth of the time scale makes the one-per-minute
# limit 6 s; each step waits that long after the report before it.
in_sandbox mkdir -p /run/systemd/system/edr-agent.service.d
in_sandbox sh -c 'printf "[Service]\nEnvironment=EDR_AGENT_TIME_SCALE=0.1\n" >/run/systemd/system/edr-agent.service.d/scale.conf'
in_sandbox systemctl unmask edr-systest.service >/dev/null 2>&1
in_sandbox systemctl disable edr-systest.service >/dev/null 2>&1
in_sandbox systemctl daemon-reload
in_sandbox systemctl restart edr-agent
newest_services() { ls "$work/console/reports/"*-machineInfo_addServicess.json 2>/dev/null | tail -1; }
systest_state() {
  local f; f=$(newest_services); [ -n "$f" ] || return 1
  jq -r '(.body // .) | .Services[] | select(.Name == "edr-systest.service") | "\(.State) \(.StartMode)"' "$f" 2>/dev/null
}
state_is() { [ "$(systest_state)" = "$1" ]; }
services_base=$(count machineInfo/addServicess)
check "services start-up report after the restart" wait_for 60 at_least machineInfo/addServicess $((services_base + 1))
sleep 7
while read -r verb expect; do
  before=$(count machineInfo/addServicess)
  in_sandbox systemctl "$verb" edr-systest.service >/dev/null 2>&1
  if [ "$verb" = mask ]; then
    check "early services report after $verb" wait_for 10 at_least machineInfo/addServicess $((before + 1))
  else
    check "early services report after $verb shows \"$expect\"" wait_for 10 state_is "$expect" || systest_state
  fi
  sleep 7
done <<'STEPS'
start Running Manual
enable Running Auto
stop Stopped Auto
disable Stopped Manual
mask -
STEPS
check "early services reports logged" grep -q 'Early report: Services (' /var/lib/edr-agent/EDR_Track.log

# systemd re-executing drops its private connections: found again, and a
# change after it still goes out early.
in_sandbox systemctl daemon-reexec
sleep 3
before=$(count machineInfo/addServicess)
in_sandbox systemctl start edr-systest.service >/dev/null 2>&1
check "early services report after systemd re-executed" wait_for 20 at_least machineInfo/addServicess $((before + 1))
in_sandbox systemctl stop edr-systest.service >/dev/null 2>&1

# A small package installed by hand with dpkg, then purged: each in a
# software report within 30 s.
mkdir -p "$work/probe/DEBIAN"
printf 'Package: edr-early-probe\nVersion: 1.0\nArchitecture: all\nMaintainer: edr tests <root@localhost>\nDescription: early report probe\n' \
  >"$work/probe/DEBIAN/control"
dpkg-deb --build "$work/probe" "$work/edr-early-probe.deb" >/dev/null
newest_software() { ls "$work/console/reports/"*-machineInfo_addInstallSoft.json 2>/dev/null | tail -1; }
probe_listed() { local f; f=$(newest_software); [ -n "$f" ] && grep -q '"edr-early-probe"' "$f"; }
probe_gone() { local f; f=$(newest_software); [ -n "$f" ] && ! grep -q '"edr-early-probe"' "$f"; }
sleep 7
in_sandbox dpkg -i "$work/edr-early-probe.deb" >/dev/null 2>&1
check "package installed by hand in a software report within 30 s" wait_for 30 probe_listed
sleep 7
in_sandbox dpkg --purge edr-early-probe >/dev/null 2>&1
check "package purged by hand gone from a software report within 30 s" wait_for 30 probe_gone
in_sandbox rm -rf /run/systemd/system/edr-agent.service.d
in_sandbox systemctl unmask edr-systest.service >/dev/null 2>&1
in_sandbox systemctl daemon-reload
in_sandbox systemctl restart edr-agent

# Orders are taken only once registered, so by now every restart has been through it.
check "still one registration after restarts and the update" test "$(count machineInfo/registerAgent)" = 1

# --- the services report equals one systemctl show per unit
in_sandbox /usr/sbin/edr-agent report services >"$work/services.json" 2>/dev/null
units=$(jq -r '.Services[].Name' "$work/services.json")
check "services report lists units" test -n "$units"
mismatched=0
while IFS= read -r u; do
  got=$(jq -c --arg u "$u" '.Services[] | select(.Name == $u) | [.Description, .ServiceType, .PathName, .State, .StartMode]' "$work/services.json")
  # A unit systemctl cannot show (a template) has no properties in the report.
  if show=$(in_sandbox systemctl show "$u" -p Description -p Type -p ExecStart -p ActiveState -p UnitFileState 2>/dev/null); then
    want=$(printf '%s\n' "$show" | jq -R -s -c 'split("\n") | map(select(length > 0) | capture("^(?<key>[^=]+)=(?<value>.*)$")) | from_entries |
      [.Description // "", .Type // "", .ExecStart // "", (if .ActiveState == "active" then "Running" else "Stopped" end),
       (if .UnitFileState == "enabled" then "Auto" else "Manual" end)]')
  else
    want='["","","","",""]'
  fi
  [ "$got" = "$want" ] || { mismatched=$((mismatched + 1)); echo "  $u: report $got, systemctl $want"; }
done <<<"$units"
check "services report equals systemctl show for each of $(echo "$units" | wc -w) units" test "$mismatched" = 0

# --- purge leaves nothing
files=$(dpkg-query -L edr-agent | while read -r f; do [ -d "$f" ] || echo "$f"; done)
in_sandbox dpkg --purge edr-agent >"$work/purge.log" 2>&1
check "purge removes the package" sh -c '! dpkg-query -W -f="\${Status}" edr-agent 2>/dev/null | grep -q installed'
left=$(ls -d $files /usr/sbin/edr-agent /var/lib/edr-agent /opt/edr-agent /etc/edr-agent 2>/dev/null | xargs)
check "purge leaves no file (left: ${left:-none})" test -z "$left"
check "purge leaves no unit" test -z "$(in_sandbox systemctl list-unit-files --no-legend edr-agent.service)"
check "purge leaves no enablement link" test ! -e /etc/systemd/system/multi-user.target.wants/edr-agent.service

if [ "$failures" -gt 0 ]; then
  echo "$failures check(s) failed"
  exit 1
fi
echo "all system checks passed"
