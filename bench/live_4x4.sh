#!/usr/bin/env bash
# The whole hub at its full size: the real daemon on a board with an SD card, four simulated
# cameras streaming the 1080p15 test clip (scripts/make-test-media.sh), the four viewer sessions
# the hub allows, in two phases of SECONDS each:
#   one   one viewer per camera;
#   four  all four viewers on the first camera while the three others raise motion events
#         (their recorders store clips on the card and upload them).
# Reports the daemon's RSS at idle (all cameras logged in, nobody watching), its peak RSS
# (VmHWM) and the peaks of its anonymous and file-backed parts (sampled every 10 ms), its CPU
# seconds per second of each phase, per viewer the video frames it received and the frames it
# lost (gaps in the camera's frame index), and per phase and viewer the hub-added latency p50
# and p99 (the camera simulator's send times joined with the viewers' arrival times). Every
# viewer reads as fast as frames come.
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
mkdir -p "$out" "$out/uploads-decrypted" "$out/sends"
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
    local n
    n=$(grep -c -- "$pattern" "$file" 2>/dev/null || true)
    [ "${n:-0}" -ge "$count" ] && return 0
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
  --awake 0 --stay --send-log "$out/sends" <"$out/camsim.in" >"$out/tarvo-camsim.log" 2>&1 &
pids+=($!)
exec 3>"$out/camsim.in"
wait_line "$out/tarvo-p2p.log" 60 "first report tutk info ok"
wait_line "$out/tarvo-p2p.log" 60 "login hardver: " 4
for _ in $(seq 100); do [ -s "$out/credentials" ] && break; sleep 0.1; done
sleep 2

# Anonymous pages inside library mappings (their relocated data) and outside (the daemon's own).
own_anon() {
  awk '/^[0-9a-f]+-[0-9a-f]+ / { lib = $6 ~ /^\// } /^Anonymous:/ { if (lib) l += $2; else o += $2 }
       END { printf "%d KiB own, %d KiB library data", o, l }' "$1"
}
status_kib() { awk -v k="$1:" '$1 == k { print $2 }' "/proc/$daemon/status"; }

# The peak split into the daemon's anonymous memory and the file-backed part (mostly shared
# libraries), each the largest of samples taken every 10 ms until out/sampler.stop appears. At
# each new anonymous maximum the mappings are kept in smaps-at-peak.txt: its anonymous pages
# that lie in library mappings (relocated data of the libraries) are told apart from those of
# the daemon's own heap, stacks and buffers.
python3 - "$daemon" "$out" <<'EOF' &
import os, shutil, sys, time
pid, out = sys.argv[1], sys.argv[2]
max_anon = max_file = 0
while not os.path.exists(out + "/sampler.stop"):
    try:
        fields = dict(line.split(":", 1) for line in open("/proc/%s/status" % pid))
        anon, file = int(fields["RssAnon"].split()[0]), int(fields["RssFile"].split()[0])
        if anon > max_anon:
            max_anon = anon
            shutil.copyfile("/proc/%s/smaps" % pid, out + "/smaps-at-peak.txt")
        max_file = max(max_file, file)
    except (OSError, KeyError, ValueError):
        break
    time.sleep(0.01)
with open(out + "/memory-peak", "w") as f:
    f.write("%d %d\n" % (max_anon, max_file))
EOF
sampler=$!
pids+=($sampler)
cpu_ticks() { awk '{print $14 + $15}' "/proc/$daemon/stat"; }
hz=$(getconf CLK_TCK)
idle_rss=$(status_kib VmRSS)
idle_hwm=$(status_kib VmHWM)
idle_anon=$(status_kib RssAnon)
cp "/proc/$daemon/smaps" "$out/smaps-idle.txt"

# The hub-added latency of a phase's video frames: from the camera's last byte of a frame handed
# to its socket (the simulator's send log) to the viewer's first and last byte of it received
# (the viewer's frame log), both CLOCK_MONOTONIC. A viewer's frame is matched with the latest
# send of its camera with the same 16-bit index at or before its arrival.
latency() {
  python3 - "$out" "$@" <<'EOF'
import csv, math, sys
out, phase, cameras = sys.argv[1], sys.argv[2], sys.argv[3:]
def pct(values, p):
    values = sorted(values)
    return values[max(0, math.ceil(p / 100.0 * len(values)) - 1)]  # nearest rank
everything = {"first": [], "last": []}
lines = []
for v, camera in enumerate(cameras):
    sends = {}
    with open("%s/sends/%s.csv" % (out, camera)) as f:
        for row in csv.DictReader(f):
            sends.setdefault(int(row["index"]) % 65536, []).append(int(row["sent_ns"]))
    got = {"first": [], "last": []}
    unmatched = 0
    with open("%s/%s-viewer%d.csv" % (out, phase, v)) as f:
        for row in csv.DictReader(f):
            if row["kind"] != "video":
                continue
            last = int(row["last_byte_ns"])
            sent = [t for t in sends.get(int(row["index"]), []) if t <= last]
            if not sent:
                unmatched += 1
                continue
            got["first"].append((int(row["first_byte_ns"]) - max(sent)) / 1e6)
            got["last"].append((last - max(sent)) / 1e6)
    for k in got:
        everything[k] += got[k]
    if got["last"]:
        lines.append("%-5s  viewer %d latency ms: first byte p50 %.2f p99 %.2f, last byte p50 %.2f "
                     "p99 %.2f (%d frames%s)" % (phase, v, pct(got["first"], 50), pct(got["first"], 99),
                     pct(got["last"], 50), pct(got["last"], 99), len(got["last"]),
                     ", %d unmatched" % unmatched if unmatched else ""))
if everything["last"]:
    print("%-5s  latency ms, all viewers: first byte p50 %.2f p99 %.2f, last byte p50 %.2f p99 %.2f"
          % (phase, pct(everything["first"], 50), pct(everything["first"], 99),
             pct(everything["last"], 50), pct(everything["last"], 99)))
for line in lines:
    print(line)
EOF
}

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
  latency "$name" "${watch[@]}"
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

echo "4x4 live view, $seconds s per phase, $(nproc) processors, load average $(cut -d' ' -f1-3 /proc/loadavg)"
echo "idle   RSS $idle_rss KiB (anonymous $idle_anon KiB: $(own_anon "$out/smaps-idle.txt"); peak so far $idle_hwm KiB)"
phase one "${macs[@]}"
sleep 3
phase four "${macs[0]}" "${macs[0]}" "${macs[0]}" "${macs[0]}" -- "${macs[1]}" "${macs[2]}" "${macs[3]}"
wait_line "$out/tarvo-p2p.log" 90 "handle alarm \(succeed\|failed\)\|upload retry more than 3"
touch "$out/sampler.stop"
wait "$sampler" 2>/dev/null || true
read -r peak_anon peak_file <"$out/memory-peak"
echo "peak   RSS $(status_kib VmHWM) KiB (VmHWM); sampled every 10 ms: anonymous $peak_anon KiB ($(own_anon "$out/smaps-at-peak.txt")), file-backed $peak_file KiB"
echo "end    RSS $(status_kib VmRSS) KiB, anonymous $(status_kib RssAnon) KiB, file-backed $(status_kib RssFile) KiB"
echo "events $(grep -c 'handle alarm succeed' "$out/tarvo-p2p.log" || true) clips uploaded; load average $(cut -d' ' -f1-3 /proc/loadavg)"
# Where the memory is: the largest resident mappings (anonymous ones have no name).
awk '/^[0-9a-f]+-[0-9a-f]+ / { name = $6 == "" ? "[anonymous]" : $6 }
     /^Rss:/ { if ($2 >= 256) printf "%8d KiB  %s\n", $2, name }' "/proc/$daemon/smaps" |
  sort -rn | head -n 12 >"$out/largest-mappings.txt"
awk '/^[0-9a-f]+-[0-9a-f]+ / { name = $6 == "" ? "[anonymous]" : $6 }
     /^Rss:/ { if ($2 >= 256) printf "%8d KiB  %s\n", $2, name }' "$out/smaps-at-peak.txt" |
  sort -rn | head -n 12 >"$out/largest-mappings-at-peak.txt"
echo "largest resident mappings: $out/largest-mappings.txt (at the end), $out/largest-mappings-at-peak.txt"
