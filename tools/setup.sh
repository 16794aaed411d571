#!/usr/bin/env bash
# Shared set-up of the two top-level commands: installs the Debian packages that are missing,
# then configures and builds Velmora in Release. Sourced by run.sh and test.sh.
#   $1: ON to build the tests and benchmarks as well, OFF for the programs alone.
set -euo pipefail

velmora_root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
velmora_build=${VELMORA_BUILD_DIR:-$velmora_root/build}
with_tests=${1:-OFF}

packages=(
    cmake ninja-build g++ pkg-config
    qt6-base-dev libicu-dev libplist-dev libzip-dev zlib1g-dev
    libcmark-gfm-dev libcmark-gfm-extensions-dev
    libbenchmark-dev
    fonts-dejavu-core fontconfig
)

# The real-text benchmark reads the Node.js API documentation in Markdown. A Node.js installed
# from elsewhere may bring it already, and its package would have to give way to Debian's.
if [[ $with_tests == ON ]] && ! compgen -G '/usr/share/doc/nodejs/api/*.md*' >/dev/null; then
    packages+=(nodejs-doc)
fi

missing=()
for package in "${packages[@]}"; do
    status=$(dpkg-query -W -f='${Status}' "$package" 2>/dev/null || true)
    [[ $status == "install ok installed" ]] || missing+=("$package")
done

if ((${#missing[@]})); then
    echo "Installing missing packages: ${missing[*]}" >&2
    if [[ $(id -u) -ne 0 ]]; then
        as_root=(sudo env DEBIAN_FRONTEND=noninteractive)
    else
        as_root=(env DEBIAN_FRONTEND=noninteractive)
    fi
    "${as_root[@]}" apt-get update -q
    "${as_root[@]}" apt-get install -y -q --no-install-recommends "${missing[@]}"
fi

cmake -S "$velmora_root" -B "$velmora_build" -G Ninja \
    -DCMAKE_BUILD_TYPE=Release -DVELMORA_BUILD_TESTS="$with_tests" >/dev/null
cmake --build "$velmora_build" -j2
