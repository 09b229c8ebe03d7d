#!/usr/bin/env bash
# Builds, for Windows x86-64 with MinGW-w64, the libraries that the module and the reference host
# link: Boost Filesystem, Thread and System; POCO Foundation, Util, JSON and XML (Util's
# configuration classes need it); OpenSSL's libcrypto. Each comes from Debian's source package
# (Debian's patches applied), unpacked in WORK, and is installed as static libraries in PREFIX.
#
#   windows_deps.sh PREFIX WORK BOOST_DSC POCO_DSC OPENSSL_DSC
#
# The recipe below is part of the cache key of scripts/windows.sh: a change here rebuilds.
set -euo pipefail

prefix="$1"
work="$2"
boost_dsc="$3"
poco_dsc="$4"
openssl_dsc="$5"
jobs="${SIGNDB_JOBS:-2}"
here="$(cd "$(dirname "$0")" && pwd)"
triple=x86_64-w64-mingw32
toolchain="$here/../cmake/mingw-w64-x86_64.cmake"

mkdir -p "$prefix/include" "$prefix/lib" "$work"

# Unpacks a source package. apt checked each file against the archive's signed index when it
# fetched them, so dpkg-source does not look for the uploader's key.
unpack() {
  local dsc="$1" into="$2"
  rm -rf "$into"
  dpkg-source --no-check -x "$dsc" "$into" >/dev/null
}

step() { printf '[windows deps] %s\n' "$*"; }

# MinGW's headers are lower case; POCO includes two of them in mixed case, which only a
# case-insensitive file system forgives. Forwarding headers settle it.
echo '#include <winsock2.h>' >"$prefix/include/Winsock2.h"
echo '#include <iphlpapi.h>' >"$prefix/include/Iphlpapi.h"

step "OpenSSL: libcrypto"
unpack "$openssl_dsc" "$work/openssl"
(
  cd "$work/openssl"
  # Only what the reference host uses: digests, RSA and EC keys, X.509, PKCS#7, PEM, the key
  # store and its passphrase prompt. No TLS, no engines, no legacy provider.
  ./Configure mingw64 --cross-compile-prefix=$triple- --prefix="$prefix" --libdir=lib \
    no-shared no-tests no-dso no-engine no-module no-legacy no-ssl no-tls no-dtls no-srp no-psk \
    no-camellia no-aria no-seed no-sm2 no-sm3 no-sm4 no-idea no-whirlpool no-mdc2 no-rc2 no-rc4 \
    no-rc5 no-bf no-cast no-ocb no-siv no-cms no-ts no-ct no-ocsp no-srtp no-comp no-gost no-cmac \
    no-siphash no-blake2 no-poly1305 no-chacha no-des no-dsa no-dh >configure.log 2>&1
  make -j "$jobs" build_generated >make.log 2>&1
  make -j "$jobs" libcrypto.a >>make.log 2>&1
  mkdir -p "$prefix/include/openssl"
  cp include/openssl/*.h "$prefix/include/openssl/"
  cp libcrypto.a "$prefix/lib/"
)

step "Boost: filesystem, thread, system"
unpack "$boost_dsc" "$work/boost"
(
  cd "$work/boost"
  # Debian's source leaves out the build engine's generated parser; Debian's own b2 (of the same
  # Boost) builds it.
  echo "using gcc : mingw : $triple-g++-posix : <archiver>$triple-ar <ranlib>$triple-ranlib ;" >user-config.jam
  b2 -j "$jobs" -q -d0 --ignore-site-config --user-config=user-config.jam --build-dir="$work/boost-build" \
    toolset=gcc-mingw target-os=windows threadapi=win32 address-model=64 architecture=x86 \
    link=static runtime-link=shared threading=multi variant=release cxxflags=-std=c++20 \
    --layout=system --with-filesystem --with-thread --with-system --prefix="$prefix" install >b2.log 2>&1
)

step "POCO: Foundation, Util, JSON, XML"
unpack "$poco_dsc" "$work/poco"
cmake -S "$work/poco" -B "$work/poco-build" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$toolchain" \
  -DCMAKE_BUILD_TYPE=Release -DBUILD_SHARED_LIBS=OFF -DCMAKE_INSTALL_PREFIX="$prefix" \
  "-DCMAKE_CXX_FLAGS=-isystem $prefix/include" -DCMAKE_MC_COMPILER="$(command -v $triple-windmc)" \
  -DENABLE_XML=ON -DENABLE_JSON=ON -DENABLE_UTIL=ON -DENABLE_ENCODINGS=OFF -DENABLE_NET=OFF \
  -DENABLE_CRYPTO=OFF -DENABLE_NETSSL=OFF -DENABLE_JWT=OFF -DENABLE_MONGODB=OFF -DENABLE_REDIS=OFF \
  -DENABLE_DATA=OFF -DENABLE_DATA_ODBC=OFF -DENABLE_DATA_MYSQL=OFF -DENABLE_DATA_POSTGRESQL=OFF \
  -DENABLE_DATA_SQLITE=OFF -DENABLE_ZIP=OFF -DENABLE_PAGECOMPILER=OFF \
  -DENABLE_PAGECOMPILER_FILE2PAGE=OFF -DENABLE_ACTIVERECORD=OFF -DENABLE_ACTIVERECORD_COMPILER=OFF \
  -DENABLE_PROMETHEUS=OFF -DENABLE_TESTS=OFF >"$work/poco-configure.log" 2>&1
cmake --build "$work/poco-build" -j "$jobs" --target install >"$work/poco-build.log" 2>&1

step "done: $prefix"
