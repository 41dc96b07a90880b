#!/bin/sh
# Installs the Debian 12 packages the build, the tests and the virtual camera need, when missing.
set -eu

packages="build-essential cmake pkg-config binutils python3 doxygen \
  libudev-dev udev \
  libopencv-dev libopencv-contrib-dev \
  umockdev libumockdev-dev \
  googletest libgtest-dev libgmock-dev libbenchmark-dev \
  v4l-utils clang libclang-rt-14-dev \
  libcpp-httplib-dev libturbojpeg0-dev nlohmann-json3-dev \
  chromium chromium-driver python3-selenium python3-pil python3-numpy \
  cyclonedds-dev cyclonedds-tools \
  python3 python3-dev pybind11-dev python3-pytest"

missing=""
for p in $packages; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
        missing="$missing $p"
    fi
done
[ -z "$missing" ] && exit 0

echo "Installing missing packages:$missing"
if [ "$(id -u)" -eq 0 ]; then
    sudo=""
elif command -v sudo > /dev/null; then
    sudo="sudo"
else
    echo "error: run as root (or install sudo) to install:$missing" >&2
    exit 1
fi
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
# shellcheck disable=SC2086
$sudo apt-get install -y -qq --no-install-recommends $missing
