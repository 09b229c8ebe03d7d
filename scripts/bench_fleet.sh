#!/usr/bin/env bash
# Measures the fleet store at scale on one local ClickHouse server and prints the figures:
#   - publishing one host's records: a real scan of /usr with and without a fleet store, and the
#     publication of an update that changed a few files (only what changed is sent);
#   - ingest over HTTP: whole snapshots of that host posted as TabSeparated, rows a second;
#   - SIGNDB_BENCH_HOSTS simulated hosts (default 1,000) made in the server from the real scan,
#     each with its own few hundred differences (0.2 % of its paths with another hash), then
#     'fleet lookup' of 1 and of 1,000 hashes, 'fleet drift' over a group of 100 hosts and
#     'fleet hosts', each run 3 times (the best and the median), with the rows and bytes that
#     ClickHouse's query_log says each read;
#   - the disk each row takes in the store, compressed.
#
#   scripts/bench_fleet.sh     (SIGNDB_BENCH_DIR the folder, on disk: 1,000 hosts take ~10 GB;
#                               SIGNDB_BENCH_BIN another signdb binary)
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/release_build.sh >/dev/null
signdb="${SIGNDB_BENCH_BIN:-$PWD/build/release/bin/signdb}"
work="${SIGNDB_BENCH_DIR:-/tmp/signdb-bench-fleet}"
hosts="${SIGNDB_BENCH_HOSTS:-1000}"
rm -rf "$work"
mkdir -p "$work/ch" "$work/tree"

port=$((20000 + RANDOM % 20000))
cat >"$work/ch/config.xml" <<EOF
<?xml version="1.0"?>
<yandex>
  <logger><level>warning</level><log>$work/ch/server.log</log><errorlog>$work/ch/error.log</errorlog><console>0</console></logger>
  <http_port>$port</http_port><tcp_port>$((port + 1))</tcp_port><listen_host>127.0.0.1</listen_host>
  <path>$work/ch/data/</path><tmp_path>$work/ch/tmp/</tmp_path><user_files_path>$work/ch/files/</user_files_path>
  <users_config>users.xml</users_config><default_profile>default</default_profile>
  <default_database>default</default_database><mark_cache_size>536870912</mark_cache_size>
</yandex>
EOF
cat >"$work/ch/users.xml" <<'EOF'
<?xml version="1.0"?>
<yandex><profiles><default><log_queries>1</log_queries></default></profiles>
<users><default><password></password><networks><ip>127.0.0.1</ip></networks><profile>default</profile><quota>default</quota></default></users>
<quotas><default></default></quotas></yandex>
EOF
/usr/sbin/clickhouse-server --config-file="$work/ch/config.xml" >"$work/ch/out.log" 2>&1 &
server=$!
stop_server() {
  kill "$server" 2>/dev/null || true
  for _ in $(seq 50); do kill -0 "$server" 2>/dev/null || return 0; sleep 0.2; done
  kill -9 "$server" 2>/dev/null || true
}
trap stop_server EXIT
url="http://127.0.0.1:$port"
q() { curl -sS --fail-with-body "$url/" --data-binary "$1"; }
for _ in $(seq 100); do q "SELECT 1" >/dev/null 2>&1 && break; sleep 0.2; done

seconds() { python3 -c 'import sys,time; print("%.3f" % (time.time()))'; }
# Runs a command 3 times; prints "best median" in seconds.
timed3() {
  local times=()
  for _ in 1 2 3; do
    local start end
    start=$(seconds)
    "$@" >/dev/null 2>&1 || true
    end=$(seconds)
    times+=("$(python3 -c "print('%.3f' % ($end - $start))")")
  done
  printf '%s\n' "${times[@]}" | sort -n | awk 'NR==1{b=$1} NR==2{m=$1} END{printf "%s s best, %s s median", b, m}'
}

# One real host: /usr, scanned without and then with the fleet store.
plain="$work/plain/signdb.json"
fleet="$work/host/signdb.json"
"$signdb" init --config "$plain" --policy "usr=/usr" >/dev/null
"$signdb" init --config "$fleet" --policy "usr=/usr" >/dev/null
python3 - "$fleet" "$url" <<'PY'
import json, sys
path, url = sys.argv[1], sys.argv[2]
config = json.load(open(path))
config["fleet"] = {"url": url, "host": "real-01", "groups": ["real"]}
json.dump(config, open(path, "w"), indent=2)
PY
"$signdb" --config "$fleet" fleet init >/dev/null
"$signdb" --config "$plain" scan usr --quiet >/dev/null 2>&1  # warms the page cache
"$signdb" --config "$fleet" scan usr --quiet >"$work/scan.out" 2>&1  # the first publication
echo "one host: $(q "SELECT count() FROM signdb.records") records of /usr ($(grep -o 'whole: [0-9,]* rows' "$work/scan.out"))"
echo "  scan --replace without a fleet store: $(timed3 "$signdb" --config "$plain" scan usr --quiet --replace)"
echo "  scan --replace with one (nothing changed: the host's publication only): $(timed3 "$signdb" --config "$fleet" scan usr --quiet --replace)"
records=$(q "SELECT count() FROM signdb.records")

# Ingest: the host's whole snapshot posted again under other names.
snapshot="$work/snapshot"
mkdir -p "$snapshot"
q "SELECT * FROM signdb.records WHERE host = 'real-01' FORMAT TabSeparated" >"$snapshot/records.tsv"
q "SELECT * FROM signdb.holders WHERE host = 'real-01' FORMAT TabSeparated" >"$snapshot/holders.tsv"
for i in 1 2 3 4; do
  sed "s/^real-01\t/ingest-$i\t/" "$snapshot/records.tsv" >"$snapshot/records-$i.tsv"
  sed "s/\treal-01\t/\tingest-$i\t/" "$snapshot/holders.tsv" >"$snapshot/holders-$i.tsv"
done
start=$(seconds)
# Two at a time (a server parses one insert on one core): as two hosts publishing at once.
for i in 1 2 3 4; do
  curl -sS --fail-with-body "$url/?query=INSERT%20INTO%20signdb.records%20FORMAT%20TabSeparated" --data-binary @"$snapshot/records-$i.tsv" &
  other=$!
  curl -sS --fail-with-body "$url/?query=INSERT%20INTO%20signdb.holders%20FORMAT%20TabSeparated" --data-binary @"$snapshot/holders-$i.tsv"
  wait "$other"
done
end=$(seconds)
rows=$((records * 8))
echo "ingest over HTTP: $rows rows in $(python3 -c "print('%.2f s: %.2f million rows/s' % ($end - $start, $rows / ($end - $start) / 1e6))")"
q "ALTER TABLE signdb.records DELETE WHERE host LIKE 'ingest-%'" >/dev/null
q "ALTER TABLE signdb.holders DELETE WHERE host LIKE 'ingest-%'" >/dev/null

# The simulated fleet, made in the server from the real host's rows: host n's paths with
# cityHash64(path, n) % 500 = 0 have a content of their own.
echo "making $hosts simulated hosts of $records records each in the store" >&2
start=$(seconds)
for table in records holders; do
  if [ "$table" = records ]; then
    columns="concat('sim-', toString(n)), policy, path, sequence, generation, present, kind, if(cityHash64(path, n) % 500 = 0, hex(cityHash64(path, n)), hash), size, mode, uid, gid, revision, published"
  else
    columns="if(cityHash64(path, n) % 500 = 0, hex(cityHash64(path, n)), hash), concat('sim-', toString(n)), policy, path, sequence, generation, present, since_revision, since"
  fi
  for ((from = 0; from < hosts; from += 50)); do
    q "INSERT INTO signdb.$table SELECT $columns FROM signdb.$table ARRAY JOIN arrayMap(x -> x + $from, range($((from + 50 < hosts ? 50 : hosts - from)))) AS n WHERE host = 'real-01'"
  done
done
q "INSERT INTO signdb.hosts SELECT concat('sim-', toString(n)), policy, published, sequence, generation, revision, objects, cstm_id, lcs_id, if(n < 100, ['web', 'g100'], ['web']), version, period FROM signdb.hosts ARRAY JOIN range($hosts) AS n WHERE host = 'real-01'"
end=$(seconds)
total=$(q "SELECT count() FROM signdb.records WHERE host NOT LIKE 'ingest-%'")
echo "simulated fleet: $hosts hosts, $total rows in records and as many in holders, made in $(python3 -c "print('%.0f' % ($end - $start))") s (in the server)"
q "OPTIMIZE TABLE signdb.records" >/dev/null 2>&1 || true
q "OPTIMIZE TABLE signdb.holders" >/dev/null 2>&1 || true

one=$(q "SELECT hash FROM signdb.holders WHERE host = 'real-01' AND hash != '' LIMIT 1 OFFSET 777")
# An indicator list: 10 contents that every host holds, and 990 that none does.
q "SELECT DISTINCT hash FROM signdb.holders WHERE host = 'real-01' AND hash != '' LIMIT 10" >"$work/iocs.txt"
python3 -c "import hashlib; print('\n'.join(hashlib.sha256(b'ioc %d' % i).hexdigest() for i in range(990)))" >>"$work/iocs.txt"
ask() { "$signdb" --config "$fleet" fleet "$@"; }
holders_of_one=$( (ask lookup "$one" || true) | wc -l)
echo "fleet lookup of 1 hash ($holders_of_one holders): $(timed3 ask lookup "$one")"
holders_of_many=$( (ask lookup --from "$work/iocs.txt" 2>/dev/null || true) | wc -l)
echo "fleet lookup of 1,000 hashes, 10 of them held ($holders_of_many holders): $(timed3 ask lookup --from "$work/iocs.txt")"
differing=$( (ask drift --group g100 --json 2>"$work/drift.err" || true) | wc -l)
echo "fleet drift over a group of 100 hosts ($differing paths differ): $(timed3 ask drift --group g100)"
echo "fleet hosts ($( (ask hosts --json 2>/dev/null || true) | wc -l) hosts): $(timed3 ask hosts)"

q "SYSTEM FLUSH LOGS" >/dev/null 2>&1 || true
echo "what each question read (system.query_log, the last run of each):"
q "SELECT substring(replaceRegexpAll(query, '\\\\s+', ' '), 1, 60), read_rows, formatReadableSize(read_bytes), query_duration_ms FROM system.query_log WHERE type = 2 AND query LIKE 'SELECT%' AND (query LIKE '%holders%' OR query LIKE '%records%' OR query LIKE '%hosts GROUP%') AND query NOT LIKE '%query_log%' ORDER BY event_time DESC LIMIT 12 FORMAT PrettyCompactNoEscapes"

echo "disk per row in the store (compressed):"
q "SELECT table, sum(rows) AS all_rows, formatReadableSize(sum(bytes_on_disk)) AS disk, round(sum(bytes_on_disk) / sum(rows), 1) AS bytes_a_row FROM system.parts WHERE database = 'signdb' AND active GROUP BY table ORDER BY table FORMAT PrettyCompactNoEscapes"
