#!/usr/bin/env bash
# Times molvane-play on a 12 s 1080p H.264 clip (key frames at 0 s and 10 s)
# against baselines run in the same session: backwards play against mpv,
# random jumps against decoding one whole GOP, forward play against the
# ffmpeg program. Shared machines are noisy, so each pair runs back to back,
# in alternating order, and the table gives medians and per-run ratios.
#
#   bench/play_bench.sh [--build DIR] [--media DIR] [--runs N] [--json FILE]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$root/build media= runs=3 json=
while (($#)); do
    case $1 in
        --build) build=$2 ;; --media) media=$2 ;; --runs) runs=$2 ;; --json) json=$2 ;;
        *) sed -n 's/^#   //p' "$0" >&2; exit 2 ;;
    esac
    shift 2
done
media=${media:-$build/bench-media}
play=$build/tools/molvane-play/molvane-play
[[ -x $play ]] || { echo "play_bench: no $play; build first (scripts/build.sh)" >&2; exit 1; }
for tool in ffmpeg:ffmpeg ffprobe:ffmpeg mpv:mpv jq:jq /usr/bin/time:time; do
    command -v "${tool%:*}" >/dev/null || { echo "play_bench: needs ${tool%:*} (apt-get install ${tool#*:})" >&2; exit 1; }
done

# The clip's name carries its recipe, so a changed recipe makes a new clip.
recipe=(-f lavfi -i "testsrc2=size=1920x1080:rate=25:duration=12,noise=alls=12:allf=t+u"
        -f lavfi -i "sine=frequency=440:sample_rate=48000:duration=12"
        -c:v libx264 -preset veryfast -g 250 -keyint_min 250 -sc_threshold 0 -bf 3 -pix_fmt yuv420p
        -c:a aac -f mp4)
clip=$media/play-1080p-$(printf '%s\n' "${recipe[@]}" | md5sum | cut -c1-8).mp4
if [[ ! -s $clip ]]; then
    mkdir -p "$media"
    ffmpeg -v error -nostdin -y "${recipe[@]}" "$clip.part" && mv "$clip.part" "$clip"
fi
# The jump baseline is one GOP: check the key frames are where it assumes.
keys=$(ffprobe -v error -select_streams v -skip_frame nokey -show_entries frame=pts_time -of default=nw=1:nk=1 "$clip" | tr '\n' ' ')
[[ $keys == "0.000000 10.000000 " ]] || { echo "play_bench: key frames at $keys in $clip" >&2; exit 1; }

tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
# timed NAME CMD...: runs CMD, leaving its wall seconds and peak RSS (KiB) in
# $wall and $rss; its output goes to $tmp/NAME.log, shown if it fails.
timed() {
    local name=$1; shift
    if ! /usr/bin/time -o "$tmp/time" -f '%e %M' "$@" >"$tmp/$name.log" 2>&1; then
        echo "play_bench: failed: $*" >&2; tail -n 20 "$tmp/$name.log" >&2; exit 1
    fi
    read -r wall rss <"$tmp/time"
}
declare -A v # metric -> one value per run, space separated
add() { v[$1]+="$2 "; }
calc() { awk "BEGIN { printf \"%.4g\", $1 }"; }
median() { tr ' ' '\n' <<<"${v[$1]}" | grep . | sort -g | awk '{ x[NR] = $1 } END { print NR % 2 ? x[(NR + 1) / 2] : (x[NR / 2] + x[NR / 2 + 1]) / 2 }'; }

span=5 # seconds of media played backwards, 11.9 s down to 6.9 s
rev_ours() {
    timed rev "$play" "$clip" --speed -1 --start 11.9 --duration $span --cache-mb 512 --out "$tmp/rev"
    local shown; shown=$(awk -F, 'NR > 1 && $2 != -1 && !seen[$2]++ { n++ } END { print n + 0 }' "$tmp/rev/ticks.csv")
    add rev_pics "$shown"; add rev_pps "$(calc "$shown / $wall")"; add rev_x "$(calc "$span / $wall")"; add rev_mib "$(calc "$rss / 1024")"
}
# --length ends backward play before its first frame; --end works. A simulated
# sound device would pace mpv (and make it drop frames), so it is untimed too.
# Its trace line "frametime=" comes once per frame handed to the video output.
mpv_counted=yes
rev_mpv() {
    timed mpv mpv "$clip" --no-config --play-dir=backward --untimed --vo=null --vf=format=fmt=rgb24 \
        --ao=null --ao-null-untimed --start=11.9 --end=6.9 --msg-level=all=error,cplayer=trace --term-status-msg=
    local shown; shown=$(grep -c 'frametime=' "$tmp/mpv.log" || true)
    ((shown > 0)) || { shown=$((span * 25)); mpv_counted=no; }
    add mpv_pics "$shown"; add mpv_pps "$(calc "$shown / $wall")"; add mpv_x "$(calc "$span / $wall")"; add mpv_mib "$(calc "$rss / 1024")"
}
# 22 s of play at one jump a second: 21 jumps to random positions.
jump_ours() {
    timed jump "$play" "$clip" --seek-every 1 --duration 22 --cache-mb 512 --out "$tmp/jump"
    add jump_med "$(calc "$(jq .seek_to_frame_ms_median "$tmp/jump/summary.json")")"
    add jump_p95 "$(calc "$(jq .seek_to_frame_ms_p95 "$tmp/jump/summary.json")")"
}
gop_ffmpeg() { timed gop ffmpeg -v error -nostdin -i "$clip" -frames:v 250 -vf format=rgb24 -f null -; add gop_ms "$(calc "$wall * 1000")"; }
fwd_ours() { timed fwd "$play" "$clip" --duration 12 --cache-mb 512 --out "$tmp/fwd"; add fwd_s "$wall"; }
fwd_ffmpeg() { timed ffmpeg ffmpeg -v error -nostdin -i "$clip" -vf format=rgb24 -f null -; add ffmpeg_s "$wall"; }

# Ratios are taken within a run, where both sides saw the same load.
last() { local a=(${v[$1]}); echo "${a[-1]}"; }
for ((run = 1; run <= runs; run++)); do
    echo "play_bench: run $run of $runs" >&2
    for pair in "rev_ours rev_mpv" "jump_ours gop_ffmpeg" "fwd_ours fwd_ffmpeg"; do
        set -- $pair
        if ((run % 2)); then $1; $2; else $2; $1; fi
    done
    add rev_ratio "$(calc "$(last rev_pps) / $(last mpv_pps)")"
    add jump_med_ratio "$(calc "$(last jump_med) / $(last gop_ms)")"
    add jump_p95_ratio "$(calc "$(last jump_p95) / $(last gop_ms)")"
    add fwd_ratio "$(calc "$(last fwd_s) / $(last ffmpeg_s)")"
done

declare -A m
for key in "${!v[@]}"; do m[$key]=$(median "$key"); done
row() { printf '%-28s %10s %10s %8s  %s\n' "$@"; }
echo "clip: $clip (1920x1080 H.264, 12 s, GOP 250); median of $runs runs; ratio = median of per-run ratios"
row "" molvane baseline ratio ""
row "backwards: pictures shown" "${m[rev_pics]}" "${m[mpv_pics]}" "" "baseline: mpv --play-dir=backward$([[ $mpv_counted == yes ]] || echo ", not counted: 5 s x 25 fps assumed")"
row "backwards: pictures/s" "${m[rev_pps]}" "${m[mpv_pps]}" "${m[rev_ratio]}" "higher is better"
row "backwards: x real time" "${m[rev_x]}" "${m[mpv_x]}" "" "5 s of media / wall time"
row "backwards: peak RSS MiB" "${m[rev_mib]}" "${m[mpv_mib]}" "" ""
row "jump to frame: median ms" "${m[jump_med]}" "${m[gop_ms]}" "${m[jump_med_ratio]}" "baseline: ffmpeg decoding one GOP (250 frames) to rgb24"
row "jump to frame: p95 ms" "${m[jump_p95]}" "${m[gop_ms]}" "${m[jump_p95_ratio]}" ""
row "forwards 12 s: wall s" "${m[fwd_s]}" "${m[ffmpeg_s]}" "${m[fwd_ratio]}" "baseline: ffmpeg -vf format=rgb24 -f null; goal <= 1.2"

if [[ -n $json ]]; then
    args=()
    # The single runs too, to judge the noise.
    for key in "${!m[@]}"; do args+=(--argjson "$key" "${m[$key]}" --argjson "${key}_runs" "[$(tr ' ' '\n' <<<"${v[$key]}" | grep . | paste -sd,)]"); done
    jq -nS --arg clip "$clip" --argjson runs "$runs" --arg mpv_counted "$mpv_counted" "${args[@]}" \
        '$ARGS.named | .mpv_pictures_counted = (.mpv_counted == "yes") | del(.mpv_counted)' >"$json"
fi
