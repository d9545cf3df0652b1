#!/usr/bin/env bash
# Builds the libFuzzer targets in BUILD and runs each for SECONDS, starting
# from its corpus in fuzz/corpus/<target>/, copied to BUILD/corpus/ where
# what the run finds goes. Without clang's libFuzzer it says so and succeeds.
# Usage: fuzz/run.sh BUILD SECONDS [CMAKE FLAGS...]
set -euo pipefail
cd "$(dirname "$0")/.."
build=$1
seconds=$2
shift 2
targets="inotify_records fanotify_records event_writers cli_args watch_request"

probe=$(mktemp -d)
trap 'rm -rf "$probe"' EXIT
echo 'extern "C" int LLVMFuzzerTestOneInput(const unsigned char*, unsigned long) { return 0; }' >"$probe/probe.cpp"
if ! command -v clang++ >/dev/null || ! clang++ -fsanitize=fuzzer,address,undefined "$probe/probe.cpp" \
    -o "$probe/probe" 2>"$probe/error"; then
  echo "fuzz: skipped: clang++ with libFuzzer is not available ($(head -c 200 "$probe/error" 2>/dev/null))"
  exit 0
fi

if [ ! -f "$build/build.ninja" ]; then
  cmake -S . -B "$build" -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DFN_SANITIZE=ON -DFN_BUILD_FUZZ=ON \
    -DFN_BUILD_TESTS=OFF -DFN_BUILD_BENCH=OFF "$@"
fi
cmake --build "$build" --target fuzzers -j "${JOBS:-2}"

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
start=$SECONDS
for t in $targets; do
  mkdir -p "$build/corpus/$t" "$build/artifacts"
  cp -n "fuzz/corpus/$t"/* "$build/corpus/$t/"
  log="$build/fuzz_$t.log"
  if ! "$build/bin/fuzz_$t" -max_total_time="$seconds" -timeout=10 -print_final_stats=1 \
      -artifact_prefix="$build/artifacts/$t-" "$build/corpus/$t" >"$log" 2>&1; then
    tail -n 60 "$log"
    echo "fuzz: $t FAILED: the input is in $build/artifacts/ (log: $log)"
    exit 1
  fi
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
  rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log")
  echo "fuzz: $t: $runs runs in ${seconds}s, $rate exec/s, no crash"
done
echo "fuzz: all targets ran in $((SECONDS - start))s"
