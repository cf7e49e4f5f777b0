#!/usr/bin/env python3
"""Writes an agent.ini of about a given size for the scaling benchmark.

The file is the installation's own agent.ini with many "[Other]" pairs of the
shape a site's own settings take, written as the configuration store writes
it (CR LF line ends, the store's order) and carrying a valid checksum line, so
that the program reads it without falling back to fallback.ini.

Usage: make_agent_ini.py BASE_INI SIZE_BYTES OUT
"""
import hashlib
import sys

CHECKSUM_KEY = "agentini.checksum="


def pair_lines(size):
    lines, total, i = [], 0, 0
    while total < size:
        line = "site.policy.rule.%06d=allow /opt/site/bin/tool-%d --profile standard-%d" % (i, i % 977, i % 13)
        lines.append(line)
        total += len(line) + 2
        i += 1
    return lines


def checksum(lines):
    # MD5 over the UTF-16LE bytes of every line before the checksum line,
    # each with its CR LF.
    text = "".join(line + "\r\n" for line in lines)
    return hashlib.md5(text.encode("utf-16-le")).hexdigest()


def main():
    if len(sys.argv) != 4:
        sys.exit(__doc__)
    base, size, out = sys.argv[1], int(sys.argv[2]), sys.argv[3]
    with open(base, "rb") as f:
        lines = f.read().decode("utf-8").split("\r\n")
    if lines and lines[-1] == "":
        lines.pop()
    if "[Other]" not in lines or not lines[-1].startswith(CHECKSUM_KEY):
        sys.exit("%s: no [Other] section or no checksum line at the end" % base)
    at = lines.index("[Other]") + 1
    body = lines[:at] + pair_lines(max(0, size - sum(len(l) + 2 for l in lines))) + lines[at:-1]
    body.append(CHECKSUM_KEY + checksum(body))
    with open(out, "wb") as f:
        f.write("".join(line + "\r\n" for line in body).encode("utf-8"))


if __name__ == "__main__":
    main()
