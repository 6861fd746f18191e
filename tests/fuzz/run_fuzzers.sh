#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (when it is installed) and runs each one for a
# short, bounded time. Seconds per target: $FUZZ_SECONDS (default 20).
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
seconds=${FUZZ_SECONDS:-20}
if ! command -v clang++ >/dev/null 2>&1; then
  echo "fuzz: clang++ not found, fuzz targets skipped"
  exit 0
fi
build="$root/build-fuzz"
cmake -S "$root/tests/fuzz" -B "$build" -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j2
corpus="$build/corpus"
for target in "$build"/fuzz_*; do
  [ -x "$target" ] && [ -f "$target" ] || continue
  name=$(basename "$target")
  mkdir -p "$corpus/$name"
  echo "fuzz: $name for ${seconds}s"
  "$target" -max_total_time="$seconds" -rss_limit_mb=2048 -print_final_stats=1 "$corpus/$name" 2>&1 | tail -n 4
done
