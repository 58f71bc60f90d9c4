#!/usr/bin/env bash
# The whole test suite, as CI runs it:
#   1. a normal build, every test (unit, integration, e2e);
#   2. an AddressSanitizer + UndefinedBehaviorSanitizer build with clang, unit and integration
#      tests, and in the same build every libFuzzer target, each run for a bounded time;
#   3. a ThreadSanitizer build of the threaded tests (label "threaded");
#   4. cross builds for a little-endian MIPS router CPU (mipsel) and a big-endian CPU (s390x) from
#      Debian's cross compilers and sysroots (scripts/cross-sysroot.sh), their unit tests run
#      under qemu's user-mode emulator (the fuller cross suite: scripts/cross-test.sh).
# Stages can be picked: scripts/test.sh normal asan tsan cross (default: all).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh

stages=("$@")
[ ${#stages[@]} -eq 0 ] && stages=(normal asan tsan cross)
jobs=$(nproc)
fuzz_seconds=${TARVO_FUZZ_SECONDS:-15}
ctest_args=(--output-on-failure --no-tests=error -j "$jobs" --timeout 300)

configure() {  # dir, extra cmake args...
  local dir=$1; shift
  cmake -S . -B "$dir" -G Ninja "$@" >/dev/null
}

for stage in "${stages[@]}"; do
  echo "=== stage: $stage"
  case $stage in
    normal)
      python3 scripts/check-layout.py
      configure build
      ninja -C build
      ctest --test-dir build "${ctest_args[@]}"
      ;;
    asan)
      CC=clang CXX=clang++ configure build-asan -DTARVO_SANITIZE=address -DTARVO_FUZZ=ON
      ninja -C build-asan
      ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
        ctest --test-dir build-asan -L 'unit|integration' "${ctest_args[@]}"
      for target in build-asan/fuzz/*_fuzz; do
        [ -x "$target" ] || continue
        name=$(basename "$target")
        corpus=build-asan/corpus/$name
        mkdir -p "$corpus"
        seeds=()
        [ -d "fuzz/seeds/$name" ] && seeds=("fuzz/seeds/$name")
        echo "--- fuzzing $name for ${fuzz_seconds}s"
        "$target" -max_total_time="$fuzz_seconds" -rss_limit_mb=2048 "$corpus" "${seeds[@]}" \
          >"build-asan/$name.log" 2>&1 || { tail -n 40 "build-asan/$name.log"; exit 1; }
        grep -E '^Done|stat::number_of_executed_units' "build-asan/$name.log" | tail -n 1 || true
      done
      ;;
    tsan)
      configure build-tsan -DTARVO_SANITIZE=thread -DTARVO_BENCH=OFF
      mapfile -t targets < <(ninja -C build-tsan -t targets all | sed -n 's/^\([A-Za-z0-9_]*_mt_test\): .*/\1/p' | sort -u)
      if [ ${#targets[@]} -eq 0 ]; then echo "no threaded tests"; continue; fi
      ninja -C build-tsan "${targets[@]}"  # they depend on the daemon and the tools
      TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
        ctest --test-dir build-tsan -L threaded "${ctest_args[@]}"
      ;;
    cross)
      bash scripts/install-deps.sh cross
      mapfile -t unit_tests < <(cd tests/unit && ls -- *_test.cpp | sed 's/\.cpp$//')
      for arch in mipsel s390x; do
        echo "--- $arch"
        sysroot=$(bash scripts/cross-sysroot.sh "$arch")
        cross_args=(-DTARVO_SYSROOT="$sysroot" -DTARVO_BENCH=OFF)
        [ -f "build-$arch/CMakeCache.txt" ] ||
          cross_args+=(-DCMAKE_TOOLCHAIN_FILE="cmake/toolchain-$arch.cmake")
        configure "build-$arch" "${cross_args[@]}"
        ninja -C "build-$arch" tarvo-p2p "${unit_tests[@]}"
        ctest --test-dir "build-$arch" -L unit "${ctest_args[@]}"
      done
      ;;
    *) echo "unknown stage $stage"; exit 2 ;;
  esac
done
echo "=== all stages passed: ${stages[*]}"
