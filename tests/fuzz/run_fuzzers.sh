#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (when it is installed): the whole tree in
# build-fuzz with the module and its peers instrumented (-DZELTRIM_FUZZ=ON), then runs each
# target for a short, bounded time from the seed corpus kept in tests/fuzz/corpus/<target>
# plus a working corpus in build-fuzz/corpus/<target> (new inputs land there).
# Seconds per target: $FUZZ_SECONDS (default 20). Targets: $FUZZ_TARGETS (default all).
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
seconds=${FUZZ_SECONDS:-20}
if ! command -v clang++ >/dev/null 2>&1; then
  echo "fuzz: clang++ not found, fuzz targets skipped"
  exit 0
fi
build="$root/build-fuzz"
cmake -S "$root" -B "$build" -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZELTRIM_FUZZ=ON \
  -DZELTRIM_TESTS=OFF -DZELTRIM_BENCH=OFF -DZELTRIM_PYTHON=OFF >/dev/null
cmake --build "$build" -j2 --target fuzz_all
corpus="$build/corpus"
targets=${FUZZ_TARGETS:-fuzz_xml fuzz_folder fuzz_archive_load fuzz_text fuzz_points fuzz_load}
for name in $targets; do
  target="$build/$name"
  [ -x "$target" ] || { echo "fuzz: $name was not built"; exit 1; }
  seeds="$root/tests/fuzz/corpus/$name"
  mkdir -p "$corpus/$name" "$build/artifacts/$name"
  echo "fuzz: $name for ${seconds}s"
  # Paths are absolute: fuzz_load and fuzz_text change to their own folder. The first
  # folder takes the new inputs; the seeds are only read.
  set +e
  "$target" -max_total_time="$seconds" -rss_limit_mb=2048 -timeout=10 -print_final_stats=1 \
    -artifact_prefix="$build/artifacts/$name/" "$corpus/$name" $( [ -d "$seeds" ] && echo "$seeds" ) \
    >"$build/$name.log" 2>&1
  status=$?
  set -e
  grep -E '^(#[0-9]+[[:space:]]+DONE|stat::number_of_executed_units|stat::peak_rss_mb|stat::new_units_added)' "$build/$name.log" || true
  if [ $status -ne 0 ]; then
    tail -n 60 "$build/$name.log"
    echo "fuzz: $name failed (exit $status); the input is under $build/artifacts/$name/"
    exit 1
  fi
done
