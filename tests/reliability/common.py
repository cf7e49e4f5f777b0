"""What the reliability tests share: throw-away installations of the demo
agent, the real zelipsconfig run on them, an independent check of the
checksum line of agent.ini, and the tally of checks.
"""
import hashlib
import os
import shutil
import subprocess
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
SOURCE = os.path.dirname(os.path.dirname(HERE))
DEMO = os.path.join(SOURCE, "examples", "demo")

# Lines the tool prints when the final write of a modifying command fails.
WRITE_FAILED = "Could not write to the agent.ini or backup ini file. Error Code: "
NOTHING_WRITTEN = "No changes were written to the agent.ini or backup ini file.\n"
# Any of these in the output of a run that should have worked is a failure.
FAILURE_MARKS = ("Could not", "No changes were written", "ERROR", "Exception")

INI_FILES = ("agent.ini", "fallback.ini")
# Every name the safe replace of the two files can leave in the IPS folder.
REPLACE_FILES = tuple(f + s for f in INI_FILES for s in ("", ".1", ".2"))

EXPORT_HEADER = "The agent.ini file contents are \n"


class Installation:
    """A fresh copy of examples/demo in a temporary folder, with its
    placeholders filled in, and the environment that points the tool at it:
    ZELIPS_REGISTRY at its registry file, ZELIPS_DEVICE at a path with no
    driver behind it."""

    def __init__(self, exe, tag="rel"):
        self.exe = exe
        self.root = tempfile.mkdtemp(prefix=f"zelips-{tag}-")
        # Readable by everyone: some runs drop to an unprivileged user.
        os.chmod(self.root, 0o755)
        shutil.copytree(DEMO, self.root, dirs_exist_ok=True)
        for name in ("registry.reg", os.path.join("IPS", "agent.ini"), os.path.join("IPS", "fallback.ini")):
            path = os.path.join(self.root, name)
            with open(path, encoding="utf-8", newline="") as f:
                text = f.read()
            text = text.replace("@INSTALL_ROOT@", self.root).replace("@LOG_ROOT@", os.path.join(self.root, "logs"))
            with open(path, "w", encoding="utf-8", newline="") as f:
                f.write(text)
        self.ips = os.path.join(self.root, "IPS")
        self.env = dict(os.environ)
        self.env.pop("ZELIPS_TEST_REPLACE_DELAY_MS", None)
        self.env["ZELIPS_REGISTRY"] = os.path.join(self.root, "registry.reg")
        self.env["ZELIPS_DEVICE"] = os.path.join(self.root, "no-driver")
        self.env["ZELIPS_EVENT_PREFIX"] = f"zrel{os.getpid()}_"

    def path(self, name):
        return os.path.join(self.ips, name)

    def environment(self, delay_ms=None):
        env = dict(self.env)
        if delay_ms:
            env["ZELIPS_TEST_REPLACE_DELAY_MS"] = str(delay_ms)
        return env

    def start(self, args, delay_ms=None, preexec_fn=None, capture=False):
        """Starts the tool; its output is kept for finish() when capture is set."""
        out = subprocess.PIPE if capture else subprocess.DEVNULL
        return subprocess.Popen([self.exe] + list(args), env=self.environment(delay_ms), stdin=subprocess.DEVNULL,
                                stdout=out, stderr=out, preexec_fn=preexec_fn)

    @staticmethod
    def finish(proc, timeout=120):
        """Waits for a run started with capture; returns (exit status, stdout, stderr)."""
        try:
            out, err = proc.communicate(timeout=timeout)
        except subprocess.TimeoutExpired:
            proc.kill()
            proc.wait()
            raise
        return proc.returncode, out.decode("utf-8", "replace"), err.decode("utf-8", "replace")

    def run(self, args, delay_ms=None, timeout=120):
        """Runs the tool to its end; returns (exit status, stdout, stderr)."""
        return self.finish(self.start(args, delay_ms, capture=True), timeout)

    def export(self, what="-export"):
        """A fresh -export: (its configuration lines, []) or (None, why not)."""
        rc, out, err = self.run(["-export"])
        problems = run_problems(what, rc, out, err)
        lines = export_lines(out)
        if lines is None and not problems:
            problems = [f"{what}: no export in {out[-300:]!r}"]
        return (None if problems else lines), problems

    def read(self, name):
        """The bytes of a file in the IPS folder, or None when it is missing."""
        try:
            with open(self.path(name), "rb") as f:
                return f.read()
        except FileNotFoundError:
            return None

    def snapshot(self, names=REPLACE_FILES):
        return {name: self.read(name) for name in names}

    def remove(self):
        for dirpath, dirnames, _ in os.walk(self.root):
            for d in dirnames:
                os.chmod(os.path.join(dirpath, d), 0o755)
        shutil.rmtree(self.root, ignore_errors=True)


def decode_ini(data):
    if data.startswith(b"\xff\xfe"):
        return data[2:].decode("utf-16-le")
    return data.decode("utf-8")


def ini_lines(data):
    """The lines of an agent.ini file without their line ends."""
    lines = decode_ini(data).replace("\r\n", "\n").split("\n")
    if lines and lines[-1] == "":
        lines.pop()
    return lines


def verify(data):
    """None when the file's checksum line holds, else why not. The checksum
    is the MD5 of the UTF-16LE text of every other line, each followed by
    CR LF; "Not Computed" turns the check off."""
    if data is None:
        return "missing"
    try:
        lines = ini_lines(data)
    except UnicodeDecodeError as e:
        return f"not text: {e}"
    stored = None
    body = []
    for line in lines:
        if line.startswith("agentini.checksum="):
            stored = line[len("agentini.checksum="):]
        else:
            body.append(line)
    if stored is None:
        return "no checksum line"
    if stored == "Not Computed":
        return None
    digest = hashlib.md5("".join(l + "\r\n" for l in body).encode("utf-16-le")).hexdigest()
    return None if digest == stored else f"checksum line {stored!r} but the text gives {digest}"


def pairs(lines):
    """(name, value) for every line with "=", in file order."""
    out = []
    for line in lines:
        name, sep, value = line.partition("=")
        if sep:
            out.append((name, value))
    return out


def values(data):
    return dict(pairs(ini_lines(data)))


def export_lines(stdout):
    """The configuration lines that -export printed, or None when the
    output does not hold an export."""
    at = stdout.find(EXPORT_HEADER)
    if at < 0:
        return None
    text = stdout[at + len(EXPORT_HEADER):]
    lines = text.split("\n")
    # The export ends with the serialised text's own line end and one more.
    while lines and lines[-1] == "":
        lines.pop()
    return [l.rstrip("\r") for l in lines]


def run_problems(what, rc, out, err, says=""):
    """Why a run that should have worked did not (empty when it worked): an
    exit status other than 0, anything on stderr, a failure line, or the
    confirmation `says` missing."""
    if rc != 0 or err or any(m in out for m in FAILURE_MARKS) or says not in out:
        return [f"{what}: exit {rc}, stdout {out[-300:]!r}, stderr {err[-200:]!r}"]
    return []


def clean_state_problems(snap, what, port=None):
    """What keeps the files of a snapshot from being what a complete write
    leaves: agent.ini and fallback.ini verifying, equal, holding `port` (when
    given), and no ".2" behind."""
    problems = []
    for name in INI_FILES:
        why = verify(snap[name])
        if why:
            problems.append(f"{what}: {name} {why}")
        elif port is not None and port_of(ini_lines(snap[name])) != port:
            problems.append(f"{what}: {name} holds port {port_of(ini_lines(snap[name]))}, not {port}")
    if snap["agent.ini"] != snap["fallback.ini"]:
        problems.append(f"{what}: agent.ini and fallback.ini differ")
    for name in ("agent.ini.2", "fallback.ini.2"):
        if snap.get(name) is not None:
            problems.append(f"{what}: {name} left behind")
    return problems


def port_of(lines):
    """The port of the agent.http.url line among these lines, or None."""
    for line in lines:
        if line.startswith("agent.http.url="):
            return url_port(line[len("agent.http.url="):])
    return None


def url_port(url):
    """The port of an agent.http.url value, or None."""
    rest = url.split("://", 1)[-1]
    hostport = rest.split("/", 1)[0]
    if ":" not in hostport:
        return None
    try:
        return int(hostport.rsplit(":", 1)[1])
    except ValueError:
        return None


class Tally:
    """Named checks, each passed or failed, with the first few reasons."""

    def __init__(self):
        self.results = []

    def check(self, name, problems, note=""):
        """problems: a list of texts; the check passes when it is empty."""
        ok = not problems
        self.results.append((name, ok))
        line = f"{'PASS' if ok else 'FAIL'}  {name}"
        if note:
            line += f"  ({note})"
        print(line, flush=True)
        for p in problems[:10]:
            print(f"      {p}", flush=True)
        if len(problems) > 10:
            print(f"      ... and {len(problems) - 10} more", flush=True)
        return ok

    @property
    def passed(self):
        return sum(1 for _, ok in self.results if ok)

    @property
    def failed(self):
        return sum(1 for _, ok in self.results if not ok)
