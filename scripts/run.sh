#!/usr/bin/env bash
# The hub on this machine: builds everything, makes a fresh board root in out/board, starts a
# local mosquitto broker and the daemon on that board, and shows the daemon's log until Ctrl-C.
# Nothing outside out/ is touched: the daemon's tools are the board's shims.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh

cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
ninja -C build tarvo-p2p tarvo-mkboard tarvo-shim

out=$PWD/out
board=$out/board
rm -rf "$out"
mkdir -p "$out"

free_port() { python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'; }
mqtt_port=$(free_port)

build/tarvo-mkboard "$board"

cat >"$out/mosquitto.conf" <<CONF
listener $mqtt_port 127.0.0.1
allow_anonymous true
persistence false
CONF

pids=()
cleanup() {
  trap - INT TERM EXIT
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  echo
  echo "Stopped. The board root stays in $board (shim requests: $board/var/log/shims.log)."
}
trap cleanup INT TERM EXIT

mosquitto -c "$out/mosquitto.conf" >"$out/mosquitto.log" 2>&1 &
pids+=($!)

export TARVO_ROOT=$board
export TARVO_LOG_STDERR=1
export TARVO_MQTT_HOST=127.0.0.1
export TARVO_MQTT_PORT=$mqtt_port
export TARVO_HUB_IP=127.0.0.1

echo "Board root:  $board"
echo "MQTT broker: 127.0.0.1:$mqtt_port (log: $out/mosquitto.log)"
echo "Daemon log:  $out/tarvo-p2p.log (shown below; Ctrl-C stops everything)"
echo
build/tarvo-p2p >"$out/tarvo-p2p.log" 2>&1 &
pids+=($!)
tail -n +1 -f "$out/tarvo-p2p.log" &
pids+=($!)
wait "${pids[1]}" || echo "tarvo-p2p exited with status $?"
