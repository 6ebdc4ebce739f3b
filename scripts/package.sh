#!/usr/bin/env bash
# Builds the release zips of each width into dist/ (TAVRIN_DIST overrides):
#   tavrin-<version>-<arch>.zip        the installed package (cmake --install), binaries stripped
#   tavrin-<version>-<arch>-debug.zip  their debug information: unpacked over the package, each
#                                      .debug file lands beside its binary, which names it in its
#                                      .gnu_debuglink section, where gdb looks for it
# The version is the project's. TAVRIN_ARCHS="x64" packages one width.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
"$root/scripts/setup.sh"
"$root/scripts/build.sh"

dist="${TAVRIN_DIST:-$root/dist}"
mkdir -p "$dist"
dist="$(cd "$dist" && pwd)"

cache_value() { sed -n "s/^$1:[A-Z]*=//p" "$2/CMakeCache.txt"; }

for arch in ${TAVRIN_ARCHS:-x86 x64}; do
  build="$root/build/$arch"
  version="$(cache_value CMAKE_PROJECT_VERSION "$build")"
  objcopy="$(cache_value CMAKE_OBJCOPY "$build")"
  objdump="$(cache_value CMAKE_OBJDUMP "$build")"
  name="tavrin-$version-$arch"
  work="$build/dist"
  stage="$work/$name"
  symbols="$work/debug/$name/bin"
  rm -rf "$work"
  mkdir -p "$symbols"
  cmake --install "$build" --prefix "$stage" >/dev/null

  # Debug information of each binary that has any: the .debug file the build left beside it
  # when there is one, otherwise split off here; the binary keeps only a link to it.
  for binary in "$stage"/bin/*.dll "$stage"/bin/*.exe; do
    [ -f "$binary" ] || continue
    file="$(basename "$binary")"
    debug=""
    for candidate in "$build/bin/$file.debug" "$build/bin/${file%.*}.debug"; do
      if [ -f "$candidate" ]; then debug="$candidate"; break; fi
    done
    if [ -n "$debug" ]; then
      cp "$debug" "$symbols/"
      debug="$symbols/$(basename "$debug")"
    elif "$objdump" -h "$binary" | grep -q '\.debug_'; then
      debug="$symbols/$file.debug"
      "$objcopy" --only-keep-debug "$binary" "$debug"
    else
      continue
    fi
    "$objcopy" --strip-all "$binary"
    if ! "$objdump" -h "$binary" | grep -q '\.gnu_debuglink'; then
      (cd "$symbols" && "$objcopy" --add-gnu-debuglink="$(basename "$debug")" "$binary")
    fi
  done

  rm -f "$dist/$name.zip" "$dist/$name-debug.zip"
  (cd "$work" && cmake -E tar cf "$dist/$name.zip" --format=zip "$name")
  (cd "$work/debug" && cmake -E tar cf "$dist/$name-debug.zip" --format=zip "$name")
  printf '%s: %s bytes (%s bytes unpacked); debug information %s bytes\n' "$dist/$name.zip" \
    "$(stat -c %s "$dist/$name.zip")" "$(du -sb "$stage" | cut -f1)" "$(stat -c %s "$dist/$name-debug.zip")"
done
