#!/bin/sh
# Prints line and branch coverage per library and for the tool and the
# simulator, from the .gcda files a coverage build's test run left (and
# only that build's: other build trees of the same sources are not read).
#   cmake/coverage_report.sh <source dir> <build dir>
set -eu
src=$1
build=$2
# gcovr's own report goes to a scratch file: on a failure it removes its
# output file, and /dev/null is not one to lose.
scratch=$(mktemp -d "${TMPDIR:-/tmp}/vd-coverage.XXXXXX")
trap 'rm -rf "$scratch"' EXIT
printf '%-14s %24s %24s\n' "component" "lines" "branches"
for part in libutil kxdmapi extapi vdpolicy/lib vdutils kxsim; do
  # CMake's compiler checks leave notes without counts in CMakeFiles/.
  summary=$(gcovr --root "$src" --object-directory "$build" --filter "$src/$part/" \
    --exclude-directories "$build/CMakeFiles/" \
    --exclude-unreachable-branches --exclude-throw-branches --print-summary \
    --output "$scratch/report.txt" "$build")
  lines=$(printf '%s\n' "$summary" | sed -n 's/^lines: *//p')
  branches=$(printf '%s\n' "$summary" | sed -n 's/^branches: *//p')
  printf '%-14s %24s %24s\n' "$part" "$lines" "$branches"
done
