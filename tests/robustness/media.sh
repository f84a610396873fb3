# Small clips of the containers and codecs the damaged-media test breaks.
# VP9 and Vorbis in WebM, 1 s.
make vp9_vorbis.webm -f lavfi -i "$(paint 160x120 25 25)" -f lavfi -i "$(tone 44100 1)" \
    -c:v libvpx-vp9 -g 12 -cpu-used 8 -b:v 300k -c:a libvorbis
# MPEG-2 video and MP2 in MPEG-TS, 1 s.
make mpeg2.ts -f lavfi -i "$(paint 160x120 25 25)" -f lavfi -i "$(tone 48000 1)" \
    -c:v mpeg2video -g 12 -b:v 500k -c:a mp2 -f mpegts
