#!/usr/bin/env bash
# Builds from scratch and runs every test: once under AddressSanitizer + UndefinedBehaviorSanitizer
# (all tests), once under ThreadSanitizer (the tests labelled "concurrency"); checks the tool's
# format and layers, the lock annotations with clang, fuzzes the parsers, cross-builds the module for
# Windows and tests it under wine, and builds and installs the Debian package in a fresh chroot.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/bootstrap.sh
jobs="${SIGNDB_JOBS:-2}"

# The tool's code keeps the repository's format, and its folders include one another one way only.
mapfile -t tool_sources < <(find cli tool util -name '*.h' -o -name '*.cc')
clang-format --dry-run -Werror "${tool_sources[@]}"
cmake -DSOURCE_DIR="$PWD" -P tests/check_layers.cmake
# Sanitizer builds: light optimisation and line tables only, to keep a whole run short.
sanitizer_flags=(-DCMAKE_BUILD_TYPE=RelWithDebInfo "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O1 -g1")

cmake -S . -B build/asan -G Ninja "${sanitizer_flags[@]}" -DSIGNDB_SANITIZE=address,undefined -DSIGNDB_BENCH=OFF
cmake --build build/asan -j "$jobs"
# The "C" locale: nothing may depend on the process locale to handle non-ASCII names.
(cd build/asan && LC_ALL=C ctest -j "$jobs" --output-on-failure --timeout 600)

cmake -S . -B build/tsan -G Ninja "${sanitizer_flags[@]}" -DSIGNDB_SANITIZE=thread -DSIGNDB_BENCH=OFF
cmake --build build/tsan -j "$jobs" --target signdb_concurrency_tests signdb_module signdb_tool_tests
(cd build/tsan && TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" \
  ctest -j "$jobs" -L concurrency --output-on-failure --timeout 600)

# The lock annotations, checked by clang: a field read without the lock that guards it, or a
# helper called without the lock it needs, fails the build.
CC=clang CXX=clang++ cmake -S . -B build/clang-tsa -G Ninja -DCMAKE_BUILD_TYPE=Debug -DSIGNDB_TESTS=OFF \
  -DSIGNDB_BENCH=OFF -DSIGNDB_THREAD_SAFETY=ON
cmake --build build/clang-tsa -j "$jobs" --target signdb_core

# The HDB parsers read files that come from outside: fuzz them for a bounded time.
SIGNDB_FUZZ_SECONDS="${SIGNDB_FUZZ_SECONDS:-60}" bash scripts/fuzz.sh

# The module for Windows: cross-built with MinGW-w64 against libraries built from Debian's source
# packages (cached in build/cache/windows), its tests run under wine.
SIGNDB_JOBS="$jobs" bash scripts/windows.sh

# The Debian package: built from a clean copy, lintian, then install, upgrade, remove and purge in a
# fresh chroot (skipped, with the reason, where there is no root or no debootstrap).
status=0
SIGNDB_JOBS="$jobs" bash tests/check_debian_package.sh build/package || status=$?
[ "$status" -eq 0 ] || [ "$status" -eq 77 ] || exit "$status"

echo "all tests passed"
