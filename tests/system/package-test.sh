#!/usr/bin/env bash
# The Debian packages under a real systemd (the throwaway sandbox): the
# console's package (its unit under a user of its own, its conffile and data),
# the agent's beside it reporting to it (install, reports, stop times, upgrade,
# the updater restarting the agent, service orders on a real unit through the
# console, the services report against systemctl), lintian, remove and purge.
#
#   package-test.sh SOURCE_DIR BUILD_DIR
#
# EDR_SYSTEMD_SANDBOX names the sandbox tool (default ../shared/tools next to
# the checkout, else systemd-sandbox on PATH). EDR_SYSTEST_DEB installs that
# agent .deb, and the edr-console .deb beside it, instead of those built from
# BUILD_DIR. What the console holds is read through its admin API.
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
for p in edr-agent edr-console; do
  if dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q installed; then
    skip "$p is installed on this machine; the system tests would purge it"
  fi
done

# The sandbox has /tmp, /run and /var/tmp of its own, and the checkout may be
# under any of them: whatever it must see (the .deb, the policy-rc.d, the
# updater's marker) lives under /var/lib, which it shares. Logs are copied to
# the build tree at the end.
work=$(mktemp -d /var/lib/edr-systest.XXXXXX) || { echo "FAIL - cannot create a work directory under /var/lib"; exit 1; }
logs=$build/system-tests
rm -rf "$logs"
mkdir -p "$work/src" "$work/debs" "$logs"
sandbox=""
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
    for u in edr-agent edr-console; do
      echo "--- journal of $u.service (last 30 lines)"
      in_sandbox journalctl --no-pager -q -n 30 -u "$u.service" 2>&1
    done
    if [ -n "${admin_port:-}" ]; then
      echo "--- the console's hosts (admin API) and who listens on its ports"
      curl -sS --max-time 5 "http://127.0.0.1:$admin_port/api/hosts" 2>&1 | head -c 3000; echo
      ss -ltnpH | grep -E ":($http_port|$socket_port|$admin_port) "
    fi
    echo "--- sandbox journal (last 30 lines)"
    in_sandbox journalctl --no-pager -q -n 30 2>&1
  fi
  for f in install.log console-install.log package.log lintian.log sandbox.err; do
    [ -s "$work/$f" ] && { echo "--- $f (last 15 lines)"; tail -n 15 "$work/$f"; }
  done
}

cleanup() {
  local rc=$?
  trap - EXIT
  [ "$rc" -ne 0 ] && [ "$rc" -ne 77 ] && diagnostics
  if [ -n "$sandbox" ]; then
    in_sandbox dpkg --purge edr-agent edr-console >/dev/null 2>&1
    in_sandbox systemctl disable --now edr-systest.service >/dev/null 2>&1
    in_sandbox dpkg --purge edr-early-probe >/dev/null 2>&1
    "$sandbox_tool" stop "$sandbox" 2>/dev/null
  fi
  # The sandbox shares /etc with this machine: whatever a test order left there goes.
  rm -f /etc/systemd/system/edr-systest.service /etc/systemd/system/multi-user.target.wants/edr-systest.service
  for p in edr-agent edr-console edr-early-probe; do
    dpkg-query -W "$p" >/dev/null 2>&1 && dpkg --purge "$p" >/dev/null 2>&1
  done
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
  given_console=$(ls "$(dirname "$EDR_SYSTEST_DEB")"/edr-console_*.deb 2>/dev/null | head -n 1)
  cp "$given_console" "$work/debs/edr-console_given_amd64.deb" 2>/dev/null ||
    must "an edr-console .deb beside $EDR_SYSTEST_DEB" false
else
  tar -C "$src" --exclude=debian/build -cf - debian packaging | tar -C "$work/src" -xf -
  (cd "$work/src" && EDR_DEB_PREBUILT="$build" EDR_DEB_DESTDIR="$work/debs" \
      dpkg-buildpackage -us -uc -b -d --buildinfo-file="$work/debs/x.buildinfo" \
      --changes-file="$work/debs/x.changes" --buildinfo-option=-u"$work/debs" \
      --changes-option=-u"$work/debs") >"$work/package.log" 2>&1
  must "the package builds" test $? -eq 0
fi
deb=$(ls "$work"/debs/edr-agent_*.deb)
console_deb=$(ls "$work"/debs/edr-console_*.deb)

for d in "$deb" "$console_deb"; do
  if command -v lintian >/dev/null; then
    # Root runs it here; lintian says so on stderr, which is no finding.
    lintian --fail-on error,warning "$d" >>"$work/lintian.log" 2>/dev/null
    check "lintian finds no error or warning in $(basename "$d")" test $? -eq 0
  else
    echo "  lintian missing (scripts/install-deps.sh): $(basename "$d") not checked"
  fi
done

sandbox=$("$sandbox_tool" start 2>"$work/sandbox.err") || { sandbox=""; skip "systemd sandbox cannot start here ($(head -n 1 "$work/sandbox.err"))"; }

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
# An order through the admin API, pushed by the console: prints its id.
console_order() { api_send POST /api/hosts/1/orders "$1" | jq -e .id; }
# The state of order $1 and the status its result carries: "done 0".
order_state() { api "/api/orders/$1" | jq -r '"\(.state) \(.result.status)"'; }
order_is() { [ "$(order_state "$1")" = "$2" ]; }

# A container's policy-rc.d forbids starting services; a real machine has
# none, so inside the sandbox (its own mounts) it allows everything.
if [ -e /usr/sbin/policy-rc.d ]; then
  printf '#!/bin/sh\nexit 0\n' >"$work/policy-rc.d"; chmod +x "$work/policy-rc.d"
  must "permissive policy-rc.d in the sandbox" in_sandbox mount --bind "$work/policy-rc.d" /usr/sbin/policy-rc.d
fi

# --- the console's package, before the agent's (the sandbox shares the network)
conf=/etc/edr-console/edr-console.conf
console_data=/var/lib/edr-console
# The user the console's main process runs as (PIDs are the sandbox's own).
console_user() { in_sandbox sh -c 'p=$(systemctl show -p MainPID --value edr-console); [ "$p" -gt 0 ] && stat -c %U /proc/$p'; }
runs_as_its_user() { [ "$(console_user)" = edr-console ]; }
# It starts on the packaged ports, unless something else on this machine holds them.
ss -ltnH | awk '{print $4}' | grep -qE ':(7777|3098|7780)$' && defaults_taken=1 || defaults_taken=0
in_sandbox dpkg -i "$console_deb" >"$work/console-install.log" 2>&1
must "console package installs" grep -q 'install ok installed' <(dpkg-query -W -f='${Status}' edr-console 2>/dev/null)
must "console unit enabled on install" unit_is is-enabled edr-console enabled
if [ "$defaults_taken" = 1 ]; then
  echo "  a default port (7777, 3098, 7780) is taken here: the start on install is checked after the ports change"
else
  check "console unit active on install" wait_for 10 unit_is is-active edr-console active
  check "console runs as user edr-console" wait_for 10 runs_as_its_user
fi
check "console data directory belongs to edr-console, mode 750" \
  test "$(stat -c '%U:%G %a' "$console_data")" = "edr-console:edr-console 750"
check "console settings are a conffile" grep -q " $conf " <(dpkg-query -W -f='${Conffiles}\n' edr-console)

# A setting the console does not know stops it once, with the line in the
# journal, instead of restarting it over and over.
echo "admin-prot = 7781" >>"$conf"
in_sandbox systemctl restart edr-console
check "a bad setting leaves the console failed" wait_for 10 unit_is is-active edr-console failed
console_log_says() { in_sandbox journalctl -q -u edr-console | grep -q "$1"; }
check "the journal names the bad line" \
  wait_for 10 console_log_says 'edr-console.conf: line [0-9]*: unknown setting "admin-prot"'
sed -i '/^admin-prot = /d' "$conf"

# Ports of the run's own in the conffile, so nothing else on this machine
# collides; the restarted console must take them from there.
http_port=$(( 20000 + RANDOM % 20000 ))
socket_port=$(( http_port + 1 ))
admin_port=$(( http_port + 2 ))
listen_port=$(( http_port + 3 ))
sed -i -e "s/^http-port = .*/http-port = $http_port/" -e "s/^socket-port = .*/socket-port = $socket_port/" \
  -e "s/^admin-port = .*/admin-port = $admin_port/" "$conf"
in_sandbox systemctl restart edr-console
api() { curl -fsS --max-time 10 "http://127.0.0.1:$admin_port$1"; }
# POST or PUT of a JSON body to the admin API.
api_send() { curl -fsS --max-time 10 -X "$1" -H 'Content-Type: application/json' -d "$3" "http://127.0.0.1:$admin_port$2"; }
answers() { api /api/hosts >/dev/null; }
hosts() { api /api/hosts | jq length 2>/dev/null || echo 0; }
registered() { [ "$(hosts)" -ge 1 ]; }
# The latest report of category $1 of the (only) host.
has_report() { api /api/hosts | jq -e --arg c "$1" '.[0].latest[$c] != null' >/dev/null; }
online() { api /api/hosts | jq -e '.[0].online' >/dev/null; }
must "console answers on the admin port of its conffile" wait_for 10 answers
check "console runs as user edr-console" runs_as_its_user
# The unit lets the console write its data directory only: the schedule lands there.
api_send PUT /api/schedule '{"tasks": [{"name": "AgentInfo", "enabled": true, "runOnStart": true, "interval": 15, "retry": 15}]}' >/dev/null
check "console saves a schedule edit in its data directory" test $? -eq 0
check "the schedule file belongs to edr-console" test "$(stat -c %U "$console_data/schedule.db" 2>/dev/null)" = edr-console

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
must "console registers the agent" wait_for 120 registered
for category in agent services processes; do
  check "console holds the agent's $category report" wait_for 120 has_report "$category"
done
check "the agent's push connection is open" wait_for 60 online
summary_lists_host() { in_sandbox runuser -u edr-console -- edr-console --summary --data "$console_data" >"$work/summary.out"; }
check "--summary as edr-console, beside the running console, lists the host" summary_lists_host
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
while read -r verb query expect; do
  id=$(console_order "{\"kind\": \"service\", \"name\": \"edr-systest.service\", \"action\": \"$verb\"}")
  check "$verb order accepted by the console" test -n "$id"
  check "$verb order done with status 0" wait_for 30 order_is "$id" "done 0" || order_state "$id"
  check "$verb leaves the unit $expect" wait_for 10 unit_is "$query" edr-systest.service "$expect"
done <<'ORDERS'
start is-active active
stop is-active inactive
enable is-enabled enabled
mask is-enabled masked
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
# A category's latest report time moves with every report the console takes,
# equal bodies included.
report_time() { api /api/hosts/1 | jq -r --arg c "$1" '.latest[$c] // ""'; }
newer_report() { local t; t=$(report_time "$1"); [ -n "$t" ] && [ "$t" != "$2" ]; }
latest_body() { api /api/hosts/1 | jq -c --arg c "$1" '.reports[$c] | (.body // .)'; }
systest_state() {
  latest_body services | jq -r '.Services[] | select(.Name == "edr-systest.service") | "\(.State) \(.StartMode)"' 2>/dev/null
}
state_is() { [ "$(systest_state)" = "$1" ]; }
services_base=$(report_time services)
check "services start-up report after the restart" wait_for 60 newer_report services "$services_base"
sleep 7
while read -r verb expect; do
  before=$(report_time services)
  in_sandbox systemctl "$verb" edr-systest.service >/dev/null 2>&1
  if [ "$verb" = mask ]; then
    check "early services report after $verb" wait_for 10 newer_report services "$before"
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
before=$(report_time services)
in_sandbox systemctl start edr-systest.service >/dev/null 2>&1
check "early services report after systemd re-executed" wait_for 20 newer_report services "$before"
in_sandbox systemctl stop edr-systest.service >/dev/null 2>&1

# A small package installed by hand with dpkg, then purged: each in a
# software report within 30 s.
mkdir -p "$work/probe/DEBIAN"
printf 'Package: edr-early-probe\nVersion: 1.0\nArchitecture: all\nMaintainer: edr tests <root@localhost>\nDescription: early report probe\n' \
  >"$work/probe/DEBIAN/control"
dpkg-deb --build "$work/probe" "$work/edr-early-probe.deb" >/dev/null
software_names() { latest_body software | jq -r '.InstallSoft[]?.PackageName' 2>/dev/null; }
probe_listed() { software_names | grep -qx edr-early-probe; }
probe_gone() { local n; n=$(software_names) && [ -n "$n" ] && ! grep -qx edr-early-probe <<<"$n"; }
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
check "still one registration after restarts and the update" test "$(hosts)" = 1

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

# --- the console: remove stops it and keeps settings and data (a reinstall
# finds its hosts again), purge takes them and what the administrator added
console_gone() { ! in_sandbox pgrep -x edr-console >/dev/null; }
in_sandbox dpkg --remove edr-console >"$work/console-remove.log" 2>&1
check "remove stops the console" wait_for 10 console_gone
check "remove keeps the database" test -s "$console_data/console.db"
check "remove keeps the edited conffile" grep -q "^admin-port = $admin_port\$" "$conf"
in_sandbox dpkg -i "$console_deb" >"$work/console-reinstall.log" 2>&1
check "reinstalled console answers on the port of the kept conffile" wait_for 10 answers
check "reinstalled console still lists the host" test "$(hosts)" = 1
check "reinstalled console runs as user edr-console" wait_for 10 runs_as_its_user

files=$(dpkg-query -L edr-console | while read -r f; do [ -d "$f" ] || echo "$f"; done)
echo "0123456789abcdef0123" >/etc/edr-console/admin.token
touch "$console_data/console.db.backup"
in_sandbox dpkg --purge edr-console >"$work/console-purge.log" 2>&1
check "purge removes the console package" sh -c '! dpkg-query -W -f="\${Status}" edr-console 2>/dev/null | grep -q installed'
check "purge stops the console" wait_for 10 console_gone
left=$(ls -d $files "$console_data" /etc/edr-console 2>/dev/null | xargs)
check "console purge leaves no file (left: ${left:-none})" test -z "$left"
check "console purge leaves no unit" test -z "$(in_sandbox systemctl list-unit-files --no-legend edr-console.service)"
check "console purge leaves no enablement link" test ! -e /etc/systemd/system/multi-user.target.wants/edr-console.service

if [ "$failures" -gt 0 ]; then
  echo "$failures check(s) failed"
  exit 1
fi
echo "all system checks passed"
