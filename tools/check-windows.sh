#!/usr/bin/env bash
# Compiles every Windows-only source (*_win.cpp) with Debian's MinGW cross compiler against the
# Linux Qt headers, to an object file. Nothing is linked: there is no Qt for Windows here.
# Usage: tools/check-windows.sh <configured build dir>
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT

qt_include=$(qmake6 -query QT_INSTALL_HEADERS 2>/dev/null || echo /usr/include/x86_64-linux-gnu/qt6)
includes=(-isystem "$qt_include")
for module in "$qt_include"/Qt*; do
    includes+=(-isystem "$module")
done

mapfile -t sources < <(find src -name '*_win.cpp' | sort)
for source in "${sources[@]}"; do
    echo "mingw: $source"
    x86_64-w64-mingw32-g++-posix -std=c++17 -DUNICODE -D_UNICODE -Wall -Wextra -Werror -c \
        "${includes[@]}" -I src -I "$build/generated" "$source" -o "$out/$(basename "$source").o"
done
echo "Windows compile check: ${#sources[@]} files compiled"
