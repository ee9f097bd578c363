#!/bin/sh
# Scale benchmark: the tool where metadata has latency, as on a metadata
# server whose caches are cold after a restore. The trees are served by
# slowfs (every metadata operation waits DELAY_US, 200 µs) and the driver's
# requests wait KXSIM_US (100 µs, KXSIM_LATENCY_US). On a managed tree
# (SCALE_MANAGED files, 50,000) and an unmanaged one (SCALE_PLAIN, 200,000),
# in rounds whose order rotates: the tool's dry run with -p (which changes
# nothing, so every round sees the same tree) with --jobs=1 and --jobs=16,
# find(1), floorwalk (the serial floor) and pfloorwalk with 16 threads (the
# parallel floor), each as a ratio to the tool with --jobs=16 of the same
# round, min/median/max. Then on tmpfs without latency: the tool with
# --jobs=2 against the serial floor walker.
#
# usage: bench_scale.sh <vdpostrestore> <kxsim> <slowfs> <floorwalk> <pfloorwalk> <work dir>
# The trees are kept in <work dir> and reused. BENCH_RUNS sets the rounds
# (3). Without FUSE (fusermount3, /dev/fuse) it says so and stops.
set -eu

TOOL=$1
KXSIM=$2
SLOWFS=$3
FLOOR=$4
PFLOOR=$5
WORK=$6
RUNS=${BENCH_RUNS:-3}
DELAY_US=${DELAY_US:-200}
KXSIM_US=${KXSIM_US:-100}
MANAGED=${SCALE_MANAGED:-50000}
PLAIN=${SCALE_PLAIN:-200000}
unset KXSIM_FAULTS KXSIM_FAULTS_FILE KXSIM_LOG KXFSCONF KXSIM_LATENCY_US || true

if ! command -v fusermount3 >/dev/null || [ ! -c /dev/fuse ]; then
  echo "bench_scale: no FUSE here (fusermount3 and /dev/fuse): skipped"
  exit 0
fi

mkdir -p "$WORK/src" "$WORK/mnt" "$WORK/out"
export KXSIM_CONFIG="$WORK/kxsim.conf"
mounted=0
mount_slowfs() {
  "$SLOWFS" "$WORK/src" "$WORK/mnt" -o "delay_us=$1"
  mounted=1
}
unmount_slowfs() {
  [ "$mounted" -eq 0 ] || fusermount3 -u "$WORK/mnt"
  mounted=0
}
trap unmount_slowfs EXIT

# The trees are made through slowfs without delay, so that the simulator
# registers them where the benchmark walks them.
mount_slowfs 0
# A managed tree: 20 keys of 20 keyed directories, each with three
# directories of 20 files, and a plain part up to MANAGED files.
M_FILES=$((MANAGED - (20 * 20 + 1) * 3 * 20))
[ "$M_FILES" -gt 0 ] || M_FILES=1
if [ ! -d "$WORK/mnt/managed" ]; then
  echo "bench_scale: making a managed tree of $MANAGED files (once)"
  "$KXSIM" mkfs "$WORK/mnt/managed" >/dev/null
  "$KXSIM" populate "$WORK/mnt/managed" --managed --keys 20 --keyed-dirs 20 \
    --relation-points 1 --managed-files 20 --dirs $((M_FILES / 100 + 1)) --files "$M_FILES" >/dev/null
fi
if [ ! -d "$WORK/mnt/plain" ]; then
  echo "bench_scale: making an unmanaged tree of $PLAIN files (once)"
  "$KXSIM" mkfs "$WORK/mnt/plain" >/dev/null
  "$KXSIM" populate "$WORK/mnt/plain" --dirs $((PLAIN / 100)) --files "$PLAIN" >/dev/null
fi
unmount_slowfs
mount_slowfs "$DELAY_US"

now() { date +%s.%N; }
# seconds <name> <command...>: runs it, appends its time to out/<name>.
seconds() {
  name=$1
  shift
  start=$(now)
  "$@" >/dev/null 2>&1 || { echo "bench_scale: $name failed: $*" >&2; exit 1; }
  echo "$(now) $start" | awk '{ printf "%.3f\n", $1 - $2 }' >>"$WORK/out/$name"
}

# stats <file>: min median max of its numbers.
stats() {
  sort -g "$1" | awk '{ v[NR] = $1 } END { printf "%.3f %.3f %.3f", v[1], v[int((NR + 1) / 2)], v[NR] }'
}

# round <tree> <rotation>: every contender once, in a rotated order.
round() {
  tree=$1
  rotation=$2
  dir="$WORK/mnt/$tree"
  set -- tool1 tool16 find floor pfloor
  i=0
  while [ "$i" -lt "$rotation" ]; do
    first=$1
    shift
    set -- "$@" "$first"
    i=$((i + 1))
  done
  for c in "$@"; do
    case $c in
      tool1) seconds "$tree.tool1" env KXSIM_LATENCY_US="$KXSIM_US" \
        "$KXSIM" run -- "$TOOL" -p --jobs=1 -f "$WORK/out/log" "$dir" ;;
      tool16) seconds "$tree.tool16" env KXSIM_LATENCY_US="$KXSIM_US" \
        "$KXSIM" run -- "$TOOL" -p --jobs=16 -f "$WORK/out/log" "$dir" ;;
      find) seconds "$tree.find" find "$dir" -type f -size +0 ;;
      floor) seconds "$tree.floor" "$FLOOR" "$WORK/out/floor.log" "$dir" ;;
      pfloor) seconds "$tree.pfloor" "$PFLOOR" 16 "$WORK/out/pfloor.log" "$dir" ;;
    esac
  done
}

# ratios <tree> <contender>: contender / tool16 per round.
ratios() {
  paste "$WORK/out/$1.$2" "$WORK/out/$1.tool16" | awk '{ printf "%.3f\n", $1 / $2 }' >"$WORK/out/ratio"
  stats "$WORK/out/ratio"
}

for tree in managed plain; do
  rm -f "$WORK/out/$tree".*
  r=0
  while [ "$r" -lt "$RUNS" ]; do
    round "$tree" $((r % 5))
    r=$((r + 1))
  done
  echo "== $tree tree on slowfs (${DELAY_US} us per operation, driver requests ${KXSIM_US} us), $RUNS rounds"
  printf '%-28s %-26s %s\n' "" "seconds min/median/max" "ratio to --jobs=16 min/median/max"
  for c in tool1 tool16 find floor pfloor; do
    case $c in
      tool1) label="vdpostrestore --jobs=1" ;;
      tool16) label="vdpostrestore --jobs=16" ;;
      find) label="find" ;;
      floor) label="floorwalk (serial)" ;;
      pfloor) label="pfloorwalk (16 threads)" ;;
    esac
    printf '%-28s %-26s %s\n' "$label" "$(stats "$WORK/out/$tree.$c")" "$(ratios "$tree" "$c")"
  done
done
unmount_slowfs

# Without latency: tmpfs, the tool with two threads against the serial floor.
SHM=${BENCH_STATE_DIR:-/dev/shm}/vdpostrestore-scale
# The tree's registration lives beside it, so that a tree kept from an
# earlier run is always one the simulator knows.
export KXSIM_CONFIG="$SHM/kxsim.conf"
if [ ! -f "$SHM/complete" ]; then
  rm -rf "$SHM"
  mkdir -p "$SHM"
  "$KXSIM" mkfs "$SHM/plain" >/dev/null
  "$KXSIM" populate "$SHM/plain" --dirs $((PLAIN / 100)) --files "$PLAIN" >/dev/null
  touch "$SHM/complete"
fi
rm -f "$WORK/out/shm".*
r=0
while [ "$r" -lt "$RUNS" ]; do
  seconds shm.tool2 "$KXSIM" run -- "$TOOL" -p --jobs=2 -f "$WORK/out/log" "$SHM/plain"
  seconds shm.floor "$KXSIM" run -- "$FLOOR" "$WORK/out/floor.log" "$SHM/plain"
  r=$((r + 1))
done
paste "$WORK/out/shm.tool2" "$WORK/out/shm.floor" | awk '{ printf "%.3f\n", $1 / $2 }' >"$WORK/out/ratio"
echo "== unmanaged tree on tmpfs, no latency, $RUNS rounds"
echo "vdpostrestore --jobs=2 / floorwalk: $(stats "$WORK/out/ratio") (tool $(stats "$WORK/out/shm.tool2") s)"
