#!/usr/bin/env bash
# The console under the load of N simulated agents (default 1000) posting one
# simulated day of the default schedule's mix, with bodies captured from this
# machine by the agent's own report command. Prints throughput, latency,
# raw bytes posted against the database's growth, and search time.
set -euo pipefail
build=${1:-build-bench}
agents=${CONSOLE_AGENTS:-1000}
threads=${CONSOLE_THREADS:-4}
console="$build/edr-console"; agent="$build/edr-agent"; load="$build/bench/console_load"
if [ ! -x "$load" ] || [ ! -x "$console" ] || [ ! -x "$agent" ]; then
  echo "console_load: build edr-console, edr-agent and bench/console_load first; skipped"
  exit 0
fi
work=$(mktemp -d)
pid=""
trap '[ -n "$pid" ] && kill "$pid" 2>/dev/null; wait 2>/dev/null; rm -rf "$work"' EXIT
for r in agent-info hardware software processes services startup network; do
  "$agent" report "$r" > "$work/$r.json" 2>/dev/null || { echo "console_load: '$agent report $r' failed; skipped"; exit 0; }
done
"$console" --data "$work/data" --http-port 0 --socket-port 0 --admin-port 0 --port-file "$work/ports.json" \
  > "$work/console.out" 2>&1 &
pid=$!
for _ in $(seq 100); do [ -s "$work/ports.json" ] && break; sleep 0.1; done
port() { python3 -c "import json,sys; print(json.load(open(sys.argv[1]))[sys.argv[2]])" "$work/ports.json" "$1"; }
out=$("$load" --http-port "$(port http)" --admin-port "$(port admin)" --bodies "$work" --agents "$agents" \
  --threads "$threads")
echo "$out"
kill "$pid"; wait "$pid" 2>/dev/null || true; pid=""
raw=$(echo "$out" | sed -n 's/.*raw bytes posted \([0-9]*\).*/\1/p')
db=$(du -cb "$work/data"/console.db* | tail -1 | cut -f1)
python3 -c "import sys; r,d=int(sys.argv[1]),int(sys.argv[2]); print('database %d bytes for %d raw bytes posted: %.1f %%' % (d, r, 100.0*d/r))" "$raw" "$db"
