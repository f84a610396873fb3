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
# Damaged Opus still decodes into noise; damaged AAC yields no sound.
make undecodable_all.mkv -f lavfi -i "$(paint 320x240 25 50)" -f lavfi -i "$(tone 48000 2)" -c:v libvpx-vp9 \
    -cpu-used 8 -b:v 300k -c:a aac -bsf:v noise=amount=1 -bsf:a noise=amount=1

# Clips like those users own, for the real-world play table, beside the
# catalogue's and the ones above. With sound, as users have them.
# Matroska counts in milliseconds: at 29.97 fps the frame times round to whole ms.
make vp8_2997.webm -f lavfi -i "$(paint 320x240 30000/1001 60)" -f lavfi -i "$(tone 48000 2)" \
    -c:v libvpx -g 30 -cpu-used 8 -b:v 1M -c:a libvorbis
make vp9_30.webm -f lavfi -i "$(paint 320x240 30 60)" -f lavfi -i "$(tone 48000 2)" \
    -c:v libvpx-vp9 -g 30 -cpu-used 8 -b:v 1M -c:a libopus
make hevc_2997.mkv -f lavfi -i "$(paint 320x240 30000/1001 60)" -f lavfi -i "$(tone 48000 2)" \
    -c:v libx265 -preset ultrafast -g 30 -x265-params log-level=none -c:a aac
# 1080 pixels wide: RGB24 rows of 3240 bytes. Also as a fragmented MP4.
make h264_1080x720.mp4 -f lavfi -i "$(paint 1080x720 25 50)" -f lavfi -i "$(tone 48000 2)" \
    -c:v libx264 -preset ultrafast -g 25 -bf 2 -c:a aac
derive h264_1080x720_frag.mp4 h264_1080x720.mp4 -c copy -movflags frag_keyframe+empty_moov
make hevc_aac_854x480.ts -f lavfi -i "$(paint 854x480 25 50)" -f lavfi -i "$(tone 48000 2)" \
    -c:v libx265 -preset ultrafast -g 25 -x265-params log-level=none -c:a aac -f mpegts
# Odd sizes: chroma planes round up, RGB rows need padding.
make vp9_161x121.webm -f lavfi -i "$(paint 161x121 25 50)" -c:v libvpx-vp9 -g 25 -cpu-used 8 -b:v 300k
# Cover art: sound with an attached picture, which demuxers report as a video
# stream of one picture.
make cover.png -f lavfi -i "$(paint 320x320 25 1)" -update 1 -c:v png
make tone.flac -f lavfi -i "$(tone 44100 2)" -c:a flac
derive cover.flac tone.flac -i "$out/cover.png" -map 0 -map 1 -c copy -disposition:v attached_pic
derive cover.mp3 tone.mp3 -i "$out/cover.png" -map 0 -map 1 -c copy -id3v2_version 3 \
    -metadata:s:v title="Album cover" -metadata:s:v comment="Cover (front)"
make cover.m4a -f lavfi -i "$(tone 44100 2)" -i "$out/cover.png" -map 0 -map 1 -c:a aac -c:v copy \
    -disposition:v attached_pic
# Tagged colours: BT.709 at full range, and BT.2020 PQ in 10 bits.
make bt709_full.mp4 -f lavfi -i "$(paint 320x240 25 50),format=yuvj420p" -f lavfi -i "$(tone 48000 2)" \
    -c:v libx264 -colorspace bt709 -color_primaries bt709 -color_trc bt709 -color_range pc -c:a aac
make bt2020_10bit.mkv -f lavfi -i "$(paint 320x240 25 50),format=yuv420p10le" -c:v libx265 -preset ultrafast \
    -x265-params log-level=none:colorprim=bt2020:transfer=smpte2084:colormatrix=bt2020nc
# Sound alone in MPEG-TS, all of it in one PES: the container's duration is
# that of its first audio frame (23 ms), the sound lasts 232 ms.
make short_claim.ts -f lavfi -i "$(tone 44100 0.2)" -c:a aac -pes_payload_size 100000 -f mpegts
# Nothing to play: subtitles alone, and sound whose every byte is damaged in
# a live recording, which does not say how long it is.
make subtitles_only.mkv -i "$out/cues.srt" -c:s srt
make broken_sound_live.mka -f lavfi -i "$(tone 48000 2)" -c:a aac -bsf:a noise=amount=1 -live 1
