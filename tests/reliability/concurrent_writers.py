"""Concurrent writers: eight processes at a time, each writer making its
changes through the real command line, one run per change, to keys that no
other writer touches. Beside them, readers run `-export` in a loop, and one
more reader takes the lock file as the tool does (a POSIX record lock on its
first 10000 bytes) and checks both files on disk while it holds it.

Each writer's changes count up, so that a reader can tell an older value
from a newer one. Afterwards:
  - every run exited 0 and printed its own confirmation and no failure;
  - agent.ini and fallback.ini verify, agree, and each key holds the last
    value its writer gave it; nothing else changed;
  - every export was a whole configuration, never went back to an older
    value of any writer's key, and held the code and text of -state from
    one and the same run;
  - every time the lock was free, both files were whole and verified;
  - the tool's audit log holds one whole record for each audited change.

The -uqel, -uvrev and -trace writers also prove each step: each of their
runs depends on the value the previous run left (a request that is still
pending is refused, a cancel with none pending is refused, -trace flips the
flag it reads), so a lost change shows in the next run's output.
"""
import fcntl
import os
import re
import threading
import time

from common import (INI_FILES, Installation, clean_state_problems, ini_lines, pairs, run_problems, url_port, values,
                    verify)

HOST = "mgmt1.demo.test"


def _content_writer(option, label, spaced, now_key, path_key, folders):
    """-OPTION FOLDER and -OPTION cancel in turn: step 2k asks for an update
    from folder k, step 2k+1 cancels it."""
    def args(i):
        return [option, folders[i // 2]] if i % 2 == 0 else [option, "cancel"]

    def says(i):
        if i % 2 == 0:
            return f"{spaced} update requested. \nUpdate folder - {folders[i // 2]}\n"
        return f"{label} update request canceled.\n"

    def final(n):
        last = n - 1
        return {now_key: "true" if last % 2 == 0 else "false", path_key: folders[last // 2]}

    def progress(v):
        path = v.get(path_key, "")
        if path not in folders:
            return -1
        k = folders.index(path)
        return 2 * k if v.get(now_key) == "true" else 2 * k + 1

    return {"name": option, "args": args, "says": says, "final": final, "progress": progress}


def _writers(folders_qel, folders_revo):
    def host_progress(v):
        m = re.fullmatch(re.escape(HOST) + r",backup(\d+)\.demo\.test", v.get("server.list", ""))
        return int(m.group(1)) if m else 0

    return [
        {"name": "-port", "args": lambda i: ["-port", str(20001 + i)],
         "says": lambda i: "The port setting has been modified.\n",
         "final": lambda n: {"agent.http.url": f"https://{HOST}:{20000 + n}/zelshield/agent/"},
         "progress": lambda v: url_port(v.get("agent.http.url", "")) - 20000},
        # In minutes, from 61 up: above the 60 minutes the demo starts with.
        {"name": "-failbackinterval", "args": lambda i: ["-failbackinterval", str(61 + i)],
         "says": lambda i: "The Failback Interval setting has been modified \n",
         "final": lambda n: {"failback.interval": str(60 * (60 + n))},
         "progress": lambda v: int(v.get("failback.interval", "0")) // 60},
        {"name": "-overridetimeout", "args": lambda i: ["-overridetimeout", str(91 + i)],
         "says": lambda i: f"Successfully set Policy override timeout value to {91 + i}\n",
         "final": lambda n: {"override.timeout": str(90 + n)},
         "progress": lambda v: int(v.get("override.timeout", "90")) - 90},
        {"name": "-state", "args": lambda i: ["-state", str(i + 1), f"step{i + 1}"],
         "says": lambda i: "",
         "final": lambda n: {"policy.state.error.code": str(n), "policy.state.error.string": f"step{n}"},
         "progress": lambda v: int(v.get("policy.state.error.code", "0"))},
        {"name": "-host", "args": lambda i: ["-host", f"{HOST},backup{i + 1}.demo.test"],
         "says": lambda i: "The Management Server host list has been modified \n",
         "final": lambda n: {"server.list": f"{HOST},backup{n}.demo.test"},
         "progress": host_progress},
        _content_writer("-uqel", "TesQEL component", "TesQEL component", "update.qel.vt.now", "qel.vt.udpkg.path", folders_qel),
        _content_writer("-uvrev", "Veltrium Revocation content", "Veltrium Revocation content ",
                        "update.veltrium.revo.now",
                        "veltrium.revo.udpkg.path", folders_revo),
        {"name": "-trace", "args": lambda i: ["-trace"],
         "says": lambda i: f"tracing has been turned {'on' if i % 2 == 0 else 'off'}\n",
         "final": lambda n: {"agentlog.log.trace.messages": "true" if n % 2 else "false"},
         "progress": None},
    ]


# Audit records the writers must leave, one per run: (writer, text in the
# record). -trace writes the same two texts in turn: its records are counted.
AUDITED = {
    "-port": lambda i: f'"Configuration tool: the port setting was set to {20001 + i}"',
    "-failbackinterval": lambda i: f'"Configuration tool: the failbackinterval setting was set to {61 + i}"',
    "-host": lambda i: f'"Configuration tool: the host setting was set to {HOST},backup{i + 1}.demo.test"',
}
RECORD = re.compile(r'[A-Z]+,\d+,\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3},[A-Za-z:]+,\d*,".*"')


class ConcurrentWriters:
    def __init__(self, exe, tally, writers, changes):
        self.exe = exe
        self.tally = tally
        self.count = writers
        self.changes = changes

    def run(self):
        start = time.monotonic()
        inst = Installation(self.exe, "concurrent")
        try:
            self._run(inst)
        finally:
            inst.remove()
        return time.monotonic() - start

    def _run(self, inst):
        n = self.changes
        folders = {kind: [os.path.join(inst.root, "content", f"{kind}{k}") for k in range((n + 1) // 2)]
                   for kind in ("qel", "revo")}
        for path in folders["qel"] + folders["revo"]:
            os.makedirs(path)
        writers = _writers(folders["qel"], folders["revo"])[:self.count]

        # The configuration as the first write leaves it: every key that no
        # writer touches must keep its value to the end.
        rc, out, err = inst.run(["-retranslate"])
        initial = inst.read("agent.ini")
        if rc != 0 or verify(initial):
            self.tally.check("concurrent writers: set-up", [f"-retranslate exited {rc}: {out!r} {err!r}"])
            return
        reference = pairs(ini_lines(initial))
        owned = {"agentini.checksum"}
        for w in writers:
            owned.update(w["final"](n).keys())

        writer_problems = []
        done = threading.Event()
        lock = threading.Lock()

        def write(w):
            for i in range(n):
                args = w["args"](i)
                problems = run_problems(" ".join(args), *inst.run(args), w["says"](i))
                with lock:
                    writer_problems.extend(problems)

        reader_problems = []
        reads = {"export": 0, "locked": 0}

        def check_whole(where, got_pairs):
            problems = []
            names = [k for k, _ in got_pairs]
            if names != [k for k, _ in reference]:
                problems.append(f"{where}: not a whole configuration ({len(names)} keys)")
                return problems
            for (k, v), (_, ref) in zip(got_pairs, reference):
                if k not in owned and v != ref:
                    problems.append(f"{where}: {k}={v}, never written (was {ref})")
            d = dict(got_pairs)
            code = d.get("policy.state.error.code")
            text = d.get("policy.state.error.string")
            if code != "0" and text != f"step{code}":
                problems.append(f"{where}: -state code {code} with the text {text!r} of another run")
            return problems

        def export_reader():
            last = {}
            while not done.is_set():
                lines, problems = inst.export()
                if lines is not None:
                    got = pairs(lines)
                    problems += check_whole("-export", got)
                    v = dict(got)
                    for w in writers:
                        if w["progress"] is None:
                            continue
                        try:
                            step = w["progress"](v)
                        except (TypeError, ValueError) as e:
                            problems.append(f"-export: the value of {w['name']} cannot be read: {e}")
                            continue
                        if step < last.get(w["name"], step):
                            problems.append(f"-export: the value of {w['name']} went back from step "
                                            f"{last[w['name']]} to {step}")
                        last[w["name"]] = step
                with lock:
                    reads["export"] += 1
                    reader_problems.extend(problems)

        def guarded(body, sink):
            """A thread body whose unexpected error becomes a reported problem."""
            def run(*args):
                try:
                    body(*args)
                except Exception as e:  # noqa: BLE001 - reported, not hidden
                    with lock:
                        sink.append(f"{body.__name__}: {type(e).__name__}: {e}")
            return run

        def locked_reader():
            fd = os.open(inst.path("lockFile"), os.O_WRONLY | os.O_CREAT, 0o644)
            try:
                while not done.is_set():
                    fcntl.lockf(fd, fcntl.LOCK_EX, 10000, 0, os.SEEK_SET)
                    try:
                        snap = {name: inst.read(name) for name in INI_FILES}
                    finally:
                        fcntl.lockf(fd, fcntl.LOCK_UN, 10000, 0, os.SEEK_SET)
                    problems = []
                    for name in INI_FILES:
                        why = verify(snap[name])
                        if why:
                            problems.append(f"under the lock: {name} {why}")
                        else:
                            problems += check_whole(f"under the lock: {name}", pairs(ini_lines(snap[name])))
                    with lock:
                        reads["locked"] += 1
                        reader_problems.extend(problems)
                    time.sleep(0.005)
            finally:
                os.close(fd)

        t0 = time.monotonic()
        threads = [threading.Thread(target=guarded(write, writer_problems), args=(w,)) for w in writers]
        readers = [threading.Thread(target=guarded(export_reader, reader_problems)) for _ in range(2)]
        readers.append(threading.Thread(target=guarded(locked_reader, reader_problems)))
        for t in readers + threads:
            t.start()
        for t in threads:
            t.join()
        writing = time.monotonic() - t0
        done.set()
        for t in readers:
            t.join()

        # The end state.
        snap = inst.snapshot()
        final_problems = clean_state_problems(snap, "at the end")
        verified = 0
        if not final_problems:
            got = values(snap["agent.ini"])
            final_problems += check_whole("agent.ini", pairs(ini_lines(snap["agent.ini"])))
            for w in writers:
                for key, want in w["final"](n).items():
                    if got.get(key) != want:
                        final_problems.append(f"{w['name']}: {key}={got.get(key)}, its last change gave {want}")
                    else:
                        verified += 1

        audit_problems = []
        with open(os.path.join(inst.root, "logs", "zelipsconfigtool.log"), encoding="utf-8") as f:
            log = f.read().split("\n")
        if log and log[-1] == "":
            log.pop()
        for line in log:
            if not RECORD.fullmatch(line):
                audit_problems.append(f"not a whole record: {line[:120]!r}")
        for w in writers:
            for i in range(n if w["name"] in AUDITED else 0):
                want = AUDITED[w["name"]](i)
                if sum(1 for line in log if line.endswith(want)) != 1:
                    audit_problems.append(f"{w['name']} run {i + 1}: no single audit record ending {want}")
            if w["name"] == "-trace":
                for state, count in (("on", (n + 1) // 2), ("off", n // 2)):
                    got = sum(1 for line in log if line.endswith(f'tracing turned {state}"'))
                    if got != count:
                        audit_problems.append(f"-trace: {got} records of tracing turned {state}, not {count}")

        runs = len(writers) * n
        print(f"concurrent writers: {len(writers)} writers x {n} changes = {runs} runs in {writing:.1f} s; "
              f"{reads['export']} exports and {reads['locked']} reads under the lock beside them; "
              f"{verified} final values verified", flush=True)
        self.tally.check(f"concurrent writers: all {runs} runs exited 0 and confirmed their change", writer_problems)
        self.tally.check("concurrent writers: both files verify, agree, and hold every writer's last value",
                         final_problems, f"{verified} keys")
        self.tally.check("concurrent writers: readers never saw a partial, corrupt, mixed or older configuration",
                         reader_problems, f"{reads['export']} exports, {reads['locked']} locked reads")
        if reads["export"] < 10 or reads["locked"] < 10:
            self.tally.check("concurrent writers: readers ran beside the writers",
                             [f"only {reads['export']} exports and {reads['locked']} locked reads"])
        self.tally.check("concurrent writers: one whole audit record per audited change", audit_problems,
                         f"{len(log)} records")
