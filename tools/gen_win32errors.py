#!/usr/bin/env python3
"""Generates DATA/Win32Errors.txt, the Win32 error texts shipped beside Tavrin.dll.

The texts come from the RT_MESSAGETABLE resource of a Windows system DLL (Wine's kernelbase.dll
or kernel32.dll carry the Win32 error table). When none of the given DLLs can be read, the error
names of MinGW's winerror.h are used instead, so the file always exists.

Output: UTF-16LE with byte-order mark, one "code,message" line per error code (CR LF line ends),
Win32 codes in decimal, HRESULT-style codes in "0x" hexadecimal. A message is kept on one line: a line break inside it is written as the two
characters "\\r", trailing line ends and spaces are dropped.

Only the Python standard library is used.
"""

import argparse
import os
import re
import struct
import sys

RT_MESSAGETABLE = 11
LANG_ENGLISH = 0x09


class PEError(Exception):
    pass


class PEImage:
    """Just enough of a PE reader to reach the resource directory."""

    def __init__(self, data):
        self.data = data
        if data[:2] != b"MZ":
            raise PEError("not an MZ image")
        (pe_offset,) = struct.unpack_from("<I", data, 0x3C)
        if data[pe_offset:pe_offset + 4] != b"PE\0\0":
            raise PEError("no PE signature")
        coff = pe_offset + 4
        (_, section_count, _, _, _, optional_size, _) = struct.unpack_from("<HHIIIHH", data, coff)
        optional = coff + 20
        (magic,) = struct.unpack_from("<H", data, optional)
        if magic == 0x10B:
            directories = optional + 96
        elif magic == 0x20B:
            directories = optional + 112
        else:
            raise PEError("unknown optional header magic 0x%X" % magic)
        (self.resource_rva, self.resource_size) = struct.unpack_from("<II", data, directories + 2 * 8)
        self.sections = []
        table = optional + optional_size
        for i in range(section_count):
            (virtual_size, virtual_address, raw_size, raw_pointer) = struct.unpack_from(
                "<IIII", data, table + i * 40 + 8)
            self.sections.append((virtual_address, max(virtual_size, raw_size), raw_pointer, raw_size))

    def offset(self, rva):
        for (address, size, raw_pointer, raw_size) in self.sections:
            if address <= rva < address + size:
                if rva - address >= raw_size:
                    raise PEError("RVA 0x%X lies in uninitialised data" % rva)
                return raw_pointer + (rva - address)
        raise PEError("RVA 0x%X is outside every section" % rva)

    def _directory(self, offset):
        """Entries (id or None, is_directory, target offset relative to the resource root)."""
        (_, _, _, _, named, ids) = struct.unpack_from("<IIHHHH", self.data, offset)
        entries = []
        for i in range(named + ids):
            (name, target) = struct.unpack_from("<II", self.data, offset + 16 + i * 8)
            ident = None if name & 0x80000000 else name
            entries.append((ident, bool(target & 0x80000000), target & 0x7FFFFFFF))
        return entries

    def resources(self, type_id):
        """Yields (language, bytes) for every resource of the given type."""
        if not self.resource_rva:
            return
        root = self.offset(self.resource_rva)
        for (ident, is_dir, target) in self._directory(root):
            if ident != type_id or not is_dir:
                continue
            for (_, name_is_dir, name_target) in self._directory(root + target):
                if not name_is_dir:
                    continue
                for (language, leaf_is_dir, leaf) in self._directory(root + name_target):
                    if leaf_is_dir:
                        continue
                    (data_rva, size, _, _) = struct.unpack_from("<IIII", self.data, root + leaf)
                    start = self.offset(data_rva)
                    yield (language or 0, self.data[start:start + size])


def parse_message_table(blob):
    """MESSAGE_RESOURCE_DATA -> {id: text}."""
    messages = {}
    (block_count,) = struct.unpack_from("<I", blob, 0)
    for b in range(block_count):
        (low, high, entries) = struct.unpack_from("<III", blob, 4 + b * 12)
        position = entries
        for ident in range(low, high + 1):
            (length, flags) = struct.unpack_from("<HH", blob, position)
            if length < 4:
                raise PEError("corrupt message entry 0x%X" % ident)
            raw = blob[position + 4:position + length]
            if flags & 1:
                text = raw.decode("utf-16-le", errors="replace")
            else:
                text = raw.decode("latin-1")
            messages[ident] = text.split("\0", 1)[0]
            position += length
    return messages


def messages_from_dll(path):
    with open(path, "rb") as f:
        image = PEImage(f.read())
    tables = list(image.resources(RT_MESSAGETABLE))
    if not tables:
        raise PEError("%s has no message table" % path)
    # English where there is a choice, as FormatMessage falls back to it.
    tables.sort(key=lambda item: (item[0] & 0x3FF) != LANG_ENGLISH)
    return parse_message_table(tables[0][1])


def messages_from_winerror(path):
    """Error names from winerror.h, e.g. '#define ERROR_FILE_NOT_FOUND __MSABI_LONG(2)' or
    '#define WSAEINTR (WSABASEERR + 4)' -> {2: 'ERROR_FILE_NOT_FOUND', 10004: 'WSAEINTR'}."""
    define = re.compile(r"^\s*#\s*define\s+(ERROR_\w+|WSA\w+)\s+(.+?)\s*$")
    literal = re.compile(r"^(?:__MSABI_LONG\()?\(?\s*(\d+)L?\s*\)?\)?$")
    based = re.compile(r"^\(\s*(\w+)\s*\+\s*(\d+)\s*\)$")
    values = {}
    messages = {}
    with open(path, encoding="latin-1") as f:
        for line in f:
            match = define.match(line)
            if not match:
                continue
            (name, value) = match.groups()
            code = None
            number = literal.match(value)
            if number:
                code = int(number.group(1))
            else:
                offset = based.match(value)
                if offset and offset.group(1) in values:
                    code = values[offset.group(1)] + int(offset.group(2))
            if code is None:
                continue
            values[name] = code
            if not name.endswith("BASEERR"):
                messages.setdefault(code, name)
    return messages


def one_line(text):
    text = text.rstrip("\r\n\0 ")
    text = text.replace("\r\n", "\n").replace("\r", "\n").replace("\n", "\\r")
    return text.strip(" ")


def code_text(code):
    # Win32 error codes in decimal; HRESULT-style identifiers in the hexadecimal form that
    # reads naturally ("0x80004005").
    return "%d" % code if code < 0x10000 else "0x%08X" % code


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--output", required=True)
    parser.add_argument("--dll", action="append", default=[],
                        help="PE file with the Win32 message table (first readable one wins)")
    parser.add_argument("--winerror", action="append", default=[],
                        help="winerror.h used when no DLL can be read")
    args = parser.parse_args()

    messages = None
    origin = None
    for dll in args.dll:
        try:
            messages = messages_from_dll(dll)
            origin = dll
            break
        except (OSError, PEError, struct.error) as error:
            print("gen_win32errors: %s: %s" % (dll, error), file=sys.stderr)
    if messages is None:
        for header in args.winerror:
            try:
                messages = messages_from_winerror(header)
                origin = header
                break
            except OSError as error:
                print("gen_win32errors: %s: %s" % (header, error), file=sys.stderr)
    if not messages:
        print("gen_win32errors: no source of Win32 error texts found", file=sys.stderr)
        return 1

    lines = []
    for code in sorted(messages):
        text = one_line(messages[code])
        if text:
            lines.append("%s,%s" % (code_text(code), text))

    os.makedirs(os.path.dirname(os.path.abspath(args.output)), exist_ok=True)
    temporary = args.output + ".tmp"
    with open(temporary, "wb") as f:
        f.write(b"\xff\xfe")
        f.write("\r\n".join(lines).encode("utf-16-le"))
        f.write("\r\n".encode("utf-16-le"))
    os.replace(temporary, args.output)
    print("gen_win32errors: %d texts from %s" % (len(lines), origin))
    return 0


if __name__ == "__main__":
    sys.exit(main())
