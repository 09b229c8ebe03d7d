#!/usr/bin/env bash
# Builds the module, the reference host and the signdb tool, then runs the main job.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/bootstrap.sh
cmake -S . -B build/release -G Ninja -DCMAKE_BUILD_TYPE=Release -DSIGNDB_TESTS=OFF
cmake --build build/release -j "${SIGNDB_JOBS:-2}"

build/release/bin/signdb selftest
