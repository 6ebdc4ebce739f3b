#!/usr/bin/env bash
# Wine settings for Tavrin's programs. Source it, or run a command through it:
#   scripts/wine-env.sh ctest --test-dir build/x64
export WINEPREFIX="${TAVRIN_WINEPREFIX:-$HOME/.wine-tavrin}"
export WINEDEBUG="${WINEDEBUG:--all}"
export WINEARCH=win64
# No Mono or Gecko installers; and no debugger on a crash: a crashed test program ends at once
# (and fails for want of its result lines) instead of waiting in winedbg.
export WINEDLLOVERRIDES="${WINEDLLOVERRIDES:-mscoree,mshtml=;winedbg.exe=d}"
# 32-bit programs run in wine64's WoW64 mode from Wine's own 32-bit DLLs, which setup-wine32.sh
# unpacks into this folder (one per wine64 version). WINEDLLPATH must be set when the prefix is
# created (so that syswow64 is filled) and on every run.
if [ -z "${TAVRIN_WINE32_DIR:-}" ]; then
  TAVRIN_WINE32_DIR="${XDG_CACHE_HOME:-$HOME/.cache}/tavrin/wine32-$(dpkg-query -W -f='${Version}' wine64 2>/dev/null || echo none)"
fi
export TAVRIN_WINE32_DIR
case ":${WINEDLLPATH:-}:" in
  *":$TAVRIN_WINE32_DIR:"*) ;;
  *) export WINEDLLPATH="$TAVRIN_WINE32_DIR${WINEDLLPATH:+:$WINEDLLPATH}";;
esac
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
