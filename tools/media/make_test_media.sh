#!/bin/sh
# Regenerates the small media clips the tests feed through the data path,
# the recorder and the MP4 writer. The clips are committed; run this only
# to recreate them (output differs slightly between ffmpeg versions).
#
#   clip_320x240_25fps.h264  Annex B H.264, baseline, 320x240, 25 fps, 2 s,
#                            one slice per picture, IDR every 25 frames,
#                            SPS/PPS repeated before every IDR.
#   clip_24k_stereo.aac      ADTS AAC-LC, 24,000 Hz, stereo, 2 s.
set -eu

here=$(cd "$(dirname "$0")" && pwd)
out=${1:-"$here/../../tests/media"}
mkdir -p "$out"

ffmpeg -v error -y \
    -f lavfi -i "testsrc2=size=320x240:rate=25:duration=2" \
    -c:v libx264 -profile:v baseline -level 3.0 -pix_fmt yuv420p \
    -preset medium -b:v 200k -threads 1 \
    -x264-params "keyint=25:min-keyint=25:scenecut=0:slices=1:sliced-threads=0:repeat-headers=1:aud=0" \
    -bsf:v "filter_units=remove_types=6" \
    -f h264 "$out/clip_320x240_25fps.h264"

ffmpeg -v error -y \
    -f lavfi -i "sine=frequency=440:sample_rate=24000:duration=2" \
    -f lavfi -i "sine=frequency=660:sample_rate=24000:duration=2" \
    -filter_complex "[0:a][1:a]join=inputs=2:channel_layout=stereo[a]" -map "[a]" \
    -c:a aac -profile:a aac_low -b:a 48k -ar 24000 -ac 2 \
    -f adts "$out/clip_24k_stereo.aac"
