#!/usr/bin/env bash
# Configures and builds both widths: build/x86 (the shipped 32-bit Tavrin.dll) and build/x64,
# each with its tests and programs. Both run under Wine (the 32-bit one in wine64's WoW64 mode).
#   TAVRIN_ARCHS="x64"   builds one width only
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
jobs="${TAVRIN_JOBS:-$(nproc)}"
# Paths relative to the checkout let ccache share objects between checkouts of the project.
export CCACHE_BASEDIR="${CCACHE_BASEDIR:-$root}"
for arch in ${TAVRIN_ARCHS:-x86 x64}; do
  case $arch in
    x64) tc=toolchain-mingw-x86_64.cmake; extra=(-DTAVRIN_BUILD_BENCH=ON);;
    x86) tc=toolchain-mingw-i686.cmake;   extra=(-DTAVRIN_BUILD_BENCH=ON);;
    *) echo "build: unknown width $arch" >&2; exit 2;;
  esac
  cmake -S "$root" -B "$root/build/$arch" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$root/cmake/$tc" \
        -DTAVRIN_BUILD_TESTS=ON "${extra[@]}" >/dev/null
  ninja -C "$root/build/$arch" -j "$jobs"
done
