"""Writes that fail: a real `zelipsconfig -port NEW` on an installation
whose last complete write set port OLD, under each condition of the table.

A run whose write fails must print the port confirmation, then the two
failure lines with the error number of the failure, exit 0 and leave
agent.ini and fallback.ini byte for byte as they were; a fresh -export then
shows port OLD from agent.ini, and once the condition is gone the next
-port goes through. The control rows show that the same set-up lets a write
through when nothing stands in its way, and what a failure of only one of
the two files leaves (the copy is written even when agent.ini was not).

The file size limit is RLIMIT_FSIZE with SIGXFSZ ignored, so that a write
past it fails with EFBIG instead of ending the process. The unwritable
folder needs a user that permissions apply to: when the tests run as root,
those runs switch to "nobody".
"""
import errno
import os
import pwd
import resource
import signal
import subprocess
import time

from common import (FAILURE_MARKS, INI_FILES, NOTHING_WRITTEN, WRITE_FAILED, Installation, export_lines, ini_lines,
                    url_port, verify)

OLD, NEW, LATER = 8100, 8101, 8102
CONFIRMED = "The port setting has been modified.\n"


def _port(data):
    for line in ini_lines(data):
        if line.startswith("agent.http.url="):
            return url_port(line[len("agent.http.url="):])
    return None


def _limit_file_size(limit):
    def apply():
        signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
        resource.setrlimit(resource.RLIMIT_FSIZE, (limit, limit))
    return apply


def _unprivileged():
    """A function that makes the child a user that permissions apply to, or
    None when this process already is one."""
    if os.geteuid() != 0:
        return lambda: None
    try:
        user = pwd.getpwnam("nobody")
    except KeyError:
        return None

    def apply():
        os.setgroups([])
        os.setgid(user.pw_gid)
        os.setuid(user.pw_uid)
    return apply


def _folder_read_only(lock_writable):
    def prepare(inst):
        os.chmod(inst.path("lockFile"), 0o666 if lock_writable else 0o444)
        os.chmod(inst.ips, 0o555)

    def undo(inst):
        os.chmod(inst.ips, 0o755)
        os.chmod(inst.path("lockFile"), 0o644)
    return prepare, undo


def _blocked_previous(name):
    """The previous version "<name>.1" replaced by a folder with something
    in it, which the replace cannot remove."""
    def prepare(inst):
        os.remove(inst.path(name + ".1"))
        os.makedirs(os.path.join(inst.path(name + ".1"), "in-the-way"))

    def undo(inst):
        os.rmdir(os.path.join(inst.path(name + ".1"), "in-the-way"))
        os.rmdir(inst.path(name + ".1"))
    return prepare, undo


def _nothing(inst):
    pass


# name, how the run is made, preparation and its undoing, expected
# (error number or None when the write goes through, port then in agent.ini,
# port then in fallback.ini).
def _cases(ini_size):
    read_only, read_only_undo = _folder_read_only(True)
    no_lock, no_lock_undo = _folder_read_only(False)
    agent_blocked, agent_blocked_undo = _blocked_previous("agent.ini")
    fallback_blocked, fallback_blocked_undo = _blocked_previous("fallback.ini")
    return [
        ("file size limit 0 bytes", _limit_file_size(0), _nothing, _nothing, (errno.EFBIG, OLD, OLD)),
        ("file size limit 1024 bytes", _limit_file_size(1024), _nothing, _nothing, (errno.EFBIG, OLD, OLD)),
        ("file size limit one byte below the new agent.ini", _limit_file_size(ini_size - 1), _nothing, _nothing,
         (errno.EFBIG, OLD, OLD)),
        ("file size limit at the new agent.ini (control)", _limit_file_size(ini_size), _nothing, _nothing,
         (None, NEW, NEW)),
        ("IPS folder not writable, lock file writable", "unprivileged", read_only, read_only_undo,
         (errno.EACCES, OLD, OLD)),
        ("agent.ini.1 cannot be removed: the copy is still written", None, agent_blocked, agent_blocked_undo,
         (errno.EISDIR, OLD, NEW)),
        ("fallback.ini.1 cannot be removed: agent.ini is written", None, fallback_blocked, fallback_blocked_undo,
         (errno.EISDIR, NEW, OLD)),
    ], ("IPS folder and lock file not writable (ten tries a second apart, twice)", "unprivileged", no_lock,
        no_lock_undo, (errno.EACCES, OLD, OLD))


class WriteFailures:
    def __init__(self, exe, tally):
        self.exe = exe
        self.tally = tally

    def _prepared(self):
        inst = Installation(self.exe, "failures")
        rc, out, err = inst.run(["-port", str(OLD)])
        if rc != 0 or any(m in out for m in FAILURE_MARKS) or any(verify(inst.read(n)) for n in INI_FILES):
            raise RuntimeError(f"set-up -port {OLD} failed: exit {rc}, {out!r} {err!r}")
        return inst

    def _start(self, inst, how):
        preexec = how
        if how == "unprivileged":
            preexec = _unprivileged()
        return subprocess.Popen([self.exe, "-port", str(NEW)], env=inst.environment(), stdin=subprocess.DEVNULL,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, preexec_fn=preexec)

    def _judge(self, name, inst, proc, before, undo, expected, t0):
        code, agent_port, fallback_port = expected
        out, err = proc.communicate(timeout=120)
        seconds = time.monotonic() - t0
        out, err = out.decode("utf-8", "replace"), err.decode("utf-8", "replace")
        undo(inst)
        problems = []
        if proc.returncode != 0 or err:
            problems.append(f"exit {proc.returncode}, stderr {err[-200:]!r}")
        if code is None:
            if any(m in out for m in FAILURE_MARKS):
                problems.append(f"a failure was reported: {out[-300:]!r}")
        else:
            failed = f"{CONFIRMED}{WRITE_FAILED}{code}\n{NOTHING_WRITTEN}"
            if not out.endswith(failed):
                problems.append(f"output ends {out[-250:]!r}, not {failed!r}")
        after = {n: inst.read(n) for n in INI_FILES}
        for n, want in zip(INI_FILES, (agent_port, fallback_port)):
            why = verify(after[n])
            if why:
                problems.append(f"{n} {why}")
            elif _port(after[n]) != want:
                problems.append(f"{n} holds port {_port(after[n])}, not {want}")
            elif want == OLD and after[n] != before[n]:
                problems.append(f"{n} changed")
        # What the next run loads: agent.ini, since it verifies.
        rc, out, err = inst.run(["-export"])
        lines = export_lines(out)
        if rc != 0 or lines is None or any(m in out for m in FAILURE_MARKS):
            problems.append(f"-export afterwards: exit {rc}, {out[-200:]!r}")
        elif lines != ini_lines(after["agent.ini"]):
            problems.append("-export afterwards does not show agent.ini")
        # And with the condition gone, writing works again.
        rc, out, err = inst.run(["-port", str(LATER)])
        if rc != 0 or any(m in out for m in FAILURE_MARKS):
            problems.append(f"-port {LATER} afterwards: exit {rc}, {out[-200:]!r}")
        for n in INI_FILES:
            data = inst.read(n)
            if verify(data) or _port(data) != LATER:
                problems.append(f"after -port {LATER}: {n} {verify(data) or f'holds port {_port(data)}'}")
        note = f"{seconds:.1f} s" + (f", error {code}" if code else ", written")
        self.tally.check(f"write failures: {name}", problems, note)

    def run(self):
        start = time.monotonic()
        unprivileged = _unprivileged()
        probe = self._prepared()
        ini_size = len(probe.read("agent.ini"))
        probe.remove()
        cases, slow = _cases(ini_size)

        # The slow case sleeps through twenty seconds of lock-file retries:
        # it runs while the others do. (Started before any thread exists,
        # as the child's set-up runs between fork and exec.)
        pending = None
        if unprivileged is None:
            self.tally.check(f"write failures: {slow[0]}", [], "skipped: no user 'nobody' to run as")
        else:
            name, how, prepare, undo, expected = slow
            inst = self._prepared()
            before = {n: inst.read(n) for n in INI_FILES}
            prepare(inst)
            pending = (name, inst, self._start(inst, how), before, undo, expected, time.monotonic())

        for name, how, prepare, undo, expected in cases:
            if how == "unprivileged" and unprivileged is None:
                self.tally.check(f"write failures: {name}", [], "skipped: no user 'nobody' to run as")
                continue
            inst = self._prepared()
            try:
                before = {n: inst.read(n) for n in INI_FILES}
                prepare(inst)
                t0 = time.monotonic()
                proc = self._start(inst, how)
                self._judge(name, inst, proc, before, undo, expected, t0)
            finally:
                inst.remove()

        if pending:
            name, inst, proc, before, undo, expected, t0 = pending
            try:
                self._judge(name, inst, proc, before, undo, expected, t0)
            finally:
                inst.remove()
        return time.monotonic() - start
