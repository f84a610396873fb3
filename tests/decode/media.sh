# Media of the decoding tests. Sourced by make_test_media.sh after the shared
# catalogue (tests/support/media.sh).

# Seek clips, 3 s at 25 fps. x265 codes open GOPs: the pictures shown just
# before each CRA key frame are decoded after it, from the GOP before.
make hevc_open_gop.mkv -f lavfi -i "$(paint 320x240 25 75)" -c:v libx265 -preset ultrafast -g 24 -bf 3 \
    -x265-params log-level=none
derive hevc_open_gop.mp4 hevc_open_gop.mkv -c copy
make vp8.webm -f lavfi -i "$(paint 320x240 25 75)" -c:v libvpx -g 30 -cpu-used 8 -b:v 1M
# libvpx-vp9 codes hidden alternate reference frames.
make vp9.webm -f lavfi -i "$(paint 320x240 25 75)" -c:v libvpx-vp9 -g 30 -cpu-used 8 -b:v 1M
# One GOP of 8 s with 3 B-frames, most of them referenced by none (x264's
# B-pyramid): what reverse play and skipped lead-ins meet in long recordings.
make long_gop.mp4 -f lavfi -i "$(paint 320x240 25 200)" -f lavfi -i "$(tone 48000 8)" \
    -c:v libx264 -g 250 -keyint_min 250 -sc_threshold 0 -bf 3 -c:a aac
# The same with one byte in 4,000 of its pictures overwritten: concealed
# errors in the pictures that lead to a target.
derive long_gop_damaged.mp4 long_gop.mp4 -map 0:v -c copy -bsf:v noise=amount=4000
# 10-bit 4:2:0 with a sample aspect of 4:3: 320 pixels widen to 426, whose rows need padding.
make widened_10bit.mkv -f lavfi -i "$(paint 320x240 25 10),format=yuv420p10le,setsar=4/3" -c:v libx264
# One transport stream: 10 pictures at 320x240, then 10 at 256x144.
make size_a.ts -f lavfi -i "$(paint 320x240 25 10)" -c:v libx264
make size_b.ts -f lavfi -i "$(paint 256x144 25 10)" -c:v libx264
printf "file %s\n" size_a.ts size_b.ts >"$out/size_change.txt"
make size_change.ts -f concat -i "$out/size_change.txt" -c copy
# Nine channels have no standard layout, which the resampler refuses. Channel
# c of sample frame n holds (n + 4096 c) mod 32768, as 16-bit numbers.
nine="mod(n,32768)/32768"
for ((c = 1; c < 9; c++)); do nine+="|mod(n+$((c * 4096)),32768)/32768"; done
make nine_s16.wav -f lavfi -i "aevalsrc='$nine':s=48000,atrim=end_sample=9600" -c:a pcm_s16le
make nine_float.wav -f lavfi -i "aevalsrc='$nine':s=48000,atrim=end_sample=9600" -c:a pcm_f32le
# WavPack blocks of 16-bit samples, then of float ones: its decoder switches
# sample format in the middle of the stream.
make wavpack_s16p.wv -f lavfi -i "$(positional 48000 stereo 24000)" -c:a wavpack -sample_fmt s16p
make wavpack_fltp.wv -f lavfi -i "$(positional 48000 stereo 24000)" -c:a wavpack -sample_fmt fltp
printf "file %s\n" wavpack_s16p.wv wavpack_fltp.wv >"$out/format_change.txt"
make format_change.mkv -f concat -i "$out/format_change.txt" -c copy
# MPEG-TS whose first picture lies at -80 ms, with key frames every 0.4 s.
make negative_start_gop10.ts -f lavfi -i "$(paint 320x240 25 75)" -c:v libx264 -g 10 -muxdelay 0 -muxpreload 0 \
    -output_ts_offset -0.08 -avoid_negative_ts disabled -f mpegts
# Opus in WebM, audio only: the encoder gives the stream a start of -7 ms.
make opus.webm -f lavfi -i "$(tone 48000 3)" -c:a libopus
# VP8 and Vorbis in WebM, for a copy whose Vorbis set-up header is damaged.
make vorbis.webm -f lavfi -i "$(paint 160x120 25 25)" -f lavfi -i "$(tone 44100 1)" -c:v libvpx -c:a libvorbis

# The converter sweep. For each pixel format and colour tagging, a clip of two
# pictures at every width from 2 to 64 and at widths users' files have, coded
# losslessly so the decoder hands the converter exactly these pixels (NUT keeps
# the yuvj formats, Matroska the colour tags); beside each, NAME_W.rgb: the
# ffmpeg program's own RGB24 conversion of it. Heights of 6 to 8 rows keep the
# widest cheap and still give odd ones.
sweep_widths=($(seq 2 64) 162 426 854 914 1080 1366 1400 1920 3840)
sweep_height() { echo $((6 + $1 % 3)); }
# sweep NAME FORMAT EXTENSION [ffmpeg output options...]: the clips and references of one format.
sweep() {
    local name=$1 format=$2 extension=$3
    shift 3
    [[ "$wanted" == "  " || "$wanted" == *" $name "* ]] || return 0
    [[ -s "$out/$name.done" && "$out/$name.done" -nt "$newest_recipe" ]] && return 0
    local graph="testsrc2=s=3840x16:r=25,trim=end_frame=2,split=${#sweep_widths[@]}"
    local chains="" outputs=() inputs=() references=() w i=0
    for w in "${sweep_widths[@]}"; do
        graph+="[s$w]"
        chains+=";[s$w]scale=$w:$(sweep_height "$w"),format=$format[o$w]"
        outputs+=(-map "[o$w]" "$@" "${exact[@]}" "$out/${name}_$w.$extension")
        inputs+=(-i "$out/${name}_$w.$extension")
        references+=(-map "$i:v" -vf "scale=$w:$(sweep_height "$w"):flags=bilinear,format=rgb24" -f rawvideo
            "$out/${name}_$w.rgb")
        i=$((i + 1))
    done
    ffmpeg -v error -nostdin -y -filter_complex "$graph$chains" "${outputs[@]}"
    ffmpeg -v error -nostdin -y "${inputs[@]}" "${references[@]}"
    echo "$extension ${sweep_widths[*]}" >"$out/$name.done"
}
bt709=(-colorspace bt709 -color_primaries bt709 -color_trc bt709)
sweep sweep_yuv420p yuv420p nut -c:v rawvideo
sweep sweep_yuvj420p yuvj420p nut -c:v rawvideo
sweep sweep_yuv422p_bt709 yuv422p mkv -c:v ffv1 "${bt709[@]}" -color_range tv
sweep sweep_yuv444p_bt709_full yuv444p mkv -c:v ffv1 "${bt709[@]}" -color_range pc
sweep sweep_yuv420p10le_bt2020 yuv420p10le mkv -c:v ffv1 -colorspace bt2020nc -color_primaries bt2020 \
    -color_trc smpte2084 -color_range tv

# Encoded clips as phones and the web make them, each with the ffmpeg
# program's RGB24 conversion beside it (FILE.rgb, at the record's width).
make phone_1080x720.mp4 -f lavfi -i "testsrc2=s=1080x720:r=30,trim=end_frame=3,format=yuvj420p" -c:v libx264 \
    "${bt709[@]}" -color_range pc
make hevc_854x480.ts -f lavfi -i "testsrc2=s=854x480:r=25,trim=end_frame=3" -c:v libx265 -x265-params log-level=none \
    -f mpegts
make hdr10_bt2020.mkv -f lavfi -i "testsrc2=s=320x240:r=25,trim=end_frame=3,format=yuv420p10le" -c:v libx265 \
    -x265-params log-level=none:colorprim=bt2020:transfer=smpte2084:colormatrix=bt2020nc
# AV1 from libaom, decoded by libdav1d, which refuses packets until its pictures are taken.
make av1_aom.mkv -f lavfi -i "$(paint 320x240 25 75)" -c:v libaom-av1 -g 50 -cpu-used 8 -row-mt 0
# An MP3 whose ID3 cover is a 1400x1400 JPEG.
make cover_1400.jpg -f lavfi -i "testsrc2=s=1400x1400,trim=end_frame=1" -c:v mjpeg -update 1
make tone_cover1400.mp3 -f lavfi -i "$(tone 44100 1)" -i "$out/cover_1400.jpg" -map 0 -map 1 -c:a libmp3lame \
    -c:v copy -id3v2_version 3 -disposition:v attached_pic
# VP9 in two passes codes hidden alternate references in superframes. Under
# frame threading its decoder takes their halves in one at a time and
# refuses packets meanwhile, sometimes with no picture to give.
[[ -s "$out/vp9_2pass-0.log" && "$out/vp9_2pass-0.log" -nt "$newest_recipe" ]] ||
    ffmpeg -v error -nostdin -y -f lavfi -i "$(paint 161x121 30 30)" -c:v libvpx-vp9 -b:v 200k -pass 1 \
        -passlogfile "$out/vp9_2pass" "${exact[@]}" -f null /dev/null
make vp9_2pass.webm -f lavfi -i "$(paint 161x121 30 30)" -c:v libvpx-vp9 -b:v 200k -pass 2 \
    -passlogfile "$out/vp9_2pass"
for clip in h264_aac.mp4:320x240 anamorphic.mp4:1024x576 widened_10bit.mkv:426x240 phone_1080x720.mp4:1080x720 \
    hevc_854x480.ts:854x480 hdr10_bt2020.mkv:320x240 av1_aom.mkv:320x240 tone_cover1400.mp3:1400x1400 vp9_2pass.webm:161x121; do
    derive "${clip%%:*}.rgb" "${clip%%:*}" -map 0:v:0 -fps_mode passthrough \
        -vf "scale=s=${clip##*:}:flags=bilinear,format=rgb24" -f rawvideo
done
