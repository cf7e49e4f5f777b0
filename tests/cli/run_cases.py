#!/usr/bin/env python3
"""Runs the end-to-end transcripts of zelipsconfig.

Each case (cases/*.case) runs the program once on a fresh copy of the demo
installation (examples/demo) and checks its exact standard output, its exit
status, that nothing went to standard error, and the effects on files and
the registry.

Case format: "key: value" lines; a value of "|" starts a block whose lines
follow, each starting with "| " (or a lone "|" for an empty line). A block
ends with a newline unless its last line is "|(no newline)". In every text,
{ROOT} stands for the installation's folder, {SEP} for the path separator,
and {CR} and {LF} for a carriage return and a line feed.

  # comment
  name: a title
  agent-type: 2                 the registry's AgentType value (default "1")
  registry: |                   lines added to the registry file
  file IPS/x.ini: |             a file of the installation, replaced or added
                                (.ini files get CR LF line ends)
  file-utf16 IPS/x.ini: |       the same, written as UTF-16LE with FF FE
  remove: IPS/fallback.ini      a file removed before the run
  outside victim: |             a file outside the installation (a folder of its
                                own beside it), named "outside/victim" below
  link IPS/agent.ini.2: outside/victim   a symbolic link at that name to that
                                file, which need not exist
  driver: |                     the prevention driver: the driver simulator with
                                these scenario lines (without it there is no driver)
  ids-service: running          the detection service stand-in runs
  mgmt-server: |                the HTTPS management-server simulator with this
                                scenario; {PORT} is its port, {CA} the test CA
                                file and {OTHERCA} an unrelated CA
  args: -port 8443              the command line (shell quoting)
  exit: 0
  stdout: |
  expect IPS/agent.ini contains: agent.http.url=https://...   (also "lacks:")
  expect IPS/agent.ini unchanged       / missing / exists / verifies
  expect IPS/x.ini is: |        the file's whole text (decoded; CR LF shown as LF)
  expect IPS/x.ini utf16:       the file starts with FF FE
  expect IPS/x.ini line: a=1    one of the file's lines is exactly this (also
                                "no-line:": none is)
  expect IPS/x.ini plain:       a file of its own, not a link
  expect driver-log lines: |    the simulator's record (blank lines ignored)
  expect driver-log contains: request new-policy
  expect ids-record contains: AGENT_RELOADCONFIG_EVENT
  expect registry contains: "UseBuiltin"="1"
  expect log contains: ,10300,
  expect stdout contains: text          (also "lacks:")

A key may carry a platform before it ("windows stdout: |", "linux exit: 3"):
that line holds on that platform only and replaces the plain one there.
"windows: skip REASON" leaves a case out of the Windows run; the reason is
printed.

With --wine the cases run against the Windows build under Wine (WINEPREFIX
set, its wineserver running, the test driver installed as ZELIPSDriver): the
installation is reached through drive Z:, its registry file is imported into
Wine's registry (keys named in it are emptied first), the driver is the test
kernel driver, the detection service is the Windows stand-in, the management
server is the native simulator (from --native-bin) on loopback. {ROOT} and
{SEP} then read as Windows writes them, and CR LF in the output as LF.
--peer-bin names the folder of the Windows stand-in of the detection service
when it is not beside the program (a release build has none), and --shipping
says that the program reads no test-only setting: the events then carry
their own names, without a prefix for this run (run one such runner at a
time per Wine prefix).

Prints one line per failing case and ends with "N passed, N failed".
"""
import argparse
import hashlib
import os
import re
import shlex
import shutil
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
SOURCE = os.path.dirname(os.path.dirname(HERE))
DEMO = os.path.join(SOURCE, "examples", "demo")


PLATFORMS = ("linux", "windows")


def parse_case(path, platform):
    case = {"expect": [], "files": [], "remove": [], "outside": [], "links": [], "name": os.path.basename(path)}
    overrides = {}
    lines = open(path, encoding="utf-8").read().split("\n")
    i = 0
    while i < len(lines):
        line = lines[i]
        i += 1
        if not line.strip() or line.startswith("#"):
            continue
        key, sep, value = line.partition(":")
        if not sep:
            raise ValueError(f"{path}: line without a key: {line!r}")
        value = value[1:] if value.startswith(" ") else value
        if value == "|":
            block = []
            newline = True
            while i < len(lines) and (lines[i] == "|" or lines[i].startswith("| ") or lines[i] == "|(no newline)"):
                if lines[i] == "|(no newline)":
                    newline = False
                else:
                    block.append(lines[i][2:])
                i += 1
            value = "\n".join(block) + ("\n" if newline and block else "")
        first, _, rest = key.partition(" ")
        if first in PLATFORMS or (key in PLATFORMS and value.startswith("skip")):
            if first == platform or key == platform:
                if key == platform:
                    case["skip"] = value[len("skip"):].strip() or "no reason given"
                else:
                    overrides.setdefault(rest, []).append(value)
            continue
        if key.startswith("expect "):
            case["expect"].append((key[len("expect "):], value))
        elif key.startswith("file "):
            case["files"].append((key[len("file "):], value, False))
        elif key.startswith("file-utf16 "):
            case["files"].append((key[len("file-utf16 "):], value, True))
        elif key.startswith("outside "):
            case["outside"].append((key[len("outside "):], value))
        elif key.startswith("link "):
            case["links"].append((key[len("link "):], value))
        elif key in ("driver", "mgmt-server", "mgmt-server-options"):
            case[key] = value
        elif key == "remove":
            case["remove"].append(value)
        else:
            case[key] = value
    for key, values in overrides.items():
        if key.startswith("expect "):
            what = key[len("expect "):]
            case["expect"] = [e for e in case["expect"] if e[0] != what] + [(what, v) for v in values]
        else:
            case[key] = values[-1]
    return case


def checksum_ok(data):
    """Independent check of an agent.ini checksum line."""
    if data.startswith(b"\xff\xfe"):
        text = data[2:].decode("utf-16-le")
    else:
        text = data.decode("utf-8")
    lines = text.replace("\r\n", "\n").split("\n")
    body = []
    stored = None
    for line in lines:
        if line.startswith("agentini.checksum="):
            stored = line[len("agentini.checksum="):]
            continue
        body.append(line)
    if body and body[-1] == "":
        body.pop()
    digest = hashlib.md5("".join(l + "\r\n" for l in body).encode("utf-16-le")).hexdigest()
    return stored == "Not Computed" or stored == digest


ROOT_MARK = re.compile(r"@(INSTALL|LOG)_ROOT@([^\"\r\n]*)")


def reg_escape(text):
    return text.replace("\\", "\\\\").replace('"', '\\"')


class Installation:
    def __init__(self, case, target, values):
        self.values = values
        self.target = target
        self.root = tempfile.mkdtemp(prefix="zelips-cli-")
        self.outside = self.root + "-outside"
        os.makedirs(self.outside)
        # The installation as the program names it.
        self.shown = target.shown_path(self.root)
        self.sep = target.sep
        shutil.copytree(DEMO, self.root, dirs_exist_ok=True)
        self.rewrite("registry.reg", lambda t: self.subst(t, reg_escape))
        for name in (os.path.join("IPS", "agent.ini"), os.path.join("IPS", "fallback.ini")):
            self.rewrite(name, self.subst)
        agent_type = case.get("agent-type")
        if agent_type is not None:
            self.rewrite("registry.reg", lambda t: t.replace('"AgentType"="1"', f'"AgentType"="{agent_type}"'))
        if "registry" in case:
            self.rewrite("registry.reg", lambda t: t + "\n" + self.expand(case["registry"], reg_escape))
        for name, text, utf16 in case["files"]:
            path = self.path(name)
            os.makedirs(os.path.dirname(path), exist_ok=True)
            text = self.expand(text)
            if name.endswith(".ini"):
                text = text.replace("\r\n", "\n").replace("\n", "\r\n")
            data = b"\xff\xfe" + text.encode("utf-16-le") if utf16 else text.encode("utf-8")
            open(path, "wb").write(data)
        for name in case["remove"]:
            os.remove(self.path(name))
        for name, text in case["outside"]:
            open(self.path("outside/" + name), "wb").write(text.encode("utf-8"))
        for name, target in case["links"]:
            os.symlink(self.path(target), self.path(name))
        self.before = {}
        for dirpath, _, files in os.walk(self.root):
            for f in files:
                p = os.path.join(dirpath, f)
                if not os.path.islink(p):
                    self.before[os.path.relpath(p, self.root)] = open(p, "rb").read()

    def subst(self, text, escape=lambda t: t):
        """The demo's @INSTALL_ROOT@/@LOG_ROOT@ paths, with the platform's separator."""
        def path(m):
            base = self.shown if m.group(1) == "INSTALL" else self.shown + self.sep + "logs"
            return escape(base + m.group(2).replace("/", self.sep))
        return ROOT_MARK.sub(path, text)

    def expand(self, text, escape=lambda t: t):
        for key, value in self.values.items():
            text = text.replace("{" + key + "}", escape(self.target.shown_path(value) if key in PATH_VALUES
                                                        else value))
        text = text.replace("{CR}", "\r").replace("{LF}", "\n")
        return text.replace("{ROOT}", escape(self.shown)).replace("{SEP}", escape(self.sep))

    def path(self, name):
        if name == "registry":
            name = "registry.reg"
        elif name == "driver-log":
            name = "driver-sim.log"
        elif name == "ids-record":
            name = "ids-record.txt"
        elif name == "server-record":
            name = "server-record.txt"
        elif name == "log":
            name = os.path.join("logs", "zelipsconfigtool.log")
        elif name.startswith("outside/"):
            return os.path.join(self.outside, *name.split("/")[1:])
        return os.path.join(self.root, *name.split("/"))

    def rewrite(self, name, change):
        path = self.path(name)
        data = open(path, "rb").read().decode("utf-8")
        open(path, "wb").write(change(data).encode("utf-8"))

    def cleanup(self):
        shutil.rmtree(self.root, ignore_errors=True)
        shutil.rmtree(self.outside, ignore_errors=True)


# Case values that are paths of the runner's machine.
PATH_VALUES = ("CA", "OTHERCA", "SERVER_RECORD")


def check_expectation(inst, what, value, stdout):
    target, _, verb = what.rpartition(" ")
    if target == "stdout":
        value = inst.expand(value)
        if verb == "contains":
            return value in stdout, f"standard output does not contain {value!r}"
        if verb == "lacks":
            return value not in stdout, f"standard output contains {value!r}"
        raise ValueError(f"unknown expectation {what!r}")
    path = inst.path(target)
    rel = os.path.relpath(path, inst.root)
    exists = os.path.exists(path)
    data = open(path, "rb").read() if exists else None
    text = None
    if data is not None:
        text = data[2:].decode("utf-16-le", "replace") if data.startswith(b"\xff\xfe") else data.decode("utf-8", "replace")
    value = inst.expand(value, reg_escape if target == "registry" else lambda t: t)
    if verb == "contains":
        return exists and value in text, f"{target} does not contain {value!r}"
    if verb == "lacks":
        return (not exists) or value not in text, f"{target} contains {value!r}"
    if verb == "unchanged":
        return data == inst.before.get(rel), f"{target} changed"
    if verb == "missing":
        return not exists, f"{target} exists"
    if verb == "exists":
        return exists, f"{target} is missing"
    if verb == "lines":
        got = [l for l in (text or "").split("\n") if l.strip()]
        want = [l for l in value.split("\n") if l.strip()]
        return got == want, f"{target} holds {got!r}, expected {want!r}"
    if verb == "is":
        return exists and text.replace("\r\n", "\n") == value, f"{target} is {text!r}, expected {value!r}"
    if verb in ("line", "no-line"):
        found = exists and value.rstrip("\n") in text.replace("\r\n", "\n").split("\n")
        return found == (verb == "line"), f"{target} {'lacks' if verb == 'line' else 'has'} the line {value!r}"
    if verb == "plain":
        return exists and not os.path.islink(path), f"{target} is {'a link' if exists else 'missing'}"
    if verb == "utf16":
        return exists and data.startswith(b"\xff\xfe"), f"{target} is not UTF-16"
    if verb == "verifies":
        return exists and checksum_ok(data), f"{target} does not verify"
    raise ValueError(f"unknown expectation {what!r}")


def wait_for(predicate, seconds=10.0):
    end = time.time() + seconds
    while time.time() < end:
        if predicate():
            return True
        time.sleep(0.01)
    return predicate()


def read_text(path):
    try:
        return open(path, encoding="utf-8", errors="replace").read()
    except OSError:
        return ""


class NativeTarget:
    """The Linux program: the registry file, the driver simulator on a socket,
    the detection service stand-in under its image name."""
    sep = os.sep
    shipping = False  # a test build: the events carry this run's prefix

    def __init__(self, exe, wrap):
        self.exe = exe
        self.bindir = os.path.dirname(exe)
        self.wrap = wrap

    def shown_path(self, path):
        return path

    def prepare(self, inst, case, env):
        env["ZELIPS_REGISTRY"] = inst.path("registry")
        env["ZELIPS_DEVICE"] = os.path.join(inst.root, "dev")

    def start_driver(self, inst, scenario, env):
        proc = subprocess.Popen([os.path.join(self.bindir, "driver_sim"), env["ZELIPS_DEVICE"], "--scenario",
                                 scenario, "--log", inst.path("driver-log")], env=env)
        if not wait_for(lambda: os.path.exists(env["ZELIPS_DEVICE"])):
            proc.kill()
            raise RuntimeError("the driver simulator did not start")
        return proc

    def no_driver(self):
        pass

    def service_command(self, inst):
        service = os.path.join(inst.root, "bin", "ZELIDSService.exe")
        os.makedirs(os.path.dirname(service), exist_ok=True)
        os.symlink(os.path.join(self.bindir, "ids_sim"), service)
        return [service]

    def command(self, args):
        return list(self.wrap) + [self.exe] + args

    def timeout(self):
        return 600 if self.wrap else 60

    def output(self, data):
        return data.decode("utf-8", "replace")

    def collect_registry(self, inst):
        pass

    def errors(self, data):
        return data

    def native_bindir(self):
        return self.bindir


def registry_keys(text):
    """The keys a .reg text writes, in order (deletions left out)."""
    keys = []
    for line in text.splitlines():
        line = line.strip()
        if line.startswith("[") and line.endswith("]") and not line.startswith("[-"):
            keys.append(line[1:-1])
    return keys


class WineTarget:
    """The Windows program under Wine: the registry imported, the test kernel
    driver, the stand-in service as a Windows program."""
    sep = "\\"
    DRIVER_KEY = "HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Services\\ZELIPSDriver"
    DRIVER_SCRIPT = os.path.join(SOURCE, "tools", "wine-driver", "wine-driver.sh")

    def __init__(self, exe, native_bin, peer_bin=None, shipping=False):
        if not os.environ.get("WINEPREFIX"):
            raise SystemExit("run_cases: --wine needs WINEPREFIX (see scripts/wine-env)")
        self.exe = exe
        self.bindir = peer_bin or os.path.dirname(exe)
        self.shipping = shipping
        self.native_bin = native_bin
        self.driver_running = None  # unknown at first

    def shown_path(self, path):
        # Every prefix maps Z: to the Unix root.
        return "Z:" + os.path.abspath(path).replace("/", "\\")

    def wine(self, args, log, timeout=120):
        """Runs a Wine command with its output in a file (Wine's background
        processes may hold a pipe open long after the command ended)."""
        with open(log, "wb") as out:
            return subprocess.run(["wine"] + args, stdin=subprocess.DEVNULL, stdout=out, stderr=subprocess.STDOUT,
                                  timeout=timeout).returncode

    def reg_import(self, path, log, case):
        """Imports a .reg file. Wine's reg has been seen, once in thousands of
        imports, to exit 1 without a word (why is not known); the import is
        tried again then, and the retry is reported, so that a failure that
        repeats still fails the case."""
        for attempt in range(1, 4):
            rc = self.wine(["reg", "import", self.shown_path(path), "/reg:64"], log)
            if rc == 0:
                return
            output = read_text(log).strip()
            if output or attempt == 3:
                break
            print(f"note: case '{case.get('name', '?')}': wine reg import exited {rc} without output; trying again")
            time.sleep(0.5)
        raise RuntimeError(f"wine reg import exited {rc}: {output or '(no output)'}")

    def driver_script(self, *args):
        proc = subprocess.run(["bash", self.DRIVER_SCRIPT] + list(args), stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=120)
        if proc.returncode != 0:
            raise RuntimeError(f"wine-driver.sh {' '.join(args)}: {proc.stdout.decode(errors='replace').strip()}")

    def prepare(self, inst, case, env):
        # The keys the case's registry file names start empty: what an earlier
        # case (or program) left there must not leak into this one. The
        # driver's own service key stays (it is the installed test driver);
        # its values from the file are written over it.
        text = open(inst.path("registry"), encoding="utf-8").read()
        keys = registry_keys(text)
        lines = ["Windows Registry Editor Version 5.00", ""]
        for key in keys:
            if key.lower() != self.DRIVER_KEY.lower():
                lines += [f"[-{key}]", ""]
        body = text.split("\n", 1)[1] if text.startswith("Windows Registry Editor") else text
        data = "\r\n".join(lines) + "\r\n" + body.replace("\r\n", "\n").replace("\n", "\r\n") + "\r\n"
        # As UTF-16: only then are hex(2)/hex(7) bytes read as UTF-16 text.
        imported = os.path.join(inst.root, "wine-import.reg")
        open(imported, "wb").write(b"\xff\xfe" + data.encode("utf-16-le"))
        log = os.path.join(inst.root, "wine-import.log")
        self.reg_import(imported, log, case)
        os.remove(imported)
        os.remove(log)

    def start_driver(self, inst, scenario, env):
        # The driver reads its scenario and record path on every open.
        self.driver_script("scenario", scenario)
        self.driver_script("record", inst.path("driver-log"))
        if self.driver_running is not True:
            self.driver_script("start")
            self.driver_running = True
        return None

    def no_driver(self):
        if self.driver_running is not False:
            self.driver_script("stop")
            self.driver_running = False

    def service_command(self, inst):
        service = os.path.join(inst.root, "bin", "ZELIDSService.exe")
        os.makedirs(os.path.dirname(service), exist_ok=True)
        shutil.copy(os.path.join(self.bindir, "ZELIDSService.exe"), service)
        return ["wine", self.shown_path(service)]

    def command(self, args):
        return ["wine", self.exe] + args

    def timeout(self):
        return 120

    def output(self, data):
        return data.decode("utf-8", "replace").replace("\r\n", "\n")

    # Wine's own diagnostics that reach a program's standard error whatever
    # WINEDEBUG says: its TLS library's log of a refused protocol version (the
    # program's first attempt at a server that speaks only an older one).
    WINE_NOISE = re.compile(rb"^GnuTLS error: [^\n]*\n", re.M)

    def errors(self, data):
        return self.WINE_NOISE.sub(b"", data)

    def collect_registry(self, inst):
        """The keys of the case's registry file as they are now, exported over
        the file that seeded them, for the registry expectations."""
        keys = []
        for key in registry_keys(open(inst.path("registry"), encoding="utf-8").read()):
            # A key's export holds its subkeys.
            if not any(key.lower().startswith(k.lower() + "\\") for k in keys):
                keys.append(key)
        parts = []
        for n, key in enumerate(keys):
            out = os.path.join(inst.root, f"wine-export-{n}.reg")
            log = out + ".log"
            if self.wine(["reg", "export", key, self.shown_path(out), "/y", "/reg:64"], log) == 0:
                data = open(out, "rb").read()
                parts.append(data[2:].decode("utf-16-le") if data.startswith(b"\xff\xfe") else data.decode())
            for f in (out, log):
                if os.path.exists(f):
                    os.remove(f)
        open(inst.path("registry"), "w", encoding="utf-8").write("\n".join(parts).replace("\r\n", "\n"))

    def native_bindir(self):
        return self.native_bin


def start_peers(inst, case, target, env):
    """Starts the driver and detection service a case asks for."""
    peers = []
    if "driver" in case:
        scenario = os.path.join(inst.root, "driver-scenario.txt")
        open(scenario, "w").write(inst.expand(case["driver"]))
        proc = target.start_driver(inst, scenario, env)
        if proc is not None:
            peers.append(proc)
    else:
        target.no_driver()
    if case.get("ids-service") == "running":
        command = target.service_command(inst)
        record = inst.path("ids-record")
        peers.append(subprocess.Popen(command + ["--record", target.shown_path(record), "--commands",
                                                 target.shown_path(os.path.join(inst.root, "system", "commands")),
                                                 "--time-limit-ms", "60000"],
                                      env=env, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                      stderr=subprocess.DEVNULL))
        if not wait_for(lambda: "ready" in read_text(record), 30):
            peers[-1].kill()
            raise RuntimeError("the detection service stand-in did not start")
    return peers


CERTS = None


def test_certificates():
    """The test CA and server certificates, made once per run."""
    global CERTS
    if CERTS is None:
        CERTS = tempfile.mkdtemp(prefix="zelips-cli-certs-")
        subprocess.run(["bash", os.path.join(SOURCE, "scripts", "make-test-certs"), CERTS], check=True,
                       stdout=subprocess.DEVNULL)
    return CERTS


def start_server(case, bindir):
    """Starts the management-server simulator; returns it and the case's values."""
    certs = test_certificates()
    root = tempfile.mkdtemp(prefix="zelips-cli-server-")
    scenario = os.path.join(root, "scenario.txt")
    open(scenario, "w").write(case["mgmt-server"])
    record = os.path.join(root, "record.txt")
    args = [os.path.join(bindir, "mgmt_server_sim"), "--cert", os.path.join(certs, "server.pem"), "--key",
            os.path.join(certs, "server.key"), "--scenario", scenario, "--record", record, "--lifetime", "120"]
    args += shlex.split(case.get("mgmt-server-options", ""))
    proc = subprocess.Popen(args, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    first = proc.stdout.readline().decode().split()
    if len(first) != 2 or first[0] != "port":
        proc.kill()
        raise RuntimeError("the management-server simulator did not start")
    values = {"PORT": first[1], "CA": os.path.join(certs, "ca.pem"), "OTHERCA": os.path.join(certs, "other-ca.pem"),
              "SERVER_RECORD": record}
    return proc, values, root


# Records that a peer writes after the program has signalled it: a
# "contains" on them waits a little for the peer to catch up.
LATE_RECORDS = ("ids-record", "driver-log")


def run_case(target, case, keep):
    server = None
    values = {}
    if "mgmt-server" in case:
        server, values, server_root = start_server(case, target.native_bindir())
    inst = Installation(case, target, values)
    problems = []
    peers = []
    try:
        env = dict(os.environ)
        env.pop("ZELIPS_EVENT_PREFIX", None)
        if not target.shipping:
            env["ZELIPS_EVENT_PREFIX"] = "zcli" + str(os.getpid()) + "_"
        target.prepare(inst, case, env)
        peers = start_peers(inst, case, target, env)
        args = [inst.expand(a) for a in shlex.split(case.get("args", ""))]
        out_file = os.path.join(inst.root, "stdout.bin")
        err_file = os.path.join(inst.root, "stderr.bin")
        with open(out_file, "wb") as out, open(err_file, "wb") as err:
            proc = subprocess.run(target.command(args), env=env, stdout=out, stderr=err, stdin=subprocess.DEVNULL,
                                  timeout=target.timeout())
        out = target.output(open(out_file, "rb").read())
        err = target.errors(open(err_file, "rb").read())
        os.remove(out_file)
        os.remove(err_file)
        want_exit = int(case.get("exit", "0"))
        if proc.returncode != want_exit:
            problems.append(f"exit status {proc.returncode}, expected {want_exit}")
        if err:
            problems.append(f"standard error not empty: {err[:200]!r}")
        if "stdout" in case:
            want = inst.expand(case["stdout"])
            if out != want:
                problems.append(diff(want, out))
        if any(what.startswith("registry ") for what, _ in case["expect"]):
            target.collect_registry(inst)
        for what, value in case["expect"]:
            if what.startswith("server-record "):
                continue  # checked once the server's record is complete
            check = lambda: check_expectation(inst, what, value, out)
            ok, message = check()
            if not ok and what.split(" ")[0] in LATE_RECORDS and what.endswith(" contains"):
                wait_for(lambda: check()[0], 10)
                ok, message = check()
            if not ok:
                problems.append(message)
    finally:
        if server is not None:
            if os.path.exists(values["SERVER_RECORD"]):
                shutil.copy(values["SERVER_RECORD"], inst.path("server-record"))
                problems += [m for ok, m in (check_expectation(inst, w, v, "") for w, v in case["expect"]
                                             if w.startswith("server-record ")) if not ok]
            server.kill()
            server.wait()
            shutil.rmtree(server_root, ignore_errors=True)
        for p in peers:
            p.terminate()
            try:
                p.wait(timeout=10)
            except subprocess.TimeoutExpired:
                p.kill()
                p.wait()
        if keep and problems:
            print(f"  kept installation: {inst.root} (and {inst.outside})")
        else:
            inst.cleanup()
    return problems


def diff(want, got):
    import difflib
    lines = difflib.unified_diff(want.splitlines(True), got.splitlines(True), "expected", "actual", n=2)
    return "standard output differs:\n" + "".join(repr(l)[1:-1] + "\n" for l in lines)


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--exe", required=True)
    ap.add_argument("--cases", default=os.path.join(HERE, "cases"))
    ap.add_argument("--filter", default="")
    ap.add_argument("--keep", action="store_true", help="keep the installation of a failing case")
    ap.add_argument("--wrap", default="", help="a command the program runs under, e.g. \"valgrind -q\" (shell quoting)")
    ap.add_argument("--wine", action="store_true", help="the program is the Windows build: run it under Wine")
    ap.add_argument("--native-bin", default=os.path.join(SOURCE, "build", "linux", "bin"),
                    help="with --wine: the folder of the Linux build's mgmt_server_sim")
    ap.add_argument("--peer-bin", help="with --wine: the folder of ZELIDSService.exe (default: the program's)")
    ap.add_argument("--shipping", action="store_true",
                    help="with --wine: the program reads no test-only setting (no event prefix)")
    opts = ap.parse_args()
    exe = os.path.abspath(opts.exe)
    if opts.wine:
        target = WineTarget(exe, os.path.abspath(opts.native_bin),
                            os.path.abspath(opts.peer_bin) if opts.peer_bin else None, opts.shipping)
    else:
        target = NativeTarget(exe, shlex.split(opts.wrap))
    platform = "windows" if opts.wine else "linux"
    names = sorted(n for n in os.listdir(opts.cases) if n.endswith(".case") and opts.filter in n)
    passed = failed = skipped = 0
    for name in names:
        case = parse_case(os.path.join(opts.cases, name), platform)
        if "skip" in case:
            skipped += 1
            print(f"SKIP {name}: {case['skip']}")
            continue
        try:
            problems = run_case(target, case, opts.keep)
        except (RuntimeError, subprocess.TimeoutExpired) as e:
            problems = [f"could not run: {e}"]
        if problems:
            failed += 1
            print(f"FAIL {name}: " + "\n  ".join(problems))
        else:
            passed += 1
    if CERTS:
        shutil.rmtree(CERTS, ignore_errors=True)
    print(f"{passed} passed, {failed} failed" + (f", {skipped} skipped" if skipped else ""))
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
