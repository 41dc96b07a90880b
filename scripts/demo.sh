#!/bin/sh
# The main job: builds the project, plugs in two virtual cameras and runs the talvoro tool on
# them: lists them, streams the first in data mode 4 (depth, IR and colour) with depth filters,
# planarization and RGB-D mapping, and saves its images and a point cloud into out/. It ends with
# the command that shows the cameras live in a browser (talvoro view).
set -eu
cd "$(dirname "$0")/.."
./scripts/build.sh build

out=$(pwd)/out
mkdir -p "$out"
rm -f "$out/depth-colormap.png" "$out/depth.png" "$out/ir.png" "$out/colour.png" \
    "$out/room.ply"

# Both tool runs share the launcher's cameras, so the camera keeps its data mode between them.
./build/vcam/talvoro-vcam run --camera serial=DEMO-0001 --camera serial=DEMO-0002 -- sh -c '
    set -e
    talvoro=$1
    out=$2
    echo "Cameras (virtual, from talvoro-vcam):"
    "$talvoro" list
    echo
    "$talvoro" stream DEMO-0001 --mode 4 --frames 60 --filters spatial,temporal,flying \
        --planarize --map --colormap 500,3500,2 --out "$out"
    echo
    "$talvoro" cloud DEMO-0001 --mode 4 --filters temporal,flying --colormap 500,3500,2 \
        --out "$out/room.ply"
' demo ./build/tools/talvoro/talvoro "$out"

echo
echo "The camera's view, saved by the demo:"
echo "  $out/colour.png          colour image"
echo "  $out/depth-colormap.png  depth registered onto the colour image, colour-mapped"
echo "  $out/depth.png           the same depth, 16-bit millimetres"
echo "  $out/ir.png              IR image, 16-bit"
echo "  $out/room.ply            coloured point cloud (binary PLY, metres)"
echo
echo "To watch the cameras live in a browser (Ctrl-C stops), run:"
echo "  ./build/vcam/talvoro-vcam run --camera serial=DEMO-0001 --camera serial=DEMO-0002 -- \\"
echo "      ./build/tools/talvoro/talvoro view"
echo "and open the address talvoro view prints."
