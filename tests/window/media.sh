# Media of the window tests. Sourced by make_test_media.sh.

# Three seconds of counted pictures and of positional PCM, which the sound
# server carries untouched at its own rate and format.
make av_positional.mkv -f lavfi -i "$(paint 320x240 25 75)" -f lavfi -i "$(positional 48000 stereo 144000)" \
    -c:v libx264 -g 25 -c:a pcm_s16le
