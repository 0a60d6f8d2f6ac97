#!/usr/bin/env bash
# Runs every micro-benchmark, then every command comparison script.
set -euo pipefail
build=${1:-build-bench}
here=$(cd "$(dirname "$0")" && pwd)
for bin in "$build"/bench/*_bench; do
  [ -x "$bin" ] || continue
  echo "== $(basename "$bin")"
  "$bin" --benchmark_min_time=0.2
done
for script in "$here"/*.sh; do
  case "$(basename "$script")" in run.sh|lib.sh) continue ;; esac
  echo "== $(basename "$script")"
  bash "$script" "$build"
done
