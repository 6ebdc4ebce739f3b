#!/usr/bin/env bash
# Wine settings for Tavrin's programs. Source it, or run a command through it:
#   scripts/wine-env.sh ctest --test-dir build/x64
export WINEPREFIX="${TAVRIN_WINEPREFIX:-$HOME/.wine-tavrin}"
export WINEDEBUG="${WINEDEBUG:--all}"
export WINEARCH=win64
export WINEDLLOVERRIDES="${WINEDLLOVERRIDES:-mscoree,mshtml=}"
# Debian keeps the 64-bit loader out of PATH when wine32 is absent.
if [ -d /usr/lib/wine ]; then
  case ":$PATH:" in *:/usr/lib/wine:*) ;; *) export PATH="/usr/lib/wine:$PATH";; esac
fi
wine() { wine64 "$@"; }
if ! command -v wineboot >/dev/null 2>&1; then
  wineboot() { wine64 wineboot "$@"; }
fi
if [ "${BASH_SOURCE[0]}" = "$0" ]; then
  # A persistent server keeps Wine's start-up cost out of each test executable.
  mkdir -p "$WINEPREFIX"
  wineserver -p >/dev/null 2>&1 || true
  exec "$@"
fi
