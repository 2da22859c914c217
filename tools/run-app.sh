#!/usr/bin/env bash
# Installs the Debian packages, builds, starts the local service stand-in on 127.0.0.1:8000 and
# runs the desktop application against it. Without a display it runs under Xvfb.
# Extra arguments go to the application (for example --tray).
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/install-deps.sh

cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$(nproc)" --target vantro-sign vantro-dev-service

./build/tools/dev-service/vantro-dev-service --port 8000 &
service_pid=$!
trap 'kill "$service_pid" 2>/dev/null || true' EXIT

export VANTRO_SIGN_BASE_URL=${VANTRO_SIGN_BASE_URL:-http://127.0.0.1:8000}
export VANTRO_SIGN_ALLOW_LOCAL_API_BASE=${VANTRO_SIGN_ALLOW_LOCAL_API_BASE:-1}
# Chromium refuses to run as root with its sandbox on.
if [[ $(id -u) -eq 0 ]]; then
    export QTWEBENGINE_DISABLE_SANDBOX=1
fi

if [[ -z ${DISPLAY:-} && -z ${WAYLAND_DISPLAY:-} ]]; then
    xvfb-run -a -s "-screen 0 1280x900x24" ./build/src/vantro-sign "$@"
else
    ./build/src/vantro-sign "$@"
fi
