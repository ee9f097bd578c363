#!/bin/sh
# Builds the Debian package of a build tree (cpack -G DEB), checks its
# control fields and contents, optionally runs lintian on it, unpacks it into
# a temporary root (dpkg-deb -x) and runs the unpacked vdpostrestore under the
# unpacked kxsim on a populated simulated file system: it must exit 0 and its
# log must list exactly the files restored without data.
#
# usage: check_package.sh [--lintian] <build dir> [<cpack>]
#   --lintian  also run lintian on the package (it must be installed) and
#              fail on any error it reports; its warnings are printed
#   KEEP_DEB=<dir> copies the package there.
# Needs dpkg-deb, dpkg-shlibdeps (Debian package dpkg-dev) and file (package
# file), which CPack uses to compute the dependencies; exits 77 (skipped)
# without them unless --lintian is given.
set -eu

need_lintian=0
if [ "${1:-}" = "--lintian" ]; then
  need_lintian=1
  shift
fi
BUILD=$(cd "$1" && pwd)
CPACK=${2:-cpack}

fail() {
  echo "check_package: $*" >&2
  exit 1
}

for tool in dpkg-deb dpkg-shlibdeps file; do
  command -v "$tool" >/dev/null 2>&1 && continue
  [ "$need_lintian" -eq 0 ] || fail "$tool not found (Debian packages dpkg-dev and file)"
  echo "check_package: $tool not found (Debian packages dpkg-dev and file): skipped"
  exit 77
done

WORK=$(mktemp -d "${TMPDIR:-/tmp}/vd-package-check.XXXXXX")
trap 'rm -rf "$WORK"' EXIT
WORK=$(cd "$WORK" && pwd -P)
unset KXSIM_FAULTS KXSIM_FAULTS_FILE KXSIM_LOG KXFSCONF LD_PRELOAD || true
export KXSIM_CONFIG="$WORK/kxsim.conf"

"$CPACK" -G DEB -B "$WORK/pkg" --config "$BUILD/CPackConfig.cmake" >"$WORK/cpack.log" 2>&1 ||
  { cat "$WORK/cpack.log" >&2; fail "cpack -G DEB failed"; }
set -- "$WORK"/pkg/*.deb
{ [ $# -eq 1 ] && [ -f "$1" ]; } || fail "expected one .deb in $WORK/pkg, found: $*"
DEB=$1
echo "check_package: built $(basename "$DEB")"
[ -z "${KEEP_DEB:-}" ] || cp "$DEB" "$KEEP_DEB"/

# Control fields: the version is the tool's, dependencies were computed.
field() { dpkg-deb -f "$DEB" "$1"; }
[ "$(field Package)" = vdpostrestore ] || fail "Package: $(field Package)"
[ -n "$(field Maintainer)" ] || fail "no Maintainer"
case "$(field Depends)" in
  *libc6*) ;;
  *) fail "Depends lacks libc6 (dpkg-shlibdeps did not run?): $(field Depends)" ;;
esac
dpkg-deb --ctrl-tarfile "$DEB" | tar -xOf - ./triggers | grep -qx 'activate-noawait ldconfig' ||
  fail "no ldconfig trigger"

if [ "$need_lintian" -eq 1 ]; then
  command -v lintian >/dev/null 2>&1 || fail "lintian not found (Debian package lintian)"
  lintian --fail-on error "$DEB" >"$WORK/lintian.log" 2>&1 || {
    cat "$WORK/lintian.log" >&2
    fail "lintian reports errors"
  }
  grep -v '^N:\|running with root privileges' "$WORK/lintian.log" || true
  echo "check_package: lintian: $(grep -c '^E:' "$WORK/lintian.log" || true) errors," \
    "$(grep -c '^W:' "$WORK/lintian.log" || true) warnings"
fi

ROOT=$WORK/root
dpkg-deb -x "$DEB" "$ROOT"
[ -x "$ROOT/usr/sbin/vdpostrestore" ] || fail "no usr/sbin/vdpostrestore"
[ -x "$ROOT/usr/bin/kxsim" ] || fail "no usr/bin/kxsim"
[ -d "$ROOT/usr/vexo/logs" ] || fail "no usr/vexo/logs"
for page in man8/vdpostrestore.8.gz man1/kxsim.1.gz; do
  [ -f "$ROOT/usr/share/man/$page" ] || fail "no usr/share/man/$page"
done
[ -f "$ROOT/usr/share/doc/vdpostrestore/copyright" ] || fail "no copyright file"
for f in libkxsim.so libkxdmapi.so.1 libextapi.so.1 libvdpolicy.so.1 libkxutil.so.1 \
  pkgconfig/kxdmapi.pc cmake/Vdpostrestore/VdpostrestoreConfig.cmake; do
  [ -n "$(find "$ROOT/usr/lib" -path "*/$f")" ] || fail "no $f under usr/lib"
done
version=$(field Version)
[ "$("$ROOT/usr/sbin/vdpostrestore" --version | head -n 1)" = "vdpostrestore $version" ] ||
  fail "vdpostrestore --version does not say $version"

# The unpacked tool under the unpacked simulator.
KXSIM=$ROOT/usr/bin/kxsim
MNT=$WORK/fs
"$KXSIM" mkfs "$MNT" >/dev/null
"$KXSIM" populate "$MNT" --dirs 3 --files 30 --blockless 20 >/dev/null
status=0
"$KXSIM" run -- "$ROOT/usr/sbin/vdpostrestore" -f "$WORK/log" "$MNT" </dev/null >"$WORK/out" 2>&1 ||
  status=$?
[ "$status" -eq 0 ] || { cat "$WORK/out" >&2; fail "vdpostrestore exited $status"; }
# Files with a size and no blocks, as the walk sees them; the log lists
# them after its three header lines.
find "$MNT" -type f -size +0c -printf '%b %p\n' | sed -n 's/^0 //p' | sort >"$WORK/blockless"
tail -n +4 "$WORK/log" | sort >"$WORK/listed"
[ "$(wc -l <"$WORK/blockless")" -eq 6 ] || fail "populate made $(wc -l <"$WORK/blockless") blockless files, not 6"
cmp -s "$WORK/blockless" "$WORK/listed" || {
  diff "$WORK/blockless" "$WORK/listed" >&2 || true
  fail "the log does not list the blockless files"
}
echo "check_package: the unpacked vdpostrestore listed the 6 blockless files"
