#!/bin/sh
# usage: slowfs_run.sh <slowfs> <kxsim> <vdpostrestore>
# The simulator and the tool on a file system with latency: a managed tree
# populated through slowfs and cleaned with -r there is cleaned as the same
# tree is on the file system beneath it. Skipped (77) where FUSE cannot be
# mounted.
set -u
slowfs=$1 kxsim=$2 tool=$3
work=$(mktemp -d) || exit 1
trap 'fusermount3 -u "$work/mnt" 2>/dev/null; rm -rf "$work"' EXIT
mkdir "$work/src" "$work/mnt" "$work/plain"
command -v fusermount3 >/dev/null && [ -c /dev/fuse ] &&
  "$slowfs" "$work/src" "$work/mnt" -o delay_us=100 2>"$work/err" ||
  { echo "no FUSE here: skipped ($(cat "$work/err" 2>/dev/null))"; exit 77; }

# Same seed, same tree: one under slowfs, one beside it.
clean() {
  KXSIM_CONFIG=$work/$2.conf "$kxsim" mkfs "$1" >/dev/null &&
    KXSIM_CONFIG=$work/$2.conf "$kxsim" populate "$1" --managed --dirs 3 --files 30 \
      --keyed-dirs 1 --managed-files 12 >/dev/null &&
    KXSIM_CONFIG=$work/$2.conf "$kxsim" run -- "$tool" -r -b -f "$work/$2.log" "$1" >/dev/null
}
clean "$work/mnt/fs" slow || { echo "the run on slowfs failed"; exit 1; }
clean "$work/plain/fs" plain || { echo "the run beside it failed"; exit 1; }
sed "s|$work/mnt/|$work/plain/|" "$work/slow.log" | diff - "$work/plain.log" || exit 1
echo "same $(wc -l <"$work/plain.log") log lines on slowfs and beside it"
