#!/bin/sh
# Installs the build tree into a temporary prefix and uses it as an
# application would: the installed tool and simulator answer --version, a C
# program built with `pkg-config --cflags --libs` (shared libraries) and the
# same program built through find_package(Vdpostrestore) (shared and static)
# run under the installed kxsim and print what the libraries returned.
#
# usage: install_test.sh <cmake> <build dir> <libdir> <version> <generator> [<linker flags>]
# Exits 77 (skipped) without pkg-config.
set -eu

CMAKE=$1
BUILD=$2
LIBDIR=$3
VERSION=$4
GENERATOR=$5
LDFLAGS_OF_BUILD=${6:-}
HERE=$(cd "$(dirname "$0")" && pwd)

if ! command -v pkg-config >/dev/null 2>&1; then
  echo "install_test: pkg-config not found (Debian package pkg-config): skipped"
  exit 77
fi

WORK=$(mktemp -d "${TMPDIR:-/tmp}/vd-install-test.XXXXXX")
trap 'rm -rf "$WORK"' EXIT
WORK=$(cd "$WORK" && pwd -P)
P=$WORK/prefix
unset KXSIM_FAULTS KXSIM_FAULTS_FILE KXSIM_LOG KXFSCONF LD_PRELOAD PKG_CONFIG_LIBDIR || true
export KXSIM_CONFIG="$WORK/kxsim.conf"

fail() {
  echo "install_test: $*" >&2
  exit 1
}

# expect <what> <expected> <actual>
expect() {
  [ "$2" = "$3" ] || fail "$1: expected
$2
got
$3"
}

"$CMAKE" --install "$BUILD" --prefix "$P" >"$WORK/install.log" 2>&1 ||
  { cat "$WORK/install.log" >&2; fail "cmake --install failed"; }

expect "vdpostrestore --version" "vdpostrestore $VERSION" "$("$P/sbin/vdpostrestore" --version | head -n 1)"
expect "kxsim --version" "kxsim $VERSION" "$("$P/bin/kxsim" --version)"
for page in man8/vdpostrestore.8.gz man1/kxsim.1.gz; do
  [ -f "$P/share/man/$page" ] || fail "no share/man/$page"
done

# A file of a simulated mount with an external representation "BLOB".
"$P/bin/kxsim" mkfs "$WORK/fs" >/dev/null
mkdir "$WORK/fs/d"
echo data >"$WORK/fs/d/f"
"$P/bin/kxsim" rep set "$WORK/fs/d/f" BLOB 626c6f62 >/dev/null
want="path $WORK/fs/d/f
BLOB blob"

# pkg-config, shared libraries found through LD_LIBRARY_PATH.
export PKG_CONFIG_PATH="$P/$LIBDIR/pkgconfig"
expect "pkg-config --modversion" "$VERSION $VERSION $VERSION $VERSION" \
  "$(pkg-config --modversion kxdmapi extapi vdpolicy kxutil | tr '\n' ' ' | sed 's/ $//')"
# shellcheck disable=SC2046,SC2086
cc -std=c11 -Wall -Wextra -Werror -o "$WORK/prog" "$HERE/consumer/consumer.c" \
  $(pkg-config --cflags --libs kxdmapi extapi vdpolicy) $LDFLAGS_OF_BUILD ||
  fail "cc with pkg-config failed"
expect "pkg-config program" "$want" \
  "$(LD_LIBRARY_PATH="$P/$LIBDIR" "$P/bin/kxsim" run -- "$WORK/prog" "$WORK/fs/d/f")"

# find_package: the shared build runs by its RUNPATH, the static one alone.
{
  "$CMAKE" -S "$HERE/consumer" -B "$WORK/consumer" -G "$GENERATOR" -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_PREFIX_PATH="$P" -DCMAKE_EXE_LINKER_FLAGS="$LDFLAGS_OF_BUILD" &&
    "$CMAKE" --build "$WORK/consumer"
} >"$WORK/consumer.log" 2>&1 || { cat "$WORK/consumer.log" >&2; fail "the find_package consumer does not build"; }
for kind in shared static; do
  expect "find_package program ($kind)" "$want" \
    "$("$P/bin/kxsim" run -- "$WORK/consumer/consumer_$kind" "$WORK/fs/d/f")"
done
if ldd "$WORK/consumer/consumer_static" | grep -q 'libkxdmapi\|libkxutil\|libvdpolicy\|libextapi'; then
  fail "consumer_static needs a shared library of the project"
fi
echo "install_test: $P passed"
