#!/usr/bin/env bash
# Installs the Debian packages the build needs (skipping those present), then configures and
# builds. Usage: scripts/setup.sh [BUILD_DIR] [extra cmake args...]
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-"$here/build"}; shift || true

packages=(g++ cmake make flex bison libopenimageio-dev openimageio-tools libtbb-dev
          libcli11-dev libgtest-dev googletest libbenchmark-dev python3
          python3-openimageio  # the tests of image files make their images with it
          pybind11-dev python3-dev python3-numpy python3-pytest  # the Python module (python/)
          clang libclang-rt-14-dev  # clang and libFuzzer: the fuzz stage of scripts/test.sh
          pkg-config libcpp-httplib-dev nlohmann-json3-dev  # the server of `kel live`
          chromium chromium-driver python3-selenium  # the live page's tests in a real browser
          slurm-wlm munge)          # a one-node cluster for the render-farm test (tests/farm)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "setup: installing ${missing[*]}" >&2
  SUDO=""; [ "$(id -u)" -ne 0 ] && SUDO=sudo
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

# The live page's editor and bundler, from npm at the versions of web/package-lock.json,
# installed again only when the lock file is newer than the last install.
if command -v npm >/dev/null && [ ! "$here/web/node_modules/.package-lock.json" -nt "$here/web/package-lock.json" ]; then
  (cd "$here/web" && npm ci --no-audit --no-fund --loglevel=error >/dev/null)
fi

jobs=$(nproc)
# A developer's machine with ccache rebuilds other checkouts of the same sources from its cache.
launcher=()
command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
cmake -S "$here" -B "$build" -DCMAKE_BUILD_TYPE=Release "${launcher[@]}" "$@" >/dev/null
cmake --build "$build" -j "$jobs"
