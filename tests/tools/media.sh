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
