#!/usr/bin/env python3
"""Runs the end-to-end transcripts of zelipsconfig.

Each case (cases/*.case) runs the program once on a fresh copy of the demo
installation (examples/demo) and checks its exact standard output, its exit
status, that nothing went to standard error, and the effects on files and
the registry.

Case format: "key: value" lines; a value of "|" starts a block whose lines
follow, each starting with "| " (or a lone "|" for an empty line). A block
ends with a newline unless its last line is "|(no newline)". In every text,
{ROOT} stands for the installation's folder and {SEP} for the path separator.

  # comment
  name: a title
  agent-type: 2                 the registry's AgentType value (default "1")
  registry: |                   lines added to the registry file
  file IPS/x.ini: |             a file of the installation, replaced or added
                                (.ini files get CR LF line ends)
  file-utf16 IPS/x.ini: |       the same, written as UTF-16LE with FF FE
  remove: IPS/fallback.ini      a file removed before the run
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
  expect driver-log lines: |    the simulator's record (blank lines ignored)
  expect driver-log contains: request new-policy
  expect ids-record contains: AGENT_RELOADCONFIG_EVENT
  expect registry contains: "UseBuiltin"="1"
  expect log contains: ,10300,
  expect stdout contains: text          (also "lacks:")

Prints one line per failing case and ends with "N passed, N failed".
"""
import argparse
import hashlib
import os
import shlex
import shutil
import subprocess
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
SOURCE = os.path.dirname(os.path.dirname(HERE))
DEMO = os.path.join(SOURCE, "examples", "demo")


def parse_case(path):
    case = {"expect": [], "files": [], "remove": [], "name": os.path.basename(path)}
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
        if key.startswith("expect "):
            case["expect"].append((key[len("expect "):], value))
        elif key.startswith("file "):
            case["files"].append((key[len("file "):], value, False))
        elif key.startswith("file-utf16 "):
            case["files"].append((key[len("file-utf16 "):], value, True))
        elif key in ("driver", "mgmt-server", "mgmt-server-options"):
            case[key] = value
        elif key == "remove":
            case["remove"].append(value)
        else:
            case[key] = value
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


class Installation:
    def __init__(self, case, sep, values):
        self.values = values
        self.root = tempfile.mkdtemp(prefix="zelips-cli-")
        self.sep = sep
        shutil.copytree(DEMO, self.root, dirs_exist_ok=True)
        for name in ("registry.reg", os.path.join("IPS", "agent.ini"), os.path.join("IPS", "fallback.ini")):
            self.rewrite(name, self.subst)
        agent_type = case.get("agent-type")
        if agent_type is not None:
            self.rewrite("registry.reg", lambda t: t.replace('"AgentType"="1"', f'"AgentType"="{agent_type}"'))
        if "registry" in case:
            self.rewrite("registry.reg", lambda t: t + "\n" + self.expand(case["registry"]))
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
        self.before = {}
        for dirpath, _, files in os.walk(self.root):
            for f in files:
                p = os.path.join(dirpath, f)
                self.before[os.path.relpath(p, self.root)] = open(p, "rb").read()

    def subst(self, text):
        return text.replace("@INSTALL_ROOT@", self.root).replace("@LOG_ROOT@", os.path.join(self.root, "logs"))

    def expand(self, text):
        for key, value in self.values.items():
            text = text.replace("{" + key + "}", value)
        return text.replace("{ROOT}", self.root).replace("{SEP}", self.sep)

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
        return os.path.join(self.root, *name.split("/"))

    def rewrite(self, name, change):
        path = self.path(name)
        data = open(path, "rb").read().decode("utf-8")
        open(path, "wb").write(change(data).encode("utf-8"))

    def cleanup(self):
        shutil.rmtree(self.root, ignore_errors=True)


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
    value = inst.expand(value)
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
    if verb == "utf16":
        return exists and data.startswith(b"\xff\xfe"), f"{target} is not UTF-16"
    if verb == "verifies":
        return exists and checksum_ok(data), f"{target} does not verify"
    raise ValueError(f"unknown expectation {what!r}")


def wait_for(predicate, seconds=10.0):
    import time
    end = time.time() + seconds
    while time.time() < end:
        if predicate():
            return True
        time.sleep(0.01)
    return False


def start_peers(inst, case, bindir, env):
    """Starts the simulated driver and detection service a case asks for."""
    peers = []
    if "driver" in case:
        scenario = os.path.join(inst.root, "driver-scenario.txt")
        open(scenario, "w").write(inst.expand(case["driver"]))
        peers.append(subprocess.Popen([os.path.join(bindir, "driver_sim"), env["ZELIPS_DEVICE"], "--scenario",
                                       scenario, "--log", inst.path("driver-log")], env=env))
        if not wait_for(lambda: os.path.exists(env["ZELIPS_DEVICE"])):
            raise RuntimeError("the driver simulator did not start")
    if case.get("ids-service") == "running":
        service = os.path.join(inst.root, "bin", "ZELIDSService.exe")
        os.makedirs(os.path.dirname(service), exist_ok=True)
        os.symlink(os.path.join(bindir, "ids_sim"), service)
        record = inst.path("ids-record")
        peers.append(subprocess.Popen([service, "--record", record, "--commands",
                                       os.path.join(inst.root, "system", "commands"), "--time-limit-ms", "60000"],
                                      env=env))
        if not wait_for(lambda: os.path.exists(record) and "ready" in open(record).read()):
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


def run_case(exe, case, sep, keep):
    server = None
    values = {}
    if "mgmt-server" in case:
        server, values, server_root = start_server(case, os.path.dirname(exe))
    inst = Installation(case, sep, values)
    problems = []
    peers = []
    try:
        env = dict(os.environ)
        env["ZELIPS_REGISTRY"] = inst.path("registry")
        env["ZELIPS_DEVICE"] = os.path.join(inst.root, "dev")
        env["ZELIPS_EVENT_PREFIX"] = "zcli" + str(os.getpid()) + "_"
        peers = start_peers(inst, case, os.path.dirname(exe), env)
        args = [inst.expand(a) for a in shlex.split(case.get("args", ""))]
        proc = subprocess.run([exe] + args, env=env, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              stdin=subprocess.DEVNULL, timeout=60)
        out = proc.stdout.decode("utf-8", "replace")
        want_exit = int(case.get("exit", "0"))
        if proc.returncode != want_exit:
            problems.append(f"exit status {proc.returncode}, expected {want_exit}")
        if proc.stderr:
            problems.append(f"standard error not empty: {proc.stderr[:200]!r}")
        if "stdout" in case:
            want = inst.expand(case["stdout"])
            if out != want:
                problems.append(diff(want, out))
        for what, value in case["expect"]:
            if what.startswith("server-record "):
                continue  # checked once the server's record is complete
            ok, message = check_expectation(inst, what, value, out)
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
        if keep and problems:
            print(f"  kept installation: {inst.root}")
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
    opts = ap.parse_args()
    names = sorted(n for n in os.listdir(opts.cases) if n.endswith(".case") and opts.filter in n)
    passed = failed = 0
    for name in names:
        case = parse_case(os.path.join(opts.cases, name))
        problems = run_case(os.path.abspath(opts.exe), case, os.sep, opts.keep)
        if problems:
            failed += 1
            print(f"FAIL {name}: " + "\n  ".join(problems))
        else:
            passed += 1
    if CERTS:
        shutil.rmtree(CERTS, ignore_errors=True)
    print(f"{passed} passed, {failed} failed")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
