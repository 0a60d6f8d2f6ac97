#!/usr/bin/env bash
# Captures the inventory sources of this host as a fixture scenario:
#   tests/fixtures/commands/{dmidecode/NAME/*,lsblk/NAME-*,who/NAME,last/NAME}.stdout
#   tests/fixtures/roots/NAME/{etc,sys/class/net,proc/sys/kernel/random,usr/share/misc}
# Serial numbers, UUIDs and MAC addresses are scrubbed; /etc/shadow is not copied
# (write one by hand with scrubbed hashes if the scenario needs it). Run as root.
set -euo pipefail
name=${1:?usage: $0 SCENARIO}
here=$(cd "$(dirname "$0")/.." && pwd)
fx="$here/tests/fixtures"
cmd="$fx/commands"
root="$fx/roots/$name"
mkdir -p "$cmd/dmidecode/$name" "$cmd/lsblk" "$cmd/who" "$cmd/last" "$root/etc" \
         "$root/proc/sys/kernel/random" "$root/sys/class/net"

scrub_dmi() { sed -E 's/^(\t(Serial Number|SBDS Serial Number|Asset Tag|UUID): ).*/\1SCRUBBED/'; }
for t in 0 1 22 processor memory; do
  dmidecode -q -t "$t" 2>/dev/null | scrub_dmi > "$cmd/dmidecode/$name/$t.stdout" || true
done
lsblk --output MODEL,SIZE,TYPE,SERIAL,PATH -J -e 7 |
  sed -E 's/("serial": )"[^"]*"/\1"SCRUBBED"/' > "$cmd/lsblk/$name-disks.stdout"
lsblk --output FSSIZE,FSAVAIL,NAME,UUID,FSTYPE,TYPE,HOTPLUG,MOUNTPOINT,LABEL,STATE -J -e 7 \
  > "$cmd/lsblk/$name-partitions.stdout"
who > "$cmd/who/$name.stdout" || true
last -w --time-format iso > "$cmd/last/$name.stdout" 2>/dev/null || true

cp /etc/passwd /etc/group /etc/login.defs "$root/etc/"
cp /proc/sys/kernel/random/boot_id "$root/proc/sys/kernel/random/boot_id"
if [ -f /usr/share/misc/pci.ids ]; then
  mkdir -p "$root/usr/share/misc"
  # Only the vendor lines of the devices present, to keep the fixture small.
  for dev in /sys/class/net/*/device/vendor; do cut -c3- "$dev"; done | sort -u |
    while read -r v; do grep -m1 "^$v " /usr/share/misc/pci.ids || true; done > "$root/usr/share/misc/pci.ids"
fi
for dir in /sys/class/net/*; do
  n=$(basename "$dir")
  mkdir -p "$root/sys/class/net/$n"
  cat "$dir/speed" > "$root/sys/class/net/$n/speed" 2>/dev/null || : > "$root/sys/class/net/$n/speed"
  if [ -r "$dir/device/vendor" ]; then
    mkdir -p "$root/sys/class/net/$n/device"
    cp "$dir/device/vendor" "$dir/device/device" "$root/sys/class/net/$n/device/"
  fi
done
echo "captured scenario '$name'; interfaces for the tests (MACs scrubbed):"
ip -br link | awk '{ print $1, "00:00:5E:00:53:xx", $2 }'
