#!/usr/bin/env bash
# Installs every Debian package the build, the tests and the agent's tools need.
# Idempotent: returns at once when everything is already there.
set -euo pipefail

PACKAGES=(
  build-essential cmake pkg-config
  qtbase5-dev libcurl4-openssl-dev libssl-dev librapidxml-dev libcpp-httplib-dev
  # the console's database
  libsqlite3-dev
  # test certificates are made with the openssl tool
  openssl
  libgtest-dev libgmock-dev libbenchmark-dev
  # the services watcher's test runs a private bus daemon
  dbus-daemon
  clang libclang-rt-14-dev
  # make test checks the tree against .clang-format
  clang-format git
  # tools the collectors run
  dmidecode util-linux dpkg procps lsof iproute2 systemd passwd
  # benchmarks
  hyperfine
  # Debian packages (make package) and their checks
  debhelper dpkg-dev lintian
  # system tests (tests/system)
  jq
  # browser tests of the web view (tests/web) and the demo's screenshots
  chromium chromium-driver python3-selenium
)

missing=()
for p in "${PACKAGES[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

if [ "$(id -u)" -ne 0 ]; then
  echo "install-deps: missing packages (${missing[*]}); run as root" >&2
  exit 1
fi
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}"
