#!/usr/bin/env bash
# The hub on this machine: builds everything, makes a fresh board root in out/board with one
# camera and an SD card, starts a local mosquitto broker, an nginx upload server (HTTPS, its test
# CA in the board's CA folder), the daemon on that board, the cloud agent simulator and a
# simulated camera streaming the generated test clip; then a viewer watches the camera for a few
# seconds (and talks back to it), the camera raises a motion event, the script says where the
# viewer's recording, the event's clip, snapshot and index and the decrypted uploads are, and it
# shows the daemon's log until Ctrl-C. Nothing outside out/ (and the build folder) is touched:
# the daemon's tools are the board's shims.
#
# TARVO_BUILD_DIR picks the build folder (default build); VIEW_SECONDS how long the viewer
# watches (default 5).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh

build=${TARVO_BUILD_DIR:-build}
view_seconds=${VIEW_SECONDS:-5}
cmake -S . -B "$build" -G Ninja >/dev/null
ninja -C "$build" tarvo-p2p tarvo-mkboard tarvo-shim tarvo-cloudsim tarvo-camsim tarvo-viewer

out=$PWD/out
board=$out/board
rm -rf "$out"
mkdir -p "$out" "$out/talk"

free_port() { python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'; }
mqtt_port=$(free_port)

camera_mac=0A0000000001
camera_ip=127.0.0.2
"$build/tarvo-mkboard" --card --camera "$camera_mac,$camera_ip" "$board"
media=$(scripts/make-test-media.sh "$out/media")
video=$(sed -n 1p <<<"$media")
audio=$(sed -n 2p <<<"$media")
# Four seconds of the A-law track for the talkback.
head -c 32000 "$audio" >"$out/talk-source.alaw"

cat >"$out/mosquitto.conf" <<CONF
listener $mqtt_port 127.0.0.1
allow_anonymous true
persistence false
CONF

pids=()
cleanup() {
  trap - INT TERM EXIT
  exec 3>&- 2>/dev/null || true
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  scripts/webserver.sh stop "$out/web" 2>/dev/null || true
  wait 2>/dev/null || true
  echo
  echo "Stopped. The board root stays in $board (shim requests: $board/var/log/shims.log)."
}
trap cleanup INT TERM EXIT

mosquitto -c "$out/mosquitto.conf" >"$out/mosquitto.log" 2>&1 &
pids+=($!)

# The cloud's upload storage: nginx taking PUTs over HTTPS, its CA trusted by the board.
web_port=$(scripts/webserver.sh start "$out/web" --put)
scripts/webserver.sh install-ca "$out/web" "$board/etc/ssl/certs" >/dev/null
upload_url="https://127.0.0.1:$web_port/uploads"
mkdir -p "$out/uploads-decrypted"

export TARVO_ROOT=$board
export TARVO_LOG_STDERR=1
export TARVO_MQTT_HOST=127.0.0.1
export TARVO_MQTT_PORT=$mqtt_port
export TARVO_HUB_IP=127.0.0.1
TARVO_CAMERA_PORT=$(free_port)
TARVO_PAIRING_PORT=$(free_port)
TARVO_WAKE_PORT=$(free_port)
TARVO_P2P_PORT=$(free_port)
export TARVO_CAMERA_PORT TARVO_PAIRING_PORT TARVO_WAKE_PORT TARVO_P2P_PORT

echo "Board root:  $board"
echo "MQTT broker: 127.0.0.1:$mqtt_port (log: $out/mosquitto.log)"
echo "Daemon log:  $out/tarvo-p2p.log"
echo "P2P port:    $TARVO_P2P_PORT"
echo "Uploads:     $upload_url (stored in $out/web/uploads)"
"$build/tarvo-p2p" >"$out/tarvo-p2p.log" 2>&1 &
pids+=($!)
daemon_pid=$!

# Waits up to $2 seconds for a line matching $3 in file $1.
wait_line() {
  local file=$1 seconds=$2 pattern=$3
  for _ in $(seq $((seconds * 10))); do
    if grep -q -- "$pattern" "$file" 2>/dev/null; then return 0; fi
    if ! kill -0 "$daemon_pid" 2>/dev/null; then
      echo "tarvo-p2p ended; its log: $out/tarvo-p2p.log" >&2
      return 1
    fi
    sleep 0.1
  done
  echo "waited $seconds s for \"$pattern\" in $file" >&2
  return 1
}
wait_line "$out/tarvo-p2p.log" 30 "Subscribed (mid: 3)"

# The cloud agent acknowledges the hub's credential report and writes what the app would get.
"$build/tarvo-cloudsim" --host 127.0.0.1 --port "$mqtt_port" --board "$board" \
  --credentials "$out/credentials" --status cloud_connected --upload-url "$upload_url" \
  --upload-dir "$out/web/uploads" --decrypt-to "$out/uploads-decrypted" --stay </dev/null \
  >"$out/tarvo-cloudsim.log" 2>&1 &
pids+=($!)
echo "Cloud agent: log $out/tarvo-cloudsim.log, app credentials $out/credentials"

# The camera connects from its own address (its ARP line goes into the board) and streams when
# a viewer asks; talkback it receives goes to out/talk/$camera_mac.alaw.
# Its standard input is a fifo the script writes commands to (a motion event below).
rm -f "$out/camsim.in"
mkfifo "$out/camsim.in"
"$build/tarvo-camsim" --board "$board" --camera "$camera_mac,$camera_ip" --video "$video" \
  --audio "$audio" --talk "$out/talk" --awake 0 --stay <"$out/camsim.in" \
  >"$out/tarvo-camsim.log" 2>&1 &
pids+=($!)
exec 3>"$out/camsim.in"
echo "Camera:      $camera_mac on $camera_ip, log $out/tarvo-camsim.log"

wait_line "$out/tarvo-p2p.log" 60 "first report tutk info ok"
wait_line "$out/tarvo-p2p.log" 30 "Camera $camera_mac login hardver: "
for _ in $(seq 100); do [ -s "$out/credentials" ] && break; sleep 0.1; done

echo
echo "A viewer watches camera $camera_mac for $view_seconds seconds and talks back to it:"
"$build/tarvo-viewer" --credentials "$out/credentials" --port "$TARVO_P2P_PORT" \
  --live "$camera_mac" --hold "$view_seconds" --h264 "$out/viewer.h264" --mp4 "$out/viewer.mp4" \
  --alaw "$out/viewer.alaw" --frame-log "$out/viewer-frames.csv" \
  --talk "$out/talk-source.alaw" | sed 's/^/  /'

echo
echo "The viewer's recording: $out/viewer.mp4 (H.264 stream $out/viewer.h264, audio"
echo "$out/viewer.alaw, a line per frame in $out/viewer-frames.csv)."
echo "The camera played the talkback into $out/talk/$camera_mac.alaw."
if command -v ffprobe >/dev/null; then
  ffprobe -v error -select_streams v:0 -count_packets \
    -show_entries stream=codec_name,width,height,nb_read_packets -of csv=p=0 "$out/viewer.mp4" |
    sed 's/^/  ffprobe: codec,width,height,frames = /'
fi
echo
echo "The camera reports motion: the hub records ten seconds, stores the clip and snapshot on the"
echo "card, encrypts and uploads both and reports the event to the cloud agent."
echo "pir $camera_mac" >&3
wait_line "$out/tarvo-p2p.log" 90 "handle alarm \(succeed\|failed\)\|upload retry more than 3"
wait_line "$out/tarvo-cloudsim.log" 10 "^decrypted .*\.mp4 " || true
card="$board/mnt/mmcblk0p1/KELDA_RECORD_VIDEO/$camera_mac"
echo "  clip on the card:     $(find "$card" -name '*.mp4' | head -n 1)"
echo "  snapshot (JPEG):      $(find "$card" -name '*.jpeg' | head -n 1)"
echo "  index:                $card/.timestamp ($(od -An -tu4 -N4 "$card/.timestamp" | tr -d ' ')"\
" and length byte $(od -An -tu1 -j4 -N1 "$card/.timestamp" | tr -d ' '))"
echo "  the report:           $(grep -m1 '^event ' "$out/tarvo-cloudsim.log" || echo none)"
echo "  decrypted uploads:    $out/uploads-decrypted/ (encrypted ones in $out/web/uploads/)"
ls "$out/uploads-decrypted" | sed 's/^/    /'

echo
echo "The daemon's log follows (Ctrl-C stops everything)."
tail -n +1 -f "$out/tarvo-p2p.log" &
pids+=($!)
wait "$daemon_pid" || echo "tarvo-p2p exited with status $?"
