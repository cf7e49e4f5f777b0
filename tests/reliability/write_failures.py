"""Writes that fail: a real `zelipsconfig -port NEW` on an installation
whose last complete write set port OLD, under each condition of the table.

A run whose write fails must print the port confirmation, then the two
failure lines with the error number of the failure, exit 0, leave
agent.ini and fallback.ini byte for byte as they were and no part of a new
version (".2") behind; a run that cannot open the lock file must say that
agent.ini could not be accessed, and change nothing. A fresh -export then
shows port OLD from agent.ini, and once the condition is gone the next
-port goes through. The control rows show that the same set-up lets a write
through when nothing stands in its way, and what a failure of only one of
the two files leaves (the copy is written even when agent.ini was not).

The file size limit is RLIMIT_FSIZE, with SIGXFSZ ignored by the caller or
at its default (which would end a process that does not ignore it itself):
either way a write past it must fail with EFBIG. The unwritable
folder needs a user that permissions apply to: when the tests run as root,
those runs switch to "nobody".
"""
import errno
import os
import pwd
import resource
import signal
import time

from common import (INI_FILES, NOTHING_WRITTEN, WRITE_FAILED, Installation, clean_state_problems, ini_lines, port_of,
                    run_problems, verify)

OLD, NEW, LATER = 8100, 8101, 8102
CONFIRMED = "The port setting has been modified.\n"
NO_ACCESS = "Could not Access Agent.ini file.\nNo changes were written to the agent.ini file.\n"
NO_USER = "skipped: no user 'nobody' to run as"


def _limit_file_size(limit, ignore_signal=True):
    def apply():
        if ignore_signal:
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


def _folder_read_only(lock_mode):
    """The IPS folder made read-only, the lock file given this mode; and the undoing."""
    def prepare(inst):
        os.chmod(inst.path("lockFile"), lock_mode)
        os.chmod(inst.ips, 0o555)

    def undo(inst):
        os.chmod(inst.ips, 0o755)
        os.chmod(inst.path("lockFile"), 0o644)
    return prepare, undo


def _blocked_previous(name):
    """The previous version "<name>.1" replaced by a folder with something
    in it, which the replace cannot remove; and the undoing."""
    def prepare(inst):
        os.remove(inst.path(name + ".1"))
        os.makedirs(os.path.join(inst.path(name + ".1"), "in-the-way"))

    def undo(inst):
        os.rmdir(os.path.join(inst.path(name + ".1"), "in-the-way"))
        os.rmdir(inst.path(name + ".1"))
    return prepare, undo


def _blocked_next(name):
    """The new text's file "<name>.2" taken by a folder, which cannot be
    opened for writing, with no previous versions about (as before a first
    write: the copy's write then meets a missing file, which must not
    become the error reported); and the undoing."""
    def prepare(inst):
        for previous in ("agent.ini.1", "fallback.ini.1"):
            os.remove(inst.path(previous))
        os.makedirs(inst.path(name + ".2"))

    def undo(inst):
        os.rmdir(inst.path(name + ".2"))
    return prepare, undo


_NOTHING = (lambda inst: None, lambda inst: None)


# name, how the run is made ("unprivileged" or a preexec function),
# (preparation, its undoing), expected (error number, None when the write
# goes through or NO_ACCESS when nothing is read; port then in agent.ini,
# port then in fallback.ini).
def _cases(ini_size):
    return [
        ("file size limit 0 bytes", _limit_file_size(0), _NOTHING, (errno.EFBIG, OLD, OLD)),
        ("file size limit 1024 bytes", _limit_file_size(1024), _NOTHING, (errno.EFBIG, OLD, OLD)),
        ("file size limit 1024 bytes, SIGXFSZ not ignored", _limit_file_size(1024, ignore_signal=False), _NOTHING,
         (errno.EFBIG, OLD, OLD)),
        ("file size limit one byte below the new agent.ini", _limit_file_size(ini_size - 1), _NOTHING,
         (errno.EFBIG, OLD, OLD)),
        ("file size limit at the new agent.ini (control)", _limit_file_size(ini_size), _NOTHING, (None, NEW, NEW)),
        ("IPS folder not writable, lock file writable", "unprivileged", _folder_read_only(0o666),
         (errno.EACCES, OLD, OLD)),
        ("agent.ini.1 cannot be removed: the copy is still written", None, _blocked_previous("agent.ini"),
         (errno.EISDIR, OLD, NEW)),
        ("fallback.ini.1 cannot be removed: agent.ini is written", None, _blocked_previous("fallback.ini"),
         (errno.EISDIR, NEW, OLD)),
        ("agent.ini.2 cannot be created: the copy is still written", None, _blocked_next("agent.ini"),
         (errno.EISDIR, OLD, NEW)),
    ], ("IPS folder and lock file not writable (ten tries a second apart, then no access)", "unprivileged",
        _folder_read_only(0o444), (NO_ACCESS, OLD, OLD))


class WriteFailures:
    def __init__(self, exe, tally):
        self.exe = exe
        self.tally = tally
        self.unprivileged = _unprivileged()

    def _prepared(self):
        inst = Installation(self.exe, "failures")
        problems = run_problems(f"set-up -port {OLD}", *inst.run(["-port", str(OLD)]))
        problems += clean_state_problems(inst.snapshot(), "set-up", OLD)
        if problems:
            raise RuntimeError("; ".join(problems))
        return inst

    def _skipped(self, case):
        if case[1] == "unprivileged" and self.unprivileged is None:
            self.tally.check(f"write failures: {case[0]}", [], NO_USER)
            return True
        return False

    def _begin(self, case):
        """A fresh installation under the case's condition, and -port NEW started on it."""
        name, how, (prepare, undo), expected = case
        inst = self._prepared()
        try:
            before = inst.snapshot(INI_FILES)
            prepare(inst)
            proc = inst.start(["-port", str(NEW)], preexec_fn=self.unprivileged if how == "unprivileged" else how,
                              capture=True)
        except BaseException:
            inst.remove()
            raise
        return name, inst, proc, before, undo, expected, time.monotonic()

    def _judge(self, name, inst, proc, before, undo, expected, t0):
        try:
            self._check(name, inst, proc, before, undo, expected, t0)
        finally:
            inst.remove()

    def _check(self, name, inst, proc, before, undo, expected, t0):
        code, agent_port, fallback_port = expected
        rc, out, err = inst.finish(proc)
        seconds = time.monotonic() - t0
        undo(inst)
        problems = []
        if rc != 0 or err:
            problems.append(f"exit {rc}, stderr {err[-200:]!r}")
        if code is None:
            problems += run_problems("a failure was reported", 0, out, "")
        elif code == NO_ACCESS:
            if not out.endswith(NO_ACCESS) or CONFIRMED in out:
                problems.append(f"output ends {out[-250:]!r}, not {NO_ACCESS!r} alone")
        else:
            failed = f"{CONFIRMED}{WRITE_FAILED}{code}\n{NOTHING_WRITTEN}"
            if not out.endswith(failed):
                problems.append(f"output ends {out[-250:]!r}, not {failed!r}")
        for n in INI_FILES:
            if os.path.lexists(inst.path(n + ".2")):
                problems.append(f"{n}.2 left behind")
        after = inst.snapshot(INI_FILES)
        for n, want in zip(INI_FILES, (agent_port, fallback_port)):
            why = verify(after[n])
            if why:
                problems.append(f"{n} {why}")
            elif port_of(ini_lines(after[n])) != want:
                problems.append(f"{n} holds port {port_of(ini_lines(after[n]))}, not {want}")
            elif want == OLD and after[n] != before[n]:
                problems.append(f"{n} changed")
        # What the next run loads: agent.ini, since it verifies.
        lines, export_problems = inst.export("-export afterwards")
        problems += export_problems
        if lines is not None and lines != ini_lines(after["agent.ini"]):
            problems.append("-export afterwards does not show agent.ini")
        # And with the condition gone, writing works again.
        rc, out, err = inst.run(["-port", str(LATER)])
        problems += run_problems(f"-port {LATER} afterwards", rc, out, err)
        problems += clean_state_problems(inst.snapshot(), f"after -port {LATER}", LATER)
        note = f"{seconds:.1f} s" + (", no access" if code == NO_ACCESS else f", error {code}" if code else ", written")
        self.tally.check(f"write failures: {name}", problems, note)

    def run(self):
        start = time.monotonic()
        probe = self._prepared()
        ini_size = len(probe.read("agent.ini"))
        probe.remove()
        cases, slow = _cases(ini_size)

        # The slow case sleeps through twenty seconds of lock-file retries:
        # it runs while the others do. (Started before any thread exists,
        # as the child's set-up runs between fork and exec.)
        pending = None if self._skipped(slow) else self._begin(slow)
        for case in cases:
            if not self._skipped(case):
                self._judge(*self._begin(case))
        if pending:
            self._judge(*pending)
        return time.monotonic() - start
