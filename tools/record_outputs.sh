#!/usr/bin/env bash
# Writes what gsve makes of the film clip into a directory, for comparison with what it made before a change:
#
#     record_outputs.sh GSVE CLIP DIRECTORY
#
# Streams of every codec, with captions, resized, deinterlaced, divided and in containers; what the commands
# print; and an inspection of every stream. Figures that clocks make are left out, and so is Matroska, whose
# files have numbers of chance in them. One thread: on more, libx264 and libx265 do not repeat their bytes.
set -euo pipefail
[ $# = 3 ] || { echo "usage: record_outputs.sh GSVE CLIP DIRECTORY" >&2; exit 2; }
gsve=$(realpath "$1") clip=$(realpath "$2") captions=$(realpath "$(dirname "$0")/../examples/city.scc")
mkdir -p "$3"
cd "$3"
ln -sf "$clip" clip.mpg
ln -sf "$captions" city.scc

without_clocks() {
    sed -E -e '/^  "(elapsed|speed)":/d' -e 's/^(  time +[0-9.]+ s of video) in .*/\1/'
}

# libx265's own clock, and where objects lie in the memory.
without_chance() { sed -E -e '/^encoded .* frames in/d' -e 's/ @ 0x[0-9a-f]+//'; }

# encode NAME OUTPUT OPTION...
encode() {
    local name=$1 output=$2
    shift 2
    "$gsve" encode "${input:-clip.mpg}" "$output" -y --set "maximum threads=1" --report json "$@" \
        2> >(without_chance >"$name.notes") | without_clocks >"$name.json"
    "$gsve" inspect "$output" --pictures --scc "$name.scc" >"$name.inspection"
    "$gsve" inspect "$output" --json --pictures >"$name.inspection.json"
}

for codec in mpeg-2 h.264 h.265; do
    id=${codec//[-.]/}
    scc=(--captions city.scc)
    [ $codec != h.265 ] || scc=()
    encode "$id" "$id.ts" --codec $codec
    encode "$id-resized" "$id-resized.mp4" --codec $codec --set "resize=352x288"
    encode "$id-deinterlaced" "$id-deinterlaced.mp4" --codec $codec --rate 30 --set "resize deinterlace=3"
    encode "$id-adaptive" "$id-adaptive.mp4" --codec $codec --set "resize=640x360" --set "resize deinterlace=4"
    encode "$id-divided" "$id-divided.ts" --codec $codec --rate 30000/1001 --set "frame rate limit=15" "${scc[@]}"
    encode "$id-captions" "$id-captions.ts" --codec $codec --rate 60000/1001 "${scc[@]}"
    encode "$id-slow" "$id-slow.ts" --codec $codec --rate 24000/1001 "${scc[@]}"
    encode "$id-options" "$id-options.mp4" --codec $codec --set "b frames=0" --set "h.264 profile=main" \
        --set "gop size=12" --set "closed gop=1" --set "constant bitrate per frame=0" "${scc[@]}"
done
encode m2v plain.m2v --timecode "10:00:00:00" --captions city.scc --scte20 --set "min bitrate=0"
encode cc cc.m2v --captions city.scc --set "enable eia-608=1" --set "enable cea-708=0" --rate 24
encode dropped dropped.ts --codec mpeg-2 --set "bitrate=300000" --set "drop frame for bitrate limit=on"
encode h264 plain.h264 --captions city.scc
encode h265 plain.h265
# What was encoded once more: captions and time codes of the input.
input=plain.m2v encode again again.ts --codec mpeg-2 --timecode source
input=mpeg2-captions.ts encode again-h264 again-h264.mp4
input=mpeg2-captions.ts encode again-25 again-25.ts --codec mpeg-2 --rate 25
input=h264-captions.ts encode again-24 again-24.ts --codec h.264 --rate 24000/1001
input=mpeg2-captions.ts encode again-30 again-30.ts --codec mpeg-2 --rate 30000/1001

"$gsve" encode clip.mpg summary.ts -y --set "maximum threads=1" --captions city.scc 2>summary.notes | without_clocks >summary.txt
"$gsve" encode clip.mpg status.m2v -y --set "maximum threads=1" --report text 2>status.notes | without_clocks >status.txt
"$gsve" settings >settings.txt
"$gsve" settings --json >settings.json
"$gsve" inspect clip.mpg >clip.inspection
rm clip.mpg city.scc
