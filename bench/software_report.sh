#!/usr/bin/env bash
# Wall time of "edr-agent report software" against dpkg-query listing the
# same packages, side by side (target: agent at most 1.5x, median of >= 10 runs).
# $1: the bench build dir holding edr-agent.
set -euo pipefail
build=${1:-build-bench}
agent="$build/edr-agent"
if ! command -v hyperfine >/dev/null; then
  echo "software_report: hyperfine is not installed (apt-get install -y hyperfine); skipped"
  exit 0
fi
if ! command -v dpkg-query >/dev/null; then
  echo "software_report: dpkg-query not found; skipped"
  exit 0
fi
if [ ! -x "$agent" ]; then
  echo "software_report: $agent not built; skipped"
  exit 0
fi
if ! "$agent" report software >/dev/null 2>&1; then
  echo "software_report: '$agent report software' is not available yet (or failed); skipped"
  exit 0
fi
out=$(mktemp)
trap 'rm -f "$out"' EXIT
hyperfine --warmup 3 --runs 20 --export-json "$out" \
  -n dpkg-query "dpkg-query -W -f='\${Package} \${Version} \${Installed-Size}\n'" \
  -n edr-agent "'$agent' report software"
python3 - "$out" <<'PY'
import json, sys
res = {r["command"]: r for r in json.load(open(sys.argv[1]))["results"]}
dq, agent = res["dpkg-query"]["median"], res["edr-agent"]["median"]
ratio = agent / dq
print(f"median: dpkg-query {dq*1000:.1f} ms, edr-agent {agent*1000:.1f} ms, ratio {ratio:.2f} (limit 1.50)")
sys.exit(0 if ratio <= 1.5 else 1)
PY
