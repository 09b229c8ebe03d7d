#!/usr/bin/env bash
# Installs every Debian package that the build, the tests and the benchmarks need.
# Safe to run again: apt-get skips what is already installed.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config
  libboost-filesystem-dev libboost-thread-dev libboost-system-dev libboost-dev
  libpoco-dev
  libssl-dev openssl libacl1-dev libcap-dev
  acl attr libcap2-bin e2fsprogs util-linux
  libgtest-dev libgmock-dev googletest
  libbenchmark-dev
  clang libclang-rt-14-dev clang-format
  clickhouse-server clickhouse-client curl
  debhelper dpkg-dev fakeroot lintian debootstrap
  mandoc man-db jq socat less
  g++-mingw-w64-x86-64-posix wine64 libboost1.74-tools-dev
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done

if [ ${#missing[@]} -gt 0 ]; then
  SUDO=""
  [ "$(id -u)" -ne 0 ] && SUDO="sudo"
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update
  $SUDO apt-get install -y --no-install-recommends "${missing[@]}"
fi
