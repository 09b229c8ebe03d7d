#!/usr/bin/env bash
# Measures the watch service on this machine and prints the figures:
#   - unpacking an archive of 100,000 small files (100 directories) into a watched tree: events
#     received and applied per second, the delay from the end of the unpacking until a lookup of
#     the last file's hash answers, CPU time of the service against that of tar, events lost (and
#     the same unpacking without a watcher first, into a folder outside the watched tree);
#   - renaming the directory that holds them: until the service shows a file under the new name;
#   - deleting them (rm -rf): until the service no longer shows the directory;
#   - idle: context switches of the service over 60 s with nothing changing;
#   - memory: resident size before and after 1,000,000 attribute events on 1,000 files.
#
#   scripts/bench_watch.sh            (SIGNDB_BENCH_BIN names another signdb binary,
#                                      SIGNDB_BENCH_DIR the folder, on the file system to measure,
#                                      SIGNDB_BENCH_IDLE the seconds of idleness, 60,
#                                      SIGNDB_BENCH_WATCH_ARGS options for the service: --inotify)
# On ext4, leave a minute between two runs: the unpacking is slower for a while after the last
# run's files were deleted.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/release_build.sh
signdb="${SIGNDB_BENCH_BIN:-$PWD/build/release/bin/signdb}"
work="${SIGNDB_BENCH_DIR:-/tmp/signdb-bench-watch}"
idle_seconds="${SIGNDB_BENCH_IDLE:-60}"
if [ -e "$work" ]; then
  rm -rf "$work"
  echo "waiting a minute after deleting the last run's files (see below)" >&2
  sleep 60
fi
mkdir -p "$work/tree" "$work/plain"

echo "making an archive of 100,000 files of 100 to 2,000 bytes in 100 directories" >&2
# Made in memory: 100,000 files written and deleted on the file system under test just before
# the unpacking would slow the unpacking itself (ext4 skips recently freed inodes while it
# allocates new ones for a while after a mass deletion).
last_hash=$(python3 - "$work/pack.tar" <<'PY2'
import hashlib, io, random, sys, tarfile, time
random.seed(11)
now = time.time()
with tarfile.open(sys.argv[1], "w", format=tarfile.GNU_FORMAT) as archive:
    for d in range(100):
        folder = tarfile.TarInfo("pack/d%03d" % d)
        folder.type, folder.mode, folder.mtime = tarfile.DIRTYPE, 0o755, now
        archive.addfile(folder)
        for f in range(1000):
            data = random.randbytes(random.randint(100, 2000))
            member = tarfile.TarInfo("pack/d%03d/f%04d" % (d, f))
            member.size, member.mode, member.mtime = len(data), 0o644, now
            archive.addfile(member, io.BytesIO(data))
print(hashlib.sha256(data).hexdigest())
PY2
)
sync

echo "unpacking without a watcher, for comparison" >&2
/usr/bin/time -f "%e %U %S" -o "$work/plain.time" tar -C "$work/plain" -xf "$work/pack.tar"
sync

config="$work/cfg/signdb.json"
"$signdb" init --config "$config" --policy "w=$work/tree" >/dev/null
# shellcheck disable=SC2086  # SIGNDB_BENCH_WATCH_ARGS: options for the service, "--inotify" say
"$signdb" --config "$config" watch --quiet ${SIGNDB_BENCH_WATCH_ARGS:-} >"$work/watch.out" 2>"$work/watch.err" &
pid=$!
trap 'kill $pid 2>/dev/null || true' EXIT
socket="$work/cfg/data/watch.sock"

# ask REQUEST: one request to the service, its answer on stdout.
ask() { python3 scripts/ask_service.py "$socket" "$1"; }
# until REQUEST TEXT [present|absent]: seconds until the answer contains (or no longer contains) TEXT.
until_answer() {
  PYTHONPATH=scripts python3 - "$socket" "$1" "$2" "$3" <<'PY'
import sys, time
from ask_service import ask
path, request, text, want = sys.argv[1:5]
start = time.monotonic()
while True:
    found = text in ask(path, request)
    if found == (want == "present"):
        print("%.4f" % (time.monotonic() - start))
        break
    if time.monotonic() - start > 600:
        print("timeout")
        break
    time.sleep(0.0005)
PY
}
cpu_of() { awk '{ print $14 + $15 }' "/proc/$1/stat"; }
ticks=$(getconf CLK_TCK)
status_field() { ask '{"request":"status"}' | python3 -c "import json,sys; print(json.load(sys.stdin)['policies'][0]['$1'])"; }

for _ in $(seq 1 300); do [ -S "$socket" ] && ask '{"request":"status"}' >/dev/null 2>&1 && break; sleep 0.1; done

echo "unpacking" >&2
cpu_before=$(cpu_of $pid)
events_before=$(status_field events)
applied_before=$(status_field applied)
start=$(date +%s.%N)
/usr/bin/time -f "%e %U %S" -o "$work/tar.time" tar -C "$work/tree" -xf "$work/pack.tar"
unpacked=$(date +%s.%N)
delay=$(until_answer "{\"request\":\"lookup\",\"hash\":\"$last_hash\"}" "d099/f0999" present)
visible=$(date +%s.%N)
# Everything read: nothing queued any more.
until_answer '{"request":"status"}' '"queued":0,' present >/dev/null
cpu_after=$(cpu_of $pid)
read -r tar_wall tar_user tar_system < "$work/tar.time"
read -r plain_wall plain_user plain_system < "$work/plain.time"
events=$(( $(status_field events) - events_before ))
applied=$(( $(status_field applied) - applied_before ))
lost=$(status_field lost)
seconds=$(echo "$visible - $start" | bc -l)

echo "renaming the directory of 100,000 files" >&2
mv "$work/tree/pack" "$work/tree/renamed"
rename_delay=$(until_answer '{"request":"show","policy":"w","path":"renamed/d050/f0500"}' '"ok":true' present)

echo "removing it" >&2
rm -rf "$work/tree/renamed"
remove_delay=$(until_answer '{"request":"show","policy":"w","path":"renamed"}' '"ok":false' present)

echo "idle for ${idle_seconds} s" >&2
until_answer '{"request":"status"}' '"queued":0,' present >/dev/null
sleep 1
switches() { awk '/ctxt_switches/ { sum += $2 } END { print sum }' "/proc/$pid/status"; }
idle_before=$(switches)
sleep "$idle_seconds"
idle_after=$(switches)

echo "1,000,000 attribute events" >&2
mkdir -p "$work/tree/busy"
python3 -c "
import os
for i in range(1000): open('$work/tree/busy/f%d' % i, 'w').close()"
until_answer '{"request":"status"}' '"queued":0,' present >/dev/null
rss() { awk '/VmRSS/ { print $2 }' "/proc/$pid/status"; }
rss_before=$(rss)
python3 -c "
import os
names = ['$work/tree/busy/f%d' % i for i in range(1000)]
for round in range(1000):
    for n in names: os.chmod(n, 0o600 if round % 2 else 0o644)"
until_answer '{"request":"status"}' '"queued":0,' present >/dev/null
rss_after=$(rss)
million_events=$(status_field events)

kill -TERM $pid
wait $pid || true
trap - EXIT
rm -rf "$work"

printf '\n%-58s %s\n' "what" "figure"
printf '%-58s %.2f s wall, %.2f s CPU\n' "tar -x of 100,000 files, unwatched" "$plain_wall" "$(echo "$plain_user + $plain_system" | bc -l)"
printf '%-58s %.2f s wall, %.2f s CPU\n' "tar -x of 100,000 files, watched" "$tar_wall" "$(echo "$tar_user + $tar_system" | bc -l)"
printf '%-58s %s s\n' "end of unpacking -> lookup of the last file answers" "$delay"
printf '%-58s %d received, %d applied (%.0f/s applied)\n' "events during the unpacking" "$events" "$applied" "$(echo "$applied / $seconds" | bc -l)"
printf '%-58s %.2f s\n' "service CPU for the unpacking" "$(echo "($cpu_after - $cpu_before) / $ticks" | bc -l)"
printf '%-58s %s\n' "times the kernel dropped events (reconciled)" "$lost"
printf '%-58s %s s\n' "rename of the directory -> a file shows under the new name" "$rename_delay"
printf '%-58s %s s\n' "rm -rf of it -> the directory is no longer recorded" "$remove_delay"
printf '%-58s %d over %d s\n' "context switches while idle" "$((idle_after - idle_before))" "$idle_seconds"
printf '%-58s %d -> %d KiB (%d events received in all)\n' "resident size, 1,000,000 attribute events" "$rss_before" "$rss_after" "$million_events"
