#!/bin/sh
# Installs the Debian packages with dpkg -i on this machine and uses them as
# an administrator and a developer would: vdpostrestore --version,
# kxsim --version, man -w vdpostrestore, the installed tool run under the
# installed kxsim with its default log, and the consumer program built
# against the installed development package with pkg-config and with
# find_package(Vdpostrestore), run under kxsim. Then it purges them: every
# file and directory must be gone except the log the tool wrote into
# /usr/vexo/logs, and once that is gone too, a purge leaves nothing.
#
# usage: check_dpkg_install.sh <directory with the .deb files>
# Needs root, and a machine where none of the packages is installed and
# /usr/vexo does not exist (a CI container); exits 77 (skipped) when not
# root. Needs cc, cmake, ninja, pkg-config and man (Debian package man-db).
set -eu

DEBS=$(cd "$1" && pwd)
HERE=$(cd "$(dirname "$0")" && pwd)
PACKAGES="vdpostrestore kxsim libvdpostrestore-dev libkxdmapi1 libextapi1 libvdpolicy1 libkxutil1"

fail() {
  echo "check_dpkg_install: $*" >&2
  exit 1
}

if [ "$(id -u)" -ne 0 ]; then
  echo "check_dpkg_install: needs root (dpkg -i): skipped"
  exit 77
fi
for p in $PACKAGES; do
  ! dpkg-query -W -f='${Status}\n' "$p" 2>/dev/null | grep -q 'installed$' ||
    fail "$p is installed already; run this on a machine without the packages"
done
[ ! -e /usr/vexo ] || fail "/usr/vexo exists already; run this on a machine without it"
for p in $PACKAGES; do
  [ -f "$(echo "$DEBS/${p}"_*.deb)" ] || fail "no package $p in $DEBS"
done

WORK=$(mktemp -d "${TMPDIR:-/tmp}/vd-dpkg-check.XXXXXX")
WORK=$(cd "$WORK" && pwd -P)
purge() { dpkg --purge $PACKAGES >>"$WORK/purge.log" 2>&1; }
trap 'purge || true; rm -rf "$WORK"' EXIT
unset KXSIM_FAULTS KXSIM_FAULTS_FILE KXSIM_LOG KXFSCONF LD_PRELOAD PKG_CONFIG_PATH || true
export KXSIM_CONFIG="$WORK/kxsim.conf"

# expect <what> <expected> <actual>
expect() {
  [ "$2" = "$3" ] || fail "$1: expected
$2
got
$3"
}

# What the packages may touch, as it was before.
snapshot() { find /usr /etc/ld.so.conf.d -xdev | sort; }
snapshot >"$WORK/before"

dpkg -i "$DEBS"/*.deb >"$WORK/install.log" 2>&1 || { cat "$WORK/install.log" >&2; fail "dpkg -i failed"; }
VERSION=$(dpkg-query -W -f='${Version}' vdpostrestore)
expect "vdpostrestore --version" "vdpostrestore $VERSION" "$(vdpostrestore --version | head -n 1)"
expect "kxsim --version" "kxsim $VERSION" "$(kxsim --version)"
expect "man -w vdpostrestore" /usr/share/man/man8/vdpostrestore.8.gz "$(man -w vdpostrestore)"

# The tool as an administrator runs it, writing its default log.
kxsim mkfs "$WORK/fs" >/dev/null
kxsim populate "$WORK/fs/plain" --dirs 2 --files 10 --blockless 50 >/dev/null
kxsim run -- vdpostrestore "$WORK/fs" </dev/null >"$WORK/out" 2>&1 || { cat "$WORK/out" >&2; fail "vdpostrestore failed"; }
[ -s /usr/vexo/logs/vdpostrestore.out ] || fail "no log in /usr/vexo/logs"

# A file of the simulated mount with an external representation "BLOB".
mkdir "$WORK/fs/d"
echo data >"$WORK/fs/d/f"
kxsim rep set "$WORK/fs/d/f" BLOB 626c6f62 >/dev/null
want="path $WORK/fs/d/f
BLOB blob"

# The development package as a developer uses it: nothing to point at.
expect "pkg-config --modversion" "$VERSION $VERSION $VERSION $VERSION" \
  "$(pkg-config --modversion kxdmapi extapi vdpolicy kxutil | tr '\n' ' ' | sed 's/ $//')"
# shellcheck disable=SC2046
cc -std=c11 -Wall -Wextra -Werror -o "$WORK/prog" "$HERE/consumer/consumer.c" \
  $(pkg-config --cflags --libs kxdmapi extapi vdpolicy) || fail "cc with pkg-config failed"
expect "pkg-config program" "$want" "$(kxsim run -- "$WORK/prog" "$WORK/fs/d/f")"
{
  cmake -S "$HERE/consumer" -B "$WORK/consumer" -G Ninja -DCMAKE_BUILD_TYPE=Release &&
    cmake --build "$WORK/consumer"
} >"$WORK/consumer.log" 2>&1 || { cat "$WORK/consumer.log" >&2; fail "the find_package consumer does not build"; }
for kind in shared static; do
  expect "find_package program ($kind)" "$want" \
    "$(kxsim run -- "$WORK/consumer/consumer_$kind" "$WORK/fs/d/f")"
done

# Purged, the packages leave the administrator's log and the directories
# holding it, and nothing else.
purge || { cat "$WORK/purge.log" >&2; fail "dpkg --purge failed"; }
snapshot >"$WORK/after"
expect "left after the purge" "/usr/vexo
/usr/vexo/logs
/usr/vexo/logs/vdpostrestore.out" "$(comm -13 "$WORK/before" "$WORK/after")"
expect "taken by the purge" "" "$(comm -23 "$WORK/before" "$WORK/after")"

# Without a log, nothing at all.
rm -r /usr/vexo
dpkg -i "$DEBS"/vdpostrestore_*.deb >"$WORK/install.log" 2>&1 || { cat "$WORK/install.log" >&2; fail "dpkg -i failed"; }
[ -d /usr/vexo/logs ] || fail "vdpostrestore did not create /usr/vexo/logs"
purge || { cat "$WORK/purge.log" >&2; fail "dpkg --purge failed"; }
snapshot >"$WORK/after"
expect "left after the purge of an unused tool" "" "$(comm -3 "$WORK/before" "$WORK/after")"
echo "check_dpkg_install: installed, used and purged $(echo $PACKAGES | wc -w) packages; nothing left behind"
