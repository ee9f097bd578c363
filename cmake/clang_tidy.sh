#!/bin/sh
# Runs clang-tidy with the committed .clang-tidy over the product's sources
# (not the tests) and fails on any finding.
#   cmake/clang_tidy.sh <source dir> <build dir with compile_commands.json>
set -eu
src=$1
build=$2
out=$(mktemp)
trap 'rm -f "$out"' EXIT
run-clang-tidy -quiet -p "$build" -j "$(nproc)" \
  "$src/(libutil|kxdmapi|extapi|vdpolicy|vdutils|kxsim)/.*\\.cpp\$" >"$out" 2>&1 || true
findings=$(grep -E '(warning|error): ' "$out" | sort -u || true)
if [ -n "$findings" ]; then
  printf '%s\n' "$findings"
  echo "clang-tidy: $(printf '%s\n' "$findings" | wc -l) finding(s)" >&2
  exit 1
fi
echo "clang-tidy: clean"
