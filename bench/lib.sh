# Shared by the command comparisons: sourced, not run.

# Medians of a hyperfine JSON export and each command's ratio to the first.
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

# Exits the calling script (successfully) when the comparison cannot run here.
require_report() {
  local bench=$1 agent=$2 report=$3
  if ! command -v hyperfine >/dev/null; then
    echo "$bench: hyperfine is not installed (see scripts/install-deps.sh); skipped"
    exit 0
  fi
  if [ ! -x "$agent" ] || ! "$agent" report "$report" >/dev/null 2>&1; then
    echo "$bench: NOTE: '$agent report $report' is not available in this build; skipped"
    exit 0
  fi
}
