#!/usr/bin/env bash
# The fuller cross suite, beyond the test script's cross stage (docs/cross-builds.md):
#
#   scripts/cross-test.sh tests [ARCH...]   every test (unit, integration, end-to-end) of a cross
#                                           build under qemu; ARCH mipsel and/or s390x (both)
#   scripts/cross-test.sh live [ARCH...]    the cross-built daemon under qemu with the host's own
#                                           simulators and viewers (build/): one camera streams
#                                           to four viewers; on s390x every byte between them
#                                           crosses from one byte order to the other
#   scripts/cross-test.sh figures           for mipsel: the stripped daemon and its libraries,
#                                           the frame cutter and forwarding benchmarks under
#                                           qemu, and the daemon's peak memory at idle and with
#                                           one camera streaming to four viewers
#   scripts/cross-test.sh                   all of them
#
# Tests and emulated programs: a test program runs under qemu, and so does every program of the
# same build it starts (the daemon, the simulators, the viewer, the board's shims); the host's
# own programs (mosquitto, ffmpeg, openssl, nginx) run natively and speak over loopback.
# The live runs emulate only the daemon: its peers are the host build, which also keeps the
# memory figures the daemon's own. Results go to standard output and to out/cross/.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh cross

what=${1:-all}
[ $# -gt 0 ] && shift
archs=("$@")
[ ${#archs[@]} -eq 0 ] && archs=(mipsel s390x)
out=$PWD/out/cross
mkdir -p "$out"
jobs=$(nproc)

configure_cross() {  # arch, extra cmake args...
  local arch=$1; shift
  local sysroot
  sysroot=$(bash scripts/cross-sysroot.sh "$arch")
  local args=(-DTARVO_SYSROOT="$sysroot" "$@")
  [ -f "build-$arch/CMakeCache.txt" ] ||
    args+=(-DCMAKE_TOOLCHAIN_FILE="cmake/toolchain-$arch.cmake")
  cmake -S . -B "build-$arch" -G Ninja "${args[@]}" >/dev/null
  echo "$sysroot"
}

run_tests() {
  local arch=$1
  echo "=== cross tests: $arch"
  configure_cross "$arch" -DTARVO_BENCH=OFF >/dev/null
  ninja -C "build-$arch" -j "$jobs"
  # Emulated programs start slowly: the tests' own waits stay as they are, ctest's limit grows.
  local status=0
  ctest --test-dir "build-$arch" -L 'unit|integration|e2e' --no-tests=error -j "$jobs" \
    --timeout 900 --output-on-failure >"$out/tests-$arch.log" 2>&1 || status=$?
  sed -n '/tests passed/,$p' "$out/tests-$arch.log"
  return $status
}

# Peak resident memory of the guest program in a qemu-user process, in KiB: the sum of the
# resident pages of the mappings inside the guest's reserved address space (qemu's own code,
# heap and translation buffer lie outside it), sampled every 50 ms until the file $2 exists.
guest_peak_kib() {
  local pid=$1 stop=$2 base=$3 size=$4
  python3 - "$pid" "$stop" "$base" "$size" <<'PY'
import os, re, sys, time
pid, stop, base, size = sys.argv[1], sys.argv[2], int(sys.argv[3], 0), int(sys.argv[4], 0)
peak = 0
while not os.path.exists(stop):
    total, inside = 0, False
    try:
        with open(f"/proc/{pid}/smaps") as f:
            for line in f:
                m = re.match(r"([0-9a-f]+)-([0-9a-f]+) ", line)
                if m:
                    lo = int(m.group(1), 16)
                    inside = base <= lo < base + size
                elif inside and line.startswith("Rss:"):
                    total += int(line.split()[1])
    except (FileNotFoundError, ProcessLookupError):
        break
    peak = max(peak, total)
    time.sleep(0.05)
print(peak)
PY
}

figures() {
  echo "=== figures: mipsel"
  local sysroot
  sysroot=$(configure_cross mipsel -DTARVO_BENCH=ON)
  ninja -C build-mipsel -j "$jobs" tarvo-p2p frame_cutter_bench forward_bench
  host_peers

  echo "--- size"
  mipsel-linux-gnu-strip -o "$out/tarvo-p2p.stripped" build-mipsel/tarvo-p2p
  echo "tarvo-p2p stripped: $(stat -c %s "$out/tarvo-p2p.stripped") bytes" \
    "(unstripped $(stat -c %s build-mipsel/tarvo-p2p))"
  mipsel-linux-gnu-size "$out/tarvo-p2p.stripped" | sed 's/^/  /'
  # The daemon names (DT_NEEDED) only the libraries its code reaches today; the rest of what
  # the hub library links is listed after them.
  mapfile -t named < <(mipsel-linux-gnu-readelf -d "$out/tarvo-p2p.stripped" |
    sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
  local more=(libcurl.so.4 libssl.so.3 libavformat.so.59 libavcodec.so.59 libswscale.so.6)
  lib_sizes "$sysroot" "shared libraries the daemon names (as Debian ships them, stripped):" "${named[@]}"
  local rest=()
  for lib in "${more[@]}"; do
    [[ " ${named[*]} " == *" $lib "* ]] || rest+=("$lib")
  done
  [ ${#rest[@]} -eq 0 ] ||
    lib_sizes "$sysroot" "linked by the hub library, not yet named by the daemon:" "${rest[@]}"

  echo "--- benchmarks under qemu-mipsel (ratios to memcpy in the same run)"
  local qemu=(qemu-mipsel -L "$sysroot")
  "${qemu[@]}" build-mipsel/bench/frame_cutter_bench --benchmark_filter=CutterVsMemcpy \
    --benchmark_min_time=1 --benchmark_repetitions=3 --benchmark_report_aggregates_only=true \
    | tee "$out/frame_cutter_bench.txt" | grep -E '^BM_|^-' || true
  "${qemu[@]}" build-mipsel/bench/forward_bench --benchmark_filter=ForwardToFourVsMemcpy \
    --benchmark_min_time=1 --benchmark_repetitions=3 --benchmark_report_aggregates_only=true \
    | tee "$out/forward_bench.txt" | grep -E '^BM_|^-' || true

  echo "--- daemon memory under qemu-mipsel"
  live_run mipsel "$sysroot" memory
}

lib_sizes() {  # sysroot, title, library names...
  local sysroot=$1 title=$2 total=0
  shift 2
  echo "$title"
  for lib in "$@"; do
    local path bytes
    path=$(find "$sysroot/lib/mipsel-linux-gnu" "$sysroot/usr/lib/mipsel-linux-gnu" \
      -maxdepth 1 -name "$lib" 2>/dev/null | head -n 1)
    [ -n "$path" ] || continue
    bytes=$(stat -L -c %s "$path")
    total=$((total + bytes))
    printf '  %-22s %9d\n' "$lib" "$bytes"
  done
  printf '  %-22s %9d\n' total "$total"
}

host_peers() {
  cmake -S . -B build -G Ninja >/dev/null
  ninja -C build -j "$jobs" tarvo-mkboard tarvo-shim tarvo-cloudsim tarvo-camsim tarvo-viewer
}

live() {
  local arch=$1 sysroot
  echo "=== live: $arch daemon under qemu, host camera simulator and viewers"
  sysroot=$(configure_cross "$arch")
  ninja -C "build-$arch" -j "$jobs" tarvo-p2p
  host_peers
  live_run "$arch" "$sysroot" check
}

# The daemon of build-ARCH under qemu on a fresh board, the host's broker, cloud agent and camera
# simulator; idle for ten seconds, then four viewers watch the camera for twenty. With "memory",
# the guest's peak resident memory in both phases.
live_run() {
  local arch=$1 sysroot=$2 mode=$3 run=$out/run-$1
  rm -rf "$run"
  mkdir -p "$run"
  free_port() { python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'; }
  local mqtt_port camera_mac=0A0000000001 camera_ip=127.0.0.2 board=$run/board
  mqtt_port=$(free_port)
  build/tarvo-mkboard --camera "$camera_mac,$camera_ip" "$board" >/dev/null
  local media video audio
  media=$(scripts/make-test-media.sh "$out/media")
  video=$(sed -n 1p <<<"$media")
  audio=$(sed -n 2p <<<"$media")
  printf 'listener %s 127.0.0.1\nallow_anonymous true\npersistence false\n' "$mqtt_port" \
    >"$run/mosquitto.conf"

  local pids=()
  stop_all() {
    for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
    wait 2>/dev/null || true
  }
  trap stop_all EXIT
  mosquitto -c "$run/mosquitto.conf" >"$run/mosquitto.log" 2>&1 &
  pids+=($!)

  export TARVO_ROOT=$board TARVO_LOG_STDERR=1 TARVO_MQTT_HOST=127.0.0.1 TARVO_MQTT_PORT=$mqtt_port
  export TARVO_HUB_IP=127.0.0.1
  TARVO_CAMERA_PORT=$(free_port) TARVO_PAIRING_PORT=$(free_port) TARVO_WAKE_PORT=$(free_port)
  TARVO_P2P_PORT=$(free_port)
  export TARVO_CAMERA_PORT TARVO_PAIRING_PORT TARVO_WAKE_PORT TARVO_P2P_PORT
  "qemu-$arch" -L "$sysroot" -d page -D "$run/qemu-page.log" "build-$arch/tarvo-p2p" \
    >"$run/tarvo-p2p.log" 2>&1 &
  local daemon=$!
  pids+=($daemon)

  wait_line() {  # file seconds pattern
    for _ in $(seq $(($2 * 10))); do
      grep -q -- "$3" "$1" 2>/dev/null && return 0
      kill -0 "$daemon" 2>/dev/null || { echo "the daemon ended: $run/tarvo-p2p.log" >&2; return 1; }
      sleep 0.1
    done
    echo "waited $2 s for \"$3\" in $1" >&2
    return 1
  }
  wait_line "$run/tarvo-p2p.log" 120 "Subscribed (mid: 3)"
  # qemu reserves the 32-bit guest's address space in one piece: "pgb_reserved_va: base @ 0x1000
  # for 2147483648 bytes" in its page log.
  local base="" size=""
  if [ "$mode" = memory ]; then
    read -r base size < <(sed -n 's/^pgb_reserved_va: base @ \(0x[0-9a-f]*\) for \([0-9]*\) bytes.*/\1 \2/p' \
      "$run/qemu-page.log" | tail -n 1)
    if [ -z "$size" ]; then echo "qemu did not report the guest's address space" >&2; return 1; fi
  fi

  build/tarvo-cloudsim --host 127.0.0.1 --port "$mqtt_port" --board "$board" \
    --credentials "$run/credentials" --status cloud_connected --stay </dev/null \
    >"$run/tarvo-cloudsim.log" 2>&1 &
  pids+=($!)
  build/tarvo-camsim --board "$board" --camera "$camera_mac,$camera_ip" --video "$video" \
    --audio "$audio" --awake 0 --stay </dev/null >"$run/tarvo-camsim.log" 2>&1 &
  pids+=($!)
  wait_line "$run/tarvo-p2p.log" 120 "first report tutk info ok"
  wait_line "$run/tarvo-p2p.log" 60 "Camera $camera_mac login hardver: "
  for _ in $(seq 300); do [ -s "$run/credentials" ] && break; sleep 0.1; done

  # Idle: the camera connected, no viewer, for ten seconds.
  local sampler=""
  if [ "$mode" = memory ]; then
    guest_peak_kib "$daemon" "$run/idle.done" "$base" "$size" >"$run/idle.kib" &
    sampler=$!
    sleep 10
    touch "$run/idle.done"
    wait "$sampler"
    echo "idle (camera connected, no viewer): peak $(cat "$run/idle.kib") KiB"
    # One camera streaming 1080p at 15 frames a second to four viewers for 20 seconds.
    guest_peak_kib "$daemon" "$run/live.done" "$base" "$size" >"$run/live.kib" &
    sampler=$!
  fi
  local viewers=()
  for n in 1 2 3 4; do
    build/tarvo-viewer --credentials "$run/credentials" --port "$TARVO_P2P_PORT" \
      --live "$camera_mac" --hold 20 >"$run/viewer-$n.log" 2>&1 &
    viewers+=($!)
  done
  local failed=0
  for pid in "${viewers[@]}"; do wait "$pid" || failed=1; done
  if [ -n "$sampler" ]; then
    touch "$run/live.done"
    wait "$sampler"
    echo "one camera to four viewers: peak $(cat "$run/live.kib") KiB" \
      "(the whole qemu process: $(sed -n 's/^VmHWM: *//p' "/proc/$daemon/status"))"
  fi
  grep -h -E '^(video|audio) frames' "$run"/viewer-*.log | sed 's/^/  viewer: /'
  [ $failed -eq 0 ] || { echo "a viewer failed: $run/viewer-*.log" >&2; return 1; }
  stop_all
  trap - EXIT
}

case $what in
  tests) for arch in "${archs[@]}"; do run_tests "$arch"; done ;;
  live) for arch in "${archs[@]}"; do live "$arch"; done ;;
  figures) figures ;;
  all)
    status=0
    for arch in "${archs[@]}"; do run_tests "$arch" || status=1; done
    live s390x || status=1
    figures || status=1
    exit $status
    ;;
  *) echo "usage: scripts/cross-test.sh [tests|live [ARCH...]|figures]" >&2; exit 2 ;;
esac
