#!/usr/bin/env bash
# Services the tests and the sample use: a virtual X display for windows and dialogs, and a Wine
# server with its system processes already running.
start_test_services() {
  if [ -z "${DISPLAY:-}" ] && command -v Xvfb >/dev/null 2>&1; then
    local d=97
    while [ -e "/tmp/.X${d}-lock" ]; do d=$((d + 1)); done
    Xvfb ":$d" -screen 0 1280x1024x24 -nolisten tcp >/dev/null 2>&1 &
    TAVRIN_XVFB_PID=$!
    export DISPLAY=":$d"
    for _ in $(seq 50); do [ -e "/tmp/.X11-unix/X$d" ] && break; sleep 0.1; done
  fi
  # A persistent server keeps Wine's start-up cost out of each program. Its system processes
  # (services, device manager) are started here with no standard streams: started by the first
  # test instead, they would inherit the test's output pipe and keep ctest waiting on it.
  wineserver -p >/dev/null 2>&1 </dev/null || true
  wine64 wineboot >/dev/null 2>&1 </dev/null || true
}
stop_test_services() {
  if [ -n "${TAVRIN_XVFB_PID:-}" ]; then kill "$TAVRIN_XVFB_PID" 2>/dev/null || true; fi
  wineserver -k >/dev/null 2>&1 || true
}
