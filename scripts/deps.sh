#!/usr/bin/env bash
# Installs the Debian packages this project needs, skipping those already
# present. Runs `apt-get update` once, and only when something is missing.
#   scripts/deps.sh        build, test and demo needs
#   scripts/deps.sh --ci   also what .ci/run needs (browser, 32-bit toolchain, qemu)
set -euo pipefail

# The one list of packages.
BASE_PACKAGES=(cmake g++ make pkg-config
               libboost-dev libboost-date-time-dev
               libgtest-dev libgmock-dev googletest libbenchmark-dev
               nlohmann-json3-dev libcpp-httplib-dev)
CI_PACKAGES=(chromium g++-multilib qemu-user)

packages=("${BASE_PACKAGES[@]}")
for arg in "$@"; do
  case "$arg" in
    --ci) packages+=("${CI_PACKAGES[@]}") ;;
    *) echo "usage: $0 [--ci]" >&2; exit 2 ;;
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
export DEBIAN_FRONTEND=noninteractive
"${sudo[@]}" apt-get update -q
"${sudo[@]}" apt-get install -y -q --no-install-recommends "${missing[@]}"
