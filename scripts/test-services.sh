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
  start_serial_ports
  wineserver -p >/dev/null 2>&1 </dev/null || true
  publish_serial_ports
  wine64 wineboot >/dev/null 2>&1 </dev/null || true
}
stop_test_services() {
  if [ -n "${TAVRIN_XVFB_PID:-}" ]; then kill "$TAVRIN_XVFB_PID" 2>/dev/null || true; fi
  stop_serial_ports
  wineserver -k >/dev/null 2>&1 || true
}

# Serial ports of the comm tests: one socat pty pair per port. One end becomes COM<n> in the
# prefix, the tests read and write the other end themselves (TAVRIN_TEST_COM<n> holds its path,
# TAVRIN_TEST_COM_PORTS the port names). To lose the peer in the middle of a transfer a test
# creates <peer>.kill, and the pair's socat is killed; each pair is started again when it ends.
# <peer>.pid holds the process id of the running socat, written once both links are in place.
TAVRIN_TEST_COM_NUMBERS="99 100 101 102"
serial_port_loop() {
  set +e
  local dir=$1 n=$2 pid="" state
  trap '[ -n "$pid" ] && kill "$pid" 2>/dev/null && wait "$pid"; rm -f "$dir/peer$n.pid"; exit 0' TERM
  while :; do
    rm -f "$dir/com$n" "$dir/peer$n" "$dir/peer$n.pid" "$dir/peer$n.kill"
    socat pty,link="$dir/com$n",rawer pty,link="$dir/peer$n",rawer &
    pid=$!
    for _ in $(seq 50); do [ -e "$dir/com$n" ] && [ -e "$dir/peer$n" ] && break; sleep 0.1; done
    echo "$pid" >"$dir/peer$n.pid"
    # Until it ends (a zombie has ended: state Z), with no process started per round.
    while read -r _ _ state _ <"/proc/$pid/stat" 2>/dev/null && [ "$state" != Z ]; do
      if [ -e "$dir/peer$n.kill" ]; then rm -f "$dir/peer$n.kill"; kill -KILL "$pid"; fi
      sleep 0.05
    done
    wait "$pid"
    sleep 0.2
  done
}
start_serial_ports() {
  command -v socat >/dev/null 2>&1 || return 0
  local dir="$WINEPREFIX/tavrin-serial" n ports=""
  mkdir -p "$dir" "$WINEPREFIX/dosdevices"
  rm -f "$dir"/*
  TAVRIN_SERIAL_LOOPS=""
  for n in $TAVRIN_TEST_COM_NUMBERS; do
    serial_port_loop "$dir" "$n" </dev/null >/dev/null 2>&1 &
    TAVRIN_SERIAL_LOOPS="$TAVRIN_SERIAL_LOOPS $!"
    # Opens even before Wine's device manager has published the port (see below).
    ln -sfn "$dir/com$n" "$WINEPREFIX/dosdevices/com$n"
    ports="$ports COM$n"
    export "TAVRIN_TEST_COM$n=$dir/peer$n"
  done
  export TAVRIN_TEST_COM_PORTS="${ports# }"
  for n in $TAVRIN_TEST_COM_NUMBERS; do
    for _ in $(seq 50); do [ -e "$dir/peer$n.pid" ] && break; sleep 0.1; done
  done
}
# Wine publishes a port (device map HARDWARE\DEVICEMAP\SERIALCOMM, DOS device COM<n>) only when
# it is defined under HKLM\Software\Wine\Ports as its device manager starts. The first Wine
# program of a server starts that manager, so a first definition is followed by a restart of the
# prefix's server; later runs find the definitions in place (their links are stable).
publish_serial_ports() {
  [ -n "${TAVRIN_TEST_COM_PORTS:-}" ] || return 0
  local dir="$WINEPREFIX/tavrin-serial" n missing=0
  for n in $TAVRIN_TEST_COM_NUMBERS; do
    grep -qF "\"COM$n\"=\"$dir/com$n\"" "$WINEPREFIX/system.reg" 2>/dev/null || missing=1
  done
  [ "$missing" -eq 1 ] || return 0
  {
    printf 'REGEDIT4\n\n[HKEY_LOCAL_MACHINE\\Software\\Wine\\Ports]\n'
    for n in $TAVRIN_TEST_COM_NUMBERS; do printf '"COM%s"="%s"\n' "$n" "$dir/com$n"; done
  } >"$dir/ports.reg"
  wine64 regedit /S "Z:${dir//\//\\}\\ports.reg" >/dev/null 2>&1 </dev/null || true
  wineserver -k >/dev/null 2>&1 || true
  wineserver -p >/dev/null 2>&1 </dev/null || true
}
stop_serial_ports() {
  local pid
  for pid in ${TAVRIN_SERIAL_LOOPS:-}; do kill "$pid" 2>/dev/null || true; done
  for pid in ${TAVRIN_SERIAL_LOOPS:-}; do wait "$pid" 2>/dev/null || true; done
  TAVRIN_SERIAL_LOOPS=""
}
