#!/usr/bin/env bash
# Runs the console and the agent on 127.0.0.1 under a scratch prefix, waits for
# the registration and the start-up reports, orders a report through the admin
# API, prints what the console holds and stops both. Needs root (the agent
# refuses to run otherwise).
set -euo pipefail
build=${1:-build}
here=$(cd "$(dirname "$0")/.." && pwd)
agent="$here/$build/edr-agent"
console="$here/$build/edr-console"
limit=${DEMO_SECONDS:-120}

# Report categories the start-up run sends; each must arrive at least once.
expected=(agent hardware software processes services network startup)

# One admin API request (loopback): prints the response body.
api() {
  local method=$1 path=$2 body=${3:-}
  exec 3<>"/dev/tcp/127.0.0.1/$admin_port"
  printf '%s %s HTTP/1.1\r\nHost: 127.0.0.1:%s\r\nContent-Type: application/json\r\nContent-Length: %d\r\nConnection: close\r\n\r\n%s' \
    "$method" "$path" "$admin_port" "${#body}" "$body" >&3
  sed '1,/^\r$/d' <&3
  exec 3<&-
}

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

"$console" --http-port 0 --socket-port 0 --admin-port 0 --data "$data" --schedule "$work/schedule.db" \
  --port-file "$work/ports.json" > "$work/console.out" 2>&1 &
console_pid=$!
for _ in $(seq 100); do [ -s "$work/ports.json" ] && break; sleep 0.1; done
[ -s "$work/ports.json" ] || { echo "demo: console did not start" >&2; cat "$work/console.out" >&2; exit 1; }
http_port=$(sed -n 's/.*"http": *\([0-9]*\).*/\1/p' "$work/ports.json")
socket_port=$(sed -n 's/.*"socket": *\([0-9]*\).*/\1/p' "$work/ports.json")
admin_port=$(sed -n 's/.*"admin": *\([0-9]*\).*/\1/p' "$work/ports.json")
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
echo "demo: console on http $http_port, socket $socket_port, admin API $admin_port; agent prefix $prefix"

"$agent" --prefix "$prefix" --log-level debug > "$work/agent.out" 2>&1 &
agent_pid=$!

deadline=$(( SECONDS + limit ))
missing=("${expected[@]}")
while [ ${#missing[@]} -gt 0 ] && [ $SECONDS -lt $deadline ]; do
  sleep 1
  hosts=$(api GET /api/hosts)
  still=()
  for category in "${missing[@]}"; do
    grep -q "\"$category\": \"" <<<"$hosts" || still+=("$category")
  done
  missing=("${still[@]+"${still[@]}"}")
  kill -0 "$agent_pid" 2>/dev/null || { echo "demo: the agent exited early" >&2; break; }
done

if [ ${#missing[@]} -eq 0 ]; then
  # An order through the admin API: the process list now, sent over the push channel.
  echo "demo: ordering a process list: POST /api/hosts/1/orders {\"kind\": \"report\", \"category\": \"processes\"}"
  api POST /api/hosts/1/orders '{"kind": "report", "category": "processes"}'
  until api GET /api/orders/1 | grep -q '"state": "done"' || [ $SECONDS -ge $deadline ]; do sleep 1; done
  api GET /api/orders/1 | grep -q '"state": "done"' || missing+=("the ordered process list")
  echo "demo: hosts with a listening port $socket_port (the console's own socket service):"
  api GET "/api/search?port=$socket_port&format=csv"
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
