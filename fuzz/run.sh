#!/usr/bin/env bash
# Runs every libFuzzer target for a bounded time, seeded from its corpus.
set -euo pipefail
build=${1:-build-fuzz}
seconds=${FUZZ_SECONDS:-30}
here=$(cd "$(dirname "$0")" && pwd)
for bin in "$build"/fuzz/*_fuzz; do
  name=$(basename "$bin")
  work=$(mktemp -d)
  cp -r "$here/corpus/$name/." "$work/" 2>/dev/null || true
  echo "== $name ($seconds s)"
  "$bin" -max_total_time="$seconds" -max_len=65536 "$work" >/dev/null 2>"$work.log" || { tail -40 "$work.log"; exit 1; }
  rm -rf "$work" "$work.log"
done
