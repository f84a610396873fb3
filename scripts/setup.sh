#!/usr/bin/env bash
# Installs the Debian 12 packages that MolvaneAV needs to build, test and
# benchmark. Safe to run again: it only installs what is missing.
set -euo pipefail

packages=(
  g++ cmake ninja-build pkg-config
  libavformat-dev libavcodec-dev libavutil-dev libswscale-dev libswresample-dev
  qtbase5-dev
  libgtest-dev libbenchmark-dev
  clang-14 libclang-rt-14-dev
  ffmpeg
  portaudio19-dev
  xvfb xauth pulseaudio pulseaudio-utils libasound2-plugins
  valgrind
)

missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$package")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  echo "setup: all packages present"
  exit 0
fi

echo "setup: installing ${missing[*]}"
if [ "$(id -u)" -ne 0 ]; then
  echo "setup: run as root to install packages" >&2
  exit 1
fi
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}"
