#!/bin/sh
# Runs one libFuzzer executable for a number of seconds over its seed corpus.
#   fuzz/run.sh <fuzzer executable> [seconds] [extra libFuzzer options...]
# New inputs go to a work corpus next to the executable, so the seeds under
# fuzz/corpus/ stay small and reviewed; crashes land in <build>/artifacts/.
set -eu
exe=$1
seconds=${2:-60}
[ $# -ge 2 ] && shift 2 || shift 1
name=$(basename "$exe")
here=$(cd "$(dirname "$0")" && pwd)
out=$(dirname "$exe")
work="$out/corpus-work/$name"
mkdir -p "$work" "$out/artifacts"
dict=""
[ -f "$here/dict/$name.dict" ] && dict="-dict=$here/dict/$name.dict"
exec nice -n 10 "$exe" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=1024 \
  -max_len=4096 -print_final_stats=1 -artifact_prefix="$out/artifacts/$name-" \
  $dict "$@" "$work" "$here/corpus/$name"
