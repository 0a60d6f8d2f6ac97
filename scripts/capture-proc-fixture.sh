#!/usr/bin/env bash
# Copies the per-process files the control collectors read from this host's
# /proc into a fixture root: DEST/proc/<pid>/{comm,cmdline,status,exe,net/*}.
# Usage: capture-proc-fixture.sh DEST PID... (the exe link is recreated as a
# symbolic link with the same target; kernel threads have none).
set -euo pipefail
dest=${1:?usage: capture-proc-fixture.sh DEST PID...}
shift
for pid in "$@"; do
  src=/proc/$pid
  out=$dest/proc/$pid
  mkdir -p "$out/net"
  for f in comm cmdline status; do
    cat "$src/$f" > "$out/$f" 2>/dev/null || rm -f "$out/$f"
  done
  if target=$(readlink "$src/exe" 2>/dev/null); then
    ln -sfn "$target" "$out/exe"
  fi
  for t in tcp tcp6 udp udp6; do
    cat "$src/net/$t" > "$out/net/$t" 2>/dev/null || true
  done
done
