#!/usr/bin/env bash
# An early network report costs one run of the network collector. With
# 10,000 established TCP sockets open on the host (5,000 loopback
# connections, both ends), CPU (user + system) of "edr-agent report network"
# against running lsof -i -nP and ss oneself.
set -euo pipefail
build=${1:-build-bench}
agent="$build/edr-agent"
pairs=${PAIRS:-5000}
. "$(dirname "$0")/lib.sh"
require_report network_report_loaded "$agent" network
work=$(mktemp -d)
trap 'kill $(jobs -p) 2>/dev/null; wait 2>/dev/null; rm -rf "$work"' EXIT
python3 - "$pairs" "$work/ready" <<'PY' &
import os, resource, signal, socket, sys
pairs = int(sys.argv[1])
soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
resource.setrlimit(resource.RLIMIT_NOFILE, (min(hard, 2 * pairs + 256), hard))
l = socket.socket(); l.bind(("127.0.0.1", 0)); l.listen(4096)
keep = []
for _ in range(pairs):
    c = socket.create_connection(l.getsockname()); s, _ = l.accept(); keep += [c, s]
open(sys.argv[2], "w").write(str(len(keep)))
signal.pause()
PY
for _ in $(seq 600); do [ -s "$work/ready" ] && break; sleep 0.1; done
echo "network_report_loaded: $(cat "$work/ready") established sockets held open"
json="$work/h.json"
hyperfine --export-json "$json" --warmup 2 --runs ${RUNS:-10} \
  'lsof -i -nP >/dev/null; ss -tulnpH >/dev/null' \
  "$agent report network >/dev/null" >/dev/null
python3 - "$json" <<'PY'
import json, sys
results = json.load(open(sys.argv[1]))["results"]
base = results[0]["user"] + results[0]["system"]
for r in results:
    cpu = r["user"] + r["system"]
    print("cpu %8.1f ms  median wall %8.1f ms  cpu ratio %.3f  %s" % (cpu * 1000, r["median"] * 1000, cpu / base, r["command"]))
PY
