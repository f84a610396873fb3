#!/usr/bin/env bash
# Runs a program on a private desktop: its own X server (Xvfb, on a display
# number the server picks itself) and, with --sound, its own PulseAudio
# server whose default sink is a null sink at 48 kHz, 16-bit stereo, paced
# like a sound card. Everything goes when the program ends.
#
#   desktop.sh [--sound] PROGRAM [ARGS...]
#
# The program gets DISPLAY, and with --sound PULSE_SERVER and
# MOLVANE_TEST_SINK (the sink's name; its monitor is MOLVANE_TEST_SINK.monitor).
set -euo pipefail
sound=0
if [ "${1:-}" = --sound ]; then
  sound=1
  shift
fi
dir=$(mktemp -d)
chmod 700 "$dir"
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf "$dir"
}
trap cleanup EXIT

# -displayfd: the server takes a free display number and writes it when ready.
# -noreset: the last client leaving must not restart the server under the next.
Xvfb -displayfd 3 -noreset -nolisten tcp -screen 0 1280x1024x24 3>"$dir/display" 2>"$dir/xvfb.log" &
pids+=($!)
for _ in $(seq 600); do
  grep -q '^[0-9]' "$dir/display" 2>/dev/null && break
  kill -0 "${pids[0]}" 2>/dev/null || { cat "$dir/xvfb.log" >&2; exit 1; }
  sleep 0.1
done
DISPLAY=:$(head -n 1 "$dir/display")
export DISPLAY
# The window paints without OpenGL. Qt would load Mesa's GL driver anyway,
# which keeps a buffer to the end and is unloaded before the leak checker
# of a sanitized run could tell whose it is.
export QT_XCB_GL_INTEGRATION=none

if [ "$sound" = 1 ]; then
  # A private server as any user, root included: its own home, runtime
  # folder and socket, no autospawn, no idle exit.
  export HOME=$dir XDG_RUNTIME_DIR=$dir PULSE_SERVER=unix:$dir/native MOLVANE_TEST_SINK=desk
  cat >"$dir/default.pa" <<PA
load-module module-native-protocol-unix auth-anonymous=1 socket=$dir/native
load-module module-null-sink sink_name=desk format=s16le rate=48000 channels=2
set-default-sink desk
PA
  pulseaudio -n -F "$dir/default.pa" --daemonize=no --exit-idle-time=-1 --use-pid-file=no \
    --system=false --disable-shm=false 2>"$dir/pulse.log" &
  pids+=($!)
  for _ in $(seq 600); do
    pactl info >/dev/null 2>&1 && break
    kill -0 "${pids[1]}" 2>/dev/null || { cat "$dir/pulse.log" >&2; exit 1; }
    sleep 0.1
  done
fi

"$@"
