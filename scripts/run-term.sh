#!/usr/bin/env bash
# Sets up the machine, builds, and runs tavrin-term under Wine: without arguments its
# demonstration against the echo device built into it, otherwise with the arguments given
# (scripts/run-term.sh -help lists them). Builds the 64-bit width unless TAVRIN_ARCHS says
# otherwise; the program runs from the first width built.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
export TAVRIN_ARCHS="${TAVRIN_ARCHS:-x64}"
"$root/scripts/setup.sh"
"$root/scripts/build.sh"
source "$root/scripts/wine-env.sh"
source "$root/scripts/test-services.sh"
start_test_services
demo_loop=""
cleanup() {
  if [ -n "$demo_loop" ]; then kill "$demo_loop" 2>/dev/null || true; wait "$demo_loop" 2>/dev/null || true; fi
  rm -f "$WINEPREFIX/dosdevices/com5" "$WINEPREFIX/dosdevices/com6"
  stop_test_services
}
trap cleanup EXIT

# The demonstration also talks over a serial null-modem pair when there is one: COM5 and COM6
# are the two ends of one socat pseudo-terminal pair.
if [ $# -eq 0 ] && command -v socat >/dev/null 2>&1; then
  dir="$WINEPREFIX/tavrin-serial"
  mkdir -p "$dir"
  serial_port_loop "$dir" 5 </dev/null >/dev/null 2>&1 &
  demo_loop=$!
  for _ in $(seq 50); do [ -e "$dir/peer5.pid" ] && break; sleep 0.1; done
  ln -sfn "$dir/com5" "$WINEPREFIX/dosdevices/com5"
  ln -sfn "$dir/peer5" "$WINEPREFIX/dosdevices/com6"
  export TAVRIN_TERM_SERIAL_PAIR=COM5,COM6
fi

arch="${TAVRIN_ARCHS%% *}"
cd "$root/build/$arch/bin"
plain=0
for arg in "$@"; do case "$arg" in -plain|/plain|--plain) plain=1;; esac; done
set +e
if [ -t 1 ] || [ "$plain" -eq 1 ]; then
  # A terminal gets Wine's console, which shows the program's UTF-16 text itself; -plain
  # writes UTF-8.
  wine64 ./tavrin-term.exe "$@"
  status=$?
else
  # Redirected, the console writes UTF-16 (colour changes on standard output, text on standard
  # error): one pipe keeps their order and iconv makes it UTF-8.
  wine64 ./tavrin-term.exe "$@" 2>&1 | iconv -f UTF-16LE -t UTF-8
  status=${PIPESTATUS[0]}
fi
folder="$WINEPREFIX/drive_c/users/$(id -un)/Documents/_Debug"
[ -d "$folder" ] && echo "Data log files on this machine: $folder"
echo "tavrin-term exited with $status"
exit "$status"
