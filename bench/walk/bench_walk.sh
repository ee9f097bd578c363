#!/bin/sh
# Tree-walk benchmark of vdpostrestore on simulated restored trees with 10%
# of the files without blocks. The anchor is floorwalk, a C walker at the
# physical floor (getdents64 and one fstatat per entry, relative to the
# directory) doing the tool's work per blockless file, run under the
# simulator like the tool; cwalk (a path per lstat) and find(1) are further
# columns. Ratios are paired: each round runs every contender, in an order
# that rotates, and the tool's time is divided by each other's of the same
# round. Then the removing run (-r) against floorwalk -r on fresh copies of
# the tree, and the tool on a tree that the policy engine manages against
# the tool on a plain tree of the same size.
#
# usage: bench_walk.sh <vdpostrestore> <kxsim> <cwalk> <floorwalk> <work dir>
# The trees are kept in <work dir> and reused by later runs. BENCH_RUNS sets
# the rounds (3); BENCH_LARGE=1 adds a tree of 1,000,000 files. For the
# managed comparison the driver's state lives
# in a scratch directory under BENCH_STATE_DIR (/dev/shm): a driver keeps
# policy information in the file system's own metadata, while the simulator
# replaces one file per request; on a disk that bookkeeping, not the tool,
# would set the time.
set -eu

TOOL=$1
KXSIM=$2
CWALK=$3
FLOOR=$4
WORK=$5
RUNS=${BENCH_RUNS:-3}
mkdir -p "$WORK"
unset KXSIM_FAULTS KXSIM_FAULTS_FILE KXSIM_LOG KXFSCONF || true

# The managed tree: 50 keys with 20 keyed directories each, every keyed
# directory with three directories of 20 files, beside a plain part that
# brings the total to 200,000 files.
M_KEYS=50
M_KEYED=20
M_RP=1
M_MFILES=20
M_DIRS=2000
M_TOTAL=200000
M_MDIRS=$(((M_KEYS * M_KEYED + M_RP) * 3))
M_FILES=$((M_TOTAL - M_MDIRS * M_MFILES))
# The team's goals: a managed run within GOAL of the unmanaged one; the
# tool's dry run and removing run within FLOOR_GOAL of the floor walker's,
# in at most PEAK_GOAL KiB.
GOAL=1.3
FLOOR_GOAL=1.15
PEAK_GOAL=8192

# build <name> <populate args...>: prints the directory of a simulated tree,
# making it if needed. The populate arguments are recorded with the tree so
# that a change of them rebuilds it rather than measuring a stale shape.
build() {
  dir="$WORK/$1"
  shift
  if [ ! -f "$dir/complete" ] || [ "$(cat "$dir/complete")" != "$*" ]; then
    rm -rf "$dir"
    mkdir -p "$dir"
    KXSIM_CONFIG="$dir/kxsim.conf" "$KXSIM" mkfs "$dir/fs" >&2
    KXSIM_CONFIG="$dir/kxsim.conf" "$KXSIM" populate "$dir/fs" "$@" >&2
    # A dry run of the tool strips the policy engine's information, so every
    # timed run starts again from this copy of the driver's state.
    cp -a "$dir/kxsim.conf.state" "$dir/pristine.state"
    echo "$*" >"$dir/complete"
  fi
  echo "$dir"
}

# tree <files> <dirs>: a plain tree.
tree() { build "n$1" --dirs "$2" --files "$1" --blockless 10 --seed 1; }

ratio() { awk "BEGIN{ if ($2 > 0) printf \"%.2f\", $1 / $2; else print \"n/a\" }"; }

# spread <numbers...>: prints "median (min-max)" of the numbers.
spread() {
  printf '%s\n' "$@" | sort -g | awk '{ v[NR] = $1 }
    END { m = NR % 2 ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2
          printf "%.2f (%.2f-%.2f)", m, v[1], v[NR] }'
}

# stage <tree dir> <config>: registers the tree's mount in another
# configuration with the fsid and rename tracking it was built with, so that
# its saved state applies there.
stage() {
  rm -rf "$2" "$2.state"
  mkdir -p "$(dirname "$2")"
  set -- "$1" "$2" $(awk '$1 == "mount" { print $2, ($3 == 1 ? "on" : "off"); exit }' \
    "$1/kxsim.conf")
  KXSIM_CONFIG="$2" "$KXSIM" mkfs "$1/fs" --fsid "$3" --rename-tracking "$4" >/dev/null
}

# restore <tree dir> <config>: puts back the driver's state the tree was
# built with.
restore() {
  rm -rf "$2.state"
  cp -a "$1/pristine.state" "$2.state"
  # Leave no writeback of the copy to land in the timed run.
  sync -f "$2.state"
}

# tool <tree dir> <config> <log> [option]: one timed dry run of the tool on
# the tree, as timed() below.
tool() {
  timed env KXSIM_CONFIG="$2" "$KXSIM" run -- "$TOOL" -b ${4:-} -f "$3" "$1/fs"
}

# timed <command...>: runs the command once; leaves "wall cpu peak-KiB" in
# $WORK/time.out. A failed run fails the benchmark: its time would measure
# an aborted walk.
timed() {
  if ! /usr/bin/time -f '%e %U %S %M' -o "$WORK/time.raw" "$@" >/dev/null 2>"$WORK/run.err"; then
    echo "bench_walk: failed: $*" >&2
    cat "$WORK/run.err" >&2
    exit 1
  fi
  read -r secs user sys kb <"$WORK/time.raw"
  echo "$secs $(awk "BEGIN{printf \"%.3f\", $user + $sys}") $kb" >"$WORK/time.out"
}

# contender <name> <tree dir>: one timed dry run of a contender.
contender() {
  case $1 in
    tool) tool "$2" "$2/kxsim.conf" "$WORK/bench.log" ;;
    floor) timed env KXSIM_CONFIG="$2/kxsim.conf" "$KXSIM" run -- "$FLOOR" "$WORK/floor.log" "$2/fs" ;;
    cwalk) timed "$CWALK" "$2/fs" ;;
    find) timed find "$2/fs" -type f -printf '%b %s %p\n' ;;
  esac
}

# Rotates "a b c d" by $2 places.
rotate() {
  set -- $1 "$2"
  n=$(($5 % 4))
  while [ "$n" -gt 0 ]; do set -- "$2" "$3" "$4" "$1" "$5"; n=$((n - 1)); done
  echo "$1 $2 $3 $4"
}

# dry_runs <files> <dirs>: paired dry runs on a plain tree.
dry_runs() {
  dir=$(tree "$1" "$2")
  "$CWALK" "$dir/fs" >/dev/null  # warm the caches for every contender
  contender tool "$dir"
  contender floor "$dir"
  r_floor="" r_cwalk="" r_find="" c_floor="" peak=0 walls=""
  for i in $(seq "$RUNS"); do
    for who in $(rotate "tool floor cwalk find" "$i"); do
      contender "$who" "$dir"
      read -r wall cpu kb <"$WORK/time.out"
      eval "wall_$who=$wall cpu_$who=$cpu"
      if [ "$who" = tool ] && [ "$kb" -gt "$peak" ]; then peak=$kb; fi
    done
    walls="$walls $wall_tool"
    r_floor="$r_floor $(ratio "$wall_tool" "$wall_floor")"
    c_floor="$c_floor $(ratio "$cpu_tool" "$cpu_floor")"
    r_cwalk="$r_cwalk $(ratio "$wall_tool" "$wall_cwalk")"
    r_find="$r_find $(ratio "$wall_tool" "$wall_find")"
  done
  reported=$(tail -n +4 "$WORK/bench.log" | wc -l)
  printf '\n%s files in %s directories (%s reported by the tool), tool %s s\n' "$1" "$2" \
    "$reported" "$(spread $walls)"
  printf '  dry run / floorwalk  wall %-18s cpu %-18s goal <= %s\n' "$(spread $r_floor)" \
    "$(spread $c_floor)" "$FLOOR_GOAL"
  printf '  dry run / cwalk      wall %s\n' "$(spread $r_cwalk)"
  printf '  dry run / find       wall %s\n' "$(spread $r_find)"
  printf '  peak RSS             %s KiB   goal <= %s KiB\n' "$peak" "$PEAK_GOAL"
}

# removal <tree dir> <who>: one timed removing run of the tool or of the
# floor walker on a fresh copy of the tree (hard links: unlinking one takes
# nothing from the kept tree) registered as its own mount.
removal() {
  copy=$WORK/rcopy
  rm -rf "$copy"
  mkdir -p "$copy"
  cp -al "$1/fs" "$copy/fs"
  KXSIM_CONFIG="$copy/kxsim.conf" "$KXSIM" mkfs "$copy/fs" >/dev/null
  if [ "$2" = tool ]; then
    timed env KXSIM_CONFIG="$copy/kxsim.conf" "$KXSIM" run -- "$TOOL" -r -b -f "$copy/removed.log" "$copy/fs"
  else
    timed env KXSIM_CONFIG="$copy/kxsim.conf" "$KXSIM" run -- "$FLOOR" -r "$copy/removed.log" "$copy/fs"
  fi
}

# removal_runs <files> <dirs>: paired removing runs.
removal_runs() {
  dir=$(tree "$1" "$2")
  r_walls="" r_cpus=""
  for i in $(seq "$RUNS"); do
    if [ $((i % 2)) -eq 1 ]; then order="tool floor"; else order="floor tool"; fi
    for who in $order; do
      removal "$dir" "$who"
      read -r wall cpu kb <"$WORK/time.out"
      eval "wall_$who=$wall cpu_$who=$cpu"
    done
    r_walls="$r_walls $(ratio "$wall_tool" "$wall_floor")"
    r_cpus="$r_cpus $(ratio "$cpu_tool" "$cpu_floor")"
  done
  rm -rf "$WORK/rcopy"
  printf '\n-r on %s files: tool / floorwalk -r  wall %-18s cpu %-18s goal <= %s\n' "$1" \
    "$(spread $r_walls)" "$(spread $r_cpus)" "$FLOOR_GOAL"
}

echo "vdpostrestore walk benchmark: median (min-max) of $RUNS paired rounds, trees in $WORK"
dry_runs 200000 2000
if [ "${BENCH_LARGE:-0}" = 1 ]; then dry_runs 1000000 10000; fi
removal_runs 200000 2000

# Managed against unmanaged: the unmanaged tree has as many directories and
# files and the same blockless share, so the ratio is what policies cost.
mdir=$(build "m$M_TOTAL" --managed --dirs "$M_DIRS" --files "$M_FILES" --blockless 10 \
  --keys "$M_KEYS" --keyed-dirs "$M_KEYED" --relation-points "$M_RP" \
  --managed-files "$M_MFILES" --stored 50 --seed 1)
udir=$(build "u$M_TOTAL" --dirs "$((M_DIRS + M_MDIRS))" --files "$M_TOTAL" --blockless 10 \
  --seed 1)
state_root=${BENCH_STATE_DIR:-/dev/shm}
if [ ! -d "$state_root" ] || [ ! -w "$state_root" ]; then state_root=$WORK; fi
STATE=$(mktemp -d "$state_root/vdpostrestore-bench.XXXXXX")
trap 'rm -rf "$STATE"' EXIT
trap 'exit 1' HUP INT TERM
mconf="$STATE/m/kxsim.conf"
uconf="$STATE/u/kxsim.conf"
stage "$mdir" "$mconf"
stage "$udir" "$uconf"
restore "$mdir" "$mconf"
restore "$udir" "$uconf"
"$CWALK" "$udir/fs" >/dev/null
"$CWALK" "$mdir/fs" >/dev/null
# One untimed run each, so that the tool's own pages and the policy files
# are as warm for the first timed run as for the last.
tool "$mdir" "$mconf" "$WORK/managed.log"
tool "$udir" "$uconf" "$WORK/unmanaged.log"
m_walls="" m_cpus="" u_walls="" u_cpus="" r_walls="" r_cpus="" m_peak=0 u_peak=0
p_walls="" p_cpus="" rp_walls="" rp_cpus=""
pristine_count=$(find "$mdir/pristine.state" -type f | wc -l)
for i in $(seq "$RUNS"); do
  restore "$mdir" "$mconf"
  # Alternate the order so that neither tree always runs on the heels of the
  # other's restore. The -p run strips nothing and must see the policy
  # information that the stripping run takes away, so it comes first.
  if [ $((i % 2)) -eq 1 ]; then order="p m u"; else order="u p m"; fi
  for which in $order; do
    case $which in
      m)
        tool "$mdir" "$mconf" "$WORK/managed.log"
        read -r m_wall m_cpu kb <"$WORK/time.out"
        if [ "$kb" -gt "$m_peak" ]; then m_peak=$kb; fi ;;
      p)
        tool "$mdir" "$mconf" "$WORK/managed-p.log" -p
        read -r p_wall p_cpu kb <"$WORK/time.out"
        if [ "$kb" -gt "$m_peak" ]; then m_peak=$kb; fi ;;
      u)
        tool "$udir" "$uconf" "$WORK/unmanaged.log"
        read -r u_wall u_cpu kb <"$WORK/time.out"
        if [ "$kb" -gt "$u_peak" ]; then u_peak=$kb; fi ;;
    esac
  done
  # A run that strips nothing did not see a managed tree, and its time
  # would compare nothing.
  if [ "$(find "$mconf.state" -type f | wc -l)" -ge "$pristine_count" ]; then
    echo "bench_walk: run $i on $mdir/fs stripped no policy information" >&2
    exit 1
  fi
  m_walls="$m_walls $m_wall" m_cpus="$m_cpus $m_cpu"
  p_walls="$p_walls $p_wall" p_cpus="$p_cpus $p_cpu"
  u_walls="$u_walls $u_wall" u_cpus="$u_cpus $u_cpu"
  r_walls="$r_walls $(ratio "$m_wall" "$u_wall")"
  r_cpus="$r_cpus $(ratio "$m_cpu" "$u_cpu")"
  rp_walls="$rp_walls $(ratio "$p_wall" "$u_wall")"
  rp_cpus="$rp_cpus $(ratio "$p_cpu" "$u_cpu")"
done
m_reported=$(tail -n +4 "$WORK/managed.log" | wc -l)
u_reported=$(tail -n +4 "$WORK/unmanaged.log" | wc -l)
printf '\nmanaged: %s files in %s directories, %s keyed over %s keys (%s reported by the tool)\n' \
  "$M_TOTAL" "$((M_DIRS + M_MDIRS))" "$((M_KEYS * M_KEYED))" "$M_KEYS" "$m_reported"
printf 'unmanaged: same numbers of files and directories (%s reported by the tool)\n' \
  "$u_reported"
printf 'median (min-max) of %s interleaved runs, the driver state on %s and restored\n' \
  "$RUNS" "$(stat -f -c %T "$STATE")"
printf 'before each managed run\n'
printf '                 wall                  cpu\n'
printf '  unmanaged      %-20s  %-20s  peak RSS %s KiB\n' \
  "$(spread $u_walls) s" "$(spread $u_cpus) s" "$u_peak"
printf '  managed        %-20s  %-20s  peak RSS %s KiB\n' \
  "$(spread $m_walls) s" "$(spread $m_cpus) s" "$m_peak"
printf '  managed -p     %-20s  %-20s\n' "$(spread $p_walls) s" "$(spread $p_cpus) s"
printf '  ratio managed/unmanaged wall: %s  cpu: %s   goal: <= %s\n' \
  "$(spread $r_walls)" "$(spread $r_cpus)" "$GOAL"
# With -p nothing is stripped: what is left over the plain walk is the
# policy lookups and the checks of stored files, the part a policy
# directory adds; the stripping run adds an open and five requests per file.
printf '  ratio managed -p/unmanaged wall: %s  cpu: %s\n' \
  "$(spread $rp_walls)" "$(spread $rp_cpus)"
