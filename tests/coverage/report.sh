#!/bin/sh
# report.sh BUILD_DIR: what the counters of a coverage build say about the product's own code, as pages and as a text.
set -eu
cd "$(dirname -- "$0")/../.."
build=$1
mkdir -p "$build/report"
set --
for folder in brellog cache client daemon daemonbase event handler libtorrin libvelder tools wrapper; do
  set -- "$@" --filter "$folder/"
done
gcovr --root . --object-directory "$build" "$@" --exclude-throw-branches --exclude-unreachable-branches \
  --gcov-ignore-parse-errors --html-details "$build/report/index.html" --txt "$build/report/summary.txt" --print-summary
echo "Pages: $build/report/index.html, text: $build/report/summary.txt"
