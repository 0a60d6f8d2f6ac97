#!/usr/bin/env bash
# "edr-agent report processes" against ps reading the same fields, with at
# least 1,000 processes running. Target: agent time / ps time <= 1.0.
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
  echo "processes_report: hyperfine is not installed (see scripts/install-deps.sh); skipped"
  exit 0
fi
if [ ! -x "$agent" ] || ! "$agent" report processes >/dev/null 2>&1; then
  echo "processes_report: NOTE: '$agent report processes' is not available in this build; skipped"
  exit 0
fi

sleepers=()
cleanup() {
  [ ${#sleepers[@]} -eq 0 ] || kill "${sleepers[@]}" 2>/dev/null || true
  wait 2>/dev/null || true
}
trap cleanup EXIT
running=$(find /proc -maxdepth 1 -name '[0-9]*' | wc -l)
for ((i = running; i < 1010; i++)); do
  sleep 3600 &
  sleepers+=($!)
done
echo "processes running: $(find /proc -maxdepth 1 -name '[0-9]*' | wc -l)"

json=$(mktemp)
hyperfine --export-json "$json" --shell=none --warmup 3 --runs 20 \
  'ps -eo pid,comm,args,uid,ppid,nlwp,stat' \
  "$agent report processes"
report_medians "$json"
rm -f "$json"
