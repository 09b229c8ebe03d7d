#!/usr/bin/env bash
# Measures check and update of a watched policy of 200,000 objects and prints the figures:
#   - check while the watch service runs (answered from its live record) with 100 pending changes,
#     against check --walk (a walk of the disk), best and median of 5 runs each;
#   - update of 10 of those changes while the service runs (median of 3 rounds), and the slowest
#     answer the service gave to status queries asked every 20 ms meanwhile;
#   - the service's resident memory with the baseline it holds beside its live record.
#
# A binary from before the live record walks for check and update, and knows no --walk nor any
# pending count: its figures for those show as "?" or as errors.
#
#   scripts/bench_pending.sh          (SIGNDB_BENCH_BIN names another signdb binary,
#                                      SIGNDB_BENCH_DIR the folder, on the file system to measure)
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/release_build.sh
signdb="${SIGNDB_BENCH_BIN:-$PWD/build/release/bin/signdb}"
work="${SIGNDB_BENCH_DIR:-/tmp/signdb-bench-pending}"
rm -rf "$work"
mkdir -p "$work/tree"

echo "making 200,000 files in 400 directories" >&2
python3 - "$work/tree" <<'PY'
import os, sys
root = sys.argv[1]
for d in range(400):
    folder = os.path.join(root, "d%03d" % d)
    os.mkdir(folder)
    for f in range(500):
        with open(os.path.join(folder, "f%03d" % f), "w") as out:
            out.write("%d-%d\n" % (d, f) * 3)
PY
config="$work/cfg/signdb.json"
"$signdb" init --config "$config" --policy "big=$work/tree" >/dev/null
"$signdb" --config "$config" scan big --quiet >/dev/null
"$signdb" --config "$config" watch --quiet >"$work/watch.out" 2>"$work/watch.err" &
pid=$!
trap 'kill $pid 2>/dev/null || true' EXIT
socket="$work/cfg/data/watch.sock"

# status_field FIELD: the first policy's FIELD in the service's status ("?": a binary without it).
status_field() {
  python3 scripts/ask_service.py "$socket" '{"request":"status"}' |
    python3 -c "import json, sys; print(json.load(sys.stdin)['policies'][0].get('$1', '?'))"
}
for _ in $(seq 1 600); do [ -S "$socket" ] && status_field queued >/dev/null 2>&1 && break; sleep 0.1; done

echo "changing 100 files (content, in 100 directories)" >&2
for i in $(seq 0 99); do echo "changed $i" >>"$work/tree/d$(printf %03d $((i * 4)))/f$(printf %03d "$i")"; done
for _ in $(seq 1 600); do
  [ "$(status_field queued)" = 0 ] && break
  sleep 0.1
done
sleep 1.2  # a status counts again at most once a second while the live record changes
pending=$(status_field pending)

# timed COMMAND...: the wall seconds of each of 5 runs, one per line.
timed() {
  for _ in 1 2 3 4 5; do
    start=$(date +%s.%N)
    "$@" >/dev/null 2>&1 || true
    echo "$(date +%s.%N) - $start" | bc -l
  done
}
best_and_median() { sort -n | awk '{ v[NR] = $1 } END { printf "best %.3f s, median %.3f s", v[1], v[int((NR + 1) / 2)] }'; }

rss_start=$(awk '/VmRSS/ { print $2 }' "/proc/$pid/status")

echo "check, from the live record and walking" >&2
live=$(timed "$signdb" --config "$config" check big --quiet | best_and_median)
walk=$(timed "$signdb" --config "$config" check big --walk --quiet | best_and_median)
lines=$("$signdb" --config "$config" check big --quiet | grep -c -v '^policy ' || true)
walk_lines=$("$signdb" --config "$config" check big --walk --quiet | grep -c -v '^policy ' || true)

echo "update of 10 pending changes, three rounds, with status asked every 20 ms" >&2
PYTHONPATH=scripts python3 - "$socket" "$work/latency" <<'PY' &
import sys, time
from ask_service import ask
slowest = 0.0
end = time.monotonic() + 3600
while time.monotonic() < end:
    start = time.monotonic()
    try:
        ask(sys.argv[1], '{"request":"status"}')
    except OSError:
        break
    slowest = max(slowest, time.monotonic() - start)
    with open(sys.argv[2], "w") as out:
        out.write("%.3f\n" % slowest)
    time.sleep(0.02)
PY
asker=$!
rounds=""
for round in 0 1 2; do
  paths=()
  for i in $(seq $((round * 10)) $((round * 10 + 9))); do paths+=("d$(printf %03d $((i * 4)))/f$(printf %03d "$i")"); done
  start=$(date +%s.%N)
  "$signdb" --config "$config" update big "${paths[@]}" --quiet >/dev/null 2>&1 || true
  rounds+="$(echo "$(date +%s.%N) - $start" | bc -l)"$'\n'
done
kill $asker 2>/dev/null || true
wait $asker 2>/dev/null || true
update=$(printf '%s' "$rounds" | best_and_median)
after=$(status_field pending)
rss=$(awk '/VmRSS/ { print $2 }' "/proc/$pid/status")
slowest=$(cat "$work/latency" 2>/dev/null || echo "?")

kill -TERM $pid
wait $pid || true
trap - EXIT
rm -rf "$work"

printf '\n%-62s %s\n' "what" "figure"
printf '%-62s %s\n' "pending changes before the updates (status)" "$pending"
printf '%-62s %s (%s lines)\n' "check of 200,000 objects while the service runs" "$live" "$lines"
printf '%-62s %s (%s lines)\n' "check --walk of the same" "$walk" "$walk_lines"
printf '%-62s %s\n' "update of 10 pending changes while the service runs" "$update"
printf '%-62s %s s\n' "slowest status answer during the updates" "$slowest"
printf '%-62s %s\n' "pending changes after accepting 30 (status)" "$after"
printf '%-62s %s MiB\n' "service resident memory before the checks" "$((rss_start / 1024))"
printf '%-62s %s MiB\n' "service resident memory after the updates" "$((rss / 1024))"
