#!/usr/bin/env bash
# The daemon idle with every change watcher on (after its start-up reports):
# CPU time of all its threads from /proc/<pid>/task/*/schedstat per minute,
# and resident memory. Target: <= 10 ms CPU per idle minute over 10 minutes.
# EARLY=off runs the same with EarlyReports=off (the watchers still run; only
# the reports are held back), for comparison; AGENT=path runs another build
# of the agent (an earlier one, for the memory it took before).
set -euo pipefail
build=${1:-build-bench}
agent=${AGENT:-$build/edr-agent}; console="$build/edr-console"
idle=${IDLE_SECONDS:-600}
early=${EARLY:-on}
[ "$(id -u)" -eq 0 ] || { echo "watchers_idle: needs root"; exit 0; }
work=$(mktemp -d)
trap 'kill $(jobs -p) 2>/dev/null; wait 2>/dev/null; rm -rf "$work"' EXIT
mkdir -p "$work/p/etc/edr-agent" "$work/p/var/lib/edr-agent"
"$console" --http-port 0 --socket-port 0 --data "$work/c" --port-file "$work/ports.json" >/dev/null 2>&1 &
for _ in $(seq 100); do [ -s "$work/ports.json" ] && break; sleep 0.1; done
http=$(sed -n 's/.*"http": *\([0-9]*\).*/\1/p' "$work/ports.json")
sock=$(sed -n 's/.*"socket": *\([0-9]*\).*/\1/p' "$work/ports.json")
printf '[server]\nEDRIP=127.0.0.1\n[Server]\nEDRPORT=%s\nEDRSPORT=%s\nEDRSLPORT=%s\n' "$http" "$sock" $((30000 + RANDOM % 20000)) \
  > "$work/p/etc/edr-agent/serverip.ini"
printf '[Changes]\nEarlyReports=%s\n' "$early" > "$work/p/var/lib/edr-agent/agent.conf"
chmod 600 "$work/p/var/lib/edr-agent/agent.conf"
"$agent" --prefix "$work/p" &
pid=$!
# Let the start-up run finish: wait until no report arrived for 10 s.
last=-1
for _ in $(seq 120); do
  n=$(ls "$work/c/reports" 2>/dev/null | wc -l)
  [ "$n" -eq "$last" ] && break
  last=$n; sleep 10
done
oncpu() { cat /proc/"$pid"/task/*/schedstat | awk '{s += $1} END {printf "%d", s}'; }
before=$(oncpu)
reports_before=$(ls "$work/c/reports" | wc -l)
sleep "$idle"
after=$(oncpu)
reports_after=$(ls "$work/c/reports" | wc -l)
rss=$(awk '/VmRSS/ {print $2}' "/proc/$pid/status")
anon=$(awk '/RssAnon/ {print $2}' "/proc/$pid/status")
per_min=$(awk -v d=$((after - before)) -v s="$idle" 'BEGIN {printf "%.2f", d / 1e6 / (s / 60)}')
echo "watchers_idle: EarlyReports=$early, ${idle} s idle: CPU ${per_min} ms per minute" \
     "($(( (after - before) / 1000000 )) ms in all), RSS ${rss} kB (anonymous ${anon} kB)," \
     "$((reports_after - reports_before)) requests meanwhile"
