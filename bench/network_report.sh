#!/usr/bin/env bash
# "edr-agent report network" against running lsof and ss themselves, one after
# the other. Target: agent time / tools time <= 1.1.
set -euo pipefail
build=${1:-build-bench}
agent="$build/edr-agent"

. "$(dirname "$0")/lib.sh"
require_report network_report "$agent" network
json=$(mktemp)
hyperfine --export-json "$json" --warmup 3 --runs 20 \
  'lsof -P -n -i >/dev/null; ss -tulnpH >/dev/null' \
  "$agent report network >/dev/null"
report_medians "$json"
rm -f "$json"
