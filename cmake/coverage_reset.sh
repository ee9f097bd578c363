#!/bin/sh
# Readies a coverage build for a test run: forgets the counts of earlier
# runs, and the notes of objects that no target builds any more (a renamed
# target leaves its old objects behind); either would be merged into the
# report with the line numbers of code since changed.
#   cmake/coverage_reset.sh <build dir>
set -eu
cd "$1"
[ -f build.ninja ] && ninja -t cleandead >/dev/null
find . -name '*.gcda' -delete
find . -name '*.gcno' | while read -r notes; do
  [ -e "${notes%.gcno}.o" ] || rm -f "$notes"
done
