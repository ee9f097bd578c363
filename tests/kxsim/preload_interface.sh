#!/bin/sh
# The preload library's interface: it exports exactly the symbols of its
# version script, and programs built with _FORTIFY_SOURCE, whose open calls
# go to __open_2 and friends, reach the simulator too.
#   preload_interface.sh <libkxsim.so> <exports.map> <kxsim> <fortified_open>
set -eu
lib=$1 map=$2 kxsim=$3 fortified=$4

exported=$(nm -D --defined-only "$lib" | awk '$2 ~ /^[TW]$/ {print $3}' | sort)
listed=$(sed -n '/global:/,/local:/p' "$map" | tr ' ;' '\n\n' |
  grep -E '^[A-Za-z_][A-Za-z0-9_]*$' | grep -v -e '^global$' -e '^local$' | sort)
if [ "$exported" != "$listed" ]; then
  echo "libkxsim.so exports other symbols than its version script:" >&2
  printf '%s\n' "$exported" >"${TMPDIR:-/tmp}/kxsim-exported.$$"
  printf '%s\n' "$listed" | diff - "${TMPDIR:-/tmp}/kxsim-exported.$$" >&2 || true
  rm -f "${TMPDIR:-/tmp}/kxsim-exported.$$"
  exit 1
fi

# Without fortified calls in the program the second check proves nothing.
for entry in __open_2 __openat_2; do
  nm -u "$fortified" | grep -q "$entry" || { echo "$fortified does not call $entry" >&2; exit 1; }
done
work=$(mktemp -d "${TMPDIR:-/tmp}/kxsim-fortify.XXXXXX")
trap 'rm -rf "$work"' EXIT
KXSIM_CONFIG=$work/kxsim.conf "$kxsim" mkfs "$work/fs" >/dev/null
KXSIM_CONFIG=$work/kxsim.conf "$kxsim" run -- "$fortified" /dev/kxfsctl0
