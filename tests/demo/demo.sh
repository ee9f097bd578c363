#!/bin/sh
# Walks through a post-restore clean-up on a simulated kxfs file system:
# a dry run that lists the files restored without data, then the clean-up
# with -r, and the tree before and after.
#
# usage: demo.sh <vdpostrestore> <kxsim>
set -eu

TOOL=$1
KXSIM=$2
WORK=$(mktemp -d "${TMPDIR:-/tmp}/vdpostrestore-demo.XXXXXX")
trap 'rm -rf "$WORK"' EXIT
export KXSIM_CONFIG="$WORK/kxsim.conf"
unset KXSIM_FAULTS KXSIM_LOG || true
MNT="$WORK/fs"

section() {
  printf '\n==== %s ====\n' "$1"
}

# One line per regular file: allocated blocks, size, path.
listing() {
  find "$MNT" -type f -printf '%b blocks %9s bytes  %P\n' | sort -k5
}

section "1. A kxfs file system just restored from a metadata backup"
"$KXSIM" mkfs "$MNT"
"$KXSIM" populate "$MNT/projects" --dirs 3 --files 12 --blockless 25 --seed 7
: >"$MNT/projects/empty-on-purpose.txt"
# Files the storage manager keeps: blockless too, but under a relation point
# (the "VDEA" attribute and the create, remove and link events).
mkdir -p "$MNT/archive/2023"
truncate -s 1048576 "$MNT/archive/2023/tape-copy.dat"
"$KXSIM" attr set "$MNT/archive" VDEA 01 >/dev/null
"$KXSIM" events set "$MNT/archive" 0x1120 >/dev/null
echo "Files (a size with 0 blocks means the data did not come back):"
listing

section "2. Dry run: vdpostrestore -v -f dry-run.log $MNT"
echo "(Nothing is removed; files under the relation point archive/ are left alone.)"
"$KXSIM" run -- "$TOOL" -v -f "$WORK/dry-run.log" "$MNT"
echo "--- dry-run.log:"
cat "$WORK/dry-run.log"

section "3. Clean-up: vdpostrestore -r -f cleanup.log $MNT"
"$KXSIM" run -- "$TOOL" -r -f "$WORK/cleanup.log" "$MNT"
echo "--- cleanup.log:"
cat "$WORK/cleanup.log"

section "4. The tree afterwards"
listing

# The demo fails if the clean-up did not do what it promises.
left=$(find "$MNT/projects" -type f -size +0 -printf '%b\n' | grep -c '^0$' || true)
listed=$(tail -n +4 "$WORK/dry-run.log" | wc -l)
removed=$(tail -n +4 "$WORK/cleanup.log" | wc -l)
if [ "$left" -ne 0 ] || [ "$listed" -ne "$removed" ] || [ "$removed" -eq 0 ] ||
   [ ! -f "$MNT/archive/2023/tape-copy.dat" ] || [ ! -f "$MNT/projects/empty-on-purpose.txt" ]; then
  echo "demo: unexpected result (left=$left listed=$listed removed=$removed)" >&2
  exit 1
fi
printf '\nAll %s files restored without data were removed; the storage manager'"'"'s\n' "$removed"
echo "file under archive/ and the empty file were kept."
