#!/usr/bin/env bash
# Configures and builds both widths: build/x64 (tests, sample, benchmark; runs under Wine) and
# build/x86 (the shipped 32-bit Tavrin.dll and the sample).
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
jobs="${TAVRIN_JOBS:-$(nproc)}"
for arch in x64 x86; do
  case $arch in
    x64) tc=toolchain-mingw-x86_64.cmake; extra=(-DTAVRIN_BUILD_TESTS=ON -DTAVRIN_BUILD_BENCH=ON);;
    x86) tc=toolchain-mingw-i686.cmake;   extra=(-DTAVRIN_BUILD_TESTS=OFF -DTAVRIN_BUILD_BENCH=OFF);;
  esac
  cmake -S "$root" -B "$root/build/$arch" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$root/cmake/$tc" "${extra[@]}" >/dev/null
  ninja -C "$root/build/$arch" -j "$jobs"
done
