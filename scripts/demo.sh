#!/bin/sh
# The main job: builds the project, starts two virtual cameras and lists them with the tool.
set -eu
cd "$(dirname "$0")/.."
./scripts/build.sh build
echo
echo "Cameras found (virtual cameras from talvoro-vcam):"
./build/vcam/talvoro-vcam run --cameras 2 -- ./build/tools/talvoro/talvoro list
