#!/usr/bin/env bash
# Builds the fuzzers with clang and libFuzzer (AddressSanitizer and UBSan on) and runs each for a
# bounded time: the module's HDB body load for SIGNDB_FUZZ_SECONDS (default 60), the tool's HDB
# dump for SIGNDB_DUMP_FUZZ_SECONDS (default 30), the reports made of recorded texts for
# SIGNDB_REPORT_FUZZ_SECONDS (default 30), the package lists and owners files read beside a
# database for SIGNDB_SIDE_FUZZ_SECONDS (default 20), the fleet store's answers for
# SIGNDB_FLEET_FUZZ_SECONDS (default 20). New inputs go to build/fuzz/corpus-*.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/bootstrap.sh
CC=clang CXX=clang++ cmake -S . -B build/fuzz -G Ninja -DSIGNDB_FUZZ=ON -DSIGNDB_TESTS=OFF \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O1 -g1" \
  -DSIGNDB_BENCH=OFF -DSIGNDB_SANITIZE=address,undefined
cmake --build build/fuzz -j "${SIGNDB_JOBS:-2}" --target signdb_fuzz_hdb_body signdb_fuzz_hdb_dump \
  signdb_fuzz_report_text signdb_fuzz_side_files signdb_fuzz_fleet_answers

mkdir -p build/fuzz/corpus-body build/fuzz/corpus-dump build/fuzz/corpus-report build/fuzz/corpus-side build/fuzz/corpus-fleet
build/fuzz/bin/signdb_fuzz_hdb_body build/fuzz/corpus-body tests/fuzz/corpus \
  -max_total_time="${SIGNDB_FUZZ_SECONDS:-60}" -rss_limit_mb=4096 -print_final_stats=1
build/fuzz/bin/signdb_fuzz_hdb_dump build/fuzz/corpus-dump tests/fuzz/dump-corpus \
  -max_total_time="${SIGNDB_DUMP_FUZZ_SECONDS:-30}" -rss_limit_mb=4096 -print_final_stats=1
build/fuzz/bin/signdb_fuzz_report_text build/fuzz/corpus-report tests/fuzz/report-corpus \
  -max_total_time="${SIGNDB_REPORT_FUZZ_SECONDS:-30}" -rss_limit_mb=4096 -print_final_stats=1
build/fuzz/bin/signdb_fuzz_side_files build/fuzz/corpus-side tests/fuzz/side-corpus \
  -max_total_time="${SIGNDB_SIDE_FUZZ_SECONDS:-20}" -rss_limit_mb=4096 -print_final_stats=1
build/fuzz/bin/signdb_fuzz_fleet_answers build/fuzz/corpus-fleet tests/fuzz/fleet-corpus \
  -max_total_time="${SIGNDB_FLEET_FUZZ_SECONDS:-20}" -rss_limit_mb=4096 -print_final_stats=1
