#!/usr/bin/env bash
# Set-up, build, and molvane-play on its built-in sample (written with ffmpeg
# on first use); the outputs go to build/play-sample/.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/setup.sh"
"$root/scripts/build.sh"
out="$root/build/play-sample"
"$root/build/tools/molvane-play/molvane-play" --out "$out"
echo "molvane-play wrote audio.wav, ticks.csv, frames.png and summary.json into $out"
