#!/usr/bin/env bash
# Long fuzzing runs (not part of the test command, which gives each target 20 s).
#   scripts/fuzz.sh [-t SECONDS] [-b BUILD_DIR] [TARGET...]
# Builds the sanitizer configuration with the fuzz targets if needed (the same as the test
# command's asan stage: clang, AddressSanitizer + UndefinedBehaviorSanitizer, -DTARVO_FUZZ=ON),
# then runs each libFuzzer target (all of fuzz/*_fuzz.cpp, or the ones named) for SECONDS
# (default 600) one after the other. Each target's corpus lives in BUILD_DIR/corpus/TARGET, is
# seeded from the committed fuzz/seeds/TARGET/ and is minimised at the end (-merge=1); the run's
# output is BUILD_DIR/fuzz-logs/TARGET.log and any crashing input is kept in
# BUILD_DIR/fuzz-artifacts/TARGET/. The last lines are a table: executions, executions per
# second, coverage (cov: edges, ft: features) and corpus size per target.
# Exit status: 0 when no target found a fault, 1 otherwise.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=600
build=build-asan
while getopts "t:b:h" opt; do
  case $opt in
    t) seconds=$OPTARG ;;
    b) build=$OPTARG ;;
    *) sed -n '2,13p' "$0"; exit 2 ;;
  esac
done
shift $((OPTIND - 1))

targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  mapfile -t targets < <(cd fuzz && ls -- *_fuzz.cpp | sed 's/\.cpp$//')
fi
for t in "${targets[@]}"; do
  [ -f "fuzz/$t.cpp" ] || { echo "no fuzz target $t (fuzz/$t.cpp)"; exit 2; }
done

if [ ! -f "$build/CMakeCache.txt" ] || ! grep -q '^TARVO_FUZZ:BOOL=ON' "$build/CMakeCache.txt"; then
  CC=clang CXX=clang++ cmake -S . -B "$build" -G Ninja -DTARVO_SANITIZE=address -DTARVO_FUZZ=ON \
    >/dev/null
fi
ninja -C "$build" -j "${TARVO_JOBS:-2}" "${targets[@]}"

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
mkdir -p "$build/fuzz-logs"
rows=()
status=0
for t in "${targets[@]}"; do
  corpus=$build/corpus/$t
  artifacts=$build/fuzz-artifacts/$t/
  log=$build/fuzz-logs/$t.log
  mkdir -p "$corpus" "$artifacts"
  seeds=()
  [ -d "fuzz/seeds/$t" ] && seeds=("fuzz/seeds/$t")
  echo "--- $t for ${seconds}s ($(date -u +%H:%M:%S) UTC), log $log"
  result=ok
  "$build/fuzz/$t" -max_total_time="$seconds" -rss_limit_mb=2048 -print_final_stats=1 \
    -artifact_prefix="$artifacts" "$corpus" "${seeds[@]}" >"$log" 2>&1 || result=FAULT
  if [ $result != ok ]; then
    status=1
    grep -E 'ERROR|SUMMARY|Test unit written' "$log" | head -n 5 || true
  fi
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
  speed=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log" | tail -n 1)
  cov=$(grep -oE 'cov: [0-9]+' "$log" | tail -n 1 | cut -d' ' -f2)
  ft=$(grep -oE 'ft: [0-9]+' "$log" | tail -n 1 | cut -d' ' -f2)
  # Minimise: keep only the inputs that add coverage, then put them in place of the corpus.
  fresh=$build/corpus/$t.min
  rm -rf "$fresh"
  mkdir -p "$fresh"
  before=$(find "$corpus" -type f | wc -l)
  if "$build/fuzz/$t" -merge=1 -rss_limit_mb=2048 "$fresh" "$corpus" >"$log.merge" 2>&1; then
    rm -rf "$corpus"
    mv "$fresh" "$corpus"
  else
    rm -rf "$fresh"
    echo "    minimising $t failed, corpus kept as it was (see $log.merge)"
  fi
  after=$(find "$corpus" -type f | wc -l)
  rows+=("$(printf '%-22s %6s %12s %9s %7s %7s %13s' "$t" "$result" "${runs:-?}" \
    "${speed:-?}" "${cov:-?}" "${ft:-?}" "$after/$before")")
done

echo
echo "fuzzing ${seconds}s per target, build $build"
printf '%-22s %6s %12s %9s %7s %7s %13s\n' target result executions exec/s cov ft 'corpus kept/run'
for r in "${rows[@]}"; do echo "$r"; done
exit $status
