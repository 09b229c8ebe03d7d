#!/usr/bin/env bash
# Builds the tool and the module in build/release (Release, no tests), configuring it on first use:
# what the benchmark scripts run.
set -euo pipefail
cd "$(dirname "$0")/.."

if [ ! -x build/release/bin/signdb ]; then
  bash scripts/bootstrap.sh
  cmake -S . -B build/release -G Ninja -DCMAKE_BUILD_TYPE=Release -DSIGNDB_TESTS=OFF -DSIGNDB_BENCH=OFF >/dev/null
fi
cmake --build build/release -j "${SIGNDB_JOBS:-2}" --target signdb_cli signdb_module >/dev/null
