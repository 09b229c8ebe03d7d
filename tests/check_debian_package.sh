#!/usr/bin/env bash
# Builds the Debian package from a clean copy of the sources, holds it to lintian, and installs,
# upgrades, removes and purges it in a fresh Debian chroot:
#   - the package installs with nothing enabled or started, and `signdb init --system` then
#     `signdb scan --all` work there from the installed paths only;
#   - an upgrade from the previous build keeps the configuration, keys and databases, which still
#     load;
#   - remove and purge take away what the package made and leave what the administrator made
#     (/etc/signdb: the configuration, the keys, the signed databases).
# Needs root, debootstrap, dpkg-buildpackage and lintian, and Debian's archive for the chroot; says
# why and exits 77 (skipped) when one is missing.
#
# usage: tests/check_debian_package.sh [WORK_DIR]    (default: build/package)
#        SIGNDB_PACKAGE_REUSE=1 takes the package the last run built instead of building it again.
set -euo pipefail
cd "$(dirname "$0")/.."
source_dir=$PWD
work=$(realpath -m "${1:-build/package}")
mirror=${SIGNDB_DEBIAN_MIRROR:-http://deb.debian.org/debian}
suite=bookworm

skip() { echo "SKIPPED: $*"; exit 77; }
fail() { echo "FAILED: $*" >&2; exit 1; }
step() { echo "== $*"; }

[ "$(id -u)" -eq 0 ] || skip "the chroot needs root"
for tool in debootstrap dpkg-buildpackage lintian chroot; do
  command -v "$tool" > /dev/null || skip "$tool is not installed (apt-get install debootstrap dpkg-dev debhelper lintian)"
done

root=$work/chroot
cleanup() {
  for mounted in "$root/proc" "$root/dev/pts" "$root/dev"; do
    mountpoint -q "$mounted" 2> /dev/null && umount -l "$mounted"
  done
  return 0
}
trap cleanup EXIT
cleanup
version=$(dpkg-parsechangelog -l "$source_dir/debian/changelog" -S Version)
arch=$(dpkg --print-architecture)
deb=$work/signdb_${version}_${arch}.deb
if [ "${SIGNDB_PACKAGE_REUSE:-0}" = 1 ] && [ -f "$deb" ]; then
  # While working on the install steps: the package built by the last run.
  rm -rf "$root" "$work/previous" "$work"/*~previous*
else
rm -rf "$work"
mkdir -p "$work/src"

step "building the package from a clean copy of the sources"
# What git knows of (committed or not, ignored files left out): what a clean clone builds.
# A file deleted in the work tree but not yet in git is left out.
(git ls-files -z --cached --others --exclude-standard |
  while IFS= read -r -d '' file; do [ -e "$file" ] && printf '%s\0' "$file"; done |
  tar --null -T - -cf - | tar -xf - -C "$work/src") || fail "could not copy the sources"
(cd "$work/src" && dpkg-buildpackage -us -uc -b -j"${SIGNDB_JOBS:-2}") > "$work/build.log" 2>&1 \
  || { tail -40 "$work/build.log"; fail "dpkg-buildpackage failed (log: $work/build.log)"; }
[ -f "$deb" ] || fail "no $deb"
[ -f "$work/signdb-dbgsym_${version}_${arch}.deb" ] || fail "no debug symbols package"
echo "built $(basename "$deb") ($(du -k "$deb" | cut -f1) KiB)"
fi

step "lintian"
# An error or a warning fails; those that are meant are overridden in debian/ with the reason.
lintian_status=0
lintian --fail-on error,warning "$work/signdb_${version}_${arch}.changes" > "$work/lintian.txt" 2>&1 \
  || lintian_status=$?
grep -v 'running with root' "$work/lintian.txt" || true
[ "$lintian_status" -eq 0 ] || fail "lintian found errors or warnings"

# The previous build: the same files under a lower version, so that dpkg runs an upgrade (the old
# package's prerm, the new one's preinst and postinst with the old version) over a host that has a
# configuration, keys and signed databases.
previous_version="${version}~previous"
unpacked=$work/previous
dpkg-deb -R "$deb" "$unpacked"
sed -i "s/^Version: .*/Version: $previous_version/" "$unpacked/DEBIAN/control"
previous_deb=$work/signdb_${previous_version}_${arch}.deb
dpkg-deb --root-owner-group -b "$unpacked" "$previous_deb" > /dev/null

step "a fresh $suite chroot"
cache=${SIGNDB_DEBOOTSTRAP_CACHE:-$source_dir/build/cache}
mkdir -p "$cache"
tarball=$cache/debootstrap-$suite-$arch.tgz
if [ ! -f "$tarball" ]; then
  debootstrap --variant=minbase --make-tarball="$tarball.part" "$suite" "$work/tarball-scratch" "$mirror" \
    > "$work/debootstrap.log" 2>&1 || {
    tail -5 "$work/debootstrap.log"
    skip "debootstrap could not reach $mirror"
  }
  mv "$tarball.part" "$tarball"
  rm -rf "$work/tarball-scratch"
fi
debootstrap --variant=minbase --unpack-tarball="$tarball" "$suite" "$root" "$mirror" \
  >> "$work/debootstrap.log" 2>&1 || { tail -5 "$work/debootstrap.log"; fail "debootstrap failed"; }
cp /etc/resolv.conf "$root/etc/resolv.conf"
mount -t proc proc "$root/proc"
in_root() { chroot "$root" env -i HOME=/root PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8 "$@"; }
in_root apt-get update -q > "$work/apt.log" 2>&1 || { tail -5 "$work/apt.log"; skip "the chroot cannot reach $mirror"; }
cp "$deb" "$previous_deb" "$root/tmp/"
# apt-get in the chroot, its output kept in apt.log; says WHAT and stops when it fails.
apt_in_root() {
  local what=$1
  shift
  in_root env DEBIAN_FRONTEND=noninteractive apt-get -y -q "$@" >> "$work/apt.log" 2>&1 ||
    { tail -20 "$work/apt.log"; fail "$what failed"; }
}
package_state() { in_root dpkg-query -W -f='${db:Status-Abbrev}${Version}' signdb 2> /dev/null || true; }
# Enabled means a link in a .wants folder (debhelper's state files, *.dsh-also, only remember what
# enabling would make).
no_unit_enabled() {
  local enabled
  enabled=$(find "$root/etc/systemd" -name 'signdb*' 2> /dev/null || true)
  [ -z "$enabled" ] || fail "a unit was enabled by the package: $enabled"
  for unit in signdb-watch.service signdb-check.timer signdb-check.service; do
    ! in_root deb-systemd-helper is-enabled "$unit" 2> /dev/null || fail "$unit is enabled"
  done
}

step "install the previous build"
apt_in_root "the install of the previous build" install "/tmp/$(basename "$previous_deb")"
[ "$(package_state)" = "ii $previous_version" ] || fail "installed state: $(package_state)"
for path in /usr/bin/signdb "/usr/lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH)/signdb/libsigndb.so" \
  /lib/systemd/system/signdb-watch.service /lib/systemd/system/signdb-check.timer \
  /usr/share/man/man1/signdb.1.gz /usr/share/man/man5/signdb.json.5.gz /usr/share/man/man8/signdb-watch.8.gz \
  /usr/share/bash-completion/completions/signdb /usr/share/doc/signdb/README.Debian; do
  [ -e "$root$path" ] || fail "$path is not installed"
done
grep -q '^ExecStart=/usr/bin/signdb ' "$root/lib/systemd/system/signdb-watch.service" \
  || fail "the service does not start the installed program"
no_unit_enabled
[ ! -e "$root/etc/signdb" ] || fail "the package made /etc/signdb: only init does"

step "signdb init --system && signdb scan --all, from the installed paths only"
in_root signdb init --system > "$work/init.txt" 2>&1 || { cat "$work/init.txt"; fail "init --system failed"; }
grep -q "wrote /etc/signdb/signdb.json" "$work/init.txt" || { cat "$work/init.txt"; fail "init --system wrote elsewhere"; }
grep -q "next: signdb scan system" "$work/init.txt" || { cat "$work/init.txt"; fail "init --system's next step is not a plain scan"; }
in_root signdb scan --all --quiet > "$work/scan.txt" 2>&1 || { cat "$work/scan.txt"; fail "scan --all failed"; }
cat "$work/scan.txt"
[ -s "$root/etc/signdb/data/system.hdb" ] || fail "no database for the system policy"
in_root signdb check --all --quiet > "$work/check.txt" 2>&1 || { cat "$work/check.txt"; fail "check right after the scan"; }
in_root signdb selftest > /dev/null 2>&1 || fail "selftest in the chroot"
made_by_admin=(/etc/signdb/signdb.json /etc/signdb/keys/signer.key /etc/signdb/keys/ca.pem
  /etc/signdb/data/system.hdb /etc/signdb/data/system.hdb.p7s /etc/signdb/data/system.hdb.journal)
sum_admin_files() { (cd "$root" && sha256sum "${made_by_admin[@]#/}"); }
sums_before=$(sum_admin_files)

step "upgrade to this build"
apt_in_root "the upgrade" install "/tmp/$(basename "$deb")"
[ "$(package_state)" = "ii $version" ] || fail "state after the upgrade: $(package_state)"
no_unit_enabled
[ "$(sum_admin_files)" = "$sums_before" ] || fail "the upgrade changed the administrator's files"
# The upgrade rewrote the package's own files below /: a check may report them (1), but the
# databases must load and check (not 2).
status=0
in_root signdb check --all --quiet > "$work/check-upgraded.txt" 2>&1 || status=$?
[ "$status" -le 1 ] || { cat "$work/check-upgraded.txt"; fail "check after the upgrade ended with $status"; }
package_files=$(in_root dpkg-query -L signdb | grep -v '^/\.$')

step "remove, then purge"
apt_in_root "remove" remove signdb
[ ! -e "$root/usr/bin/signdb" ] || fail "remove left /usr/bin/signdb"
[ "$(sum_admin_files)" = "$sums_before" ] || fail "remove touched the administrator's files"
in_root dpkg --purge signdb >> "$work/apt.log" 2>&1 || { tail -20 "$work/apt.log"; fail "purge failed"; }
[ -z "$(package_state)" ] || [ "$(package_state)" = "pn " ] || fail "state after purge: $(package_state)"
left=()
while read -r path; do
  [ -n "$path" ] || continue
  if [ ! -d "$root$path" ] && { [ -f "$root$path" ] || [ -L "$root$path" ]; }; then left+=("$path"); fi
  # The package's own folders go when empty; those other packages share stay.
  case "$path" in /usr/lib/*/signdb | /usr/share/doc/signdb | /usr/share/doc/signdb/examples)
    [ ! -d "$root$path" ] || left+=("$path/") ;;
  esac
done <<< "$package_files"
[ ${#left[@]} -eq 0 ] || fail "purge left the package's files: ${left[*]}"
[ "$(sum_admin_files)" = "$sums_before" ] || fail "purge removed or changed the administrator's files"
no_unit_enabled

step "install again over the kept configuration"
apt_in_root "the second install" install "/tmp/$(basename "$deb")"
status=0
in_root signdb check --all --quiet > "$work/check-again.txt" 2>&1 || status=$?
[ "$status" -le 1 ] || { cat "$work/check-again.txt"; fail "check with the kept databases ended with $status"; }

echo "debian package: built, lintian clean, installed, upgraded, removed and purged in a fresh chroot"
