#!/usr/bin/env bash
# "edr-agent report processes" against ps reading the same fields, with at
# least 1,000 processes running. Target: agent time / ps time <= 1.0.
set -euo pipefail
build=${1:-build-bench}
agent="$build/edr-agent"

. "$(dirname "$0")/lib.sh"
require_report processes_report "$agent" processes

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
