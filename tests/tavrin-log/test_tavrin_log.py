#!/usr/bin/env python3
"""tavrin-log under Wine, on data log files written through the library by tavrin_log_fixture.exe,
with Wireshark's tshark as the judge of the captures it exports, and its replay of a session that
tavrin_log_replay_client.exe recorded against a scripted device on 127.0.0.1.

Run by ctest in each build width:
  test_tavrin_log.py --wine <wine64> --bin <build/bin> --tshark <tshark> --report <xml>
Writes a JUnit-style report that the test summary counts next to GoogleTest's.
"""
import argparse
import contextlib
import csv
import io
import json
import os
import queue
import re
import select
import shutil
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest
import xml.etree.ElementTree as ET
from datetime import datetime, timedelta

ARGS = None
TIMEOUT = 120  # seconds for any one program run

CONTROL_NAMES = ["NUL", "SOH", "STX", "ETX", "EOT", "ENQ", "ACK", "BEL", "BS", "HT", "LF", "VT", "FF", "CR",
                 "SO", "SI", "DLE", "DC1", "DC2", "DC3", "DC4", "NAK", "SYN", "ETB", "CAN", "EM", "SUB", "ESC",
                 "FS", "GS", "RS", "US"]


def windows_path(path):
    """The Wine drive Z: name of a Linux path."""
    return "Z:" + os.path.abspath(path).replace("/", "\\")


def linux_path(path):
    assert path.upper().startswith("Z:"), path
    return path[2:].replace("\\", "/")


def name_bytes(data):
    """Bytes as tavrin-log shows them: printable ASCII as itself, everything else named."""
    out = []
    for b in data:
        if 0x20 <= b < 0x7F:
            out.append(chr(b))
        elif b < 0x20:
            out.append("<%s>" % CONTROL_NAMES[b])
        elif b == 0x7F:
            out.append("<DEL>")
        else:
            out.append("<%02X>" % b)
    return "".join(out)


def name_text(text):
    return "".join("<%s>" % CONTROL_NAMES[ord(c)] if ord(c) < 0x20 else ("<DEL>" if c == "\x7f" else c) for c in text)


def run(command, expect=0, env=None):
    result = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=TIMEOUT, env=env)
    out = result.stdout.decode("utf-8", "replace")
    err = result.stderr.decode("utf-8", "replace")
    if expect is not None and result.returncode != expect:
        raise AssertionError("%s exited with %d, not %d\nstdout: %s\nstderr: %s"
                             % (" ".join(command), result.returncode, expect, out[-2000:], err[-2000:]))
    return result.returncode, out, err


def tool(*args, expect=0, env=None):
    return run([ARGS.wine, os.path.join(ARGS.bin, "tavrin-log.exe")] + list(args), expect, env)


def tshark(*args, expect=0):
    rc, out, err = run([ARGS.tshark, "-n"] + list(args), expect)
    # tshark warns about running as root; that is this machine's business, not the file's.
    err = "\n".join(line for line in err.splitlines() if "Running as user" not in line).strip()
    return rc, out, err


def follow_raw(out):
    """The bytes each way of tshark's "-z follow,...,raw": the first node's lines, then the
    second node's (indented by a tab)."""
    first, second = b"", b""
    for line in out.splitlines():
        if re.fullmatch(r"\t?[0-9a-f]+", line):
            if line.startswith("\t"):
                second += bytes.fromhex(line[1:])
            else:
                first += bytes.fromhex(line)
    return first, second


CHECKS = ["-o", "tcp.check_checksum:TRUE", "-o", "ip.check_checksum:TRUE", "-o", "udp.check_checksum:TRUE"]


def user_dlt(protocol, dlt=147):
    return ["-o", 'uat:user_dlts:"User %d (DLT=%d)","%s","0","","0",""' % (dlt - 147, dlt, protocol)]


class TavrinLog(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.mkdtemp(prefix="tavrin-log-test-")
        _, out, _ = run([ARGS.wine, os.path.join(ARGS.bin, "tavrin_log_fixture.exe"), windows_path(cls.folder)])
        cls.files = {f["channel"]: f for f in json.loads(out)}
        for f in cls.files.values():
            f["bytes"] = [bytes.fromhex(r["data"]) for r in f["records"]]

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.folder, ignore_errors=True)

    def path(self, channel):
        return self.files[channel]["path"]

    def out(self, name):
        return os.path.join(self.folder, name)

    def csv_rows(self, *files, extra=()):
        target = self.out("rows-%d.csv" % time.monotonic_ns())
        tool("export", "-csv", windows_path(target), *extra, *files)
        with open(target, encoding="utf-8-sig", newline="") as f:
            return list(csv.DictReader(f))

    def sent_and_received(self, channel):
        records = self.files[channel]["records"]
        sent = b"".join(bytes.fromhex(r["data"]) for r in records if r["kind"] == "write")
        received = b"".join(bytes.fromhex(r["data"]) for r in records if r["kind"] == "read")
        return sent, received

    # ------------------------------------------------------------ cat, merge, stats

    def test_cat_shows_every_record_as_logged(self):
        _, out, _ = tool("cat", "-plain", self.path("COM7"))
        lines = out.split("\r\n")[:-1]
        records = self.files["COM7"]["records"]
        self.assertEqual(len(records), len(lines))
        for record, line in zip(records, lines):
            match = re.match(r"^(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3})  COM7  (\S\S) (.*)$", line)
            self.assertIsNotNone(match, line)
            marker, body = match.group(2), match.group(3)
            if record["kind"] == "text":
                self.assertEqual("**", marker)
                self.assertEqual(name_text(record["text"]), body)
                continue
            expected_marker = {"write": "->" if record["sync"] else "~>", "read": "<-" if record["sync"] else "<~"}[
                record["kind"]]
            self.assertEqual(expected_marker, marker)
            data = bytes.fromhex(record["data"])
            expected = "%d %s" % (len(data), name_bytes(data))
            formatted = record["text"].rstrip("\r\n")
            if formatted:
                expected += "  | " + name_text(formatted)
            self.assertEqual(expected, body)
        self.assertIn("** two<CR><LF>lines, Gr\u00fc\u00dfe \u20ac", out)

        # Hexadecimal instead of text.
        _, out, _ = tool("cat", "-hex", "-dir", "sent", "-text", "AT+", self.path("COM7"))
        self.assertRegex(out, r"~> 7 41 54 2B 43 53 51 0D  \| frame of 7 bytes\r\n$")

    def test_cat_filters_by_kind_text_bytes_and_time(self):
        com7 = self.path("COM7")
        records = self.files["COM7"]["records"]
        count = lambda *args: len(tool("cat", *args, com7)[1].split("\r\n")) - 1
        self.assertEqual(sum(r["kind"] == "write" for r in records), count("-dir", "sent"))
        self.assertEqual(sum(r["kind"] != "text" for r in records), count("-dir", "sent,received"))
        self.assertEqual(sum(r["kind"] == "text" for r in records), count("-dir", "text"))
        self.assertEqual(0, count("-dir", "damaged"))
        self.assertEqual(2, count("-text", "CSQ"))
        self.assertEqual(0, count("-text", "csq"))
        self.assertEqual(2, count("-text", "csq", "-nocase"))
        self.assertEqual(1, count("-text", "gr\u00fc\u00dfe", "-nocase"))
        self.assertEqual(1, count("-bytes", "2B 43 53 51 3A"))
        self.assertEqual(2, count("-bytes", "?? 43 53 51"))
        # Every byte value is there once, in the 256-byte record.
        self.assertEqual(1, count("-bytes", "FE FF", "-dir", "received"))

        # Times: the records' own, from the CSV export.
        rows = self.csv_rows(com7)
        times = sorted({r["local time"] for r in rows})
        self.assertEqual(len(records), count("-from", times[0], "-to", times[-1]))
        self.assertEqual(0, count("-from", "2000-01-01", "-to", "2000-01-01 23:59"))
        day = times[0][:10]
        self.assertEqual(len(records), count("-from", day, "-to", day))

    def test_merge_puts_all_channels_on_one_time_line(self):
        files = [self.path(c) for c in ("COM7", "COM8", "127.0.0.1@5000", "[__1]@50001")]
        _, out, _ = tool("merge", "-plain", *reversed(files))
        lines = out.split("\r\n")[:-1]
        self.assertEqual(sum(len(f["records"]) for f in self.files.values()), len(lines))
        stamps = [line[:23] for line in lines]
        self.assertEqual(sorted(stamps), stamps)
        # Each channel's lines are its own cat, in order.
        for channel in self.files:
            _, own, _ = tool("cat", "-plain", self.path(channel))
            width = max(len(c) for c in self.files)
            mine = [line for line in lines if line[25:25 + width].rstrip() == channel]
            self.assertEqual([line[25 + width:] for line in mine],
                             [line[25 + len(channel):] for line in own.split("\r\n")[:-1]])

    def test_stats_count_records_bytes_and_errors(self):
        _, out, _ = tool("stats", "-plain", *[self.path(c) for c in self.files])
        for channel, f in self.files.items():
            block = out[out.index(f["path"]):]
            kinds = [r["kind"] for r in f["records"]]
            sent, received = self.sent_and_received(channel)
            self.assertIn("records    %d: %d sent, %d received, %d text events" % (
                len(kinds), kinds.count("write"), kinds.count("read"), kinds.count("text")), block)
            self.assertIn("bytes      %d sent, %d received" % (len(sent), len(received)), block)
            self.assertIn("channel    %s (file created " % channel, block)
        self.assertIn("all 4 files", out)
        self.assertIn("errors     none", out)

    # ------------------------------------------------------------ CSV and raw

    def test_csv_holds_every_record(self):
        rows = self.csv_rows(self.path("COM7"))
        records = self.files["COM7"]["records"]
        self.assertEqual(len(records), len(rows))
        for record, row in zip(records, rows):
            self.assertEqual(record["kind"], row["kind"])
            self.assertEqual("COM7", row["channel"])
            self.assertEqual(record["text"], row["text"])
            data = bytes.fromhex(record["data"])
            self.assertEqual(" ".join("%02X" % b for b in data), row["data"])
            if record["kind"] != "text":
                self.assertEqual(str(len(data)), row["bytes"])
                self.assertEqual("sync" if record["sync"] else "async", row["completed"])
            self.assertRegex(row["UTC"], r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z$")

    def test_raw_splits_the_bytes_by_direction(self):
        base = self.out("raw")
        tool("export", "-raw", windows_path(base), self.path("127.0.0.1@5000"))
        sent, received = self.sent_and_received("127.0.0.1@5000")
        with open(base + "-sent.bin", "rb") as f:
            self.assertEqual(sent, f.read())
        with open(base + "-received.bin", "rb") as f:
            self.assertEqual(received, f.read())

    # ------------------------------------------------------------ Wireshark

    def export(self, name, *args):
        target = self.out(name)
        _, _, err = tool("export", "-pcapng", windows_path(target), *args)
        self.assertEqual("", err)
        self.assertFalse([n for n in os.listdir(self.folder) if n.endswith(".partial")])
        return target

    def test_capture_opens_cleanly_and_holds_the_log(self):
        capture = self.export("all.pcapng", *[self.path(c) for c in self.files])
        rc, out, err = tshark("-r", capture, *user_dlt("data"), *CHECKS)
        self.assertEqual("", err)
        # No malformed packet, bad checksum, error, or TCP analysis remark (retransmission, lost
        # segment, window full, ...) anywhere.
        _, bad, _ = tshark("-r", capture, *user_dlt("data"), *CHECKS, "-Y",
                           "_ws.malformed || _ws.expert.severity == 8388608 || tcp.analysis.flags || "
                           "ip.checksum.status == 0 || tcp.checksum.status == 0 || udp.checksum.status == 0")
        self.assertEqual("", bad.strip())
        _, expert, _ = tshark("-r", capture, *user_dlt("data"), *CHECKS, "-q", "-z", "expert")
        self.assertNotIn("Malformed", expert)
        self.assertNotIn("checksum", expert.lower())
        # Every TCP frame's checksum was verified good, and every IPv4 header's.
        _, sums, _ = tshark("-r", capture, *CHECKS, "-Y", "tcp", "-T", "fields", "-e", "tcp.checksum.status")
        self.assertEqual({"1"}, set(sums.split()))

        # The serial channel: one packet per data record, in order, with its direction and its
        # bytes; text events as packets without bytes or direction, carrying the text.
        _, out, _ = tshark("-r", capture, *user_dlt("data"), "-Y", 'frame.interface_name == "COM7"', "-T", "json",
                           "-e", "frame.packet_flags_direction", "-e", "data.data", "-e", "frame.comment",
                           "-e", "frame.len")
        packets = [p["_source"]["layers"] for p in json.loads(out)]
        records = self.files["COM7"]["records"]
        self.assertEqual(len(records), len(packets))
        for record, packet in zip(records, packets):
            if record["kind"] == "text":
                self.assertEqual([record["text"]], packet.get("frame.comment"))
                self.assertEqual(["0"], packet["frame.len"])
                self.assertNotIn("frame.packet_flags_direction", packet)
                continue
            direction = int(packet["frame.packet_flags_direction"][0], 16)
            self.assertEqual(2 if record["kind"] == "write" else 1, direction)
            self.assertEqual(record["data"], packet.get("data.data", [""])[0].replace(":", ""))

    def test_tcp_stream_follow_gives_exactly_the_logged_bytes(self):
        capture = self.export("tcp.pcapng", self.path("127.0.0.1@5000"), self.path("[__1]@50001"))
        for stream, channel, client_is_local in ((0, "127.0.0.1@5000", True), (1, "[__1]@50001", False)):
            _, out, _ = tshark("-r", capture, "-q", "-z", "follow,tcp,raw,%d" % stream)
            client, server = follow_raw(out)
            sent, received = self.sent_and_received(channel)
            self.assertEqual((sent, received) if client_is_local else (received, sent), (client, server), channel)
        # The addresses come from the file names and the channels' own events.
        _, out, _ = tshark("-r", capture, "-q", "-z", "conv,tcp")
        self.assertIn("127.0.0.1:50123", out)
        self.assertIn("127.0.0.1:5000", out)
        self.assertIn("::1:50001", out)
        self.assertIn("::1:47000", out)
        # The handshake goes from the side that connected: the client here, the peer for the
        # accepted connection.
        _, out, _ = tshark("-r", capture, "-Y", "tcp.flags.syn == 1 && tcp.flags.ack == 0", "-T", "fields",
                           "-e", "tcp.srcport", "-e", "tcp.dstport")
        self.assertEqual(["50123\t5000", "50001\t47000"], out.strip().split("\n"))
        # A dissector works on the stream: the HTTP exchange is recognised.
        _, out, _ = tshark("-r", capture, "-Y", "http", "-T", "fields", "-e", "http.request.method",
                           "-e", "http.request.uri", "-e", "http.response.code")
        self.assertEqual(["GET\t/index.html\t", "\t\t200"], out.strip().split("\n"))
        # The events are the connection's comments, on the packets that follow them.
        _, out, _ = tshark("-r", capture, "-T", "json", "-e", "frame.comment", "-Y", "frame.comment")
        comments = [c for p in json.loads(out) for c in p["_source"]["layers"]["frame.comment"]]
        texts = [r["text"] for f in ("127.0.0.1@5000", "[__1]@50001") for r in self.files[f]["records"]
                 if r["kind"] == "text"]
        self.assertEqual(len(texts) + 1, len(comments))  # and the read of 0 bytes
        for text in texts:
            self.assertTrue(any(c.endswith(" " + text) for c in comments), text)

    def test_socket_addresses_come_from_file_names_events_and_options(self):
        with open(linux_path(self.path("COM8")), "rb") as f:
            content = f.read()
        names = {}
        for channel in ("[fe80__1%3]@4712", "127.1.2.3:4711"):
            names[channel] = self.out("%s-2024.03.07-09.05.01.123.log" % channel)
            with open(names[channel], "wb") as f:
                f.write(content)
        cases = (
            # The file name names the peer; this side is made up on the loopback address.
            ([names["[fe80__1%3]@4712"]], [], "fe80::1:4712", "::1:49152"),
            ([names["127.1.2.3:4711"]], [], "127.1.2.3:4711", "127.0.0.1:49152"),
            # Options fill in what neither the name nor the events say.
            ([names["127.1.2.3:4711"]], ["-local", "127.0.0.1:40000", "-remote", "127.0.0.8:1"], "127.1.2.3:4711",
             "127.0.0.1:40000"),
            ([linux_path(self.path("COM8"))], ["-link", "tcp", "-remote", "[::1]:7000", "-local", "[::1]:7001"],
             "::1:7000", "::1:7001"),
        )
        for files, options, remote, local in cases:
            capture = self.export("names.pcapng", *options, *[windows_path(f) for f in files])
            _, out, _ = tshark("-r", capture, "-q", "-z", "conv,tcp")
            self.assertRegex(out, re.escape(local) + r"\s+<-> " + re.escape(remote) + r"\s", (files, options))
            client, server = follow_raw(tshark("-r", capture, "-q", "-z", "follow,tcp,raw,0")[1])
            self.assertEqual(self.sent_and_received("COM8"), (client, server))

    def test_udp_datagrams_carry_the_records(self):
        capture = self.export("udp.pcapng", "-link", "udp", self.path("127.0.0.1@5000"))
        _, bad, err = tshark("-r", capture, *CHECKS, "-Y", "_ws.malformed || udp.checksum.status == 0 || "
                                                            "ip.checksum.status == 0")
        self.assertEqual(("", ""), (bad.strip(), err))
        _, out, _ = tshark("-r", capture, *CHECKS, "-Y", "udp", "-T", "fields", "-e", "udp.srcport",
                           "-e", "udp.length", "-e", "udp.checksum.status")
        rows = [line.split("\t") for line in out.split("\n") if line]
        self.assertEqual({"1"}, {r[2] for r in rows})
        _, out, _ = tshark("-r", capture, "-q", "-z", "follow,udp,raw,0")
        self.assertEqual(self.sent_and_received("127.0.0.1@5000"), follow_raw(out))

    def test_a_serial_channel_decodes_with_its_user_link_type_mapped(self):
        for dlt in ("147", "150"):
            capture = self.export("json-%s.pcapng" % dlt, "-dlt", dlt, self.path("COM8"))
            _, out, err = tshark("-r", capture, *user_dlt("json", int(dlt)), "-Y", "json", "-T", "fields",
                                 "-e", "frame.packet_flags_direction", "-e", "json.value.string",
                                 "-e", "json.member_with_value")
            self.assertEqual("", err)
            lines = out.strip().split("\n")
            self.assertEqual(3, len(lines), out)
            self.assertEqual(["0x00000002", "0x00000001", "0x00000002"], [l.split("\t")[0] for l in lines])
            self.assertIn("celsius", lines[1])
            self.assertIn("stop", lines[2])
            # Not mapped, the same capture has nothing to say about JSON.
            _, out, _ = tshark("-r", capture, "-Y", "json")
            self.assertEqual("", out.strip())

    def test_time_stamps_are_utc(self):
        com8 = self.path("COM8")
        local = [datetime.strptime(r["local time"], "%Y-%m-%d %H:%M:%S.%f") for r in self.csv_rows(com8)]
        for offset, delta in (("+02:00", timedelta(hours=2)), ("-05:30", timedelta(hours=-5, minutes=-30)),
                              ("Z", timedelta(0))):
            capture = self.export("tz.pcapng", "-tz", offset, com8)
            _, out, _ = tshark("-r", capture, "-T", "fields", "-e", "frame.time_epoch")
            epochs = [float(x) for x in out.split()]
            expected = [(t - delta - datetime(1970, 1, 1)).total_seconds() for t in local]
            self.assertEqual(len(expected), len(epochs))
            for e, a in zip(expected, epochs):
                self.assertAlmostEqual(e, a, delta=0.0011)
        # Without -tz, the zone of the machine that reads the log, with the daylight-saving rule
        # of each record's own day: the same log moved to a summer and a winter day.
        with open(linux_path(com8), "rb") as f:
            content = f.read()
        berlin = dict(os.environ, TZ="Europe/Berlin")
        for day, offset in (("2024/7/15", 2), ("2024/1/15", 1)):
            moved = self.out("COM8-%s-10.00.00.000.log" % day.replace("/", "."))
            with open(moved, "wb") as f:
                f.write(re.sub(rb"\d{4}/\d{1,2}/\d{1,2}, (\d\d:)", day.encode() + rb", \1", content))
            target = self.out("zone.pcapng")
            tool("export", "-pcapng", windows_path(target), windows_path(moved), env=berlin)
            _, out, _ = tshark("-r", target, "-T", "fields", "-e", "frame.time_epoch")
            first = datetime.strptime(day + " " + local[0].strftime("%H:%M:%S.%f"), "%Y/%m/%d %H:%M:%S.%f")
            expected = (first - timedelta(hours=offset) - datetime(1970, 1, 1)).total_seconds()
            self.assertAlmostEqual(expected, float(out.split()[0]), delta=0.0011)

    # ------------------------------------------------------------ damage and errors

    def test_damaged_and_appended_files_are_read_on(self):
        source = linux_path(self.path("COM7"))
        with open(source, "rb") as f:
            content = f.read()
        cut = content.index(b"SYNC WRITE request completed: 4096") + 300
        damaged = self.out("COM7-2024.03.07-09.05.01.123.log")
        with open(damaged, "wb") as f:
            f.write(content[:cut] + b"Error=112, BytesToWrite=13000\r\n" +
                    b"Dropped 3 records, 2024/3/7, 09:05:01.500\r\n\r\n" + content)
        _, out, _ = tool("cat", "-plain", "-dir", "damaged", windows_path(damaged))
        lines = out.split("\r\n")[:-1]
        self.assertEqual(3, len(lines), out)
        self.assertIn("record cut off (write record)", lines[0])
        self.assertIn("Error=112, BytesToWrite=13000", lines[1])
        self.assertIn("unknown record: Dropped 3 records", lines[2])
        self.assertTrue(lines[2].startswith("2024-03-07 09:05:01.500"))
        # Everything of both sessions that was whole is there.
        _, out, _ = tool("cat", "-plain", "-dir", "data,text", windows_path(damaged))
        records = self.files["COM7"]["records"]
        before = next(i for i, r in enumerate(records) if r["kind"] == "write" and len(r["data"]) == 2 * 4096)
        self.assertEqual(before + len(records), len(out.split("\r\n")) - 1)
        _, out, _ = tool("stats", "-plain", windows_path(damaged))
        self.assertRegex(out, r"errors     1 write errors \(line \d+\), 2 damaged records \(line \d+, \d+\)")
        # The capture leaves them out, says so, and still opens cleanly.
        target = self.out("damaged.pcapng")
        _, _, err = tool("export", "-pcapng", windows_path(target), windows_path(damaged))
        self.assertEqual(3, err.count("; left out\r\n"), err)
        self.assertIn("3 damaged records or write errors were left out", err)
        _, out, err = tshark("-r", target, *user_dlt("data"))
        self.assertEqual("", err)
        _, out, _ = tshark("-r", target, "-T", "json", "-e", "frame.comment", "-Y", 'frame.comment contains "damaged"')
        self.assertEqual(2, len(json.loads(out)))

    def test_errors_say_what_failed_and_leave_nothing_half_written(self):
        com8 = self.path("COM8")
        missing = windows_path(self.out("none-2024.03.07-09.05.01.123.log"))
        rc, _, err = tool("cat", missing, expect=1)
        self.assertIn("cannot read", err)
        self.assertIn("CreateFileW", err)

        text = self.out("notes.txt")
        with open(text, "w") as f:
            f.write("just some notes\r\n")
        rc, _, err = tool("stats", windows_path(text), expect=1)
        self.assertIn("is not a data log file", err)

        rc, _, err = tool("cat", windows_path(self.out("nothing-*.log")), expect=1)
        self.assertIn("no file matches", err)

        # An output that cannot be written: an error, and no file.
        nowhere = self.out("no-such-folder/out.pcapng")
        rc, _, err = tool("export", "-pcapng", windows_path(nowhere), com8, expect=1)
        self.assertIn("cannot write", err)
        self.assertFalse(os.path.exists(os.path.dirname(nowhere)))

        # A failing export leaves an earlier file of that name as it was.
        earlier = self.out("earlier.csv")
        with open(earlier, "w") as f:
            f.write("earlier content")
        rc, _, err = tool("export", "-csv", windows_path(earlier), com8, missing, expect=1)
        with open(earlier) as f:
            self.assertEqual("earlier content", f.read())
        self.assertFalse([n for n in os.listdir(self.folder) if n.endswith(".partial")])

        # The command line.
        for args, message in ((["cat", "-colour", com8], "unknown option"),
                              (["cat", "-from"], "needs a value"),
                              (["frobnicate", com8], "unknown command"),
                              (["export", com8], "give one of"),
                              (["export", "-csv", "x.csv", "-raw", "x", com8], "give one of"),
                              (["stats", "-hex", com8], "does not apply to stats"),
                              (["cat", "-dir", "sideways", com8], "names no kinds"),
                              (["cat", "-from", "yesterday", com8], "is no time"),
                              (["cat", "-bytes", "4G", com8], "no byte pattern"),
                              (["export", "-pcapng", "x.pcapng", "-dlt", "200", com8], "takes a number from 147 to 162"),
                              (["export", "-pcapng", "x.pcapng", "-tz", "2", com8], "is no offset"),
                              (["export", "-pcapng", "x.pcapng", "-remote", "COM3", com8], "is no address"),
                              (["cat"], "no data log file given")):
            rc, _, err = tool(*args, expect=2)
            self.assertIn(message, err, args)
        for ask in ("-help", "/?", "-?"):
            rc, out, _ = tool(ask)
            for command in ("cat", "merge", "stats", "export", "replay"):
                self.assertIn("\n  " + command + " ", out)
        rc, out, _ = tool(expect=2)
        self.assertIn("Usage:", out)


# ---------------------------------------------------------------- replay

WAIT = 30  # seconds: the longest that any one side of a replay test waits for the other

# The session that the replay tests record: the device's answers ("expect", what the application
# waits for), the application's requests ("send"), a pause of the device before an answer
# ("delay", milliseconds) and the device closing the connection ("eof").
LONG_ANSWER = bytes((i * 131 + 7) & 0xFF for i in range(70000))
SESSION = [
    ("expect", b"READY\r\n"),  # the device speaks first
    ("send", b"HELLO 1\r\n"),
    ("expect", b"WELCOME\r\n"),
    ("send", b"AT+"), ("send", b"CSQ\r"),  # one command in two writes
    ("delay", 700),
    ("expect", b"+CSQ: 17,99\r\n"), ("expect", b"OK\r\n"),
    ("send", bytes(range(256)) * 16),  # every byte value
    ("expect", LONG_ANSWER),
    ("send", b"BYE\r\n"),
    ("eof", None),
]
DELAYED = SESSION.index(("expect", b"+CSQ: 17,99\r\n"))


class Device(threading.Thread):
    """The device of a script on 127.0.0.1: waits for what the application sends, answers what
    the application expects, closes where the script says; every wait bounded by WAIT."""

    def __init__(self, script):
        super().__init__(daemon=True)
        self.script = script
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.listener.settimeout(WAIT)
        self.port = self.listener.getsockname()[1]
        self.errors = []

    def run(self):
        try:
            connection, _ = self.listener.accept()
            connection.settimeout(WAIT)
            with connection:
                pending, delay = b"", 0
                for verb, value in self.script:
                    if verb == "send":
                        while len(pending) < len(value):
                            chunk = connection.recv(65536)
                            if not chunk:
                                raise AssertionError("the application closed the connection early")
                            pending += chunk
                        if pending[:len(value)] != value:
                            self.errors.append("received %r instead of %r" % (pending[:len(value)], value))
                        pending = pending[len(value):]
                    elif verb == "delay":
                        delay = value
                    elif verb == "expect":
                        time.sleep(delay / 1000)
                        delay = 0
                        connection.sendall(value)
                    elif verb == "eof":
                        connection.shutdown(socket.SHUT_WR)
                # The application closes its side last.
                while connection.recv(65536):
                    pass
        except Exception as e:  # reported by the test that started the device
            self.errors.append(repr(e))
        finally:
            self.listener.close()


class Replay:
    """tavrin-log replay under Wine (by default -listen 0), once it is ready: on a TCP port, whose
    number it tells, or on a serial port. Its output and its exit."""

    def __init__(self, recording, logdir, *options, link=("-listen", "0")):
        self.process = subprocess.Popen(
            [ARGS.wine, os.path.join(ARGS.bin, "tavrin-log.exe"), "replay", "-plain", *link,
             "-logdir", windows_path(logdir), *options, windows_path(recording)],
            stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.lines = queue.Queue()
        self.err = []
        threading.Thread(target=self._read, daemon=True).start()
        threading.Thread(target=lambda: self.err.extend(self.process.stderr), daemon=True).start()
        self.output = []
        self.port = None
        ready = False
        deadline = time.monotonic() + WAIT
        while not ready and time.monotonic() < deadline:
            try:
                line = self.lines.get(timeout=max(0.0, deadline - time.monotonic()))
            except queue.Empty:
                break
            if line is None:
                break
            self.output.append(line)
            match = re.search(r"listening on 127\.0\.0\.1:(\d+)$|replaying .* on (COM\d+)$", line)
            if match:
                ready = True
                self.port = int(match.group(1)) if match.group(1) else None
        if not ready:
            self.process.kill()
            self.process.wait(WAIT)
            raise AssertionError("replay did not listen: %s %s" % (self.output, self.stderr()))

    def _read(self):
        for raw in self.process.stdout:
            self.lines.put(raw.decode("utf-8", "replace").rstrip("\r\n"))
        self.lines.put(None)

    def stderr(self):
        return b"".join(self.err).decode("utf-8", "replace")

    def finish(self, timeout=WAIT):
        """Waits for the exit; the exit code and the whole standard output."""
        try:
            self.process.wait(timeout)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait(WAIT)
            raise AssertionError("replay did not end within %d s: %s" % (timeout, self.output))
        while True:
            line = self.lines.get(timeout=WAIT)
            if line is None:
                break
            self.output.append(line)
        return self.process.returncode, "\n".join(self.output)


def serial_application(fd, script):
    """The application's part of a script on its end of a pseudo-terminal: whether each "expect"
    step got its bytes, every wait bounded by WAIT."""
    results, pending = [], b""
    for verb, value in script:
        if verb == "send":
            view = memoryview(value)
            while view:
                if not select.select([], [fd], [], WAIT)[1]:
                    raise AssertionError("the serial line took nothing for %d s" % WAIT)
                view = view[os.write(fd, view):]
        elif verb == "expect":
            deadline = time.monotonic() + WAIT
            while len(pending) < len(value) and select.select([fd], [], [], max(0, deadline - time.monotonic()))[0]:
                pending += os.read(fd, 65536)
            results.append(pending[:len(value)] == value)
            pending = pending[len(value):]
        elif verb == "pause":
            time.sleep(value / 1000)
    return results


class TavrinLogReplay(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.mkdtemp(prefix="tavrin-log-replay-")
        cls.recording = cls.record_session(cls.folder)

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.folder, ignore_errors=True)

    @staticmethod
    def write_script(path, script):
        with open(path, "w") as f:
            for verb, value in script:
                f.write("%s %s\n" % (verb, value.hex() if isinstance(value, bytes) else (value or "")))

    @classmethod
    def client(cls, port, script, name, wait=True):
        """The application: the test client on the library's socket, logging into a folder of
        its own. Returns the process, or with `wait` its exit code, step lines and log file."""
        logdir = os.path.join(cls.folder, name)
        os.makedirs(logdir)
        script_path = os.path.join(cls.folder, name + ".script")
        cls.write_script(script_path, script)
        command = [ARGS.wine, os.path.join(ARGS.bin, "tavrin_log_replay_client.exe"), str(port),
                   windows_path(script_path), windows_path(logdir)]
        process = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        if not wait:
            return process
        out, err = process.communicate(timeout=TIMEOUT)
        logs = [os.path.join(logdir, n) for n in os.listdir(logdir)]
        if len(logs) != 1:
            raise AssertionError("the client left %r: %s" % (logs, err.decode("utf-8", "replace")))
        steps = [line.split() for line in out.decode().splitlines()]
        return process.returncode, steps, logs[0]

    @classmethod
    def record_session(cls, folder):
        device = Device(SESSION)
        device.start()
        rc, steps, log = cls.client(device.port, SESSION, "recording")
        device.join(WAIT)
        assert not device.errors and rc == 0, (device.errors, rc, steps)
        return log

    def raw(self, log):
        """The bytes that a log holds each way, as the reader gives them: (sent, received)."""
        base = os.path.join(self.folder, "raw-%d" % time.monotonic_ns())
        tool("export", "-raw", windows_path(base), windows_path(log))
        with open(base + "-sent.bin", "rb") as f, open(base + "-received.bin", "rb") as g:
            return f.read(), g.read()

    def replay(self, name, script, *options):
        """Replays the recording to the client running `script`: the replay's exit code and
        output, its own log, and the client's exit code, steps and log."""
        logdir = os.path.join(self.folder, name + "-replay")
        replay = Replay(self.recording, logdir, *options)
        client = self.client(replay.port, script, name)
        rc, out = replay.finish()
        logs = os.listdir(logdir)
        self.assertEqual(1, len(logs), logs)
        return rc, out, os.path.join(logdir, logs[0]), client

    def expect_steps(self, script, steps):
        """The client's step lines checked against the script: each waiting step met."""
        waiting = [i for i, (verb, _) in enumerate(script) if verb in ("expect", "eof")]
        self.assertEqual([[str(i), "ok"] for i in waiting], [s[1:3] for s in steps])
        return {int(s[1]): int(s[3]) for s in steps}

    def test_the_recorded_session_replays_with_the_same_bytes(self):
        rc, out, own_log, (client_rc, steps, client_log) = self.replay("same", SESSION)
        self.assertEqual(0, rc, out)
        self.assertEqual(0, client_rc)
        elapsed = self.expect_steps(SESSION, steps)
        # The device's pause before the delayed answer is played as recorded.
        self.assertGreaterEqual(elapsed[DELAYED], 680)
        self.assertIn("; no differences", out)
        self.assertIn("the device closed its side of the connection", out)
        # Both sessions of the application hold the same bytes each way, and the replay's own
        # log holds them the other way round.
        sent, received = self.raw(self.recording)
        self.assertEqual(b"".join(v for verb, v in SESSION if verb == "send"), sent)
        self.assertEqual(b"".join(v for verb, v in SESSION if verb == "expect"), received)
        self.assertEqual((sent, received), self.raw(client_log))
        self.assertEqual((received, sent), self.raw(own_log))
        # The replay names its recording in its own log.
        _, events, _ = tool("cat", "-plain", "-dir", "text", windows_path(own_log))
        self.assertIn("tavrin-log replays", events)
        self.assertIn(os.path.basename(self.recording), events)

    def test_pauses_are_scaled_by_speed(self):
        for speed, low, high in (("4", 150, None), ("0", 0, 350)):
            rc, out, _, (client_rc, steps, _) = self.replay("speed-" + speed, SESSION, "-speed", speed)
            self.assertEqual((0, 0), (rc, client_rc), out)
            elapsed = self.expect_steps(SESSION, steps)[DELAYED]
            self.assertGreaterEqual(elapsed, low, speed)
            if high is not None:
                self.assertLess(elapsed, high, speed)

    def test_every_difference_is_reported_with_its_offset(self):
        script = list(SESSION)
        command = SESSION.index(("send", b"CSQ\r"))
        script[command] = ("send", b"CSR\r")
        block = bytearray(bytes(range(256)) * 16)
        block[1000] ^= 0xFF
        script[command + 4] = ("send", bytes(block))
        rc, out, own_log, (client_rc, steps, _) = self.replay("differs", script)
        self.assertEqual(3, rc, out)
        # The replay answered on, so the application met every expectation.
        self.assertEqual(0, client_rc)
        self.expect_steps(script, steps)
        # The transcript shows what came, the difference what the recording holds.
        self.assertIn("  -> 4 CSR<CR>\n", out)
        differences = [line for line in out.split("\n") if " !! " in line]
        self.assertEqual(2, len(differences), out)
        self.assertRegex(differences[0], r'line \d+: the application sent other bytes: 1 of 4 bytes differ, the '
                                         r'first at offset 2: expected "CSQ<CR>", received "CSR<CR>"$')
        self.assertRegex(differences[1], r"1 of 4096 bytes differ, the first at offset 1000: expected \"\.\.\.")
        self.assertIn("; 2 differences", out)
        # The replay's own log says the same.
        _, events, _ = tool("cat", "-plain", "-dir", "text", windows_path(own_log))
        self.assertEqual(2, events.count("the application sent other bytes"))
        # With -hex the bytes are shown in hexadecimal.
        rc, out, _, _ = self.replay("differs-hex", script, "-hex", "-speed", "0")
        self.assertEqual(3, rc)
        self.assertIn('expected "43 53 51 0D", received "43 53 52 0D"', out)

    def test_a_silent_application_ends_the_replay_within_its_timeout(self):
        # The application stops after the greeting and stays connected, silent, for longer than
        # the replay waits.
        script = SESSION[:3] + [("pause", 9000)]
        logdir = os.path.join(self.folder, "silent-replay")
        replay = Replay(self.recording, logdir, "-timeout", "1500", "-speed", "0")
        client = self.client(replay.port, script, "silent", wait=False)
        try:
            rc, out = replay.finish(timeout=8)
        finally:
            client.communicate(timeout=TIMEOUT)
        self.assertEqual(3, rc, out)
        waited = re.search(r"line \d+: waited (\d+) ms for the application's 3 bytes; 0 came", out)
        self.assertIsNotNone(waited, out)
        self.assertGreaterEqual(int(waited.group(1)), 1500)
        self.assertLess(int(waited.group(1)), 5000)
        self.assertRegex(out, r"3 records played \(1 received as recorded, 2 sent\), \d+ records not played; "
                              r"1 difference$")

        # An application that closes early ends it at once.
        rc, out, _, (client_rc, _, _) = self.replay("closes", SESSION[:3], "-timeout", "20000", "-speed", "0")
        self.assertEqual(3, rc, out)
        self.assertRegex(out, r"line \d+: the application closed the connection after 0 of the 3 bytes")

        # An application that never connects.
        started = time.monotonic()
        rc, _, err = tool("replay", "-listen", "0", "-wait", "500", "-logdir",
                          windows_path(os.path.join(self.folder, "nobody")), windows_path(self.recording), expect=3)
        self.assertIn("no application connected to 127.0.0.1:", err)
        self.assertIn("within 500 ms", err)
        self.assertLess(time.monotonic() - started, WAIT)

    def test_an_application_that_sends_more_is_a_difference(self):
        script = SESSION[:-1] + [("send", b"EXTRA"), ("eof", None)]
        rc, out, _, (client_rc, _, _) = self.replay("more", script, "-speed", "0")
        self.assertEqual(3, rc, out)
        self.assertIn("the application sent 5 bytes after the end of the recording: EXTRA", out)

    # ------------------------------------------------------------ on a serial port

    SERIAL_PORT = 120

    @contextlib.contextmanager
    def serial_port(self, name):
        """A socat pseudo-terminal pair as the cable: one end is COM120 in the Wine prefix, the
        application's end is opened here. Yields the port's name and the application's end."""
        prefix = os.environ.get("WINEPREFIX")
        if not prefix or not shutil.which("socat"):
            self.skipTest("a serial port needs socat and the Wine prefix of scripts/test.sh")
        folder = os.path.join(self.folder, name)
        os.makedirs(folder)
        device, application = os.path.join(folder, "device"), os.path.join(folder, "application")
        link = os.path.join(prefix, "dosdevices", "com%d" % self.SERIAL_PORT)
        socat = subprocess.Popen(["socat", "pty,link=%s,rawer" % device, "pty,link=%s,rawer" % application],
                                 stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        try:
            deadline = time.monotonic() + WAIT
            while not (os.path.exists(device) and os.path.exists(application)) and time.monotonic() < deadline:
                time.sleep(0.05)
            if os.path.lexists(link):
                os.remove(link)
            os.symlink(device, link)
            fd = os.open(application, os.O_RDWR | os.O_NOCTTY | os.O_NONBLOCK)
            try:
                yield "COM%d" % self.SERIAL_PORT, fd
            finally:
                os.close(fd)
        finally:
            if os.path.lexists(link) and os.readlink(link) == device:
                os.remove(link)
            socat.terminate()
            socat.wait(WAIT)

    def test_the_session_replays_on_a_serial_port(self):
        # The device's closing of a TCP connection has nothing to stand for on a serial line.
        script = [step for step in SESSION if step[0] != "eof"]
        logdir = os.path.join(self.folder, "serial-replay")
        with self.serial_port("serial") as (port, fd):
            replay = Replay(self.recording, logdir, "-speed", "0", "-baud", "115200", link=("-port", port))
            results = serial_application(fd, script)
            rc, out = replay.finish()
        self.assertEqual(0, rc, out + replay.stderr())
        self.assertEqual([True] * len(results), results)
        self.assertIn("; no differences", out)
        logs = os.listdir(logdir)
        self.assertEqual(1, len(logs), logs)
        self.assertTrue(logs[0].startswith("COM%d-" % self.SERIAL_PORT), logs)
        sent, received = self.raw(self.recording)
        self.assertEqual((received, sent), self.raw(os.path.join(logdir, logs[0])))

        # An application that falls silent in the middle of a command: the replay cancels its
        # read when its time is up, and reports the bytes that came.
        script = SESSION[:4] + [("send", b"CS")]
        with self.serial_port("serial-silent") as (port, fd):
            replay = Replay(self.recording, os.path.join(self.folder, "serial-silent-replay"), "-speed", "0",
                            "-timeout", "1500", link=("-port", port))
            serial_application(fd, script)
            rc, out = replay.finish(timeout=10)
        self.assertEqual(3, rc, out)
        waited = re.search(r"line \d+: waited (\d+) ms for the application's 4 bytes; 2 came; those agree with "
                           r"the recording", out)
        self.assertIsNotNone(waited, out)
        self.assertGreaterEqual(int(waited.group(1)), 1500)
        self.assertLess(int(waited.group(1)), 5000)

        # A port that does not exist.
        rc, _, err = tool("replay", "-port", "COM%d" % (self.SERIAL_PORT + 1), windows_path(self.recording),
                          expect=1)
        self.assertIn("cannot open COM%d" % (self.SERIAL_PORT + 1), err)
        self.assertIn("CreateFileW", err)

    def test_replay_command_line_errors(self):
        recording = windows_path(self.recording)
        for args, message in ((["replay", recording], "give one of -listen"),
                              (["replay", "-listen", "0", "-port", "COM9", recording], "give one of -listen"),
                              (["replay", "-listen", "0", "-baud", "9600", recording], "applies to -port only"),
                              (["replay", "-listen", "0", "-speed", "fast", recording], "takes a number from 0 to"),
                              (["replay", "-listen", "0", "-speed", "1e3", recording], "takes a number from 0 to"),
                              (["replay", "-listen", "0", "-timeout", "0", recording], "takes a number from 1 to"),
                              (["replay", "-listen", "host", recording], "is no port or address"),
                              (["replay", "-listen", "0", "-dir", "sent", recording], "does not apply to replay"),
                              (["replay", "-listen", "0", recording, recording], "plays one data log file")):
            rc, _, err = tool(*args, expect=2)
            self.assertIn(message, err, args)
        # A port that another program holds.
        with socket.create_server(("127.0.0.1", 0)) as busy:
            rc, _, err = tool("replay", "-listen", str(busy.getsockname()[1]), "-logdir",
                              windows_path(os.path.join(self.folder, "busy")), recording, expect=1)
            self.assertIn("cannot listen on", err)
            self.assertIn("bind", err)


class Report(unittest.TextTestResult):
    """Keeps each test's outcome for the XML report."""

    def __init__(self, *args, **kwargs):
        super().__init__(*args, **kwargs)
        self.cases = []
        self.started = 0

    def startTest(self, test):
        self.started = time.monotonic()
        super().startTest(test)

    def record(self, test, failure=None):
        self.cases.append((test.id().split(".")[-1], time.monotonic() - self.started, failure))

    def addSuccess(self, test):
        super().addSuccess(test)
        self.record(test)

    def addFailure(self, test, err):
        super().addFailure(test, err)
        self.record(test, self._exc_info_to_string(err, test))

    def addError(self, test, err):
        super().addError(test, err)
        self.record(test, self._exc_info_to_string(err, test))


def write_report(path, result):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    suites = ET.Element("testsuites")
    suite = ET.SubElement(suites, "testsuite", name="TavrinLog", tests=str(len(result.cases)),
                          failures=str(sum(1 for c in result.cases if c[2])))
    for name, seconds, failure in result.cases:
        case = ET.SubElement(suite, "testcase", name=name, classname="TavrinLog", time="%.3f" % seconds)
        if failure:
            ET.SubElement(case, "failure", message="failed").text = failure
    ET.ElementTree(suites).write(path, encoding="utf-8", xml_declaration=True)


def main():
    global ARGS
    parser = argparse.ArgumentParser()
    parser.add_argument("--wine", required=True)
    parser.add_argument("--bin", required=True)
    parser.add_argument("--tshark", default="")
    parser.add_argument("--report", required=True)
    ARGS = parser.parse_args()
    if not ARGS.tshark or not os.path.exists(ARGS.tshark):
        print("tshark is not installed (scripts/setup.sh installs it)", file=sys.stderr)
        return 1
    suite = unittest.TestSuite(unittest.defaultTestLoader.loadTestsFromTestCase(case)
                               for case in (TavrinLog, TavrinLogReplay))
    result = unittest.TextTestRunner(resultclass=Report, verbosity=2).run(suite)
    write_report(ARGS.report, result)
    return 0 if result.wasSuccessful() and result.testsRun > 0 else 1


if __name__ == "__main__":
    sys.exit(main())
