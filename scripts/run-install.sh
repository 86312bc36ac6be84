#!/usr/bin/env bash
# Installs into a fresh directory and builds a program outside the tree on what lies there: with
# pkg-config and with the CMake package. The program must run.
#
#   scripts/run-install.sh
set -euo pipefail
cd "$(dirname "$0")/.."
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install build --prefix "$work/prefix" >/dev/null
mkdir "$work/program" "$work/with-pkg-config" "$work/home" "$work/home/tmp"
cat >"$work/program/list.cpp" <<'SOURCE'
#include <cstdio>

#include "core/context.h"
#include "core/list.h"
#include "core/objwrappers.h"

int main() {
    if (ContextInitialize() != TRUE) return 1;
    ListO oList = ListNew(ObjIntegerMagic);
    ObjIntegerO oItem = ObjIntegerNew(7);
    ListPushLastItem(oList, &oItem);
    std::printf("a list of %d\n", oList->lItemCount);
    ObjRelease(&oList);
    ContextReleaseThread();
    return 0;
}
SOURCE
cat >"$work/program/CMakeLists.txt" <<'SOURCE'
cmake_minimum_required(VERSION 3.25)
project(list LANGUAGES CXX)
find_package(tessel 1.0 REQUIRED)
add_executable(list list.cpp)
target_link_libraries(list PRIVATE tessel::tessel)
SOURCE

export KRHOME="$work/home" PKG_CONFIG_PATH="$work/prefix/lib/pkgconfig"
# The flags are words of their own.
# shellcheck disable=SC2046
g++ "$work/program/list.cpp" -o "$work/with-pkg-config/list" $(pkg-config --cflags --libs tessel)
cmake -S "$work/program" -B "$work/with-cmake" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/with-cmake" >/dev/null
for program in "$work/with-pkg-config/list" "$work/with-cmake/list"; do
    [ "$("$program")" = "a list of 1" ]
    echo "a program ${program#"$work/"} runs on what was installed"
done
