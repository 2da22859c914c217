#!/usr/bin/env bash
# Installs the Debian packages, builds, starts the local service stand-in on 127.0.0.1:8000 and
# runs the desktop application against it, activated through the stand-in's activation call.
# Every file of the demo lives under one folder: $VANTRO_DEMO_HOME, or .demo/ in the checkout;
# delete it to start over. Without a display it runs under Xvfb. Extra arguments go to the
# application (for example --tray).
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/install-deps.sh

cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVANTRO_TEST_HOOKS=OFF >/dev/null
cmake --build build -j"$(nproc)" --target vantro-sign vantro-dev-service vantro-sign-native-host vantro-sign-mw-cli

demo=$(realpath -m "${VANTRO_DEMO_HOME:-.demo}")
mkdir -p "$demo/service" "$demo/home" "$demo/app"

service_log="$demo/service/service.log"
./build/tools/dev-service/vantro-dev-service --port 8000 --data "$demo/service" 2>"$service_log" &
service_pid=$!
trap 'kill "$service_pid" 2>/dev/null || true' EXIT
for _ in $(seq 100); do
    grep -q "listening on" "$service_log" && break
    kill -0 "$service_pid" 2>/dev/null || { cat "$service_log"; exit 1; }
    sleep 0.1
done
grep -q "listening on" "$service_log" || { cat "$service_log"; exit 1; }

# The application's settings, data, application folder and local root stay inside the demo.
export HOME="$demo/home"
export XDG_DATA_HOME="$demo/home/.local/share"
export XDG_CONFIG_HOME="$demo/home/.config"
export XDG_CACHE_HOME="$demo/home/.cache"
export LOCALAPPDATA="$demo/app"
export VANTRO_SIGN_BASE_URL=${VANTRO_SIGN_BASE_URL:-http://127.0.0.1:8000}
export VANTRO_SIGN_ALLOW_LOCAL_API_BASE=${VANTRO_SIGN_ALLOW_LOCAL_API_BASE:-1}
# Update checks ask the stand-in, never the internet.
export VANTRO_SIGN_ALLOW_LOCAL_UPDATE_FEED=1
export VANTRO_SIGN_UPDATE_FEED_URL=${VANTRO_SIGN_UPDATE_FEED_URL:-http://127.0.0.1:8000/downloads/sign/desktop/win/next/stable/latest.json}
# Chromium refuses to run as root with its sandbox on.
if [[ $(id -u) -eq 0 ]]; then
    export QTWEBENGINE_DISABLE_SANDBOX=1
fi

# A demo device that is not activated yet is activated with one of the stand-in's codes, through
# the same activation link a user would click.
args=("$@")
device_json=$(find "$demo" -name device.json 2>/dev/null | head -n 1)
if [[ -z $device_json ]] || ! grep -q '"deviceId": *"[^"]' "$device_json"; then
    code=$(sed -n 's/^vantro-dev-service: activation code: //p' "$service_log" | head -n 1)
    [[ -n $code ]] && args+=("vantrosign://activate?code=$code")
fi

if [[ -z ${DISPLAY:-} && -z ${WAYLAND_DISPLAY:-} ]]; then
    xvfb-run -a -s "-screen 0 1280x900x24" ./build/src/vantro-sign "${args[@]}"
else
    ./build/src/vantro-sign "${args[@]}"
fi
