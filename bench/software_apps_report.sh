#!/usr/bin/env bash
# Wall time of "edr-agent report software" on a host with snaps and flatpaks
# (fake snap and flatpak listing 30 snaps and 20 applications, first on PATH)
# against running dpkg-query -W and the two listings themselves
# (target: agent at most 1.5x, median of >= 10 runs).
# $1: the bench build dir holding edr-agent.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
. "$here/lib.sh"
build=${1:-build-bench}
agent="$build/edr-agent"
require_report software_apps_report "$agent" software
if ! command -v dpkg-query >/dev/null; then
  echo "software_apps_report: dpkg-query not found; skipped"
  exit 0
fi

fake=$(mktemp -d)
out=$(mktemp)
trap 'rm -rf "$fake" "$out"*' EXIT
{
  printf 'Name                      Version          Rev    Tracking       Publisher      Notes\n'
  for i in $(seq 1 30); do
    printf 'app-%-20s  %-15s  %-5s  latest/stable  canonical**    -\n' "$i" "1.$i.0-1" "$((1000 + i))"
  done
} >"$fake/snap.out"
for i in $(seq 1 20); do
  printf 'org.example.App%d\t2.%d.1\t%d.4\xc2\xa0MB\tApplication %d\tDoes thing %d\n' "$i" "$i" "$((i * 7))" "$i" "$i"
done >"$fake/flatpak.out"
for tool in snap flatpak; do
  printf '#!/bin/sh\ncat %s/%s.out\n' "$fake" "$tool" >"$fake/$tool"
  chmod +x "$fake/$tool"
done

packages=$(dpkg-query -W | wc -l)
records=$(PATH="$fake:$PATH" "$agent" report software | python3 -c 'import json,sys; print(len(json.load(sys.stdin)["InstallSoft"]))')
echo "software_apps_report: $packages dpkg packages, 30 snaps, 20 flatpaks; the report holds $records records"

# Rounds that alternate the two commands, so a change in the load of a shared
# machine falls on both; the figure is the median of the rounds' ratios.
tools="dpkg-query -W >/dev/null; '$fake/snap' list --color=never --unicode=never >/dev/null; '$fake/flatpak' list --app --columns=application,version,size,name,description >/dev/null"
report="PATH='$fake':\$PATH '$agent' report software >/dev/null"
rounds=${ROUNDS:-6}
for r in $(seq 1 "$rounds"); do
  hyperfine --warmup 2 --runs 8 --export-json "$out.$r" -n tools "$tools" -n edr-agent "$report" >/dev/null
done
python3 - "$out" "$rounds" <<'PY'
import json, statistics, sys
ratios, tools, agent = [], [], []
for r in range(1, int(sys.argv[2]) + 1):
    res = {x["command"]: x["median"] for x in json.load(open(f"{sys.argv[1]}.{r}"))["results"]}
    tools.append(res["tools"]); agent.append(res["edr-agent"]); ratios.append(res["edr-agent"] / res["tools"])
ratio = statistics.median(ratios)
print(f"median: tools {statistics.median(tools)*1000:.1f} ms, edr-agent {statistics.median(agent)*1000:.1f} ms; "
      f"round ratios {' '.join(f'{x:.2f}' for x in ratios)}; ratio {ratio:.2f} (limit 1.50)")
sys.exit(0 if ratio <= 1.5 else 1)
PY
