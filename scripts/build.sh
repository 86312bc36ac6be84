#!/usr/bin/env bash
# Configures (when there is no build yet, or the presets are newer) and builds one preset.
#
#   scripts/build.sh PRESET [TARGET...]
set -euo pipefail
cd "$(dirname "$0")/.."

preset=$1
shift
directory=build
[ "$preset" = release ] || directory=build/$preset

done=$directory/cmake_install.cmake # the last thing that configuring writes
if [ ! -f "$done" ] || [ CMakePresets.json -nt "$done" ]; then
    mkdir -p "$directory"
    cmake --preset "$preset" >"$directory/configure.log" 2>&1 ||
        { cat "$directory/configure.log" >&2; exit 1; }
fi
targets=()
[ $# -eq 0 ] || targets=(--target "$@")
cmake --build "$directory" -j "$(nproc)" "${targets[@]}"
