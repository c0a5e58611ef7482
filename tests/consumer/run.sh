#!/usr/bin/env bash
# Builds the consumer against an installed SDK and runs it, three ways: CMake's
# find_package (static library), pkg-config alone (shared library) and pkg-config --static
# (static library). The SDK comes from `cmake --install` into a scratch prefix (mode
# install) or from the Debian packages, extracted into a scratch root (mode deb).
# usage: run.sh install|deb <build-dir> <work-dir> [compiler and linker flags]
set -euo pipefail
mode=$1 build=$2 work=$3 flags=${4:-}
source=$(cd "$(dirname "$0")" && pwd)
expected=68b50000010000dc00
rm -rf "$work" && mkdir -p "$work"

step() {  # step <what> <command...>: runs quietly, shows the output when it fails
  if ! "${@:2}" >"$work/step.log" 2>&1; then
    echo "consumer ($mode): $1 failed: ${*:2}" >&2
    cat "$work/step.log" >&2
    exit 1
  fi
}
expect_frame() {  # expect_frame <what> <program>
  local out
  out=$("$2") || { echo "consumer ($mode): $1 exited with $?" >&2; exit 1; }
  [ "$out" = "$expected" ] || { echo "consumer ($mode): $1 printed '$out', not '$expected'" >&2; exit 1; }
}

case $mode in
  install)
    step "install" cmake --install "$build" --prefix "$work/prefix"
    prefix=$work/prefix ;;
  deb)
    step "cpack" cpack --config "$build/CPackConfig.cmake" -B "$work/debs"
    for deb in "$work"/debs/*.deb; do step "dpkg-deb -x" dpkg-deb -x "$deb" "$work/root"; done
    prefix=$work/root/usr ;;
  *) echo "usage: run.sh install|deb <build-dir> <work-dir> [flags]" >&2; exit 2 ;;
esac

step "CMake configure" cmake -S "$source" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" \
  "-DCMAKE_CXX_FLAGS=$flags" "-DCMAKE_EXE_LINKER_FLAGS=$flags"
step "CMake build" cmake --build "$work/cmake"
expect_frame "find_package consumer" "$work/cmake/consumer"

# The .pc file locates its prefix itself: no flag but its path.
pc=$(find "$prefix" -name tqble.pc)
export PKG_CONFIG_PATH=${pc%/tqble.pc}
libdir=$(pkg-config --variable=libdir tqble)
# shellcheck disable=SC2046,SC2086  # pkg-config prints several words
step "pkg-config build" c++ $flags "$source/main.cpp" $(pkg-config --cflags --libs tqble) -o "$work/shared"
readelf -d "$work/shared" | grep -q 'NEEDED.*\[libtqble\.so\.1\]' ||
  { echo "consumer ($mode): the program does not need libtqble.so.1" >&2; exit 1; }
LD_LIBRARY_PATH=$libdir expect_frame "pkg-config consumer" "$work/shared"

rm "$libdir"/libtqble.so*  # only the static library is left to link
# shellcheck disable=SC2046,SC2086
step "pkg-config --static build" c++ $flags "$source/main.cpp" \
  $(pkg-config --static --cflags --libs tqble) -o "$work/static"
expect_frame "pkg-config --static consumer" "$work/static"
