#!/usr/bin/env bash
# Builds the HDB body fuzzer with clang and libFuzzer (AddressSanitizer on) and runs it for a
# bounded time: SIGNDB_FUZZ_SECONDS (default 60). New inputs go to build/fuzz/corpus.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/bootstrap.sh
CC=clang CXX=clang++ cmake -S . -B build/fuzz -G Ninja -DSIGNDB_FUZZ=ON -DSIGNDB_TESTS=OFF \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O1 -g1" \
  -DSIGNDB_BENCH=OFF -DSIGNDB_SANITIZE=address,undefined
cmake --build build/fuzz -j "${SIGNDB_JOBS:-2}" --target signdb_fuzz_hdb_body

mkdir -p build/fuzz/corpus
build/fuzz/bin/signdb_fuzz_hdb_body build/fuzz/corpus tests/fuzz/corpus \
  -max_total_time="${SIGNDB_FUZZ_SECONDS:-60}" -rss_limit_mb=4096 -print_final_stats=1
