#!/usr/bin/env bash
# Writes the test media into OUT, one ffmpeg command per file: the recipes in
# tests/*/media.sh are the record of what each file is. Every file depends on
# its recipe alone (bit-exact muxing and encoding, one encoder thread), and a
# file newer than its recipes is kept, so a second run costs nothing.
#
#   make_test_media.sh OUT [NAME...]     all files, or only the named ones
#
# Pictures paint their frame index: the rows from 5/16 to 8/16 of the height
# hold the index as 16 blocks across the width, most significant bit left,
# white for 1; the rows from 8/16 to 11/16 hold its complement. The rest is a
# gradient that moves with the index. Positional PCM stores in sample frame n
# the values n mod 32768 (channel 0), n / 32768 (channel 1) and
# (n + 4096 c) mod 32768 (channel c >= 2), as 16-bit numbers.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
out=$1
shift
wanted=" $* "
mkdir -p "$out"
exact=(-fflags +bitexact -flags:v +bitexact -flags:a +bitexact -map_metadata -1 -threads 1)
newest_recipe=$(ls -t "$here"/*/media.sh "$0" | head -n 1)

# paint SIZE RATE FRAMES: the lavfi graph of a clip whose frames show their index.
paint() {
    echo "nullsrc=s=$1:r=$2,trim=end_frame=$3,format=yuv420p,geq=lum='if(between(Y,H*5/16,H*11/16-1),\
if(eq(mod(floor(N/pow(2,15-floor(X*16/W))),2),lt(Y,H/2)),235,16),16+mod(X+2*Y+4*N,220))':cb=128:cr=128"
}

# positional RATE LAYOUT SAMPLES: PCM whose samples carry their position.
positional() {
    local channels
    case $2 in mono) channels=1 ;; stereo) channels=2 ;; 5.1) channels=6 ;; *) exit 1 ;; esac
    local exprs="mod(n,32768)/32768"
    [ "$channels" -ge 2 ] && exprs+="|mod(floor(n/32768),32768)/32768"
    for ((c = 2; c < channels; c++)); do exprs+="|mod(n+$((c * 4096)),32768)/32768"; done
    echo "aevalsrc='$exprs':s=$1:c=$2,atrim=end_sample=$3"
}

# tone RATE SECONDS: a quiet stereo sine.
tone() {
    echo "sine=f=440:r=$1:d=$2,volume=0.3,aformat=channel_layouts=stereo"
}

# make NAME ARGS...: ffmpeg ARGS... OUT/NAME, unless it is up to date.
make() {
    local name=$1
    shift
    [[ "$wanted" == "  " || "$wanted" == *" $name "* ]] || return 0
    [[ -s "$out/$name" && "$out/$name" -nt "$newest_recipe" ]] && return 0
    local partial="$out/partial.$name"
    ffmpeg -v error -nostdin -y "$@" "${exact[@]}" "$partial"
    mv "$partial" "$out/$name"
}

# derive NAME SOURCE ARGS...: a file made from one made before it.
derive() {
    local name=$1 source=$2
    shift 2
    make "$name" -i "$out/$source" "$@"
}

# The shared catalogue first: the folders' recipes derive from its files.
# Then the folders side by side (each encoder runs on one thread, and no
# folder derives from another's files).
# shellcheck source=/dev/null
source "$here"/support/media.sh
pids=()
for recipes in $(ls "$here"/*/media.sh | grep -v /support/); do
    # shellcheck source=/dev/null
    (source "$recipes") &
    pids+=($!)
done
status=0
for pid in "${pids[@]}"; do
    wait "$pid" || status=1
done
exit $status
