#!/usr/bin/env bash
# Makes the camera simulator's test media with Debian's ffmpeg (package "ffmpeg"):
#   DIR/camera-1080p15.h264  H.264 Annex B, 1920x1080, 15 frames a second, baseline profile,
#                            a key frame every 15 frames with the parameter sets before each;
#   DIR/camera-8k.alaw       G.711 A-law, 8000 samples a second, mono, raw bytes.
# Usage: scripts/make-test-media.sh DIR [SECONDS]   (default 4 seconds)
# Files already there are kept (the folder is a cache); remove them to make new ones. The files
# appear whole or not at all, so several runs may share the folder.
set -euo pipefail

dir=${1:?usage: make-test-media.sh DIR [SECONDS]}
seconds=${2:-4}
case $seconds in
  '' | *[!0-9]*) echo "make-test-media.sh: SECONDS must be a whole number" >&2; exit 2 ;;
esac
if [ "$seconds" -lt 1 ] || [ "$seconds" -gt 600 ]; then
  echo "make-test-media.sh: SECONDS must be 1..600" >&2
  exit 2
fi
command -v ffmpeg >/dev/null || { echo "make-test-media.sh: ffmpeg is not installed" >&2; exit 1; }

mkdir -p "$dir"
video="$dir/camera-1080p15.h264"
audio="$dir/camera-8k.alaw"
if [ -s "$video" ] && [ -s "$audio" ]; then
  echo "$video"
  echo "$audio"
  exit 0
fi

tmp=$(mktemp -d -p "$dir")  # removed at exit
trap 'rm -rf "$tmp"' EXIT

ffmpeg -hide_banner -loglevel error -nostdin -y \
  -f lavfi -i "testsrc2=size=1920x1080:rate=15:duration=$seconds" \
  -c:v libx264 -preset ultrafast -profile:v baseline -pix_fmt yuv420p -bf 0 -b:v 800k \
  -x264-params "keyint=15:min-keyint=15:scenecut=0:repeat-headers=1" \
  -f h264 "$tmp/video.h264"
ffmpeg -hide_banner -loglevel error -nostdin -y \
  -f lavfi -i "sine=frequency=440:sample_rate=8000:duration=$seconds" \
  -ac 1 -ar 8000 -c:a pcm_alaw -f alaw "$tmp/audio.alaw"

mv -f "$tmp/video.h264" "$video"
mv -f "$tmp/audio.alaw" "$audio"
echo "$video"
echo "$audio"
