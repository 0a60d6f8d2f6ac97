#!/usr/bin/env bash
# Runs the reference console and the agent on 127.0.0.1 under a scratch prefix,
# waits for the registration and the start-up reports, prints what arrived and
# stops both. Needs root (the agent refuses to run otherwise).
set -euo pipefail
build=${1:-build}
here=$(cd "$(dirname "$0")/.." && pwd)
agent="$here/$build/edr-agent"
console="$here/$build/edr-console"
limit=${DEMO_SECONDS:-120}

# Routes the start-up run reaches; each must arrive at least once.
expected=(machineInfo/registerAgent settings/getConfigFile machineInfo/addMachineInfo
          machineInfo/addStartupApps machineInfo/addServicess machineInfo/addProcesses
          machineInfo/addInstallSoft machineInfo/addNwMonitoring)

# Asks the console (loopback admin endpoint) to push a command to the agent.
push() {
  local body=$1
  exec 3<>"/dev/tcp/127.0.0.1/$http_port"
  printf 'POST /admin/push HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: %d\r\nConnection: close\r\n\r\n%s' \
    "${#body}" "$body" >&3
  cat <&3 >/dev/null
  exec 3<&-
}
count() { ls "$data/reports/"*"-${1//\//_}.json" 2>/dev/null | wc -l; }

if [ "$(id -u)" -ne 0 ]; then
  echo "demo: the agent runs as root only; run 'make demo' as root" >&2
  exit 1
fi
[ -x "$agent" ] && [ -x "$console" ] || { echo "demo: build first (make build)" >&2; exit 1; }

work=$(mktemp -d /tmp/edr-demo.XXXXXX)
prefix="$work/prefix"
data="$work/console"
mkdir -p "$prefix/etc/edr-agent" "$prefix/opt/edr-agent" "$data"
cat > "$work/schedule.db" <<'XML'
<AgentInfo><Enabled>1</Enabled><Run_on_Start>1</Run_on_Start><Interval>15</Interval><Retry_Interval>15</Retry_Interval></AgentInfo>
XML
console_pid=""; agent_pid=""
cleanup() {
  [ -n "$agent_pid" ] && kill -TERM "$agent_pid" 2>/dev/null && wait "$agent_pid" 2>/dev/null || true
  [ -n "$console_pid" ] && kill -TERM "$console_pid" 2>/dev/null && wait "$console_pid" 2>/dev/null || true
}
trap cleanup EXIT

"$console" --http-port 0 --socket-port 0 --data "$data" --schedule "$work/schedule.db" \
  --port-file "$work/ports.json" > "$work/console.out" 2>&1 &
console_pid=$!
for _ in $(seq 100); do [ -s "$work/ports.json" ] && break; sleep 0.1; done
[ -s "$work/ports.json" ] || { echo "demo: console did not start" >&2; cat "$work/console.out" >&2; exit 1; }
http_port=$(sed -n 's/.*"http": *\([0-9]*\).*/\1/p' "$work/ports.json")
socket_port=$(sed -n 's/.*"socket": *\([0-9]*\).*/\1/p' "$work/ports.json")
listen_port=$(( 20000 + RANDOM % 20000 ))
cat > "$prefix/etc/edr-agent/serverip.ini" <<INI
[server]
EDRIP=127.0.0.1

[Server]
EDRPORT=$http_port
EDRSAPIVER=v1
EDRSPORT=$socket_port
EDRSLPORT=$listen_port
INI
echo "demo: console on http $http_port, socket $socket_port; agent prefix $prefix"

"$agent" --prefix "$prefix" --log-level debug > "$work/agent.out" 2>&1 &
agent_pid=$!

deadline=$(( SECONDS + limit ))
missing=("${expected[@]}")
while [ ${#missing[@]} -gt 0 ] && [ $SECONDS -lt $deadline ]; do
  sleep 1
  still=()
  for route in "${missing[@]}"; do
    ls "$data/reports/"*"-${route//\//_}.json" >/dev/null 2>&1 || still+=("$route")
  done
  missing=("${still[@]+"${still[@]}"}")
  kill -0 "$agent_pid" 2>/dev/null || { echo "demo: the agent exited early" >&2; break; }
done

if [ ${#missing[@]} -eq 0 ]; then
  # The push channel: ask for the process list now and wait for it.
  before=$(count machineInfo/addProcesses)
  echo "demo: pushing RPT#\$#\$3#\$#0 (send the process list now) through the console"
  push 'RPT#$#$3#$#0'
  while [ "$(count machineInfo/addProcesses)" -le "$before" ] && [ $SECONDS -lt $deadline ]; do sleep 1; done
  [ "$(count machineInfo/addProcesses)" -gt "$before" ] || missing+=("pushed machineInfo/addProcesses")
fi

echo
echo "== What reached the console"
"$console" --summary --data "$data" || true
echo
if [ ${#missing[@]} -gt 0 ]; then
  echo "demo: FAILED, these never arrived: ${missing[*]}" >&2
  echo "== agent trace log (tail)" >&2
  tail -n 40 "$prefix/var/lib/edr-agent/EDR_Track.log" >&2 || true
  exit 1
fi
echo "demo: OK. Agent trace log: $prefix/var/lib/edr-agent/EDR_Track.log; console data: $data"
