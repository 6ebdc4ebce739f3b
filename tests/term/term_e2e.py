#!/usr/bin/env python3
"""tavrin-term end to end under Wine, against real peers.

Peers: TCP servers and clients in this process or in a python3 process of their own (on
127.0.0.1 only), the socat serial pseudo-terminal pairs of the test services, tmux for the
interactive console and cmark-gfm for the Markdown report. Every run of the program and every
wait is bounded in time.

Prints GoogleTest-style result lines and writes a GoogleTest-style XML report (--xml), so that
ctest and the test summary judge it like the other suites.
"""
import argparse
import glob
import os
import re
import shutil
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest
import xml.etree.ElementTree as ET

BIN = os.environ.get("TAVRIN_TEST_BIN", "")
EXE = os.path.join(BIN, "tavrin-term.exe")
SOURCE = os.environ.get("TAVRIN_SOURCE_DIR", os.path.join(os.path.dirname(__file__), "..", ".."))
WINE = shutil.which("wine64") or "wine64"
RUN_LIMIT = 60  # seconds any one run of the program may take


def windows_path(path):
    """The Linux path as Wine's drive Z: sees it."""
    return "Z:" + os.path.abspath(path).replace("/", "\\")


def linux_path(path):
    out = subprocess.run(["winepath", "-u", path], capture_output=True, text=True, timeout=30)
    return out.stdout.strip()


def run_term(args, timeout=RUN_LIMIT, env=None, stdin=subprocess.DEVNULL):
    """Runs tavrin-term; returns (exit code, standard output bytes, standard error bytes, seconds)."""
    started = time.monotonic()
    proc = subprocess.run([WINE, EXE] + list(args), stdin=stdin, capture_output=True, timeout=timeout,
                          env=dict(os.environ, **(env or {})), cwd=BIN)
    return proc.returncode, proc.stdout, proc.stderr, time.monotonic() - started


def console_text(data):
    """The console's text (UTF-16LE on a redirected stream) without style sequences."""
    text = data.decode("utf-16-le", errors="replace")
    return re.sub(r"\x1b\[[0-9;]*m", "", text).replace("\r\n", "\n")


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


# ------------------------------------------------------------------------------ data log files

RECORD = re.compile(r"^(SYNC|ASYNC) (WRITE|READ) request completed: (\d+) \(0x([0-9A-F]+)\) bytes, (.+)$")


def parse_log(path):
    """The records of a data log file: ("WRITE"|"READ", bytes) and ("TEXT", text)."""
    with open(path, "rb") as f:
        text = f.read().decode("utf-8")
    records = []
    blocks = text.split("\r\n\r\n")
    for block in blocks:
        lines = block.split("\r\n")
        if not lines or not lines[0]:
            continue
        head = RECORD.match(lines[0])
        if head:
            data = bytearray()
            for line in lines[1:]:
                # " 41 42 0D 0A <blanks>    AB.." : 16 or 32 cells of three characters.
                cells = line[1:97]
                for i in range(0, len(cells), 3):
                    cell = cells[i:i + 2]
                    if cell.strip():
                        data.append(int(cell, 16))
            if len(data) != int(head.group(3)) or int(head.group(4), 16) != len(data):
                raise AssertionError(f"record of {head.group(3)} bytes holds {len(data)}: {block!r}")
            records.append((head.group(2), bytes(data)))
        elif lines[0].startswith("Text Event, "):
            records.append(("TEXT", "\r\n".join(lines[1:])))
        elif lines[0].startswith("Error="):
            records.append(("ERROR", lines[0]))
    return records


def data_records(records, kind):
    return [data for k, data in records if k == kind]


def wait_for_file(path, seconds=10):
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline:
        if os.path.exists(path):
            return True
        time.sleep(0.05)
    return False


# ------------------------------------------------------------------------------ peers

class TcpPeer:
    """A device on 127.0.0.1: answers each request with what `reply(request)` gives and records
    every byte each way, chunk by chunk."""

    def __init__(self, reply, close_after=None):
        self.reply = reply
        self.close_after = close_after  # requests answered before the peer goes away
        self.received = []
        self.sent = []
        self.server = socket.socket()
        self.server.bind(("127.0.0.1", 0))
        self.server.listen(1)
        self.server.settimeout(RUN_LIMIT)
        self.port = self.server.getsockname()[1]
        self.thread = threading.Thread(target=self._serve, daemon=True)
        self.thread.start()

    def _serve(self):
        try:
            conn, _ = self.server.accept()
        except OSError:
            return
        with conn:
            conn.settimeout(RUN_LIMIT)
            answered = 0
            buffer = b""
            while True:
                try:
                    chunk = conn.recv(4096)
                except OSError:
                    break
                if not chunk:
                    break
                self.received.append(chunk)
                buffer += chunk
                answer, buffer = self.reply(buffer)
                if answer:
                    conn.sendall(answer)
                    self.sent.append(answer)
                    answered += 1
                if self.close_after is not None and answered >= self.close_after:
                    break
        self.server.close()

    def join(self):
        self.thread.join(RUN_LIMIT)


def line_reply(table):
    """Answers each complete line (ending in CR LF, or a key of `table`) from `table`."""
    def reply(buffer):
        for request, answer in table.items():
            if buffer.startswith(request):
                return answer, buffer[len(request):]
        return b"", buffer
    return reply


class Term(unittest.TestCase):
    def setUp(self):
        self.work = tempfile.mkdtemp(prefix="tavrin-term-")
        self.logs = os.path.join(self.work, "logs")
        os.makedirs(self.logs)

    def tearDown(self):
        shutil.rmtree(self.work, ignore_errors=True)

    def log_files(self):
        return sorted(glob.glob(os.path.join(self.logs, "*.log")))

    def plain_lines(self, out):
        return [line for line in out.decode("utf-8").replace("\r\n", "\n").split("\n") if line]

    def traffic(self, out):
        return [line for line in self.plain_lines(out) if line[:3] in ("TX ", "RX ")]

    def render(self, markdown_path):
        html = subprocess.run(["cmark-gfm", "-e", "table", markdown_path], capture_output=True, timeout=30,
                              check=True).stdout.decode("utf-8")
        return html

    # -------------------------------------------------------------------------- the demonstration

    def test_demonstration_without_arguments(self):
        env = {"TAVRIN_TERM_SERIAL_PAIR": ""}
        code, out, err, _ = run_term([], env=env)
        text = console_text(err)
        self.assertEqual(0, code, text)
        self.assertEqual(4, text.count("-- Expectation met:"), text)
        self.assertIn("TX <STX>ABC<ETX>", text)
        self.assertIn("RX Grüße aus Tavrin<CR><LF>", text)
        found = re.search(r"Data log file: (C:\\.*?\.log)\n", text)
        self.assertIsNotNone(found, text)
        log = linux_path(found.group(1))
        self.assertIn("The first 20 lines of " + found.group(1), text)
        records = parse_log(log)
        self.assertEqual([b"Hello, device!\r\n", b"\x02ABC\x03", "Grüße aus Tavrin\r\n".encode(), b"*IDN?\r\n"],
                         data_records(records, "WRITE"))
        self.assertEqual(data_records(records, "WRITE"), data_records(records, "READ"))
        report = re.search(r"Report written: (C:\\.*?\.md)\n", text)
        self.assertIsNotNone(report, text)
        html = self.render(linux_path(report.group(1)))
        self.assertGreaterEqual(html.count("<table>"), 4)
        self.assertIn("<td align=\"center\">Hello, device!&lt;CR&gt;&lt;LF&gt;</td>", html)

    # -------------------------------------------------------------------------- TCP client

    def test_script_against_a_tcp_peer_plain_output_report_and_log(self):
        peer = TcpPeer(line_reply({b"PING 1\r\n": b"PONG 1\r\n", b"PING 2\r\n": b"PONG 2\r\n",
                                   b"\x02A\x03": b"\x06"}))
        report = os.path.join(self.work, "session.md")
        code, out, err, _ = run_term(["-tcp", f"127.0.0.1:{peer.port}", "-plain", "-logdir", windows_path(self.logs),
                                      "-report", windows_path(report),
                                      "-send", "PING 1\\r\\n", "-expect", "PONG 1\\r\\n",
                                      "-send", "PING 2\\r\\n", "-expect", "PONG 2\\r\\n",
                                      "-hex", "02 41 03", "-expect-hex", "06"])
        peer.join()
        self.assertEqual(0, code, out.decode("utf-8", "replace") + console_text(err))
        # -plain: UTF-8 lines on standard output, nothing on the console's streams.
        self.assertEqual(["TX PING 1<CR><LF>", "RX PONG 1<CR><LF>", "TX PING 2<CR><LF>", "RX PONG 2<CR><LF>",
                          "TX <STX>A<ETX>", "RX <ACK>"], self.traffic(out))
        self.assertNotIn(b"\x1b[", out)
        self.assertEqual(b"", err)
        lines = self.plain_lines(out)
        self.assertEqual(3, sum(1 for line in lines if line.startswith("-- Expectation met:")))

        # The data log file, record by record: exactly what the peer received and sent.
        logs = self.log_files()
        self.assertEqual(1, len(logs), logs)
        self.assertTrue(os.path.basename(logs[0]).startswith(f"127.0.0.1@{peer.port}-"))
        records = parse_log(logs[0])
        self.assertEqual(peer.received, data_records(records, "WRITE"))
        self.assertEqual(peer.sent, data_records(records, "READ"))
        self.assertIn(("TEXT", f"The socket connected to the following address: 127.0.0.1:{peer.port}."), records)

        # The report renders: its tables stay tables, every traffic line is a row of its own.
        html = self.render(report)
        self.assertGreaterEqual(html.count("<table>"), 4)
        rows = re.findall(r"<tr>\s*<td[^>]*>[0-9:.]+</td>\s*<td[^>]*>(TX|RX)</td>\s*<td[^>]*>(.*?)</td>", html)
        self.assertEqual([("TX", "PING 1&lt;CR&gt;&lt;LF&gt;"), ("RX", "PONG 1&lt;CR&gt;&lt;LF&gt;"),
                          ("TX", "PING 2&lt;CR&gt;&lt;LF&gt;"), ("RX", "PONG 2&lt;CR&gt;&lt;LF&gt;"),
                          ("TX", "&lt;STX&gt;A&lt;ETX&gt;"), ("RX", "&lt;ACK&gt;")], rows)
        self.assertIn("3 of 3", html)

    def test_a_flood_is_logged_completely_and_the_report_stays_small(self):
        flood = bytes((i * 7) % 256 for i in range(1 << 20)) + b"<END>"
        peer = TcpPeer(line_reply({b"DUMP\r\n": flood}))
        report = os.path.join(self.work, "flood.md")
        code, out, err, seconds = run_term(["-tcp", f"127.0.0.1:{peer.port}", "-plain", "-logdir", windows_path(self.logs),
                                            "-report", windows_path(report), "-send", "DUMP\r\n", "-expect", "<END>",
                                            "-timeout", "60000"], timeout=120)
        peer.join()
        self.assertEqual(0, code, out[-2000:])
        records = parse_log(self.log_files()[0])
        self.assertEqual(flood, b"".join(data_records(records, "READ")))
        with open(report, encoding="utf-8") as f:
            markdown = f.read()
        self.assertLess(len(markdown), 3 << 20)
        self.assertRegex(markdown, r"\| -- \| [0-9,.]+ more lines: the data log file has them all \|")
        self.assertIn(("RX", ), {(line[:2],) for line in self.traffic(out)})

    def test_expectation_that_times_out(self):
        peer = TcpPeer(line_reply({b"STATUS\r\n": b"BUSY\r\n"}))
        code, out, err, seconds = run_term(["-tcp", f"127.0.0.1:{peer.port}", "-plain", "-logdir", windows_path(self.logs),
                                            "-send", "STATUS\\r\\n", "-expect", "READY", "-timeout", "700"])
        peer.join()
        text = out.decode("utf-8")
        self.assertEqual(1, code, text)
        self.assertLess(seconds, 30)
        self.assertIn("!! Expectation not met within 700 ms: -expect READY", text)
        self.assertIn("!! Received instead: BUSY<CR><LF>", text)
        self.assertIn("1: an expectation not met in time", text)

    def test_view_hex_and_time_stamps(self):
        peer = TcpPeer(line_reply({b"\x01\x02": bytes(range(0x30, 0x42))}))
        code, out, err, _ = run_term(["-tcp", f"127.0.0.1:{peer.port}", "-plain", "-view", "both", "-timestamps",
                                      "-log", "off", "-hex", "01 02", "-expect-hex", "40 41"])
        peer.join()
        lines = self.traffic_with_time(out)
        self.assertEqual(0, code, out.decode("utf-8"))
        self.assertIn("TX <SOH><STX>", lines)
        self.assertIn("TX 01 02", " ".join(lines))
        self.assertIn("RX 0123456789:;<=>?@A", lines)
        # The data log file's own dump: a cell and its blank per byte, then four blanks.
        self.assertIn("RX 30 31 32 33 34 35 36 37 38 39 3A 3B 3C 3D 3E 3F     0123456789:;<=>?", lines)
        self.assertIn("RX 40 41", " ".join(lines))
        self.assertIn("none (logging is off)", out.decode("utf-8"))

    def traffic_with_time(self, out):
        lines = []
        for line in self.plain_lines(out):
            stamped = re.match(r"^\d\d:\d\d:\d\d\.\d\d\d ((TX|RX) .*)$", line)
            if stamped:
                lines.append(re.sub(r"\s+$", "", stamped.group(1)))
        return lines

    # -------------------------------------------------------------------------- lost peers

    def test_peer_that_vanishes_mid_session(self):
        # A peer in a process of its own that ends right after its first answer.
        port = free_port()
        script = ("import socket,os,sys\n"
                  "s=socket.socket();s.setsockopt(socket.SOL_SOCKET,socket.SO_REUSEADDR,1)\n"
                  f"s.bind(('127.0.0.1',{port}));s.listen(1);s.settimeout(60)\n"
                  "print('ready',flush=True)\n"
                  "c,_=s.accept();c.settimeout(60);d=c.recv(100);c.sendall(d.upper());os._exit(0)\n")
        peer = subprocess.Popen([sys.executable, "-c", script], stdout=subprocess.PIPE)
        try:
            self.assertEqual(b"ready\n", peer.stdout.readline())
            code, out, err, seconds = run_term(["-tcp", f"127.0.0.1:{port}", "-plain", "-logdir", windows_path(self.logs),
                                                "-reconnect", "2", "-send", "hello\\r\\n", "-expect", "HELLO\\r\\n",
                                                "-wait", "20000"])
        finally:
            peer.kill()
            peer.wait(10)
        text = out.decode("utf-8")
        self.assertEqual(2, code, text)
        self.assertLess(seconds, 19, "the lost peer was noticed only when the wait ended")
        self.assertIn("-- Expectation met: -expect HELLO\\r\\n", text)
        self.assertIn("!! The peer has gone (it closed the connection or ended); -reconnect keeps trying.", text)
        self.assertIn("-- Attempt 1: connecting to", text)
        self.assertIn("Error code:  10061", text)  # the second attempt is refused: nobody listens any more
        self.assertIn("!! Giving up after 2 attempts", text)
        # The first connection's log holds the exchange; each attempt got its own file.
        logs = self.log_files()
        self.assertEqual(3, len(logs), logs)
        records = parse_log(logs[0])
        self.assertEqual([b"hello\r\n"], data_records(records, "WRITE"))
        # The read that ended with the connection is recorded with its 0 bytes.
        self.assertEqual([b"HELLO\r\n", b""], data_records(records, "READ"))

    def test_connection_refused_without_reconnect(self):
        port = free_port()
        code, out, err, seconds = run_term(["-tcp", f"127.0.0.1:{port}", "-plain", "-log", "off", "-send", "x"])
        text = out.decode("utf-8")
        self.assertEqual(2, code, text)
        self.assertLess(seconds, 30)
        self.assertIn("< C++ EXCEPTION LOG >", text)
        self.assertIn("Function:    WSAConnect", text)
        self.assertIn(f"!! Nothing accepts connections at 127.0.0.1:{port}", text)

    def test_unreachable_host_inside_a_network_namespace(self):
        # Under Wine the wineserver makes the sockets, so the whole Wine session runs in a network
        # namespace of its own with loopback down: a private prefix that shares drive C.
        if not shutil.which("unshare") or not os.environ.get("WINEPREFIX"):
            self.skipTest("unshare or the Wine prefix is missing")
        shared = os.environ["WINEPREFIX"]
        prefix = tempfile.mkdtemp(prefix="tavrin-term-netns-")
        try:
            for path in glob.glob(os.path.join(shared, "*.reg")) + glob.glob(os.path.join(shared, ".update-timestamp")):
                shutil.copy(path, prefix)
            shutil.copytree(os.path.join(shared, "dosdevices"), os.path.join(prefix, "dosdevices"), symlinks=True)
            os.symlink(os.path.join(shared, "drive_c"), os.path.join(prefix, "drive_c"))
            namespace = ["unshare", "-n"] if os.getuid() == 0 else ["unshare", "-rn"]
            script = ('export WINEPREFIX="$1"; cd "$2"; timeout -k 5 120 wine64 ./tavrin-term.exe -tcp 10.1.2.3:5000 '
                      '-plain -log off -send x; rc=$?; wineserver -k; exit $rc')
            started = time.monotonic()
            proc = subprocess.run(namespace + ["sh", "-c", script, "sh", prefix, BIN], stdin=subprocess.DEVNULL,
                                  capture_output=True, timeout=300)
        finally:
            shutil.rmtree(prefix, ignore_errors=True)
        text = proc.stdout.decode("utf-8", "replace")
        if proc.returncode != 2 and "unshare" in proc.stderr.decode("utf-8", "replace"):
            self.skipTest("no network namespace here: " + proc.stderr.decode("utf-8", "replace"))
        self.assertEqual(2, proc.returncode, text + proc.stderr.decode("utf-8", "replace"))
        self.assertIn("Function:    WSAConnect", text)
        self.assertIn("!! 10.1.2.3:5000 cannot be reached from this machine; check the address and the network.", text)
        self.assertLess(time.monotonic() - started, 240)

    # -------------------------------------------------------------------------- TCP server

    def test_listen_for_a_client(self):
        port = free_port()
        received = []

        def client():
            deadline = time.monotonic() + RUN_LIMIT
            while time.monotonic() < deadline:
                try:
                    with socket.create_connection(("127.0.0.1", port), timeout=5) as c:
                        c.settimeout(RUN_LIMIT)
                        c.sendall(b"hello from the client\r\n")
                        data = b""
                        while not data.endswith(b"\r\n"):
                            chunk = c.recv(100)
                            if not chunk:
                                break
                            data += chunk
                        received.append(data)
                        return
                except OSError:
                    time.sleep(0.2)

        thread = threading.Thread(target=client, daemon=True)
        thread.start()
        code, out, err, _ = run_term(["-listen", f"127.0.0.1:{port}", "-plain", "-logdir", windows_path(self.logs),
                                      "-expect", "client\\r\\n", "-send", "welcome\\r\\n"])
        thread.join(RUN_LIMIT)
        text = out.decode("utf-8")
        self.assertEqual(0, code, text)
        self.assertEqual([b"welcome\r\n"], received)
        self.assertIn(f"-- Waiting for a client on 127.0.0.1:{port}", text)
        self.assertRegex(text, r"-- Client 127\.0\.0\.1:\d+ connected")
        logs = self.log_files()
        self.assertEqual(1, len(logs), logs)
        records = parse_log(logs[0])
        self.assertEqual([b"welcome\r\n"], data_records(records, "WRITE"))
        self.assertEqual(b"hello from the client\r\n", b"".join(data_records(records, "READ")))

    # -------------------------------------------------------------------------- serial port

    def test_serial_device_on_a_pseudo_terminal(self):
        peer_path = os.environ.get("TAVRIN_TEST_COM102")
        if not peer_path or not os.path.exists(peer_path):
            self.skipTest("no socat serial pair (the test services make COM102)")
        fd = os.open(peer_path, os.O_RDWR | os.O_NOCTTY)
        device_in = []
        stop = threading.Event()

        def device():
            import select
            buffer = b""
            while not stop.is_set():
                ready, _, _ = select.select([fd], [], [], 0.1)
                if not ready:
                    continue
                chunk = os.read(fd, 100)
                device_in.append(chunk)
                buffer += chunk
                if buffer.endswith(b"AT\r"):
                    os.write(fd, b"\r\nOK\r\n")
                    buffer = b""
                elif buffer.endswith(b"ATI\r"):
                    os.write(fd, b"\r\nTavrin test modem\r\nOK\r\n")
                    buffer = b""

        thread = threading.Thread(target=device, daemon=True)
        thread.start()
        try:
            code, out, err, _ = run_term(["-port", "COM102", "-baud", "9600", "-plain", "-logdir", windows_path(self.logs),
                                          "-send", "AT\\r", "-expect", "OK\\r\\n", "-send", "ATI\\r",
                                          "-expect", "modem\\r\\nOK\\r\\n"])
        finally:
            stop.set()
            thread.join(10)
            os.close(fd)
        text = out.decode("utf-8")
        self.assertEqual(0, code, text)
        self.assertIn("-- Connected to COM102 9600 8N1", text)
        self.assertEqual(b"AT\rATI\r", b"".join(device_in))
        logs = self.log_files()
        self.assertEqual(1, len(logs), logs)
        self.assertTrue(os.path.basename(logs[0]).startswith("COM102-"))
        records = parse_log(logs[0])
        self.assertEqual([b"AT\r", b"ATI\r"], data_records(records, "WRITE"))
        self.assertEqual(b"\r\nOK\r\n\r\nTavrin test modem\r\nOK\r\n", b"".join(data_records(records, "READ")))
        self.assertTrue(any(k == "TEXT" and t.startswith("SetCommState(LPDCB lpDCB) succeeded.") and "BaudRate          = 9600;" in t
                            for k, t in records), records)

    def test_serial_port_that_is_missing(self):
        code, out, err, seconds = run_term(["-port", "COM77", "-plain", "-log", "off", "-send", "x"])
        text = out.decode("utf-8")
        self.assertEqual(2, code, text)
        self.assertIn("Function:    CreateFileW", text)
        self.assertIn("!! There is no port COM77 here; tavrin-term -list shows the ports of this machine.", text)
        # A port in use by another program cannot be made here: Wine opens a serial device twice
        # although it is asked for without sharing.

    def test_list_of_serial_ports(self):
        ports = os.environ.get("TAVRIN_TEST_COM_PORTS", "").split()
        if not ports:
            self.skipTest("no socat serial pairs published by the test services")
        code, out, err, _ = run_term(["-list", "-plain"])
        text = out.decode("utf-8")
        self.assertEqual(0, code, text)
        listed = re.findall(r"^\| (COM\d+) +\| (\\\\\.\\COM\d+)", text, re.M)
        self.assertEqual([(port, "\\\\.\\" + port) for port in ports], [p for p in listed if p[0] in ports])

    # -------------------------------------------------------------------------- interactive

    def test_interactive_console_in_tmux(self):
        if not shutil.which("tmux"):
            self.skipTest("tmux is not installed")
        peer = TcpPeer(lambda buffer: (buffer.upper(), b"") if buffer.endswith(b"\r") else (b"", buffer))
        rc_file = os.path.join(self.work, "rc")
        socket_name = "tavrin-term-test-%d" % os.getpid()
        report = os.path.join(self.work, "interactive.md")
        # Ctrl+C reaches the whole foreground group: the shell around the program outlives it to
        # record the exit code.
        command = (f"trap true INT; cd '{BIN}' && '{WINE}' ./tavrin-term.exe -tcp 127.0.0.1:{peer.port} -logdir '{windows_path(self.logs)}'"
                   f" -report '{windows_path(report)}'"
                   f"; echo $? > '{rc_file}'; sleep 60")
        env_exports = " ".join(f"{k}='{v}'" for k, v in os.environ.items()
                               if k in ("WINEPREFIX", "WINEDEBUG", "WINEARCH", "WINEDLLOVERRIDES", "WINEDLLPATH", "PATH",
                                        "TAVRIN_WINE32_DIR", "DISPLAY", "HOME"))
        tmux = ["tmux", "-L", socket_name]
        subprocess.run(tmux + ["new-session", "-d", "-x", "160", "-y", "50", f"env {env_exports} sh -c \"{command}\""],
                       check=True, timeout=30)

        def screen():
            return subprocess.run(tmux + ["capture-pane", "-p", "-S", "-200"], capture_output=True, text=True,
                                  timeout=30).stdout

        def wait_screen(pattern, seconds=30):
            deadline = time.monotonic() + seconds
            while time.monotonic() < deadline:
                content = screen()
                if re.search(pattern, content):
                    return content
                time.sleep(0.2)
            self.fail(f"{pattern!r} did not appear:\n{screen()}")

        def keys(*k):
            subprocess.run(tmux + ["send-keys"] + list(k), check=True, timeout=30)

        try:
            wait_screen(r"Keys go to the device")
            keys("-l", "hello")
            keys("Enter")
            content = wait_screen(r"RX .*O<CR>")
            self.assertIn("TX ", content)
            rx = "".join(re.findall(r"RX (.*)", content))
            self.assertIn("HELLO<CR>", rx.replace(" ", ""))
            keys("C-t", "h")                   # hex view
            wait_screen(r"View: hex")
            keys("-l", "Z")
            keys("Enter")
            wait_screen(r"RX 5A 0D")
            upload = os.path.join(self.work, "upload.txt")
            with open(upload, "wb") as f:
                f.write(b"file\r")
            keys("C-t", "f")                   # send a file: its path is typed, Enter sends it
            wait_screen(r"File to send")
            keys("-l", windows_path(upload))
            keys("Enter")
            wait_screen(r"RX 46 49 4C 45 0D")
            keys("C-t", "s")                   # statistics
            wait_screen(r"bytes\s*.\s*13\s*.\s*13")
            keys("C-t", "?")                   # the list of commands
            wait_screen(r"q quit, \? this list")
            keys("C-c")                        # ends the session: log files complete, report written
            self.assertTrue(wait_for_file(rc_file, 30), screen())
            time.sleep(0.2)
            with open(rc_file) as f:
                self.assertEqual("0", f.read().strip(), screen())
        finally:
            subprocess.run(tmux + ["kill-server"], timeout=30)
        peer.join()
        self.assertEqual(b"hello\rZ\rfile\r", b"".join(peer.received))
        logs = self.log_files()
        self.assertEqual(1, len(logs), logs)
        records = parse_log(logs[0])
        self.assertEqual(b"hello\rZ\rfile\r", b"".join(data_records(records, "WRITE")))
        self.assertEqual(b"HELLO\rZ\rFILE\r", b"".join(data_records(records, "READ")))
        html = self.render(report)
        self.assertIn("<td align=\"center\">HELLO", html)
        self.assertIn("0: every expectation met", html)

    # -------------------------------------------------------------------------- command line, texts

    def test_bad_command_lines_end_with_code_3(self):
        for args, message in ((["-bogus"], "unknown option -bogus"),
                              (["-tcp", "127.0.0.1:1", "-expect-hex", "0A 1"], "is not hexadecimal bytes"),
                              (["-tcp", "127.0.0.1:1", "-port", "COM1"], "give one of -port, -tcp and -listen"),
                              (["-tcp", "127.0.0.1:1", "-send", "C:\\data"], "unknown escape \\d")):
            code, out, err, _ = run_term(args + ["-plain"])
            self.assertEqual(3, code, args)
            self.assertIn(message, out.decode("utf-8"), args)

    def test_help_and_readme_document_the_same_options(self):
        code, out, err, _ = run_term(["-help", "-plain"])
        self.assertEqual(0, code)
        help_options = set(re.findall(r"^\| (-[a-z-]+)", out.decode("utf-8"), re.M))
        with open(os.path.join(SOURCE, "README.md"), encoding="utf-8") as f:
            readme = f.read()
        readme_options = set(re.findall(r"^\| `(-[a-z-]+)", readme, re.M))
        self.assertGreater(len(help_options), 20)
        self.assertEqual(help_options, readme_options)

    def test_colours_follow_no_color(self):
        peer = TcpPeer(line_reply({b"A": b"B"}))
        code, out, err, _ = run_term(["-tcp", f"127.0.0.1:{peer.port}", "-log", "off", "-send", "A", "-expect", "B"],
                                     env={"NO_COLOR": "1"})
        peer.join()
        self.assertEqual(0, code)
        self.assertEqual(b"", out)  # the console's style stream stays empty
        self.assertNotIn("\x1b", err.decode("utf-16-le"))
        self.assertIn("RX B", console_text(err))
        peer = TcpPeer(line_reply({b"A": b"B"}))
        code, out, err, _ = run_term(["-tcp", f"127.0.0.1:{peer.port}", "-log", "off", "-send", "A", "-expect", "B"],
                                     env={"NO_COLOR": ""})
        peer.join()
        styles = out.decode("utf-16-le")
        self.assertIn("\x1b[96m", styles)  # sent
        self.assertIn("\x1b[92m", styles)  # received
        # Past the console's start, no white background is forced onto the terminal.
        self.assertLessEqual(styles.count("\x1b[107m"), 1)

    def test_german_texts(self):
        code, out, err, _ = run_term(["-lang", "de", "-help", "-plain"])
        text = out.decode("utf-8")
        self.assertEqual(0, code)
        self.assertIn("| Option", text)
        self.assertIn("Bedeutung", text)
        self.assertIn("Baudrate der seriellen Schnittstelle", text)
        code, out, err, _ = run_term(["-lang", "Z:\\no\\such.lng", "-bogus", "-plain"])
        self.assertEqual(3, code)
        self.assertIn("cannot be read; the texts stay in English", out.decode("utf-8"))

    def test_language_file_translates_every_text(self):
        texts = []
        for path in sorted(glob.glob(os.path.join(SOURCE, "apps", "tavrin-term", "*.cpp"))):
            with open(path, encoding="utf-8") as f:
                for m in re.finditer(r'\b(?:Tr|TrF|TERM_TEXT)\(\s*L"((?:[^"\\]|\\.)*)"', f.read()):
                    texts.append(m.group(1).encode("utf-8").decode("unicode_escape").encode("latin-1").decode("utf-8"))
        self.assertGreater(len(texts), 100)
        pairs = {}
        with open(os.path.join(SOURCE, "apps", "tavrin-term", "lang", "tavrin-term.de.txt"), encoding="utf-8") as f:
            lines = [line.rstrip("\n") for line in f if line.strip() and not line.startswith("#")]
        for source, translation in zip(lines[0::2], lines[1::2]):
            pairs[source[1:-1]] = translation[1:-1]
        conversion = re.compile(r"%[-+ #0]*\d*(?:\.\d+)?(?:ls|lc|I64u|I64d|[udxXsc])")
        for text in texts:
            self.assertIn(text, pairs, "no German text")
            self.assertTrue(pairs[text], text)
            self.assertEqual(conversion.findall(text), conversion.findall(pairs[text]), text)
        # The built file is what the program loads: UTF-16LE with byte-order mark.
        with open(os.path.join(BIN, "tavrin-term.de.lng"), "rb") as f:
            self.assertEqual(b"\xff\xfe", f.read(2))


class GTestStyleResult(unittest.TextTestResult):
    def __init__(self, *args, **kwargs):
        super().__init__(*args, **kwargs)
        self.cases = []
        self.started = 0

    def startTest(self, test):
        self.started = time.monotonic()
        print(f"[ RUN      ] {test.id()}", flush=True)
        super().startTest(test)

    def _done(self, test, outcome, detail=""):
        seconds = time.monotonic() - self.started
        self.cases.append((test, outcome, detail, seconds))
        label = {"ok": "[       OK ]", "skipped": "[  SKIPPED ]"}.get(outcome, "[  FAILED  ]")
        if detail:
            print(detail, flush=True)
        print(f"{label} {test.id()} ({int(seconds * 1000)} ms)", flush=True)

    def addSuccess(self, test):
        super().addSuccess(test)
        self._done(test, "ok")

    def addFailure(self, test, err):
        super().addFailure(test, err)
        self._done(test, "failure", self._exc_info_to_string(err, test))

    def addError(self, test, err):
        super().addError(test, err)
        self._done(test, "failure", self._exc_info_to_string(err, test))

    def addSkip(self, test, reason):
        super().addSkip(test, reason)
        self._done(test, "skipped", reason)


def write_xml(path, cases):
    suites = ET.Element("testsuites")
    suite = ET.SubElement(suites, "testsuite", name="term", tests=str(len(cases)),
                          failures=str(sum(1 for c in cases if c[1] == "failure")))
    for test, outcome, detail, seconds in cases:
        case = ET.SubElement(suite, "testcase", name=test.id().split(".")[-1], classname="Term",
                             time=f"{seconds:.3f}")
        if outcome == "failure":
            ET.SubElement(case, "failure", message=detail.splitlines()[-1] if detail else "").text = detail
        elif outcome == "skipped":
            ET.SubElement(case, "skipped", message=detail)
    os.makedirs(os.path.dirname(os.path.abspath(path)), exist_ok=True)
    ET.ElementTree(suites).write(path, encoding="utf-8", xml_declaration=True)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--xml")
    parser.add_argument("-k", dest="pattern", help="run the tests whose name holds this text")
    args = parser.parse_args()
    if not os.path.isfile(EXE):
        print(f"[  FAILED  ] tavrin-term.exe not found (TAVRIN_TEST_BIN={BIN!r})")
        return 1
    loader = unittest.TestLoader()
    if args.pattern:
        loader.testNamePatterns = [f"*{args.pattern}*"]
    suite = loader.loadTestsFromTestCase(Term)
    runner = unittest.TextTestRunner(resultclass=GTestStyleResult, verbosity=0, stream=open(os.devnull, "w"))
    result = runner.run(suite)
    if args.xml:
        write_xml(args.xml, result.cases)
    failed = [c for c in result.cases if c[1] == "failure"]
    passed = sum(1 for c in result.cases if c[1] == "ok")
    print(f"[  PASSED  ] {passed} tests.")
    if failed:
        print(f"[  FAILED  ] {len(failed)} tests, listed below:")
        for test, *_ in failed:
            print(f"[  FAILED  ] {test.id()}")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
