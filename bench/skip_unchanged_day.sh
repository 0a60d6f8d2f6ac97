#!/usr/bin/env bash
# A simulated day of the default schedule (EDR_AGENT_TIME_SCALE shrinks the
# day to DAY_SCALE * 24 h) run twice side by side, with SkipUnchanged=off (as
# today) and on: requests and bytes the console received, per route.
# Early reports are off in both, so only the schedule is compared.
set -euo pipefail
build=${1:-build-bench}
agent="$build/edr-agent"; console="$build/edr-console"
scale=${DAY_SCALE:-0.005}
[ "$(id -u)" -eq 0 ] || { echo "skip_unchanged_day: needs root"; exit 0; }
work=$(mktemp -d)
trap 'kill $(jobs -p) 2>/dev/null; wait 2>/dev/null; rm -rf "$work"' EXIT
start_pair() { # name skip
  local d="$work/$1"
  mkdir -p "$d/p/etc/edr-agent" "$d/p/var/lib/edr-agent"
  "$console" --http-port 0 --socket-port 0 --data "$d/c" --port-file "$d/ports.json" >/dev/null 2>&1 &
  for _ in $(seq 100); do [ -s "$d/ports.json" ] && break; sleep 0.1; done
  local http sock
  http=$(sed -n 's/.*"http": *\([0-9]*\).*/\1/p' "$d/ports.json")
  sock=$(sed -n 's/.*"socket": *\([0-9]*\).*/\1/p' "$d/ports.json")
  printf '[server]\nEDRIP=127.0.0.1\n[Server]\nEDRPORT=%s\nEDRSPORT=%s\nEDRSLPORT=%s\n' "$http" "$sock" \
    $((30000 + RANDOM % 20000)) >"$d/p/etc/edr-agent/serverip.ini"
  printf '[Changes]\nEarlyReports=off\nSkipUnchanged=%s\n' "$2" >"$d/p/var/lib/edr-agent/agent.conf"
  chmod 600 "$d/p/var/lib/edr-agent/agent.conf"
  EDR_AGENT_TIME_SCALE=$scale "$agent" --prefix "$d/p" >/dev/null 2>&1 &
}
start_pair today off
start_pair skip on
day=$(awk -v s="$scale" 'BEGIN {printf "%d", 86400 * s + 0.5}')
echo "skip_unchanged_day: one simulated day is ${day} s"
sleep "$day"
summary() { # dir -> "route requests bytes" lines
  for f in "$1"/c/reports/*.json; do
    jq -r '"\(.route) \(.size)"' "$f"
  done | awk '{n[$1]++; b[$1] += $2} END {for (r in n) printf "%s %d %d\n", r, n[r], b[r]}' | sort
}
summary "$work/today" >"$work/today.txt"
summary "$work/skip" >"$work/skip.txt"
printf '%-34s %18s %18s\n' route "today req/bytes" "SkipUnchanged req/bytes"
join -a1 -a2 -e0 -o 0,1.2,1.3,2.2,2.3 "$work/today.txt" "$work/skip.txt" |
  awk '{printf "%-34s %7d %10d %7d %10d\n", $1, $2, $3, $4, $5; t2 += $2; t3 += $3; s2 += $4; s3 += $5}
       END {printf "%-34s %7d %10d %7d %10d\n", "all", t2, t3, s2, s3}'
