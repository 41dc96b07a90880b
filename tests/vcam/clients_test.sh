#!/bin/sh
# usage: clients_test.sh TALVORO_VCAM
# Clients nobody here wrote, against one virtual camera: v4l2-ctl lists, describes and streams
# it (30 frames in Y16 1280x600 and in UYVY 1920x1080), udevadm finds its nodes.
set -eu
if [ -z "${TALVORO_VCAM_SCENARIO:-}" ]; then
    exec "$1" run --camera serial=CLI-1,video=0 -- "$0" "$1"
fi

fail() {
    echo "FAIL: $*" >&2
    exit 1
}
expect() {  # expect TEXT PATTERN WHAT
    printf '%s\n' "$1" | grep -q -- "$2" || fail "$3: no '$2' in:
$1"
}

tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

out=$(v4l2-ctl --list-devices)
expect "$out" "Talvoro Depth Camera (usb-0000:00:14.0-1)" "--list-devices"
expect "$out" "/dev/video0" "--list-devices"
expect "$out" "/dev/video1" "--list-devices"

out=$(v4l2-ctl -d /dev/video0 --all)
expect "$out" "Driver name *: uvcvideo" "--all"
expect "$out" "Width/Height *: 1280/600" "--all"
expect "$out" "Frames per second: 30.000" "--all"
out=$(v4l2-ctl -d /dev/video1 --all)
expect "$out" "Format Metadata Capture" "--all on the metadata node"

out=$(v4l2-ctl -d /dev/video0 --list-formats-ext)
for size in 640x960 640x480 1280x600 1443x960 1280x720 1920x1080 1920x1200; do
    expect "$out" "Discrete $size" "--list-formats-ext"
done
expect "$out" "'Y16 '" "--list-formats-ext"
expect "$out" "'UYVY'" "--list-formats-ext"

stream() {  # stream FOURCC WIDTH HEIGHT
    v4l2-ctl -d /dev/video0 --set-fmt-video="width=$2,height=$3,pixelformat=$1"
    rm -f "$tmp/frames"
    v4l2-ctl -d /dev/video0 --stream-mmap --stream-count=30 --stream-to="$tmp/frames"
    size=$(stat -c %s "$tmp/frames")
    [ "$size" -eq $((30 * $2 * $3 * 2)) ] || fail "$1 $2x$3: streamed $size bytes"
}
stream 'Y16 ' 1280 600
stream UYVY 1920 1080

out=$(udevadm info /dev/video0)
expect "$out" "P: /devices/pci0000:00/0000:00:14.0/usb1/1-1/1-1:1.0/video4linux/video0" "udevadm"
expect "$out" "E: SUBSYSTEM=video4linux" "udevadm"
out=$(udevadm info /dev/hidraw0)
expect "$out" "E: SUBSYSTEM=hidraw" "udevadm"
echo "clients: all passed"
