#!/usr/bin/env bash
# Cross-builds GoogleTest from Debian's sources (/usr/src/googletest) for the mingw-debug preset,
# installing it under build/gtest-mingw. Does nothing when it is there already.
set -euo pipefail
cd "$(dirname "$0")/.."
prefix="$PWD/build/gtest-mingw"
[ -f "$prefix/lib/cmake/GTest/GTestConfig.cmake" ] && exit 0
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
cmake -S /usr/src/googletest -B "$work" -G Ninja -DCMAKE_BUILD_TYPE=Debug \
  -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/toolchains/x86_64-w64-mingw32.cmake" \
  -DCMAKE_INSTALL_PREFIX="$prefix" -Dgtest_disable_pthreads=OFF >/dev/null
cmake --build "$work" -j2 >/dev/null
cmake --install "$work" >/dev/null
echo "GoogleTest for MinGW-w64 in $prefix"
