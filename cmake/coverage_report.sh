#!/bin/sh
# Prints line and branch coverage per library and for the tool and the
# simulator, from the .gcda files a coverage build's test run left.
#   cmake/coverage_report.sh <source dir> <build dir>
set -eu
src=$1
build=$2
printf '%-14s %24s %24s\n' "component" "lines" "branches"
for part in libutil kxdmapi extapi vdpolicy/lib vdutils kxsim; do
  summary=$(gcovr --root "$src" --object-directory "$build" --filter "$src/$part/" \
    --exclude-unreachable-branches --exclude-throw-branches --print-summary \
    --output /dev/null 2>/dev/null)
  lines=$(printf '%s\n' "$summary" | sed -n 's/^lines: *//p')
  branches=$(printf '%s\n' "$summary" | sed -n 's/^branches: *//p')
  printf '%-14s %24s %24s\n' "$part" "$lines" "$branches"
done
