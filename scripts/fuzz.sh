#!/usr/bin/env bash
# Builds the libFuzzer harnesses with clang and runs each for FUZZ_SECONDS (default 60),
# one process each, starting from the committed seeds. New inputs stay in the build
# folder; a crash, a hang (-timeout) or runaway memory fails the run.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${FUZZ_BUILD:-build-fuzz}
seconds=${FUZZ_SECONDS:-60}
jobs=${JOBS:-$(nproc)}
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++ \
      -DTQBLE_FUZZ=ON -DTQBLE_BUILD_TESTS=OFF -DTQBLE_BUILD_BENCH=OFF -DTQBLE_BUILD_EXAMPLES=OFF \
      -DTQBLE_BLUEZ=OFF >/dev/null
cmake --build "$build" -j "$jobs" --target fuzzers
mkdir -p "$build/artifacts"
for name in decoders reception data_cover text_parsers capture; do
  corpus="$build/corpus/$name" log="$build/fuzz-$name.log"
  mkdir -p "$corpus"
  echo "== fuzz_$name for ${seconds}s"
  if ! "$build/tests/fuzz/fuzz_$name" "$corpus" "tests/fuzz/corpus/$name" \
      -max_total_time="$seconds" -timeout=10 -rss_limit_mb=1024 -malloc_limit_mb=256 \
      -max_len=4096 -print_final_stats=1 -artifact_prefix="$build/artifacts/$name-" >"$log" 2>&1; then
    tail -n 40 "$log"
    echo "fuzz_$name failed; the input is in $build/artifacts/"
    exit 1
  fi
  grep -E '^(stat::number_of_executed_units|stat::peak_rss_mb|range errors)' "$log"
done
