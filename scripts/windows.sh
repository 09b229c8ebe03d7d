#!/usr/bin/env bash
# Builds the module for Windows x86-64 (signdb.dll), the reference host and the module's tests
# with MinGW-w64, and runs the tests under wine64.
#
# The libraries they link (Boost, POCO, OpenSSL) are built from Debian's source packages of the
# versions this machine's Linux build uses, once: they are kept in build/cache/windows under a key
# made of their versions, the compiler's and the build recipe's, and a later run reuses them.
set -euo pipefail
cd "$(dirname "$0")/.."
root="$PWD"

bash scripts/bootstrap.sh
jobs="${SIGNDB_JOBS:-2}"
build="${1:-build/windows}"
cache="$root/build/cache/windows"
mkdir -p "$cache/apt/lists/partial" "$cache/sources"

# Debian's source index, kept apart from the system's apt configuration.
distribution="$(. /etc/os-release && echo "$VERSION_CODENAME")"
cat >"$cache/apt/sources.list" <<EOF
deb-src http://deb.debian.org/debian $distribution main
deb-src http://deb.debian.org/debian $distribution-updates main
deb-src http://deb.debian.org/debian-security $distribution-security main
EOF
apt_options=(-q -o "Dir::Etc::SourceList=$cache/apt/sources.list" -o Dir::Etc::SourceParts=/dev/null
  -o "Dir::State::Lists=$cache/apt/lists" -o APT::Sandbox::User=root)
apt-get "${apt_options[@]}" update >"$cache/apt/update.log"

# Fetches the source package SOURCE in the version of the installed BINARY package when the
# archive still has it, or else in the newest version the archive hands out; prints its .dsc.
fetch_source() {
  local source="$1" binary="$2" installed version
  installed="$(dpkg-query -W -f='${Version}' "$binary")"
  local candidates=("$installed")
  mapfile -t -O 1 candidates < <(apt-cache "${apt_options[@]}" showsrc "$source" |
    sed -n 's/^Version: //p' | sort -u -V -r)
  for version in "${candidates[@]}"; do
    local dsc="$cache/sources/${source}_${version#*:}.dsc"
    if [ -f "$dsc" ] || (cd "$cache/sources" &&
      apt-get "${apt_options[@]}" source --download-only "$source=$version" >/dev/null 2>&1); then
      [ "$version" = "$installed" ] ||
        echo "[windows] $source $installed is no longer in the archive; building $version" >&2
      echo "$dsc"
      return 0
    fi
  done
  echo "[windows] cannot fetch the source of $source" >&2
  return 1
}

boost_dsc="$(fetch_source boost1.74 libboost1.74-dev)"
poco_dsc="$(fetch_source poco libpoco-dev)"
openssl_dsc="$(fetch_source openssl libssl-dev)"

compiler="$(x86_64-w64-mingw32-g++-posix -dumpfullversion)"
recipe="$(cat scripts/windows_deps.sh cmake/mingw-w64-x86_64.cmake | sha256sum | cut -c1-12)"
key="$(basename "$boost_dsc" .dsc)_$(basename "$poco_dsc" .dsc)_$(basename "$openssl_dsc" .dsc)_gcc${compiler}_${recipe}"
deps="$cache/deps/$key"
if [ -f "$deps/complete" ]; then
  echo "[windows] libraries from the cache: $deps"
else
  echo "[windows] building the libraries for Windows: $key"
  started=$SECONDS
  rm -rf "$deps.partial" "$cache/work"
  bash scripts/windows_deps.sh "$deps.partial" "$cache/work" "$boost_dsc" "$poco_dsc" "$openssl_dsc"
  rm -rf "$deps" "$cache/work"
  mv "$deps.partial" "$deps"
  touch "$deps/complete"
  # Libraries of other versions or recipes are not used again.
  find "$cache/deps" -mindepth 1 -maxdepth 1 ! -name "$key" -exec rm -rf {} +
  echo "[windows] libraries built in $((SECONDS - started)) s"
fi

# One wine prefix, made before the tests start in parallel (two first runs at once would race
# to make it), and one wine server kept running for all of them: each test then starts in a
# fraction of a second instead of two.
export SIGNDB_WINEPREFIX="${SIGNDB_WINEPREFIX:-$root/build/cache/wine}"
scripts/wine_run.sh wineboot --init >/dev/null 2>&1 || true
WINEPREFIX="$SIGNDB_WINEPREFIX" /usr/lib/wine/wineserver -p 2>/dev/null || true  # one may run already
trap 'WINEPREFIX="$SIGNDB_WINEPREFIX" /usr/lib/wine/wineserver -k 2>/dev/null || true' EXIT

cmake -S . -B "$build" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$root/cmake/mingw-w64-x86_64.cmake" \
  -DSIGNDB_WINDOWS_DEPS="$deps" -DCMAKE_BUILD_TYPE=Release -DSIGNDB_BENCH=OFF
cmake --build "$build" -j "$jobs"
# A wine process now and then hangs before the test's main() runs (seen twice in some hundred
# runs, never in a test's own code): such a test is stopped after two minutes and run once more.
(cd "$build" && ctest -j "$jobs" --output-on-failure --timeout 120 --repeat until-pass:2)
