# Media of the engine tests. Sourced by make_test_media.sh.

# Sound alone for longer than the engine decodes ahead of the play position
# (2 s): playing on, it must decode on.
make positional_6s.wav -f lavfi -i "$(positional 48000 stereo 288000)" -c:a pcm_s16le
# Pictures from 0, sound from 0.5 s: the first device buffers find none.
make late_sound.mkv -f lavfi -i "$(paint 320x240 25 25)" -itsoffset 0.5 -f lavfi -i "$(tone 48000 1)" \
    -c:v libx264 -c:a pcm_s16le
# Sound that never decodes (every byte of its AAC damaged) beside pictures that do.
derive broken_sound.mp4 h264_aac.mp4 -c copy -bsf:a noise=amount=1
