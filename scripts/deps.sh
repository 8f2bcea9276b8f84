#!/usr/bin/env bash
# Installs the Debian packages this project needs, skipping those already
# present. Runs `apt-get update` once, and only when something is missing.
#   scripts/deps.sh            build, demo and the whole test suite (the
#                              simulator's page tests drive Chromium and curl)
#   scripts/deps.sh --m32      also the 32-bit toolchain and qemu-i386
#   scripts/deps.sh --ci       everything .ci/run needs
set -euo pipefail

# The one list of packages.
BASE_PACKAGES=(cmake g++ make pkg-config
               libboost-dev libboost-date-time-dev
               libgtest-dev libgmock-dev googletest libbenchmark-dev
               nlohmann-json3-dev libcpp-httplib-dev python3-jsonschema
               pybind11-dev python3-dev python3-pytest
               etcd-server etcd-client
               chromium curl
               libgrpc++-dev libprotobuf-dev protobuf-compiler protobuf-compiler-grpc
               python3-grpcio python3-protobuf python3-mypy
               clang-15 libfuzzer-15-dev)
M32_PACKAGES=(g++-multilib qemu-user)

packages=("${BASE_PACKAGES[@]}")
for arg in "$@"; do
  case "$arg" in
    --m32 | --ci) packages+=("${M32_PACKAGES[@]}") ;;
    *) echo "usage: $0 [--m32] [--ci]" >&2; exit 2 ;;
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
