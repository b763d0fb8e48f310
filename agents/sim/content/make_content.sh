#!/bin/sh
# Regenerates the broadcast simulator's sample content: one 16-second loop per service,
# a different picture and tone each. The files are committed; run this only to recreate
# them (the output differs slightly between ffmpeg versions).
#
#   <serviceID>.h264  Annex B H.264, baseline, 320x240, 25 fps, one slice per picture,
#                     IDR every 25 frames with SPS/PPS repeated before each, the rate
#                     capped so that any one second stays well below 40 KB.
#   <serviceID>.aac   ADTS AAC-LC, 24,000 Hz, stereo, 32 kbit/s.
#
# 16 s is 400 pictures and exactly 375 AAC frames of 1024 samples, so the loops of both
# streams are the same length.
set -eu

here=$(cd "$(dirname "$0")" && pwd)
out=${1:-"$here"}
mkdir -p "$out"

seconds=16
font=/usr/share/fonts/truetype/dejavu/DejaVuSans-Bold.ttf

# make_service <serviceID> <name> <lavfi picture source> <left Hz> <right Hz>
make_service() {
    id=$1 name=$2 source=$3 left=$4 right=$5
    overlay="drawbox=x='mod(t*80,300)':y=200:w=20:h=20:color=white:t=fill"
    if [ -f "$font" ]; then
        overlay="$overlay,drawtext=fontfile=$font:text='$name  %{pts\\:hms}':x=8:y=8:fontsize=18:fontcolor=white:box=1:boxcolor=black@0.6"
    fi
    ffmpeg -v error -y \
        -f lavfi -i "$source=size=320x240:rate=25:duration=$seconds" \
        -vf "$overlay" \
        -c:v libx264 -profile:v baseline -level 2.1 -pix_fmt yuv420p \
        -preset medium -b:v 100k -maxrate 140k -bufsize 140k -threads 1 \
        -x264-params "keyint=25:min-keyint=25:scenecut=0:slices=1:sliced-threads=0:repeat-headers=1:aud=0" \
        -bsf:v "filter_units=remove_types=6" \
        -f h264 "$out/$id.h264"
    ffmpeg -v error -y \
        -f lavfi -i "sine=frequency=$left:sample_rate=24000:duration=$seconds" \
        -f lavfi -i "sine=frequency=$right:sample_rate=24000:duration=$seconds" \
        -filter_complex "[0:a][1:a]join=inputs=2:channel_layout=stereo[a]" -map "[a]" \
        -c:a aac -profile:a aac_low -b:a 32k -ar 24000 -ac 2 \
        -f adts "$out/$id.aac"
}

make_service 101 "Harbour News" testsrc2 440 550
make_service 102 "Sports" smptehdbars 330 495
make_service 201 "Movies" testsrc 523 659
make_service 202 "Music" rgbtestsrc 262 392
make_service 301 "Kids" yuvtestsrc 587 880
make_service 302 "Weather" pal75bars 294 370
