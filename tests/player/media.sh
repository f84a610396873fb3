# Media of the engine tests. Sourced by make_test_media.sh.

# Sound alone for longer than the engine decodes ahead of the play position
# (2 s): playing on, it must decode on.
make positional_6s.wav -f lavfi -i "$(positional 48000 stereo 288000)" -c:a pcm_s16le
