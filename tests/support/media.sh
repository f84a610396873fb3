# The test media that several test folders share. Sourced by
# make_test_media.sh; `make NAME ffmpeg-arguments` writes one file.

# 320x240, 25 fps, 50 frames, H.264 with B-frames, GOP 25; AAC stereo 48 kHz, 2 s.
make h264_aac.mp4 -f lavfi -i "$(paint 320x240 25 50)" -f lavfi -i "$(tone 48000 2)" \
    -c:v libx264 -g 25 -bf 2 -c:a aac
# MPEG-4 Part 2, video only.
make mpeg4.mp4 -f lavfi -i "$(paint 320x240 25 50)" -c:v mpeg4 -b:v 1M
# MPEG-1 video and MP2 in a program stream. A floor on the quantiser keeps the
# sharp code edges inside MPEG-1's coefficient range.
make mpeg1.mpg -f lavfi -i "$(paint 320x240 25 50)" -f lavfi -i "$(tone 48000 2)" \
    -c:v mpeg1video -g 12 -b:v 1M -qmin 5 -c:a mp2 -f mpeg
# MPEG-TS whose streams start at 10 s.
make late_start.ts -f lavfi -i "$(paint 320x240 25 50)" -f lavfi -i "$(tone 48000 2)" \
    -c:v libx264 -g 25 -c:a mp2 -muxdelay 0 -muxpreload 0 -output_ts_offset 10 -f mpegts
# MPEG-TS whose first frame lies at -80 ms (times wrap below 0 and stay negative).
make negative_start.ts -f lavfi -i "$(paint 320x240 25 50)" \
    -c:v libx264 -g 25 -muxdelay 0 -muxpreload 0 -output_ts_offset -0.08 -avoid_negative_ts disabled \
    -f mpegts
# Matroska: H.264 320x240, MPEG-4 160x120, positional PCM, four SubRip cues.
printf '%s\n' 1 '00:00:00,000 --> 00:00:00,400' 'Cue 1' '' 2 '00:00:00,500 --> 00:00:00,900' 'Cue 2' '' \
    3 '00:00:01,000 --> 00:00:01,400' 'Cue 3' '' 4 '00:00:01,500 --> 00:00:01,900' 'Cue 4' >"$out/cues.srt"
make multi_stream.mkv -f lavfi -i "$(paint 320x240 25 50)" -f lavfi -i "$(paint 160x120 25 50)" \
    -f lavfi -i "$(positional 48000 stereo 96000)" -i "$out/cues.srt" -map 0 -map 1 -map 2 -map 3 \
    -c:v:0 libx264 -c:v:1 mpeg4 -b:v:1 500k -c:a pcm_s16le -c:s srt
# 29.97 fps, 60 frames (MP4 declares the frame count).
make ntsc.mp4 -f lavfi -i "$(paint 320x240 30000/1001 60)" -c:v libx264 -g 30
# 720x576 with a sample aspect of 64:45, 25 frames.
make anamorphic.mp4 -f lavfi -i "$(paint 720x576 25 25),setsar=64/45" -c:v libx264
# A display matrix that turns the picture 90 degrees clockwise (the override counts the other way).
make plain_25.mp4 -f lavfi -i "$(paint 320x240 25 25)" -c:v libx264
derive rotated_90.mp4 plain_25.mp4 -c copy -metadata:s:v:0 rotate=270
# Positional PCM in WAV: 16-bit stereo 1.5 s, 8-bit, float, 5.1.
make s16_stereo.wav -f lavfi -i "$(positional 48000 stereo 72000)" -c:a pcm_s16le
make u8_stereo.wav -f lavfi -i "$(positional 22050 stereo 22050)" -c:a pcm_u8
make float_stereo.wav -f lavfi -i "$(positional 44100 stereo 44100)" -c:a pcm_f32le
make six_channels.wav -f lavfi -i "$(positional 48000 5.1 48000)" -c:a pcm_s16le
# One 320x240 picture (frame index 0).
make still.png -f lavfi -i "$(paint 320x240 25 1)" -update 1 -c:v png
# A fragmented MP4 header with one H.264 stream and no packets.
make no_packets.mp4 -f lavfi -i "$(paint 320x240 25 1)" -frames:v 0 -c:v libx264 \
    -movflags empty_moov+frag_keyframe
