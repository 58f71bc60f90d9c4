#!/usr/bin/env bash
# Installs every Debian package the hub daemon, its tools and its tests need.
# Idempotent: when everything is present it only runs dpkg-query and returns.
#
# Optional groups, named as arguments, add what only some stages need:
#   cross   Debian's cross compilers for mipsel and s390x and qemu's user-mode emulators
#           (scripts/cross-sysroot.sh, the test script's cross stage, scripts/cross-test.sh)
#   tools   profilers for the benchmarks: valgrind (callgrind instruction counts, massif heap
#           profiles; docs/live-view.md)
set -euo pipefail

PACKAGES=(
  build-essential cmake pkg-config ninja-build ccache
  clang libclang-rt-14-dev clang-format
  libgtest-dev libgmock-dev libbenchmark-dev
  libev-dev libjson-c-dev
  libmosquitto-dev mosquitto mosquitto-clients
  libcurl4-openssl-dev libsodium-dev libssl-dev openssl
  libavformat-dev libavcodec-dev libavutil-dev libswscale-dev ffmpeg
  nginx libnginx-mod-http-js
  python3 procps iproute2
)
for group in "$@"; do
  case $group in
    cross) PACKAGES+=(g++-mipsel-linux-gnu g++-s390x-linux-gnu qemu-user dpkg-dev xz-utils) ;;
    tools) PACKAGES+=(valgrind) ;;
    *) echo "install-deps: unknown group $group" >&2; exit 2 ;;
  esac
done

missing=()
for p in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "install-deps: installing ${missing[*]}"
SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
# The distribution starts a system broker on 1883 and a web server on 80; the project starts
# its own (tests/support, scripts/webserver.sh), so both services are stopped and disabled.
for service in mosquitto nginx; do
  if [ -d /run/systemd/system ]; then
    $SUDO systemctl disable --now "$service" >/dev/null 2>&1 || true
  else
    $SUDO service "$service" stop >/dev/null 2>&1 || true
    $SUDO update-rc.d "$service" disable >/dev/null 2>&1 || true
  fi
done
echo "install-deps: done"
