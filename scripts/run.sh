#!/usr/bin/env bash
# Builds the module, the reference host and the signdb tool, then runs the main job in ./demo:
# signdb init, a scan of a scratch copy of /etc, a few changes to that copy, and the check that
# reports them; then update accepts them, the next check is clean, and the journal says who
# accepted what.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/bootstrap.sh
cmake -S . -B build/release -G Ninja -DCMAKE_BUILD_TYPE=Release -DSIGNDB_TESTS=OFF -DSIGNDB_BENCH=OFF >/dev/null
cmake --build build/release -j "${SIGNDB_JOBS:-2}"
signdb="$PWD/build/release/bin/signdb"

demo="$PWD/demo"
rm -rf "$demo"
mkdir -p "$demo"
cp -a /etc "$demo/etc" 2>/dev/null || true   # what cannot be copied is simply not there
step() { printf '\n$ %s\n' "$*"; }

step signdb init --dir demo --policy etc=demo/etc
"$signdb" init --dir "$demo" --policy etc="$demo/etc"
config=(--config "$demo/signdb.json")

step signdb scan etc
"$signdb" "${config[@]}" scan etc || [ $? -eq 2 ]   # 2: something unreadable, named above

step "changes to the scratch copy: hosts edited, passwd chmod 600, motd renamed, a new file, issue removed"
echo "10.6.6.6 intruder.example" >> "$demo/etc/hosts"
chmod 600 "$demo/etc/passwd"
mv "$demo/etc/motd" "$demo/etc/motd.orig" 2>/dev/null || true
echo "* * * * * root /tmp/.x" > "$demo/etc/cron.hourly.sneaky"
rm -f "$demo/etc/issue"

step signdb check etc
status=0
"$signdb" "${config[@]}" check etc || status=$?
echo "(exit status $status: 1 means differences found)"
[ "$status" -eq 1 ]

step signdb update etc
"$signdb" "${config[@]}" update etc >/dev/null
"$signdb" "${config[@]}" check etc

step "signdb journal etc   (who accepted what, and when)"
"$signdb" "${config[@]}" journal etc
