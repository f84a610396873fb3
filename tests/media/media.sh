# Media that only the probing tests use. Sourced by make_test_media.sh.

# Quad PCM in WAV: a channel layout (0x33) that is not the default for four
# channels, so a layout lost on the way reads back differently.
make quad.wav -f lavfi -i "sine=r=48000:d=0.1,aformat=channel_layouts=quad" -c:a pcm_s16le
# Tags on the container and on each stream, and two H.264 frames from 1 s that
# the decoder gives back only when drained at the end of the file.
make tagged.mkv -itsoffset 1 -f lavfi -i "$(paint 160x120 25 2)" -f lavfi -i "sine=r=48000:d=0.2" \
    -c:v libx264 -bf 2 -c:a pcm_s16le \
    -metadata title="Fête d'été" -metadata:s:v:0 language=fra -metadata:s:a:0 title=Commentary
# Packet order: 10.125 ms mono PCM packets put the single MJPEG frame of
# stream 0 (2.48 s) at packet 245 and that of stream 1 (2.52 s) at packet 250,
# the first one past the start-time probe's 250 packets.
make probe_window.mkv -itsoffset 2.48 -f lavfi -i "color=s=64x48:r=25,trim=end_frame=1" \
    -itsoffset 2.52 -f lavfi -i "color=s=64x48:r=25,trim=end_frame=1" \
    -f lavfi -i "anullsrc=r=8000:cl=mono:nb_samples=81,atrim=end_sample=20736" \
    -map 0 -map 1 -map 2 -c:v mjpeg -c:a pcm_s16le
