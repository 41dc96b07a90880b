#!/bin/sh
# v4l2-ctl, a real V4L2 client, under the virtual camera: it lists the standard controls, and a
# control set by one process is read back by the next one of the same run.
# usage: v4l2_ctl_test.sh TALVORO_VCAM
set -eu
vcam=$1
command -v v4l2-ctl > /dev/null || { echo "v4l2-ctl is missing (package v4l-utils)"; exit 1; }
out=$("$vcam" run --camera video=0 -- sh -c \
    'v4l2-ctl -d /dev/video0 --all && v4l2-ctl -d /dev/video0 -c gamma=240 &&
     v4l2-ctl -d /dev/video0 -C gamma')
for control in brightness contrast saturation white_balance_automatic gamma gain \
               power_line_frequency white_balance_temperature sharpness auto_exposure \
               exposure_time_absolute; do
    echo "$out" | grep -q "^ *$control 0x" || { echo "v4l2-ctl --all lacks $control"; exit 1; }
done
echo "$out" | grep -qx "gamma: 240" || { echo "gamma did not persist: $out"; exit 1; }
echo ok
