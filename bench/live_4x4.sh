#!/usr/bin/env bash
# The whole hub at its full size: the real daemon on a board with an SD card, four simulated
# cameras streaming the 1080p15 test clip (scripts/make-test-media.sh), the four viewer sessions
# the hub allows, in two phases of SECONDS each:
#   one   one viewer per camera;
#   four  all four viewers on the first camera while the three others raise motion events
#         (their recorders store clips on the card and upload them).
# Reports the daemon's RSS at idle (all cameras logged in, nobody watching), its peak RSS
# (VmHWM) at the end, its CPU seconds per second of each phase, and per viewer the video frames
# it received and the frames it lost (gaps in the camera's frame index). Every viewer reads as
# fast as frames come.
#   bench/live_4x4.sh [SECONDS]        (default 30; TARVO_BUILD_DIR picks the build, default build)
# Works in out-4x4/ (made afresh); nothing else is touched.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-30}
build=${TARVO_BUILD_DIR:-build}
cmake -S . -B "$build" -G Ninja >/dev/null
ninja -C "$build" tarvo-p2p tarvo-mkboard tarvo-shim tarvo-cloudsim tarvo-camsim tarvo-viewer \
  >/dev/null

out=$PWD/out-4x4
board=$out/board
rm -rf "$out"
mkdir -p "$out" "$out/uploads-decrypted"
free_port() { python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'; }
mqtt_port=$(free_port)
macs=(0A0000000001 0A0000000002 0A0000000003 0A0000000004)
camera_args=()
board_args=()
for i in 0 1 2 3; do
  camera_args+=(--camera "${macs[$i]},127.0.0.$((i + 2))")
  board_args+=(--camera "${macs[$i]},127.0.0.$((i + 2))")
done
"$build/tarvo-mkboard" --card "${board_args[@]}" "$board" >/dev/null
media=$(scripts/make-test-media.sh "$build/bench-media")
video=$(sed -n 1p <<<"$media")
audio=$(sed -n 2p <<<"$media")

printf 'listener %s 127.0.0.1\nallow_anonymous true\npersistence false\n' "$mqtt_port" \
  >"$out/mosquitto.conf"
pids=()
cleanup() {
  trap - INT TERM EXIT
  exec 3>&- 2>/dev/null || true
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  scripts/webserver.sh stop "$out/web" >/dev/null 2>&1 || true
  wait 2>/dev/null || true
}
trap cleanup INT TERM EXIT
mosquitto -c "$out/mosquitto.conf" >"$out/mosquitto.log" 2>&1 &
pids+=($!)
web_port=$(scripts/webserver.sh start "$out/web" --put)
scripts/webserver.sh install-ca "$out/web" "$board/etc/ssl/certs" >/dev/null

export TARVO_ROOT=$board TARVO_LOG_STDERR=1 TARVO_MQTT_HOST=127.0.0.1 TARVO_MQTT_PORT=$mqtt_port
export TARVO_HUB_IP=127.0.0.1
TARVO_CAMERA_PORT=$(free_port)
TARVO_PAIRING_PORT=$(free_port)
TARVO_WAKE_PORT=$(free_port)
TARVO_P2P_PORT=$(free_port)
export TARVO_CAMERA_PORT TARVO_PAIRING_PORT TARVO_WAKE_PORT TARVO_P2P_PORT
# TARVO_DAEMON_WRAP runs the daemon under a tool that keeps its process id (for example
# "valgrind --tool=massif --massif-out-file=out.massif"); unset, the daemon runs alone.
${TARVO_DAEMON_WRAP:-} "$build/tarvo-p2p" >"$out/tarvo-p2p.log" 2>&1 &
daemon=$!
pids+=($daemon)

wait_line() {  # file seconds pattern [count]
  local file=$1 limit=$2 pattern=$3 count=${4:-1}
  for _ in $(seq $((limit * 10))); do
    [ "$(grep -c -- "$pattern" "$file" 2>/dev/null || true)" -ge "$count" ] && return 0
    kill -0 "$daemon" 2>/dev/null || { echo "tarvo-p2p ended, see $out/tarvo-p2p.log" >&2; exit 1; }
    sleep 0.1
  done
  echo "waited $limit s for \"$pattern\" in $file" >&2
  exit 1
}
wait_line "$out/tarvo-p2p.log" 30 "Subscribed (mid: 3)"
"$build/tarvo-cloudsim" --host 127.0.0.1 --port "$mqtt_port" --board "$board" \
  --credentials "$out/credentials" --status cloud_connected \
  --upload-url "https://127.0.0.1:$web_port/uploads" --upload-dir "$out/web/uploads" \
  --decrypt-to "$out/uploads-decrypted" --stay \
  </dev/null >"$out/tarvo-cloudsim.log" 2>&1 &
pids+=($!)
mkfifo "$out/camsim.in"
"$build/tarvo-camsim" --board "$board" "${camera_args[@]}" --video "$video" --audio "$audio" \
  --awake 0 --stay <"$out/camsim.in" >"$out/tarvo-camsim.log" 2>&1 &
pids+=($!)
exec 3>"$out/camsim.in"
wait_line "$out/tarvo-p2p.log" 60 "first report tutk info ok"
wait_line "$out/tarvo-p2p.log" 60 "login hardver: " 4
for _ in $(seq 100); do [ -s "$out/credentials" ] && break; sleep 0.1; done
sleep 2

status_kib() { awk -v k="$1:" '$1 == k { print $2 }' "/proc/$daemon/status"; }

# The peak split into the daemon's own memory (anonymous: heaps, stacks, buffers) and the
# file-backed part (mostly shared libraries), each the largest of samples taken every 0.1 s.
# At each new anonymous maximum the mappings are kept in smaps-at-peak.txt.
sample_memory() {
  local anon file max_anon=0 max_file=0
  while [ ! -e "$out/sampler.stop" ] && kill -0 "$daemon" 2>/dev/null; do
    read -r anon file < <(awk '$1 == "RssAnon:" { a = $2 } $1 == "RssFile:" { f = $2 }
                               END { print a + 0, f + 0 }' "/proc/$daemon/status" 2>/dev/null) ||
      break
    if [ "$anon" -gt "$max_anon" ]; then
      max_anon=$anon
      cp "/proc/$daemon/smaps" "$out/smaps-at-peak.txt" 2>/dev/null || true
    fi
    [ "$file" -gt "$max_file" ] && max_file=$file
    echo "$max_anon $max_file" >"$out/memory-peak.tmp" && mv "$out/memory-peak.tmp" "$out/memory-peak"
    sleep 0.1
  done
}
sample_memory &
sampler=$!
pids+=($sampler)
cpu_ticks() { awk '{print $14 + $15}' "/proc/$daemon/stat"; }
hz=$(getconf CLK_TCK)
idle_rss=$(status_kib VmRSS)
idle_hwm=$(status_kib VmHWM)
idle_anon=$(status_kib RssAnon)

# One phase: viewers on the cameras named (one per viewer), motion on the cameras named after
# "--", every 15 s. Prints CPU seconds per second and each viewer's frames and losses.
phase() {
  local name=$1
  shift
  local watch=() pir=()
  while [ $# -gt 0 ] && [ "$1" != -- ]; do watch+=("$1"); shift; done
  [ $# -gt 0 ] && shift && pir=("$@")
  local viewers=() t0 t1 n=0
  t0=$(cpu_ticks)
  for mac in "${watch[@]}"; do
    "$build/tarvo-viewer" --credentials "$out/credentials" --port "$TARVO_P2P_PORT" \
      --account "viewer$n" --live "$mac" --hold "$seconds" \
      --frame-log "$out/$name-viewer$n.csv" >"$out/$name-viewer$n.log" 2>&1 &
    viewers+=($!)
    n=$((n + 1))
  done
  local start=$SECONDS
  while [ $((SECONDS - start)) -lt "$seconds" ]; do
    for mac in "${pir[@]}"; do echo "pir $mac" >&3; done
    sleep 15
  done
  for v in "${viewers[@]}"; do wait "$v" || echo "a viewer of phase $name ended with $?"; done
  t1=$(cpu_ticks)
  awk -v t="$((t1 - t0))" -v hz="$hz" -v s="$seconds" -v p="$name" \
    'BEGIN { printf "%-5s  CPU %.3f s per second of streaming\n", p, t / hz / s }'
  for i in $(seq 0 $((n - 1))); do
    # Video lines: kind,number,index,...; a lost frame is a gap in the 16-bit camera index.
    awk -F, -v p="$name" -v v="$i" -v cam="${watch[$i]}" '
      $1 == "video" || $1 == "V" || $1 == "v" {
        if (seen && ($3 - last + 65536) % 65536 > 1) lost += ($3 - last + 65536) % 65536 - 1
        last = $3; seen = 1; frames++ }
      END { printf "%-5s  viewer %d on %s: %d video frames, %d lost\n", p, v, cam, frames, lost }
    ' "$out/$name-viewer$i.csv"
  done
}

echo "4x4 live view, $seconds s per phase, $(nproc) processors"
echo "idle   RSS $idle_rss KiB (anonymous $idle_anon KiB; peak so far $idle_hwm KiB)"
phase one "${macs[@]}"
sleep 3
phase four "${macs[0]}" "${macs[0]}" "${macs[0]}" "${macs[0]}" -- "${macs[1]}" "${macs[2]}" "${macs[3]}"
wait_line "$out/tarvo-p2p.log" 90 "handle alarm \(succeed\|failed\)\|upload retry more than 3"
touch "$out/sampler.stop"
wait "$sampler" 2>/dev/null || true
read -r peak_anon peak_file <"$out/memory-peak"
echo "peak   RSS $(status_kib VmHWM) KiB (VmHWM); sampled peaks: anonymous $peak_anon KiB, file-backed $peak_file KiB"
echo "end    RSS $(status_kib VmRSS) KiB, anonymous $(status_kib RssAnon) KiB, file-backed $(status_kib RssFile) KiB"
echo "events $(grep -c 'handle alarm succeed' "$out/tarvo-p2p.log" || true) clips uploaded"
# Where the memory is: the largest resident mappings (anonymous ones have no name).
awk '/^[0-9a-f]+-[0-9a-f]+ / { name = $6 == "" ? "[anonymous]" : $6 }
     /^Rss:/ { if ($2 >= 256) printf "%8d KiB  %s\n", $2, name }' "/proc/$daemon/smaps" |
  sort -rn | head -n 12 >"$out/largest-mappings.txt"
awk '/^[0-9a-f]+-[0-9a-f]+ / { name = $6 == "" ? "[anonymous]" : $6 }
     /^Rss:/ { if ($2 >= 256) printf "%8d KiB  %s\n", $2, name }' "$out/smaps-at-peak.txt" |
  sort -rn | head -n 12 >"$out/largest-mappings-at-peak.txt"
echo "largest resident mappings: $out/largest-mappings.txt (at the end), $out/largest-mappings-at-peak.txt"
