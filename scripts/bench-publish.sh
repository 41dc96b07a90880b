#!/bin/sh
# usage: bench-publish.sh [SECONDS] [BUILD_DIR]
# talvoro publish with two virtual cameras in data mode 4, read by one dds_subscribe (every
# topic) over loopback DDS: messages per second per topic, the publisher's CPU time, and the
# latency from capture (the message's stamp) to the subscriber. For comparison the publisher also
# runs without any reader (capture only: nothing is processed or sent). Cyclone DDS runs with its
# defaults and again with larger socket buffers and UDP messages (CYCLONEDDS_URI below), the
# latter also with a reader that leaves the point clouds out.
# The virtual cameras' own work (rendering and copying frames) runs inside the publisher's process
# and is part of its CPU time; the capture-only run shows that share.
set -eu
cd "$(dirname "$0")/.."
seconds=${1:-20}
build=${2:-build}
vcam=$build/vcam/talvoro-vcam
talvoro=$build/tools/talvoro/talvoro
subscribe=$build/examples/dds_subscribe/dds_subscribe
for f in "$vcam" "$talvoro" "$subscribe"; do
    [ -x "$f" ] || { echo "missing $f: build first (./scripts/build.sh $build)" >&2; exit 1; }
done
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

peers='<Discovery><ParticipantIndex>auto</ParticipantIndex><Peers><Peer address="127.0.0.1"/></Peers><Tag>bench-'$$'</Tag></Discovery>'
general='<Interfaces><NetworkInterface name="lo"/></Interfaces><AllowMulticast>false</AllowMulticast>'
default_config="<CycloneDDS><Domain Id=\"any\"><General>$general</General>$peers</Domain></CycloneDDS>"
tuned_config="<CycloneDDS><Domain Id=\"any\"><General>$general<MaxMessageSize>65500B</MaxMessageSize><FragmentSize>64000B</FragmentSize></General><Internal><SocketReceiveBufferSize min=\"4MB\"/></Internal>$peers</Domain></CycloneDDS>"

# run NAME CONFIG READER(yes|no) [SUBSCRIBER_OPTION...]
run() {
    name=$1 reader=$3
    export CYCLONEDDS_URI="$2"
    shift 3
    if [ "$reader" = yes ]; then
        "$subscribe" --domain 210 --seconds $((seconds + 6)) "$@" > "$tmp/$name.sub" &
        sub=$!
    fi
    "$vcam" run --cameras 2 -- bash -c "TIMEFORMAT='publisher cpu: %U s user, %S s system in %R s'; \
        time '$talvoro' publish --domain 210 --mode 4 --duration $seconds" > "$tmp/$name.pub" 2>&1
    [ "$reader" = yes ] && wait "$sub"
    echo "== $name"
    grep -E "^publisher cpu|frames, " "$tmp/$name.pub"
    [ "$reader" = yes ] && grep "^summary" "$tmp/$name.sub" | sed 's/, [^,]*$//; s/summary //'
    echo
}

echo "talvoro publish: 2 virtual cameras, data mode 4, $seconds s, $(nproc) cores, load $(cut -d' ' -f1-3 /proc/loadavg)"
run capture-only "$default_config" no
run default "$default_config" yes
run tuned "$tuned_config" yes
# The coloured point cloud costs the most: the same without a reader of points.
run tuned-no-points "$tuned_config" yes --skip points
