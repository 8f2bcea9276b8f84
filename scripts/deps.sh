#!/usr/bin/env bash
# Installs the Debian packages this project needs, skipping those already
# present. Runs `apt-get update` once, and only when something is missing.
#   scripts/deps.sh            build, test and demo
#   scripts/deps.sh --m32      also the 32-bit toolchain and qemu-i386
#   scripts/deps.sh --browser  also the browser for the simulator's page test
#   scripts/deps.sh --ci       everything .ci/run needs
set -euo pipefail

# The one list of packages.
BASE_PACKAGES=(cmake g++ make pkg-config
               libboost-dev libboost-date-time-dev
               libgtest-dev libgmock-dev googletest libbenchmark-dev
               nlohmann-json3-dev libcpp-httplib-dev etcd-server etcd-client)
M32_PACKAGES=(g++-multilib qemu-user)
BROWSER_PACKAGES=(chromium)

packages=("${BASE_PACKAGES[@]}")
for arg in "$@"; do
  case "$arg" in
    --m32) packages+=("${M32_PACKAGES[@]}") ;;
    --browser) packages+=("${BROWSER_PACKAGES[@]}") ;;
    --ci) packages+=("${M32_PACKAGES[@]}" "${BROWSER_PACKAGES[@]}") ;;
    *) echo "usage: $0 [--m32] [--browser] [--ci]" >&2; exit 2 ;;
  esac
done

missing=()
for p in "${packages[@]}"; do
  if [ "$(dpkg-query -W -f='${db:Status-Abbrev}' "$p" 2>/dev/null)" != "ii " ]; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing: ${missing[*]}"
if [ "$(id -u)" -eq 0 ]; then sudo=(); else sudo=(sudo); fi
"${sudo[@]}" apt-get update -q
"${sudo[@]}" env DEBIAN_FRONTEND=noninteractive \
  apt-get install -y -q --no-install-recommends "${missing[@]}"
