#!/bin/sh
# Tree-walk benchmark of vdpostrestore (dry run, default verbosity) against
# a minimal C walker and find(1), on simulated restored trees with 10% of
# the files without blocks.
#
# usage: bench_walk.sh <vdpostrestore> <kxsim> <cwalk> <work dir>
# The trees are kept in <work dir> and reused by later runs.
set -eu

TOOL=$1
KXSIM=$2
CWALK=$3
WORK=$4
RUNS=${BENCH_RUNS:-3}
mkdir -p "$WORK"
unset KXSIM_FAULTS KXSIM_LOG || true

# tree <files> <dirs>: prints the tree's directory, making it if needed.
tree() {
  dir="$WORK/n$1"
  if [ ! -f "$dir/complete" ]; then
    rm -rf "$dir"
    mkdir -p "$dir"
    KXSIM_CONFIG="$dir/kxsim.conf" "$KXSIM" mkfs "$dir/fs" >&2
    KXSIM_CONFIG="$dir/kxsim.conf" "$KXSIM" populate "$dir/fs" --dirs "$2" --files "$1" \
      --blockless 10 --seed 1 >&2
    touch "$dir/complete"
  fi
  echo "$dir"
}

# best <command...>: prints the best wall time and the best CPU time (user
# plus system) of $RUNS runs in seconds, and the largest peak resident size
# (KiB) seen in any run. On a loaded machine the CPU time is the steadier
# measure of the work done.
best() {
  best_s=""
  best_cpu=""
  peak=0
  for _ in $(seq "$RUNS"); do
    /usr/bin/time -f '%e %U %S %M' -o "$WORK/time.out" "$@" >/dev/null
    read -r secs user sys kb <"$WORK/time.out"
    cpu=$(awk "BEGIN{printf \"%.2f\", $user + $sys}")
    if [ -z "$best_s" ] || awk "BEGIN{exit !($secs < $best_s)}"; then best_s=$secs; fi
    if [ -z "$best_cpu" ] || awk "BEGIN{exit !($cpu < $best_cpu)}"; then best_cpu=$cpu; fi
    if [ "$kb" -gt "$peak" ]; then peak=$kb; fi
  done
  echo "$best_s $best_cpu $peak"
}

ratio() { awk "BEGIN{ if ($2 > 0) printf \"%.2f\", $1 / $2; else print \"n/a\" }"; }

echo "vdpostrestore walk benchmark: best of $RUNS runs, trees in $WORK"
for spec in "50000 500" "200000 2000"; do
  set -- $spec
  dir=$(tree "$1" "$2")
  # Warm the caches so every contender reads the same in-memory tree.
  "$CWALK" "$dir/fs" >/dev/null
  set -- $spec $(best "$CWALK" "$dir/fs")
  set -- "$@" $(best find "$dir/fs" -type f -printf '%b %s %p\n')
  set -- "$@" $(best env KXSIM_CONFIG="$dir/kxsim.conf" "$KXSIM" run -- "$TOOL" \
    -f "$WORK/bench.log" "$dir/fs")
  t_c=$3 c_c=$4 t_f=$6 c_f=$7 t_t=$9 c_t=${10} rss_t=${11}
  reported=$(tail -n +4 "$WORK/bench.log" | wc -l)
  printf '\n%s files in %s directories (%s reported by the tool)\n' "$1" "$2" "$reported"
  printf '                 wall      cpu\n'
  printf '  cwalk          %6.2f s  %6.2f s\n' "$t_c" "$c_c"
  printf '  find           %6.2f s  %6.2f s\n' "$t_f" "$c_f"
  printf '  vdpostrestore  %6.2f s  %6.2f s  peak RSS %s KiB\n' "$t_t" "$c_t" "$rss_t"
  printf '  ratios wall: tool/cwalk %s  tool/find %s   cpu: tool/cwalk %s  tool/find %s\n' \
    "$(ratio "$t_t" "$t_c")" "$(ratio "$t_t" "$t_f")" "$(ratio "$c_t" "$c_c")" \
    "$(ratio "$c_t" "$c_f")"
done
