#!/bin/sh
# Walks through a post-restore clean-up on a simulated kxfs file system that
# the policy engine manages: a dry run that lists the files restored without
# data and says why the others are kept, the clean-up with -r, and a last dry
# run that finds nothing left to do.
#
# usage: demo.sh <vdpostrestore> <kxsim>
set -eu

TOOL=$1
KXSIM=$2
WORK=$(mktemp -d "${TMPDIR:-/tmp}/vdpostrestore-demo.XXXXXX")
trap 'rm -rf "$WORK"' EXIT
export KXSIM_CONFIG="$WORK/kxsim.conf"
unset KXSIM_FAULTS KXSIM_LOG KXFSCONF || true
MNT="$WORK/fs"

section() {
  printf '\n==== %s ====\n' "$1"
}

# count <pattern> <file>: lines of the file that hold the pattern.
count() {
  grep -c -- "$1" "$2" || true
}

# listed <log>: the files a log lists, after its three header lines.
listed() {
  tail -n +4 "$1" | wc -l
}

section "1. A managed kxfs file system just restored from a metadata backup"
"$KXSIM" mkfs "$MNT"
"$KXSIM" populate "$MNT" --managed --dirs 20 --files 2000 --blockless 20 --keys 4 \
  --keyed-dirs 2 --managed-files 30 --seed 7
echo "Policies in $MNT/.rep_private/config:"
for p in "$MNT"/.rep_private/config/*; do
  printf '  %-8s %s\n' "$(basename "$p")" "$(tr '\n' ' ' <"$p")"
done
echo "Keyed directories k<key>_<n> carry their policy's key; rp0 is a storage-manager"
echo "relation point; s<n> files were stored in the blockpool or object storage."

section "2. Dry run: vdpostrestore -vv -f dry-run.log $MNT"
echo "(Nothing is removed. The question about deduplicated files is answered 'y'.)"
echo y | "$KXSIM" run -- "$TOOL" -vv -f "$WORK/dry-run.log" "$MNT" >"$WORK/dry-run.out"
grep -c "Processing directory" "$WORK/dry-run.out" | sed 's/^/Directories walked: /'
echo "--- head of dry-run.log:"
head -n 8 "$WORK/dry-run.log"
echo "--- what was kept, and why:"
printf '  %6s files have their data (allocated blocks)\n' \
  "$(count 'File has non-zero allocation' "$WORK/dry-run.out")"
printf '  %6s files are empty\n' "$(count 'File has zero length' "$WORK/dry-run.out")"
printf '  %6s files lie under the storage manager'"'"'s relation point\n' \
  "$(count 'File is managed by SM' "$WORK/dry-run.out")"
printf '  %6s files are stored in object storage (WAS)\n' \
  "$(count 'Truncated file stored to WAS' "$WORK/dry-run.out")"
printf '  %6s files are stored in the deduplication blockpool\n' \
  "$(count 'Truncated file stored to blockpool' "$WORK/dry-run.out")"
printf '  %6s files have no data anywhere and are listed in the log\n' \
  "$(listed "$WORK/dry-run.log")"

section "3. Clean-up: echo y | vdpostrestore -r -f cleanup.log $MNT"
echo y | "$KXSIM" run -- "$TOOL" -r -f "$WORK/cleanup.log" "$MNT" >/dev/null
echo "Removed $(listed "$WORK/cleanup.log") files; cleanup.log lists each of them."

section "4. A second dry run finds nothing left"
echo y | "$KXSIM" run -- "$TOOL" -f "$WORK/again.log" "$MNT" >/dev/null
cat "$WORK/again.log"

# The demo fails if the clean-up did not do what it promises.
dry=$(listed "$WORK/dry-run.log")
removed=$(listed "$WORK/cleanup.log")
again=$(listed "$WORK/again.log")
kept_rp=$(find "$MNT/rp0" -type f -name 'r*' | wc -l)
kept_stored=$(find "$MNT" -path '*/k*' -type f -name 's*' | wc -l)
still_there=$(tail -n +4 "$WORK/cleanup.log" | while read -r f; do [ ! -e "$f" ] || echo "$f"; done | wc -l)
if [ "$dry" -eq 0 ] || [ "$dry" -ne "$removed" ] || [ "$again" -ne 0 ] || [ "$still_there" -ne 0 ] ||
   [ "$kept_rp" -eq 0 ] || [ "$kept_stored" -eq 0 ]; then
  echo "demo: unexpected result (dry=$dry removed=$removed again=$again" \
    "still_there=$still_there kept_rp=$kept_rp kept_stored=$kept_stored)" >&2
  exit 1
fi
printf '\nAll %s files restored without data were removed; %s such files under the\n' \
  "$removed" "$kept_rp"
printf 'relation point and %s stored elsewhere were kept.\n' "$kept_stored"
