#!/usr/bin/env bash
# Compares signdb with aide and hashdeep on the same trees and the same machine, in one run:
# recording a baseline (signdb scan, aide --init, hashdeep -r) and checking against it (signdb
# check, aide --check, hashdeep -a). Prints wall time, CPU time (user + system) and peak memory.
#
#   scripts/bench_tools.sh [TREE...]      default: /usr and a synthetic tree of 200,000 small files
#
# Each tree also gets a floor: the time "openssl dgst -sha256" takes to read and hash its files on
# every processor (xargs -P), with nothing recorded.
#
# SIGNDB_BENCH_PEERS=0 times signdb alone (no aide, no hashdeep); SIGNDB_BENCH_BIN names another
# signdb binary (a build of an earlier commit, for a before/after table on the same machine).
#
# Every tool records the same things where it can: SHA-256 of the content, kind, mode, owner,
# group, size, modification and change times, inode, link count, ACL, extended attributes, SELinux
# label, capabilities, inode flags and link target (aide); SHA-256 only (hashdeep, which records
# nothing else). aide hashes on as many workers as there are processors. The page cache is
# warmed first, so the figures compare the tools, not the disk.
set -euo pipefail
cd "$(dirname "$0")/.."

if ! command -v aide >/dev/null || ! command -v hashdeep >/dev/null || [ ! -x /usr/bin/time ]; then
  apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq aide hashdeep time >/dev/null
fi
bash scripts/release_build.sh
signdb="${SIGNDB_BENCH_BIN:-$PWD/build/release/bin/signdb}"
peers="${SIGNDB_BENCH_PEERS:-1}"

work="${SIGNDB_BENCH_DIR:-/tmp/signdb-bench}"
rm -rf "$work"
mkdir -p "$work"
trees=("$@")
if [ ${#trees[@]} -eq 0 ]; then
  synthetic="$work/synthetic"
  echo "making $synthetic: 200,000 files of 100 to 4,000 bytes in 400 directories" >&2
  python3 - "$synthetic" <<'PY'
import os, random, sys
root = sys.argv[1]
random.seed(7)
for d in range(400):
    folder = os.path.join(root, "d%03d" % (d // 20), "e%03d" % d)
    os.makedirs(folder, exist_ok=True)
    for f in range(500):
        with open(os.path.join(folder, "f%04d.dat" % f), "wb") as out:
            out.write(random.randbytes(random.randint(100, 4000)))
PY
  # Written out before anything is timed: the kernel would otherwise be flushing the new tree's
  # 400 MB to disk during the first runs, and they would measure that.
  sync
  trees=(/usr "$synthetic")
fi

cpus=$(nproc)
results="$work/results.txt"
: > "$results"
# measure LABEL TREE PHASE COMMAND...: runs the command under /usr/bin/time and keeps the figures.
measure() {
  local tool="$1" tree="$2" phase="$3"
  shift 3
  local figures="$work/time.txt"
  local status=0
  /usr/bin/time -f "%e %U %S %M" -o "$figures" "$@" >"$work/last.out" 2>"$work/last.err" || status=$?
  read -r wall user system peak_kib < "$figures"
  awk -v tool="$tool" -v tree="$tree" -v phase="$phase" -v wall="$wall" \
    -v user_s="$user" -v system_s="$system" -v peak="$peak_kib" -v status="$status" \
    'BEGIN { printf "%-9s %-28s %-6s %8.2f %8.2f %9.1f %6d\n", tool, tree, phase, wall, user_s + system_s, peak / 1024, status }' \
    >> "$results"
  tail -n 1 "$results" >&2
}

n=0
for tree in "${trees[@]}"; do
  n=$((n + 1))
  echo "warming the page cache with $tree" >&2
  find "$tree" -xdev -type f -print0 2>/dev/null | xargs -0 -r cat >/dev/null 2>&1 || true
  objects=$(find "$tree" -xdev 2>/dev/null | wc -l)
  label="$tree ($objects)"

  # The floor: only reading and hashing the same files' bytes on every processor, nothing
  # recorded; a scan cannot be faster than this.
  measure floor "$label" hash sh -c "find '$tree' -xdev -type f -print0 2>/dev/null | xargs -0 -r -P $cpus -n 512 openssl dgst -sha256 >/dev/null 2>&1; true"

  # signdb
  config="$work/signdb-$n/signdb.json"
  "$signdb" init --config "$config" --policy "t$n=$tree" >/dev/null
  measure signdb "$label" record "$signdb" --config "$config" scan "t$n" --quiet
  measure signdb "$label" check "$signdb" --config "$config" check "t$n" --quiet

  [ "$peers" = 0 ] && continue

  # aide, with the attributes that signdb records
  aide_conf="$work/aide-$n.conf"
  cat > "$aide_conf" <<CONF
database_in=file:$work/aide-$n.db
database_out=file:$work/aide-$n.db.new
gzip_dbout=no
report_url=stdout
num_workers=$cpus
Same = p+u+g+s+m+c+l+i+n+ftype+acl+xattrs+selinux+caps+e2fsattrs+sha256
$tree Same
CONF
  measure aide "$label" record aide --init --config="$aide_conf"
  mv "$work/aide-$n.db.new" "$work/aide-$n.db"
  measure aide "$label" check aide --check --config="$aide_conf"

  # hashdeep, SHA-256 only
  measure hashdeep "$label" record sh -c "hashdeep -c sha256 -r '$tree' > '$work/hashdeep-$n.txt'"
  measure hashdeep "$label" check hashdeep -c sha256 -r -a -k "$work/hashdeep-$n.txt" "$tree"
done

echo
printf '%-9s %-28s %-6s %8s %8s %9s %6s\n' tool "tree (objects)" phase "wall s" "CPU s" "peak MiB" status
cat "$results"
echo "(status: the tool's exit status; aide and hashdeep report differences or unreadable files with non-zero values)"
