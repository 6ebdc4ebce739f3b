#!/usr/bin/env bash
# Installs everything Tavrin's build and tests need on a Debian machine and prepares the Wine
# prefix the tests run in. Fast when everything is already there.
set -euo pipefail

PACKAGES=(g++-mingw-w64-x86-64-posix g++-mingw-w64-i686-posix wine wine64 libboost-dev googletest
          cmake ninja-build python3 socat xvfb xauth ccache libspdlog-dev libfmt-dev iproute2 netbase
          tshark tmux cmark-gfm)

missing=()
for p in "${PACKAGES[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "setup: installing ${missing[*]}"
  SUDO=""; [ "$(id -u)" -eq 0 ] || SUDO="sudo"
  # tshark's package asks whether ordinary users may capture; the tests only read files, so the
  # answer is no, given in advance so that nothing waits for a reply.
  echo "wireshark-common wireshark-common/install-setuid boolean false" | $SUDO debconf-set-selections
  $SUDO apt-get update -q
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -q "${missing[@]}"
fi

"$(dirname "$0")/setup-wine32.sh"

# The Wine prefix is created once; wine-env.sh points every run at it.
source "$(dirname "$0")/wine-env.sh"
# A prefix made before the 32-bit DLLs were there has an empty syswow64, which an update does not
# fill: such a prefix is made again (it holds nothing but what the tests create).
if [ -f "$WINEPREFIX/system.reg" ] && [ ! -f "$WINEPREFIX/drive_c/windows/syswow64/kernel32.dll" ]; then
  echo "setup: the Wine prefix $WINEPREFIX has no 32-bit system folder; making it again"
  wineserver -k >/dev/null 2>&1 || true
  rm -rf "$WINEPREFIX"
fi
if [ ! -f "$WINEPREFIX/system.reg" ]; then
  echo "setup: creating the Wine prefix $WINEPREFIX"
  mkdir -p "$WINEPREFIX"
  wineboot -i >/dev/null 2>&1 </dev/null || true
  wineserver -w || true
fi
if [ ! -f "$WINEPREFIX/drive_c/windows/syswow64/kernel32.dll" ]; then
  echo "setup: the Wine prefix $WINEPREFIX has no 32-bit system folder" >&2
  exit 1
fi
echo "setup: ready"
