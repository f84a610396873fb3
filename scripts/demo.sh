#!/usr/bin/env bash
# Set-up, build, and molvane-probe on a sample movie made with ffmpeg.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/setup.sh"
"$root/scripts/build.sh"
sample="$root/build/sample.mp4"
if [ ! -f "$sample" ]; then
  ffmpeg -v error -f lavfi -i "testsrc2=duration=5:size=640x360:rate=25" \
    -f lavfi -i "sine=frequency=440:duration=5:sample_rate=48000" \
    -c:v libx264 -bf 2 -c:a aac -metadata title="MolvaneAV sample" -y "$sample"
fi
"$root/build/tools/molvane-probe/molvane-probe" "$sample"
