#!/usr/bin/env python3
"""Writes the starting inputs of the fuzz targets into OUT/<target>/.

They come from the demo installation, the test fixtures and the end-to-end
transcripts (tests/cli/cases), put in the shape each target reads (see the
comment at the top of each fuzz/*_fuzz.cpp). scripts/fuzz --seed merges them
into the committed corpus.

Usage: make_seeds.py OUT
"""
import hashlib
import os
import shlex
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
SOURCE = os.path.dirname(HERE)
sys.path.insert(0, os.path.join(SOURCE, "tests", "cli"))
import run_cases  # noqa: E402  (the transcripts' own case reader)

DEMO = os.path.join(SOURCE, "examples", "demo")


def read(*parts):
    return open(os.path.join(SOURCE, *parts), "rb").read()


def crlf(text):
    return text.replace("\r\n", "\n").replace("\n", "\r\n")


def utf16(text):
    return b"\xff\xfe" + text.encode("utf-16-le")


def local(text):
    """A transcript's text with its installation paths made relative to the
    IPS folder (the fuzz targets reject path separators)."""
    for prefix in ("{ROOT}{SEP}IPS{SEP}", "{ROOT}/IPS/", "{ROOT}{SEP}", "{ROOT}/"):
        text = text.replace(prefix, "")
    return text.replace("{ROOT}", ".").replace("{SEP}", "_")


def cases():
    folder = os.path.join(SOURCE, "tests", "cli", "cases")
    for name in sorted(os.listdir(folder)):
        if name.endswith(".case"):
            yield run_cases.parse_case(os.path.join(folder, name))


class Seeds:
    def __init__(self, out):
        self.out = out
        self.count = {}

    def add(self, target, data):
        if isinstance(data, str):
            data = data.encode("utf-8")
        folder = os.path.join(self.out, target)
        os.makedirs(folder, exist_ok=True)
        with open(os.path.join(folder, hashlib.sha1(data).hexdigest()), "wb") as f:
            f.write(data)
        self.count[target] = self.count.get(target, 0) + 1


def properties(seeds):
    names = ("agent.ini", "fallback.ini", "zel-version.properties")
    texts = [read("examples", "demo", "IPS", n).decode() for n in names]
    texts.append(read("tests", "fixtures", "config", "default-agent.ini").decode())
    for case in cases():
        for name, text, _ in case["files"]:
            if name.endswith(".ini") or name.endswith(".properties"):
                texts.append(local(text))
    for text in texts:
        seeds.add("properties", crlf(text))
        seeds.add("properties", utf16(crlf(text)))
        seeds.add("properties", text.replace("\r\n", "\n"))


def section(fmt, typ, body):
    return b"Data-Format=%s\nData-Type=%s\nData-Length=%d\n\n%s\n" % (fmt, typ, len(body), body)


def server_response(seeds):
    ok = b"HTTP/1.1 200 OK\r\nContent-Type: application/x-corvane\r\nCorvane-Format-Version: 1.0\r\n"
    wide = ok + b"Corvane-Charset: UTF-16LE\r\nCorvane-Error: 12\r\n"
    props = section(b"text/plain", b"properties", b"result.errorcode=0\nresult.type=register\n# comment\nguid=abc\n")
    flags = section(b"text/plain", b"properties", b"update.policy=true\nfile.name=applied.pol\n")
    zipped = section(b"binary/zip", b"policy", b"PK\x03\x04\x00\x01\x02")
    trace = section(b"text/plain", b"stacktrace", b"java.lang.Exception: no")
    wtrace = section(b"text/plain", b"stacktrace", "kein Zugriff".encode("utf-16-le"))
    xml = section(b"text/xml", b"config", b"<a><b/></a>\n")
    bodies = [
        (ok, props + b"EOF_FLAG\n"),
        (ok, props + flags + zipped + b"EOF_FLAG\n"),
        (ok, section(b"binary/zip", b"zipdata", b"\x00" * 16) + b"EOF_FLAG\n"),
        (ok, xml + props),
        (ok.replace(b"200 OK", b"500 Error") + b"Corvane-Error: 3\r\n", trace + b"EOF_FLAG\n"),
        (wide, wtrace + b"EOF_FLAG\n"),
        (ok, section(b"text/plain", b"stacktrace", b"")),
        (ok, b"Data-Format=binary/zip\nData-Type=policy\nData-Length=99\n\nshort"),
        (ok, b"Data-Format=text/plain\nData-Type=logrule\nData-Length=4\n\n" + props),
        (b"HTTP/1.1 200 OK\nCorvane-Error:12\n\rX: y\r", b""),
    ]
    for headers, body in bodies:
        seeds.add("server_response", b"\x00" + headers + b"\r\n" + body)
        seeds.add("server_response", b"\x03" + headers + b"\r\n" + body)


def message_catalog(seeds):
    text = read("examples", "demo", "IPS", "Message.txt").decode()
    seeds.add("message_catalog", text)
    seeds.add("message_catalog", utf16(crlf(text)))
    lines = [l for l in text.splitlines() if l and not l.startswith("#")]
    for i in range(0, len(lines), 8):
        seeds.add("message_catalog", "\n".join(lines[i:i + 8]) + "\n")
    seeds.add("message_catalog", '1,"MCON,MSTA",INFO,TYPE,SEND,QUOTED,"a ""quoted"", text %s %d %5.2f %-8s %x %%"\n'
                                 "2,*,*,SEVERITY,DONT_SEND,WIDE,%ls %S %I64d %lld %zu %p %c %e\n")


def reg_file(seeds):
    for parts in (("examples", "demo", "registry.reg"), ("tests", "fixtures", "registry", "shared.reg")):
        text = read(*parts).decode()
        seeds.add("reg_file", text)
        seeds.add("reg_file", utf16(crlf(text)))
    for case in cases():
        if "registry" in case:
            seeds.add("reg_file", "Windows Registry Editor Version 5.00\r\n\r\n"
                                  "[HKEY_LOCAL_MACHINE\\SOFTWARE\\WOW6432Node\\Tessaly\\Zelshield\\agent]\r\n"
                                  + local(case["registry"]))
    seeds.add("reg_file", "REGEDIT4\r\n[HKEY_CURRENT_USER\\A]\r\n@=\"d\"\r\n\"e\"=hex(2):25,41,25,00\r\n"
                          "\"m\"=hex(7):61,00,62,00,00\r\n\"b\"=hex:0a,\\\r\n  ff\r\n\"q\"=hex(b):01,02,03,04,05,06,07,08\r\n"
                          "\"x\"=-\r\n[-HKEY_CURRENT_USER\\A\\B]\r\n; comment\r\n")


def file_edit(seeds):
    for case in cases():
        args = shlex.split(case.get("args", ""))
        if not args or args[0] != "-edit":
            continue
        files = {name: local(text) for name, text, _ in case["files"]}
        meta = files.get("IPS/configtool_metadata.ini", "")
        name = args[1] if len(args) > 1 else ""
        # The file the edit names becomes target.ini.
        target = files.get("IPS/" + name, "")
        meta = meta.replace("path=" + name, "path=target.ini")
        words = [local(a) for a in args[1:]]
        seeds.add("file_edit", crlf(meta) + "\n%%\n" + crlf(target) + "\n%%\n" + "\0".join(words))


def dispatcher(seeds):
    for case in cases():
        if "args" not in case:
            continue
        words = [local(a) for a in shlex.split(case["args"])]
        if any("/" in w or "\\" in w for w in words):
            continue
        if case.get("agent-type", "1") != "1":
            words.insert(0, "@" + case["agent-type"])
        seeds.add("dispatcher", "\0".join(words))
    for words in (["-v"], ["-help"], ["-export"], ["-c", "ca.pem"], ["-edit", "flat.ini", "-name", "c", "-value", "3"],
                  ["-edit", "trusted.ini", "-section", "Trusted", "-name", "x", "-value", "gamma"],
                  ["@3", "-localwhitelist"], ["@2", "-v"], ["@3"], ["@0", "-h", "x"]):
        seeds.add("dispatcher", "\0".join(words))


def main():
    if len(sys.argv) != 2:
        print(__doc__, file=sys.stderr)
        return 2
    seeds = Seeds(sys.argv[1])
    for make in (properties, server_response, message_catalog, reg_file, file_edit, dispatcher):
        make(seeds)
    for target, n in sorted(seeds.count.items()):
        print(f"{target}: {n} seeds")
    return 0


if __name__ == "__main__":
    sys.exit(main())
