#!/usr/bin/env bash
# The whole daemon idle after its start-up reports, connected to the console's
# socket service: resident memory and CPU time over one idle minute.
# Targets: RSS <= 14 MiB, CPU <= 60 ms per idle minute.
set -euo pipefail
build=${1:-build-bench}
agent="$build/edr-agent"; console="$build/edr-console"
idle=${IDLE_SECONDS:-60}
[ "$(id -u)" -eq 0 ] || { echo "idle_daemon: needs root"; exit 0; }
work=$(mktemp -d)
trap 'kill $(jobs -p) 2>/dev/null; wait 2>/dev/null; rm -rf "$work"' EXIT
mkdir -p "$work/p/etc/edr-agent"
"$console" --http-port 0 --socket-port 0 --data "$work/c" --port-file "$work/ports.json" >/dev/null 2>&1 &
for _ in $(seq 100); do [ -s "$work/ports.json" ] && break; sleep 0.1; done
http=$(sed -n 's/.*"http": *\([0-9]*\).*/\1/p' "$work/ports.json")
sock=$(sed -n 's/.*"socket": *\([0-9]*\).*/\1/p' "$work/ports.json")
printf '[server]\nEDRIP=127.0.0.1\n[Server]\nEDRPORT=%s\nEDRSPORT=%s\nEDRSLPORT=%s\n' "$http" "$sock" $((30000 + RANDOM % 20000)) \
  > "$work/p/etc/edr-agent/serverip.ini"
"$agent" --prefix "$work/p" &
pid=$!
# Let the start-up run finish: wait until no report arrived for 10 s.
last=-1
for _ in $(seq 120); do
  n=$(ls "$work/c/reports" 2>/dev/null | wc -l)
  [ "$n" -eq "$last" ] && break
  last=$n; sleep 10
done
ticks=$(getconf CLK_TCK)
cpu() { awk '{print $14 + $15}' "/proc/$pid/stat"; }
before=$(cpu)
sleep "$idle"
after=$(cpu)
rss=$(awk '/VmRSS/ {print $2}' "/proc/$pid/status")
anon=$(awk '/RssAnon/ {print $2}' "/proc/$pid/status")
pss=$(awk '/^Pss:/ {print $2}' "/proc/$pid/smaps_rollup")
cpu_ms=$(( (after - before) * 1000 / ticks ))
echo "idle_daemon: reports at start $last, RSS ${rss} kB (anonymous ${anon} kB, PSS ${pss} kB), CPU ${cpu_ms} ms over ${idle} s idle"
