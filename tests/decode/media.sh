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
