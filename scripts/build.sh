#!/bin/sh
# usage: build.sh BUILD_DIR [CMAKE_OPTION...]
# Configures and builds the project (warnings are errors), installing missing packages first.
set -eu
cd "$(dirname "$0")/.."
./scripts/install-deps.sh
dir=$1
shift
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTALVORO_WERROR=ON "$@" > /dev/null
cmake --build "$dir" -j"$(nproc)"
