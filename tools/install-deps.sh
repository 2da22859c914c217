#!/usr/bin/env bash
# Installs the Debian 12 packages the build, the tests and the benchmarks need; packages that
# are already present are left alone, so a second run costs only a dpkg query.
set -euo pipefail

packages=(
    cmake g++ make pkg-config
    qt6-base-dev qt6-base-dev-tools libqt6sql6-sqlite
    qt6-webengine-dev qt6-webchannel-dev qt6-httpserver-dev qt6-websockets-dev
    qt6-svg-dev libqt6svg6
    libssl-dev openssl libsecret-1-dev libpcsclite-dev libp11-kit-dev
    softhsm2 opensc
    pcscd vsmartcard-vpcd pcsc-tools
    g++-mingw-w64-x86-64-posix
    sqlite3 xvfb xauth
)

missing=()
for pkg in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$pkg")
    fi
done

if ((${#missing[@]})); then
    if [[ $(id -u) -ne 0 ]]; then
        sudo=sudo
    else
        sudo=
    fi
    echo "Installing: ${missing[*]}"
    $sudo apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}"
fi
