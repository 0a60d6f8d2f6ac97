#!/usr/bin/env bash
# "edr-agent report services" against one "systemctl show" per unit (the old
# way) and against listing the units plus one batched "systemctl show" of them.
# Targets: >= 10x faster than per unit, <= 1.2x the list plus batched show.
# Meaningful only under a running systemd: services_report_sandbox.sh
# provides one where PID 1 is something else.
set -euo pipefail
build=${1:-build-bench}
agent="$build/edr-agent"

. "$(dirname "$0")/lib.sh"
if ! command -v systemctl >/dev/null; then
  echo "services_report: no systemctl on this machine; skipped"
  exit 0
fi
require_report services_report "$agent" services
state=$(systemctl is-system-running 2>/dev/null || true)
[ "$state" = offline ] && echo "services_report: NOTE: systemd is not running here; every show fails fast"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
props=(--property Description --property ExecStart --property Type --property ActiveState --property MainPID
       --property ExecStop --property WantedBy --property DesktopEntry --property SuccessExitStatus
       --property UnitFileState)
# The names as the agent takes them: the text before the first two spaces.
systemctl list-unit-files --type=service --no-pager --all --plain |
  awk 'NF { i = index($0, "  "); n = i ? substr($0, 1, i - 1) : $0; if (n != "") print n }' > "$work/all"
# Templates cannot be shown and stop a shared run, so the batch leaves them out.
grep -v '@\.[a-z]*$' "$work/all" > "$work/shared" || true
echo "units listed: $(wc -l < "$work/all"), shown together: $(wc -l < "$work/shared")"

cat > "$work/per-unit.sh" <<SCRIPT
systemctl list-unit-files --type=service --no-pager --all --plain >/dev/null
while IFS= read -r unit; do systemctl show "\$unit" ${props[*]} >/dev/null 2>&1 || true; done < "$work/all"
SCRIPT
cat > "$work/batched.sh" <<SCRIPT
mapfile -t units < "$work/shared"
systemctl show "\${units[@]}" ${props[*]} >/dev/null 2>&1 || true
SCRIPT
# The agent lists the units too; this is the least any way of doing it costs.
{ echo 'systemctl list-unit-files --type=service --no-pager --all --plain >/dev/null'; cat "$work/batched.sh"; } \
  > "$work/list-and-batched.sh"

json=$(mktemp)
hyperfine --export-json "$json" --warmup 2 --runs 10 \
  "bash $work/per-unit.sh" \
  "bash $work/batched.sh" \
  "bash $work/list-and-batched.sh" \
  "$agent report services"
report_medians "$json"
status=0
if [ "$state" != offline ]; then
  python3 - "$json" <<'PY' || status=1
import json, sys
r = json.load(open(sys.argv[1]))["results"]
least, agent = r[2]["median"], r[3]["median"]
print("edr-agent against list + batched show: %.2f (limit 1.20)" % (agent / least))
sys.exit(0 if agent / least <= 1.2 else 1)
PY
fi
rm -f "$json"
exit $status
