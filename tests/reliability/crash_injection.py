"""Crash injection: a real `zelipsconfig -port N` killed with SIGKILL at a
random moment, over and over.

Every round starts from a clean state: agent.ini and fallback.ini equal,
verifying, holding port OLD, no ".2" file. The tool is started with
`-port NEW` and killed after a random time. Then:

  1. the files are classified as the kill left them (killed before the write,
     inside the write window, after it);
  2. a fresh `-export` must print exactly the configuration of agent.ini or
     of fallback.ini as they are on disk after it, that configuration must be
     the reference one with port OLD or NEW (nothing else differs: never the
     defaults, never a mixture), and agent.ini and fallback.ini must then be
     present and verify (a replace cut between its renames is finished by
     the next run that loads the files);
  3. a complete `-port FRESH` must then succeed and leave both files equal,
     verifying, with port FRESH and no ".2" behind: the next round's OLD.

Most rounds run with ZELIPS_TEST_REPLACE_DELAY_MS (test builds pause for
that long before each rename of the replace), so that many kills land
between the steps of the write; every fourth runs without it, so that kills
also land at the moments the tool has without the pause.
"""
import random
import signal
import statistics
import time

from common import (INI_FILES, Installation, clean_state_problems, ini_lines, port_of, run_problems, url_port,
                    verify)

FIRST_PORT = 20000


def _next_port(port):
    return FIRST_PORT if port >= 60000 else port + 1


def _normalise(lines):
    """The export without its checksum line and with the port masked: what
    must be the same in every configuration the rounds can produce."""
    out = []
    for line in lines:
        if line.startswith("agentini.checksum="):
            continue
        if line.startswith("agent.http.url="):
            port = url_port(line[len("agent.http.url="):])
            line = line.replace(f":{port}/", ":PORT/")
        out.append(line)
    return out


def _classify(inst):
    """What the files look like after a kill: a list of the signs that the
    kill fell inside the write, empty when it fell before or after."""
    after = inst.snapshot()
    signs = []
    for name in ("agent.ini.2", "fallback.ini.2"):
        if after[name] is not None:
            signs.append(f"{name} present")
    for name in ("agent.ini", "fallback.ini", "agent.ini.1", "fallback.ini.1"):
        if after[name] is None:
            signs.append(f"{name} missing")
    if after["agent.ini"] is not None and after["fallback.ini"] is not None and \
            after["agent.ini"] != after["fallback.ini"]:
        signs.append("agent.ini and fallback.ini differ")
    return signs, after


class CrashInjection:
    def __init__(self, exe, tally, kills, seconds, delay_ms, seed):
        self.exe = exe
        self.tally = tally
        self.kills = kills
        self.seconds = seconds
        self.delay_ms = delay_ms
        self.rng = random.Random(seed)
        self.seed = seed

    @staticmethod
    def _complete_write(inst, port):
        """A -port run left to finish; the problems it shows."""
        rc, out, err = inst.run(["-port", str(port)])
        return (run_problems(f"-port {port}", rc, out, err, "The port setting has been modified.") +
                clean_state_problems(inst.snapshot(), f"after -port {port}", port))

    def _duration(self, inst, port, delay):
        """Median time of five complete runs with this pause; returns it and
        the port last written."""
        times = []
        for _ in range(5):
            port = _next_port(port)
            t0 = time.monotonic()
            rc, _, _ = inst.run(["-port", str(port)], delay_ms=delay)
            times.append(time.monotonic() - t0)
            if rc != 0:
                raise RuntimeError(f"-port {port} exited {rc}")
        return statistics.median(times), port

    def run(self):
        inst = Installation(self.exe, "crash")
        start = time.monotonic()
        try:
            self._run(inst, start)
        finally:
            inst.remove()
        return time.monotonic() - start

    def _run(self, inst, start):
        tally = self.tally
        setup = self._complete_write(inst, FIRST_PORT)
        old = FIRST_PORT
        lines, problems = inst.export()
        if not lines and not problems:
            problems = ["-export printed no configuration"]
        if setup or problems:
            tally.check("crash injection: set-up", setup + problems)
            return
        reference = _normalise(lines)

        durations = {}
        for delay in (0, self.delay_ms):
            durations[delay], old = self._duration(inst, old, delay)
        print(f"crash injection: a complete -port takes {durations[0] * 1000:.0f} ms, "
              f"{durations[self.delay_ms] * 1000:.0f} ms with a {self.delay_ms} ms pause before each rename; "
              f"seed {self.seed}", flush=True)

        wrong_config = []      # the export after a kill
        not_repaired = []      # agent.ini after that export
        later_write = []       # the complete write after it
        kills = finished = rounds = 0
        before_write = after_write = 0
        inside = 0
        signs_count = {}
        sources = {"agent.ini": 0, "agent.ini completed from agent.ini.2": 0, "fallback.ini": 0}
        shown_new = shown_old = 0
        deadline = start + self.seconds

        while kills < self.kills and time.monotonic() < deadline:
            rounds += 1
            delay = 0 if rounds % 4 == 0 else self.delay_ms
            new = _next_port(old)
            before = inst.snapshot()
            wait = self.rng.uniform(0, durations[delay] * 1.1)
            proc = inst.start(["-port", str(new)], delay_ms=delay)
            time.sleep(wait)
            proc.send_signal(signal.SIGKILL)
            status = proc.wait()
            if status != -signal.SIGKILL:
                # It finished before the kill: the write must be complete.
                finished += 1
                if status != 0:
                    later_write.append(f"-port {new} exited {status}")
                later_write += clean_state_problems(inst.snapshot(), f"after a finished -port {new}", new)
                old = new
                continue
            kills += 1
            signs, after = _classify(inst)
            if signs:
                inside += 1
                for s in signs:
                    signs_count[s] = signs_count.get(s, 0) + 1
            elif after == before:
                before_write += 1
            else:
                after_write += 1

            # A fresh export: the old or the new configuration, whole.
            tag = f"kill {kills} (port {old} -> {new}, {', '.join(signs) or 'outside the write'})"
            lines, problems = inst.export(f"{tag}: -export")
            wrong_config += problems
            if lines is not None:
                port = port_of(lines)
                if port not in (old, new):
                    wrong_config.append(f"{tag}: -export shows port {port}")
                elif _normalise(lines) != reference:
                    diff = [l for l in _normalise(lines) if l not in reference][:3]
                    wrong_config.append(f"{tag}: -export differs from the configuration written: {diff}")
                else:
                    shown_new += port == new
                    shown_old += port == old
                agent = inst.read("agent.ini")
                fallback = inst.read("fallback.ini")
                if agent is not None and ini_lines(agent) == lines:
                    if after["agent.ini"] is None:
                        sources["agent.ini completed from agent.ini.2"] += 1
                    else:
                        sources["agent.ini"] += 1
                elif fallback is not None and ini_lines(fallback) == lines:
                    sources["fallback.ini"] += 1
                else:
                    wrong_config.append(f"{tag}: -export matches neither agent.ini nor fallback.ini on disk")
            for name in INI_FILES:
                why = verify(inst.read(name))
                if why:
                    not_repaired.append(f"{tag}: after -export {name} {why}")

            # The next write goes through and leaves a clean state.
            fresh = _next_port(new)
            problems = self._complete_write(inst, fresh)
            later_write += [f"{tag}: {p}" for p in problems]
            old = fresh

        elapsed = time.monotonic() - start
        print(f"crash injection: {rounds} runs in {elapsed:.0f} s: {kills} killed, {finished} finished before "
              f"their kill", flush=True)
        print(f"  killed before writing: {before_write}; inside the write window: {inside}; "
              f"after both files were written: {after_write}", flush=True)
        for sign in sorted(signs_count):
            print(f"    {sign}: {signs_count[sign]}", flush=True)
        print(f"  -export after a kill showed the old port {shown_old} times, the new one {shown_new} times; "
              + ", ".join(f"loaded from {k}: {v}" for k, v in sources.items()), flush=True)

        tally.check(f"crash injection: -export after each of {kills} kills shows the old or the new configuration",
                    wrong_config)
        tally.check("crash injection: agent.ini and fallback.ini present and verifying after the run that follows a kill",
                    not_repaired)
        tally.check("crash injection: the write after a kill completes, both files verify and agree", later_write)
        enough = []
        if kills < self.kills // 2:
            enough.append(f"only {kills} kills in {self.seconds} s (asked for {self.kills})")
        if inside < kills // 4:
            enough.append(f"only {inside} of {kills} kills fell inside the write window")
        tally.check("crash injection: enough kills, and many inside the write window", enough,
                    f"{kills} kills, {inside} inside the window")
