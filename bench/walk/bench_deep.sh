#!/bin/sh
# Deep-tree benchmark: vdpostrestore's dry run under the simulator on a
# chain of directories $BENCH_DEPTH (500) levels deep, each holding
# $BENCH_FILES (4) files of which one has no blocks, against the minimal C
# walker. A request of the driver costs the same at any depth; so must the
# simulator's, or the tool's time grows with a power of the depth while the
# walker's grows with the number of entries times the depth.
#
# usage: bench_deep.sh <vdpostrestore> <kxsim> <cwalk> <work dir>
# The tree is kept in <work dir>/deep<depth>x<files> and reused by later
# runs. BENCH_RUNS sets the repetitions (5); the best of them is shown.
# cwalk runs plain and under `kxsim run`; the ratio is taken against the
# plain run.
set -eu

TOOL=$1
KXSIM=$2
CWALK=$3
WORK=$4
RUNS=${BENCH_RUNS:-5}
DEPTH=${BENCH_DEPTH:-500}
FILES=${BENCH_FILES:-4}
GOAL=3
unset KXSIM_FAULTS KXSIM_FAULTS_FILE KXSIM_LOG KXFSCONF || true

dir="$WORK/deep${DEPTH}x$FILES"
conf="$dir/kxsim.conf"
if [ ! -f "$dir/complete" ]; then
  rm -rf "$dir"
  mkdir -p "$dir/fs"
  KXSIM_CONFIG="$conf" "$KXSIM" mkfs "$dir/fs" >&2
  data=$(printf '%4096s' '')
  # One-letter names keep the paths of most levels under the driver's
  # 1024-byte limit for path requests, so both the path and the descriptor
  # forms of the tool's requests are measured.
  (
    cd "$dir/fs"
    level=0
    while [ "$level" -lt "$DEPTH" ]; do
      mkdir d
      cd d
      i=1
      while [ "$i" -lt "$FILES" ]; do
        printf '%s' "$data" >"f$i"
        i=$((i + 1))
      done
      truncate -s 4096 r
      level=$((level + 1))
    done
  )
  echo "$DEPTH $FILES" >"$dir/complete"
fi

# best <command...>: the best wall time (seconds, from nanoseconds) and the
# best CPU time (user plus system) of $RUNS runs.
best() {
  best_s=""
  best_cpu=""
  for _ in $(seq "$RUNS"); do
    start=$(date +%s%N)
    /usr/bin/time -f '%U %S' -o "$WORK/deep.time" "$@" >/dev/null 2>"$WORK/deep.err" || {
      echo "bench_deep: failed: $*" >&2
      cat "$WORK/deep.err" >&2
      exit 1
    }
    end=$(date +%s%N)
    secs=$(awk "BEGIN{printf \"%.4f\", ($end - $start) / 1e9}")
    read -r user sys <"$WORK/deep.time"
    cpu=$(awk "BEGIN{printf \"%.2f\", $user + $sys}")
    if [ -z "$best_s" ] || awk "BEGIN{exit !($secs < $best_s)}"; then best_s=$secs; fi
    if [ -z "$best_cpu" ] || awk "BEGIN{exit !($cpu < $best_cpu)}"; then best_cpu=$cpu; fi
  done
  echo "$best_s $best_cpu"
}

ratio() { awk "BEGIN{ if ($2 > 0) printf \"%.2f\", $1 / $2; else print \"n/a\" }"; }

"$CWALK" "$dir/fs" >/dev/null
set -- $(best "$CWALK" "$dir/fs")
t_c=$1 c_c=$2
set -- $(best env KXSIM_CONFIG="$conf" "$KXSIM" run -- "$CWALK" "$dir/fs")
t_cs=$1 c_cs=$2
set -- $(best env KXSIM_CONFIG="$conf" "$KXSIM" run -- "$TOOL" -f "$WORK/deep.log" "$dir/fs")
t_t=$1 c_t=$2
reported=$(tail -n +4 "$WORK/deep.log" | wc -l)
printf 'vdpostrestore deep-tree benchmark: best of %s runs\n' "$RUNS"
printf '%s levels of %s files each in %s (%s reported by the tool)\n' "$DEPTH" "$FILES" \
  "$dir/fs" "$reported"
printf '                           wall        cpu\n'
printf '  cwalk                  %8.4f s  %6.2f s\n' "$t_c" "$c_c"
printf '  cwalk under kxsim run  %8.4f s  %6.2f s\n' "$t_cs" "$c_cs"
printf '  vdpostrestore (kxsim)  %8.4f s  %6.2f s\n' "$t_t" "$c_t"
printf '  ratio tool/cwalk (plain) wall: %s  goal: <= %s\n' "$(ratio "$t_t" "$t_c")" "$GOAL"
