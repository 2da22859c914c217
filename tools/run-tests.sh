#!/usr/bin/env bash
# The whole test suite, as CI runs it: installs the Debian packages, builds and runs every test
# (browser ones under the offscreen platform), then repeats the tests that need no browser under
# AddressSanitizer and UndefinedBehaviorSanitizer, and compiles the Windows-only sources with
# MinGW so that side never rots unseen.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=$(nproc)

bash tools/install-deps.sh

echo "== build (release with debug info)"
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVANTRO_TEST_HOOKS=ON >/dev/null
cmake --build build -j"$jobs"

echo "== tests"
(cd build && ctest -LE bench --output-on-failure -j"$jobs")

echo "== tests under AddressSanitizer and UndefinedBehaviorSanitizer (no browser)"
cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DVANTRO_SANITIZE=ON -DVANTRO_WITH_UI=OFF -DVANTRO_TEST_HOOKS=ON \
    -DVANTRO_BUILD_BENCH=OFF >/dev/null
cmake --build build-asan -j"$jobs"
(cd build-asan && ASAN_OPTIONS=detect_leaks=0 UBSAN_OPTIONS=print_stacktrace=1 \
    ctest -LE 'e2e|bench' --output-on-failure -j"$jobs")

echo "== Windows compile check"
bash tools/check-windows.sh build
