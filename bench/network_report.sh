#!/usr/bin/env bash
# "edr-agent report network" against running lsof and ss themselves, one after
# the other. Target: agent time / tools time <= 1.1.
set -euo pipefail
build=${1:-build-bench}
agent="$build/edr-agent"

# Medians of the runs and the ratio to the first command.
report_medians() {
  command -v python3 >/dev/null || return 0
  python3 - "$1" <<'PY'
import json, sys
results = json.load(open(sys.argv[1]))["results"]
base = results[0]["median"]
for r in results:
    print("median %8.1f ms  ratio %.2f  %s" % (r["median"] * 1000, r["median"] / base, r["command"]))
PY
}
if ! command -v hyperfine >/dev/null; then
  echo "network_report: hyperfine is not installed (see scripts/install-deps.sh); skipped"
  exit 0
fi
if [ ! -x "$agent" ] || ! "$agent" report network >/dev/null 2>&1; then
  echo "network_report: NOTE: '$agent report network' is not available in this build; skipped"
  exit 0
fi
json=$(mktemp)
hyperfine --export-json "$json" --warmup 3 --runs 20 \
  'lsof -P -n -i >/dev/null; ss -tulnpH >/dev/null' \
  "$agent report network >/dev/null"
report_medians "$json"
rm -f "$json"
