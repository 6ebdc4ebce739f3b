#!/usr/bin/env python3
"""Writes a language file (.lng) from its UTF-8 source.

The source is the language file's own text: pairs of bracketed lines, source text then
translation, with \\r and \\n standing for line breaks inside a text. Lines beginning with '#'
and empty lines are comments. The output is UTF-16LE with byte-order mark and CR LF line ends,
the form the translator reads.
"""
import sys


def main(source, target):
    lines = []
    with open(source, encoding="utf-8") as f:
        for number, line in enumerate(f, 1):
            line = line.rstrip("\r\n")
            if not line.strip() or line.startswith("#"):
                continue
            if len(line) < 2 or line[0] != "[" or line[-1] != "]":
                sys.exit(f"{source}:{number}: a line must be enclosed in brackets")
            lines.append(line)
    if len(lines) % 2 != 0:
        sys.exit(f"{source}: the last source text has no translation")
    with open(target, "wb") as f:
        f.write("\ufeff".encode("utf-16-le"))
        f.write("".join(line + "\r\n" for line in lines).encode("utf-16-le"))


if __name__ == "__main__":
    main(sys.argv[1], sys.argv[2])
