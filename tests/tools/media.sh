# Media of the program tests. Sourced by make_test_media.sh.

# MP3 trims its encoder's priming samples from the first frame.
make tone.mp3 -f lavfi -i "$(tone 44100 2)" -c:a libmp3lame
