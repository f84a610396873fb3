# Media of the program tests. Sourced by make_test_media.sh.

# MP3 trims its encoder's priming samples from the first frame.
make tone.mp3 -f lavfi -i "$(tone 44100 2)" -c:a libmp3lame
# H.264 with open GOPs in MP4: the pictures shown before each key frame after
# the first are decoded after it, from the GOP before.
make h264_open_gop.mp4 -f lavfi -i "$(paint 320x240 25 75)" -c:v libx264 -g 25 -bf 3 -x264-params open-gop=1
# One second of pictures and three of sound.
make short_video.mkv -f lavfi -i "$(paint 160x120 25 25)" -f lavfi -i "$(positional 48000 stereo 144000)" \
    -c:v libx264 -c:a pcm_s16le
# Matroska written live: the file does not say how long it is.
make open_ended.mkv -f lavfi -i "$(paint 160x120 25 50)" -c:v libx264 -live 1
# Sound whose times jump 50 ms ahead after one second, as after a lost packet.
make audio_jump.mkv -f lavfi -i "$(positional 48000 stereo 96000)" -af "asetpts=PTS+gte(T\,1)*0.05/TB" \
    -c:a pcm_s16le
# Matroska and WebM time pictures in whole milliseconds: at 30 and 29.97 fps
# frames last 33 or 34 ms, never the step the rate gives.
make vp9_30fps.webm -f lavfi -i "$(paint 320x240 30 60)" -c:v libvpx-vp9 -g 30 -cpu-used 8 -b:v 1M
make vp8_ntsc.webm -f lavfi -i "$(paint 320x240 30000/1001 60)" -c:v libvpx -g 30 -cpu-used 8 -b:v 1M
make hevc_ntsc.mkv -f lavfi -i "$(paint 320x240 30000/1001 60)" -c:v libx265 -preset ultrafast -g 30 \
    -x265-params log-level=none
# Broadcast with an ad break: one second each of 320x240, 480x360 and 320x240
# pictures and their sound, in one transport stream with continuous times.
for part in 1:320x240 2:480x360 3:320x240; do
    make "ad_break_${part%%:*}.ts" -f lavfi -i "$(paint "${part#*:}" 25 $((25 * ${part%%:*}))),trim=start_frame=$((25 * ${part%%:*} - 25))" \
        -f lavfi -i "$(tone 48000 "${part%%:*}"),atrim=start=$((${part%%:*} - 1))" -c:v libx264 -g 25 -c:a mp2 \
        -muxdelay 0 -muxpreload 0 -f mpegts
done
make ad_break.ts -i "concat:$out/ad_break_1.ts|$out/ad_break_2.ts|$out/ad_break_3.ts" -c copy -f mpegts
# VP9 whose packets the noise filter overwrites byte by byte (the same bytes
# every run, from the packets alone): no picture decodes. With and without
# sound.
make vp9_tone.webm -f lavfi -i "$(paint 320x240 25 50)" -f lavfi -i "$(tone 48000 2)" -c:v libvpx-vp9 -g 30 \
    -cpu-used 8 -b:v 1M -c:a libopus
derive undecodable.webm vp9_tone.webm -map 0:v -c copy -bsf:v noise=amount=1
derive undecodable_with_sound.webm vp9_tone.webm -c copy -bsf:v noise=amount=1
