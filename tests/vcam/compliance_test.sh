#!/bin/sh
# usage: compliance_test.sh TALVORO_VCAM
# v4l2-compliance, streaming tests included, on both video nodes of one virtual camera. No test
# may fail, and the only warning allowed is a gap in the sequence numbers: frames a busy reader
# missed, as on a real camera (docs/vcam.md explains it).
set -eu
if [ -z "${TALVORO_VCAM_SCENARIO:-}" ]; then
    exec "$1" run --camera serial=COMPLIANCE,video=0,meta=1,fps=60 -- "$0" "$1"
fi

status=0
for node in /dev/video0 /dev/video1; do
    out=$(v4l2-compliance -s -d "$node" 2>&1) || true
    summary=$(printf '%s\n' "$out" | grep "^Total for" || true)
    echo "$node: ${summary:-no summary}"
    case "$summary" in
        *"Failed: 0,"*) ;;
        *)
            printf '%s\n' "$out" | grep -E "fail:|FAIL" >&2 || printf '%s\n' "$out" | tail -20 >&2
            status=1
            ;;
    esac
    unexplained=$(printf '%s\n' "$out" | tr '\t' '\n' | grep "warn:" | grep -v "got sequence number" || true)
    if [ -n "$unexplained" ]; then
        echo "FAIL: warnings on $node:" >&2
        printf '%s\n' "$unexplained" >&2
        status=1
    fi
done
exit $status
