#!/usr/bin/env bash
# services_report.sh under a real service manager: a throwaway systemd from
# the sandbox tool (private PID and mount namespace, root only), for machines
# whose PID 1 is not systemd. Skips with one line where it cannot start.
set -euo pipefail
build=$(cd "${1:-build-bench}" 2>/dev/null && pwd) || { echo "services_report_sandbox: no build dir; skipped"; exit 0; }
here=$(cd "$(dirname "$0")" && pwd)
sandbox=${EDR_SYSTEMD_SANDBOX:-$here/../../shared/tools/systemd-sandbox}
if [ ! -x "$sandbox" ] || [ "$(id -u)" -ne 0 ]; then
  echo "services_report_sandbox: no systemd sandbox here (needs root and $sandbox); skipped"
  exit 0
fi
if ! pid=$("$sandbox" start 2>/dev/null); then
  echo "services_report_sandbox: the systemd sandbox did not start; skipped"
  exit 0
fi
trap '"$sandbox" stop "$pid" >/dev/null 2>&1 || true' EXIT
# Inside, /tmp is private and empty: the checkout and the build are reached by absolute path.
"$sandbox" run "$pid" bash "$here/services_report.sh" "$build"
