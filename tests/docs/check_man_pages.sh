#!/bin/sh
# usage: check_man_pages.sh <docs/man> <vdpostrestore>
# Fails on any mandoc warning, and on an option of the tool's help (short
# or long) that vdpostrestore.8 does not describe. Skipped (77) without mandoc.
set -eu
man=$1 tool=$2
command -v mandoc >/dev/null 2>&1 || { echo "mandoc not found (Debian package mandoc): skipped"; exit 77; }
lint=$(mandoc -T lint -W warning "$man/vdpostrestore.8" "$man/kxsim.1" 2>&1) || true
[ -z "$lint" ] || { printf '%s\n' "$lint" >&2; exit 1; }
status=0
for option in $("$tool" --help | sed -n 's/^\(-[a-z]\) .*/\1/p'); do
  # An option entry is a tagged paragraph whose tag starts with the option.
  grep -A1 '^\.TP' "$man/vdpostrestore.8" | grep -q "^\.BI\{0,1\} \\\\$option\b" ||
    { echo "vdpostrestore.8 does not describe $option" >&2; status=1; }
done
# Long options: each "--name" of the help's long-option lines, and
# --no-progress, named there beside --progress.
for option in $("$tool" --help | sed -n 's/^\(--[a-z-]*\).*/\1/p') --no-progress; do
  roff=$(printf '%s' "$option" | sed 's/-/\\\\-/g')
  grep -A1 '^\.TP' "$man/vdpostrestore.8" | grep -q "^\.BI\{0,1\} $roff" ||
    { echo "vdpostrestore.8 does not describe $option" >&2; status=1; }
done
exit $status
