#!/bin/sh
# Builds the Debian packages of a build tree (cpack -G DEB) and checks what
# a Debian developer would: the seven packages and nothing else, each file
# in the package it belongs to, the dependencies dpkg-shlibdeps computed
# (also between the library packages), shlibs files and ldconfig triggers
# instead of maintainer scripts, no search path in the public libraries;
# optionally lintian. Then it unpacks them all into a temporary root
# (dpkg-deb -x) and runs the unpacked vdpostrestore under the unpacked kxsim
# on a populated simulated file system: it must exit 0 and its log must
# list exactly the files restored without data.
#
# usage: check_package.sh [--lintian] <build dir> [<cpack>]
#   --lintian  also run lintian on every package (it must be installed) and
#              fail on any error or warning it reports
#   KEEP_DEB=<dir> copies the packages there.
# Needs dpkg-deb, dpkg-shlibdeps (Debian package dpkg-dev), file and readelf,
# which CPack uses to compute the dependencies; exits 77 (skipped) without
# them unless --lintian is given.
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

for tool in dpkg-deb dpkg-shlibdeps file readelf; do
  command -v "$tool" >/dev/null 2>&1 && continue
  [ "$need_lintian" -eq 0 ] || fail "$tool not found (Debian packages dpkg-dev, file and binutils)"
  echo "check_package: $tool not found (Debian packages dpkg-dev, file and binutils): skipped"
  exit 77
done

WORK=$(mktemp -d "${TMPDIR:-/tmp}/vd-package-check.XXXXXX")
trap 'rm -rf "$WORK"' EXIT
WORK=$(cd "$WORK" && pwd -P)
unset KXSIM_FAULTS KXSIM_FAULTS_FILE KXSIM_LOG KXFSCONF LD_PRELOAD || true
export KXSIM_CONFIG="$WORK/kxsim.conf"

"$CPACK" -G DEB -B "$WORK/pkg" --config "$BUILD/CPackConfig.cmake" >"$WORK/cpack.log" 2>&1 ||
  { cat "$WORK/cpack.log" >&2; fail "cpack -G DEB failed"; }
[ -z "${KEEP_DEB:-}" ] || cp "$WORK"/pkg/*.deb "$KEEP_DEB"/

LIBS="kxdmapi extapi vdpolicy kxutil"
PACKAGES="vdpostrestore kxsim libvdpostrestore-dev libkxdmapi1 libextapi1 libvdpolicy1 libkxutil1"
found=$(cd "$WORK/pkg" && ls -- *.deb | sed 's/_.*//' | sort | tr '\n' ' ')
[ "$found" = "$(echo $PACKAGES | tr ' ' '\n' | sort | tr '\n' ' ')" ] ||
  fail "expected the packages $PACKAGES, cpack made: $found"
deb() { echo "$WORK"/pkg/"$1"_*.deb; }
field() { dpkg-deb -f "$(deb "$1")" "$2"; }
control() { dpkg-deb --ctrl-tarfile "$(deb "$1")" | tar -xOf - "./$2" 2>/dev/null; }
VERSION=$(field vdpostrestore Version)
MA=$(dpkg-architecture -qDEB_HOST_MULTIARCH 2>/dev/null || gcc -print-multiarch)
L=usr/lib/$MA

# Each file in its package: the regular expression of the paths (files and
# links, not directories) that a package may hold, beyond its doc files.
allowed() {
  case $1 in
    vdpostrestore) echo "usr/sbin/vdpostrestore|usr/share/man/man8/vdpostrestore\.8\.gz|usr/share/lintian/overrides/vdpostrestore" ;;
    kxsim) echo "usr/bin/kxsim|$L/kxsim/libkxsim\.so|usr/share/man/man1/kxsim\.1\.gz" ;;
    libvdpostrestore-dev) echo "usr/include/(kxdmapi|extapi|vdpolicy|libutil)/.+\.h|$L/lib[a-z]+\.(so|a)|$L/pkgconfig/[a-z]+\.pc|$L/cmake/Vdpostrestore/.+\.cmake" ;;
    lib*1) echo "$L/${1%1}\.so\.1(\.[0-9]+\.[0-9]+)?" ;;
  esac
}
for p in $PACKAGES; do
  dpkg-deb --fsys-tarfile "$(deb "$p")" | tar -t | sed 's|^\./||; /\/$/d' >"$WORK/$p.files"
  stray=$(grep -Evx "($(allowed "$p")|usr/share/doc/$p/(copyright|changelog\.gz))" "$WORK/$p.files" || true)
  [ -z "$stray" ] || fail "$p holds files of another package: $stray"
  for f in usr/share/doc/$p/copyright usr/share/doc/$p/changelog.gz; do
    grep -qx "$f" "$WORK/$p.files" || fail "$p lacks $f"
  done
  [ "$(field "$p" Version)" = "$VERSION" ] || fail "$p has version $(field "$p" Version), not $VERSION"
  [ -n "$(field "$p" Maintainer)" ] || fail "$p has no Maintainer"
  # ldconfig belongs in a trigger, and no package needs a script of its own.
  for script in preinst postinst prerm postrm; do
    [ -z "$(control "$p" $script)" ] || fail "$p has a $script script"
  done
done
grep -qx usr/sbin/vdpostrestore "$WORK/vdpostrestore.files" || fail "vdpostrestore lacks its tool"
grep -qx "$L/kxsim/libkxsim.so" "$WORK/kxsim.files" || fail "kxsim lacks its preload library"
for lib in $LIBS; do
  p=lib${lib}1
  grep -qx "$L/lib$lib.so.1" "$WORK/$p.files" || fail "$p lacks lib$lib.so.1"
  for f in "$L/lib$lib.so" "$L/lib$lib.a" "$L/pkgconfig/$lib.pc"; do
    grep -qx "$f" "$WORK/libvdpostrestore-dev.files" || fail "libvdpostrestore-dev lacks $f"
  done
  [ "$(control "$p" shlibs)" = "lib$lib 1 $p (>= $VERSION)" ] || fail "$p shlibs: $(control "$p" shlibs)"
  [ "$(control "$p" triggers)" = "activate-noawait ldconfig" ] || fail "$p has no ldconfig trigger"
done

# Dependencies: computed by dpkg-shlibdeps, through the library packages'
# shlibs files where one library needs another.
depends_on() {
  case ", $(field "$1" Depends)," in
    *", $2 ("*) ;;
    *) fail "$1 does not depend on $2: $(field "$1" Depends)" ;;
  esac
}
for p in vdpostrestore kxsim libkxutil1; do depends_on $p libc6; done
depends_on libkxdmapi1 libkxutil1
depends_on libvdpolicy1 libkxdmapi1
depends_on libvdpolicy1 libkxutil1
for lib in $LIBS; do
  case ", $(field libvdpostrestore-dev Depends)," in
    *", lib${lib}1 (= $VERSION),"*) ;;
    *) fail "libvdpostrestore-dev does not depend on exactly lib${lib}1 $VERSION" ;;
  esac
done
case "$(field vdpostrestore Depends)$(field kxsim Depends)" in
  *libkx* | *libvd* | *libext* | *kxsim* | *-dev*) fail "the tool or kxsim depends on a library package" ;;
esac

if [ "$need_lintian" -eq 1 ]; then
  command -v lintian >/dev/null 2>&1 || fail "lintian not found (Debian package lintian)"
  lintian --fail-on error,warning "$WORK"/pkg/*.deb >"$WORK/lintian.log" 2>&1 || {
    cat "$WORK/lintian.log" >&2
    fail "lintian reports errors or warnings"
  }
  grep -v 'running with root privileges' "$WORK/lintian.log" || true
  echo "check_package: lintian: 0 errors, 0 warnings on $(echo $PACKAGES | wc -w) packages"
fi

ROOT=$WORK/root
for p in $PACKAGES; do dpkg-deb -x "$(deb "$p")" "$ROOT"; done
[ -d "$ROOT/usr/vexo/logs" ] || fail "no usr/vexo/logs"
for lib in $LIBS; do
  ! readelf -d "$ROOT/$L/lib$lib.so.1" | grep -q 'RPATH\|RUNPATH' ||
    fail "lib$lib.so.1 carries a library search path"
done
[ "$("$ROOT/usr/sbin/vdpostrestore" --version | head -n 1)" = "vdpostrestore $VERSION" ] ||
  fail "vdpostrestore --version does not say $VERSION"

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
echo "check_package: $(echo $PACKAGES | wc -w) packages; the unpacked vdpostrestore listed the 6 blockless files"
