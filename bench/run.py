#!/usr/bin/env python3
"""Runs the benchmarks of zelipsconfig and checks them against their targets.

Called by scripts/bench, which builds the programs first. The commands run on
copies of the demo installation (examples/demo), made as scripts/demo makes
them:

  start-up   -export and -view against the floor of a read-only command
             (floor_read: start a process, read agent.ini, write it out),
             and crudini --get on the same file as the peer; elapsed-time
             medians from hyperfine;
  modify     -trace (a whole change: read, write agent.ini and fallback.ini
             by the safe replace, the audit log) against the floor of two
             safe replaces committed to disk (floor_replace), and crudini
             --set as the peer; elapsed-time medians, on the disk and on a
             memory file system;
  scaling    -export on agent.ini files from 50 KB to 50 MB: processor time
             per MB beyond the 2 KB file, peak resident memory; 5 MB against
             md5sum plus cat of the same bytes (processor time);
  memory     peak resident memory of -view (and of every size above);
  micro      the Google Benchmark program (bytes per second).

Noise from other work on the machine is met with rounds: each comparison is
made in several rounds, each round times the commands side by side, and the
ratio reported is the median of the rounds' ratios.

The figures go to WORK/results/figures.json, a table to figures.txt and
figures.md, and the scaling data to scaling.dat (for bench/plot.gp).
Exit status 1 when a target is missed.

--smoke runs every benchmark once, briefly, and checks nothing but that they
run (for CI).
"""
import argparse
import json
import os
import platform
import shlex
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

MB = 1 << 20
SIZES = [50_000, 500_000, 5_000_000, 50_000_000]


class Bench:
    def __init__(self, args):
        self.root = os.path.abspath(args.root)
        self.bin = os.path.abspath(args.bin)
        self.work = os.path.abspath(args.work)
        self.smoke = args.smoke
        self.rounds = 1 if args.smoke else args.rounds
        self.results = os.path.join(self.work, "results")
        self.figures = {}
        self.targets = []
        os.makedirs(self.results, exist_ok=True)
        self.tool = os.path.join(self.bin, "zelipsconfig")
        self.crudini = shutil.which("crudini")

    # ---- helpers

    def log(self, text):
        print(text, flush=True)

    def install(self, name, agent_ini=None, base=None):
        """A fresh copy of the demo installation; returns (folder, environment)."""
        folder = os.path.join(base or self.work, name)
        shutil.rmtree(folder, ignore_errors=True)
        shutil.copytree(os.path.join(self.root, "examples", "demo"), folder)
        for f in ("registry.reg", "IPS/agent.ini", "IPS/fallback.ini"):
            p = os.path.join(folder, f)
            with open(p, "rb") as fh:
                text = fh.read()
            text = text.replace(b"@INSTALL_ROOT@", folder.encode()).replace(b"@LOG_ROOT@", (folder + "/logs").encode())
            with open(p, "wb") as fh:
                fh.write(text)
        os.makedirs(os.path.join(folder, "logs"), exist_ok=True)
        if agent_ini is not None:
            for f in ("agent.ini", "fallback.ini"):
                shutil.copyfile(agent_ini, os.path.join(folder, "IPS", f))
        env = dict(os.environ, ZELIPS_REGISTRY=os.path.join(folder, "registry.reg"),
                   ZELIPS_DEVICE=os.path.join(folder, "no-driver"))
        return folder, env

    def hyperfine(self, commands, env, runs, warmup=5, prepare=None):
        """Medians (seconds) of the commands, timed side by side."""
        if self.smoke:
            for c in commands:
                if prepare:
                    subprocess.run(shlex.split(prepare), env=env, stdout=subprocess.DEVNULL, check=True)
                subprocess.run(c, env=env, stdout=subprocess.DEVNULL, check=True)
            return [0.0] * len(commands)
        with tempfile.NamedTemporaryFile(suffix=".json", dir=self.work, delete=False) as out:
            path = out.name
        argv = ["hyperfine", "-N", "--style", "none", "--runs", str(runs), "--warmup", str(warmup),
                "--export-json", path]
        if prepare:
            argv += ["--prepare", prepare]
        argv += [shlex.join(c) for c in commands]
        done = subprocess.run(argv, env=env, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
        if done.returncode != 0:  # hyperfine's warnings are left out unless it fails
            sys.stderr.write(done.stderr)
            raise subprocess.CalledProcessError(done.returncode, argv)
        with open(path) as f:
            data = json.load(f)
        os.unlink(path)
        return [r["median"] for r in data["results"]]

    def rounds_of(self, commands, env, runs, warmup=5, prepare=None):
        """Medians per command over all rounds, and the per-round medians."""
        per_round = [self.hyperfine(commands, env, runs, warmup, prepare) for _ in range(self.rounds)]
        return per_round

    def rusage(self, argv, env, runs):
        """Processor time (ms) and peak memory (KB) of each of `runs` runs."""
        times, peaks = self.rusage_turns([(argv, {})], runs, env)
        return times[0], peaks[0]

    def rusage_turns(self, commands, runs, env=None):
        """Like rusage, for several (argv, variables) commands run in turn, so
        that a drift of the machine's speed falls on all of them alike: per
        command, the processor times (ms) and peak memories (KB)."""
        argv = [os.path.join(self.bin, "rusage"), str(1 if self.smoke else runs)]
        for i, (words, variables) in enumerate(commands):
            argv += ([":::"] if i else []) + ["%s=%s" % kv for kv in sorted(variables.items())] + words
        out = subprocess.run(argv, env=env, capture_output=True, text=True, check=True)
        times, peaks = [[] for _ in commands], [[] for _ in commands]
        for line in out.stdout.split("\n"):
            if line.strip():
                k, cpu, rss = (int(w) for w in line.split())
                times[k].append(cpu / 1e3)
                peaks[k].append(rss)
        return times, peaks

    def peak_rss_kb(self, argv, env, times=3):
        return max(self.rusage(argv, env, times)[1])

    def target(self, name, value, limit, kind, unit=""):
        """kind 'max': value must not exceed limit; 'min': must reach it."""
        ok = value <= limit if kind == "max" else value >= limit
        self.targets.append({"name": name, "value": value, "target": limit, "kind": kind, "unit": unit,
                             "ok": bool(ok)})

    # ---- the benchmarks

    def startup(self):
        self.log("start-up: -export, -view, floor_read, crudini --get")
        folder, env = self.install("startup")
        ini = os.path.join(folder, "IPS", "agent.ini")
        floor = [os.path.join(self.bin, "floor_read"), ini]
        export = [self.tool, "-export"]
        view = [self.tool, "-view"]
        rounds = self.rounds_of([floor, export, view], env, runs=60, warmup=20)
        med = [statistics.median(r[i] for r in rounds) for i in range(3)]
        f = {"floor_read_ms": med[0] * 1e3, "export_ms": med[1] * 1e3, "view_ms": med[2] * 1e3}
        if not self.smoke:
            f["export_over_floor"] = statistics.median(r[1] / r[0] for r in rounds)
            f["view_over_floor"] = statistics.median(r[2] / r[0] for r in rounds)
        if self.crudini:
            peer = [self.crudini, "--get", ini, "Agent", "agent.name"]
            rounds = self.rounds_of([export, view, peer], env, runs=15, warmup=3)
            f["crudini_get_ms"] = statistics.median(r[2] for r in rounds) * 1e3
            if not self.smoke:
                f["crudini_get_over_export"] = statistics.median(r[2] / r[0] for r in rounds)
                f["crudini_get_over_view"] = statistics.median(r[2] / r[1] for r in rounds)
        self.figures["startup"] = f
        if not self.smoke:
            self.target("-export / floor_read", f["export_over_floor"], 1.5, "max", "x")
            self.target("-view / floor_read", f["view_over_floor"], 1.5, "max", "x")
            if self.crudini:
                self.target("crudini --get / -export", f["crudini_get_over_export"], 20, "min", "x")
                self.target("crudini --get / -view", f["crudini_get_over_view"], 20, "min", "x")

    def modify_on(self, where, base):
        """-trace, floor_replace and crudini --set on a copy in folder `base`."""
        folder, env = self.install("modify", base=base)
        ini = os.path.join(folder, "IPS", "agent.ini")
        floor = [os.path.join(self.bin, "floor_replace"), ini]
        trace = [self.tool, "-trace"]  # turns tracing on, then off, then on...
        rounds = self.rounds_of([floor, trace], env, runs=20, warmup=3)
        f = {"floor_replace_ms": statistics.median(r[0] for r in rounds) * 1e3,
             "trace_ms": statistics.median(r[1] for r in rounds) * 1e3}
        if not self.smoke:
            f["trace_over_floor"] = statistics.median(r[1] / r[0] for r in rounds)
        if self.crudini:
            # The peer works on its own copy of the same file; every timed run
            # changes the value (the preparation sets it back, untimed).
            copy = os.path.join(folder, "crudini-agent.ini")
            shutil.copyfile(ini, copy)
            key = ["AgentLog", "agentlog.log.trace.messages"]
            peer = [self.crudini, "--set", copy] + key + ["true"]
            reset = shlex.join([self.crudini, "--set", copy] + key + ["false"])
            per_round = []
            for _ in range(self.rounds):
                t = self.hyperfine([trace, floor], env, runs=10, warmup=2)
                p = self.hyperfine([peer], env, runs=10, warmup=2, prepare=reset)
                per_round.append((t[0], t[1], p[0]))
            f["crudini_set_ms"] = statistics.median(p for _, _, p in per_round) * 1e3
            if not self.smoke:
                f["crudini_set_over_trace"] = statistics.median(p / t for t, _, p in per_round)
                f["crudini_set_over_floor"] = statistics.median(p / fl for _, fl, p in per_round)
        shutil.rmtree(folder, ignore_errors=True)
        self.log("  %s: floor_replace %.2f ms, -trace %.2f ms, crudini --set %.1f ms" % (
            where, f["floor_replace_ms"], f["trace_ms"], f.get("crudini_set_ms", float("nan"))))
        return f

    def modify(self):
        # Two places: the build folder's file system, where every commit to
        # disk (fsync) is a real write to the machine's disk, as in use; and a
        # memory file system (tmpfs), where a commit costs next to nothing, so
        # that the figures show the programs' own work. crudini commits
        # nothing, so it is compared with the tool on the memory file system;
        # the floor, which commits as the tool does, on the disk.
        self.log("modify: -trace, floor_replace, crudini --set")
        disk = self.modify_on("disk", self.work)
        self.figures["modify"] = {"disk": disk}
        memory = None
        if os.path.isdir("/dev/shm") and os.access("/dev/shm", os.W_OK):
            base = tempfile.mkdtemp(prefix="zelips-bench-", dir="/dev/shm")
            try:
                memory = self.modify_on("tmpfs", base)
            finally:
                shutil.rmtree(base, ignore_errors=True)
            self.figures["modify"]["tmpfs"] = memory
        if not self.smoke:
            self.target("-trace / floor_replace (disk)", disk["trace_over_floor"], 1.5, "max", "x")
            if self.crudini and memory:
                self.target("crudini --set / -trace (tmpfs)", memory["crudini_set_over_trace"], 15, "min", "x")

    def scaling(self):
        # -export takes from a millisecond to a good fraction of a second
        # here. Elapsed time of the longer runs on a shared machine counts the
        # time the process waited for a processor, which grows with the run's
        # length; processor time (user plus system) does not, so the time
        # per MB and the comparison with md5sum and cat use processor time.
        # Elapsed medians are recorded beside them.
        sizes = SIZES[:2] if self.smoke else SIZES
        self.log("scaling: -export on %s" % ", ".join("%g MB" % (s / 1e6) for s in sizes))
        demo_ini = os.path.join(self.work, "base-agent.ini")
        _, env = self.install("scaling-base")
        # The store's own text of the demo agent.ini (with its checksum) is the
        # base of every size.
        subprocess.run([self.tool, "-log", "benchmark"], env=env, stdout=subprocess.DEVNULL, check=True)
        shutil.copyfile(os.path.join(self.work, "scaling-base", "IPS", "agent.ini"), demo_ini)
        _, base_env = self.install("scaling-2k", demo_ini)
        export = [self.tool, "-export"]

        def installation(e):
            return {k: e[k] for k in ("ZELIPS_REGISTRY", "ZELIPS_DEVICE")}

        base_cpu = []
        rows = []
        for size in sizes:
            ini = os.path.join(self.work, "agent-%d.ini" % size)
            subprocess.run([sys.executable, os.path.join(self.root, "bench", "make_agent_ini.py"), demo_ini,
                            str(size), ini], check=True)
            folder, env = self.install("scaling-%d" % size, ini)
            actual = os.path.getsize(ini)
            # A small file costs little more than the start-up: many runs, so
            # that the difference is not lost in the start-up's spread. The
            # 5 MB comparison with md5sum and cat gets at least ten a round:
            # three runs of a 30 ms command were too few for a stable median.
            runs = max(10 if actual <= 5_000_100 else 3, min(200, int(1e7 / actual)))
            per_round, peaks = [], []
            five = size == 5_000_000
            # The 2 KB file, this size (and md5sum and cat of it) in turn.
            commands = [(export, installation(base_env)), (export, installation(env))]
            if five:
                commands += [(["md5sum", ini], {}), (["cat", ini], {})]
            for _ in range(self.rounds):
                times, p = self.rusage_turns(commands, runs)
                per_round.append([statistics.median(t) for t in times])
                peaks += p[1]
            base_cpu += [r[0] for r in per_round]
            wall = self.hyperfine([export], env, runs=max(3, runs // 2), warmup=1)[0]
            row = {"size_bytes": actual,
                   "export_cpu_ms": statistics.median(r[1] for r in per_round),
                   "export_wall_ms": wall * 1e3,
                   "ms_per_mb": statistics.median((r[1] - r[0]) / (actual / MB) for r in per_round),
                   "peak_rss_kb": max(peaks)}
            if five:
                row["md5sum_cpu_ms"] = statistics.median(r[2] for r in per_round)
                row["cat_cpu_ms"] = statistics.median(r[3] for r in per_round)
                row["over_md5sum_cat"] = statistics.median(r[1] / (r[2] + r[3]) for r in per_round)
                if not self.smoke:
                    w = self.hyperfine([export, ["md5sum", ini], ["cat", ini]], env, runs=runs, warmup=1)
                    row["md5sum_wall_ms"] = w[1] * 1e3
                    row["cat_wall_ms"] = w[2] * 1e3
                    row["over_md5sum_cat_wall"] = w[0] / (w[1] + w[2])
            rows.append(row)
            # The large copies are not needed any more.
            shutil.rmtree(folder, ignore_errors=True)
            os.unlink(ini)
            self.log("  %8.2f MB: %9.2f ms processor, %9.2f ms elapsed, %6.2f ms/MB, peak %6.1f MB" % (
                actual / 1e6, row["export_cpu_ms"], row["export_wall_ms"], row["ms_per_mb"],
                row["peak_rss_kb"] / 1024))
        self.figures["scaling"] = {"export_2kb_cpu_ms": statistics.median(base_cpu), "sizes": rows}
        with open(os.path.join(self.results, "scaling.dat"), "w") as f:
            f.write("# size_mb ms_per_mb peak_rss_mb\n")
            for r in rows:
                f.write("%.4f %.3f %.2f\n" % (r["size_bytes"] / MB, r["ms_per_mb"], r["peak_rss_kb"] / 1024))
        if not self.smoke:
            per_mb = [r["ms_per_mb"] for r in rows]
            flat = max(per_mb) / min(per_mb)
            self.figures["scaling"]["flatness"] = flat
            self.target("-export ms/MB, largest / smallest (50 KB .. 50 MB)", flat, 1.2, "max", "x")
            five = next(r for r in rows if "over_md5sum_cat" in r)
            self.target("-export 5 MB / (md5sum + cat)", five["over_md5sum_cat"], 3, "max", "x")
            self.target("peak memory, -export of 5 MB", five["peak_rss_kb"] / 1024, 30, "max", "MB")

    def memory(self):
        self.log("memory: -view")
        _, env = self.install("memory")
        kb = self.peak_rss_kb([self.tool, "-view"], env)
        self.figures["memory"] = {"view_peak_kb": kb}
        if not self.smoke:
            self.target("peak memory, -view", kb / 1024, 6, "max", "MB")

    def micro(self):
        self.log("micro-benchmarks")
        out = os.path.join(self.results, "micro.json")
        argv = [os.path.join(self.bin, "micro_benchmarks"), "--benchmark_out=" + out,
                "--benchmark_out_format=json", "--benchmark_format=console"]
        argv.append("--benchmark_min_time=0.001" if self.smoke else "--benchmark_repetitions=3")
        if not self.smoke:
            argv.append("--benchmark_report_aggregates_only=true")
        subprocess.run(argv, check=True, stdout=subprocess.DEVNULL)
        with open(out) as f:
            data = json.load(f)
        rows = {}
        for b in data["benchmarks"]:
            if not self.smoke and b.get("aggregate_name") != "median":
                continue
            name = b.get("run_name", b["name"])
            rows[name] = {"real_time": b["real_time"], "time_unit": b["time_unit"],
                          "bytes_per_second": b.get("bytes_per_second", 0.0)}
        self.figures["micro"] = rows
        if not self.smoke:
            parse = next(v for k, v in rows.items() if k.startswith("BM_ReplyParse"))
            self.target("reply parsing (binary section)", parse["bytes_per_second"] / 1e9, 1.0, "min", "GB/s")

    # ---- report

    def machine(self):
        cpu = ""
        try:
            with open("/proc/cpuinfo") as f:
                for line in f:
                    if line.startswith("model name"):
                        cpu = line.split(":", 1)[1].strip()
                        break
        except OSError:
            pass
        return {"cpu": cpu, "cores": os.cpu_count(), "kernel": platform.release(),
                "load_average": os.getloadavg(), "date": time.strftime("%Y-%m-%d %H:%M:%S %Z"),
                "rounds": self.rounds}

    def report(self):
        self.figures["machine"] = self.machine()
        self.figures["targets"] = self.targets
        with open(os.path.join(self.results, "figures.json"), "w") as f:
            json.dump(self.figures, f, indent=2)
        lines = []
        for t in self.targets:
            sign = "<=" if t["kind"] == "max" else ">="
            lines.append("%-52s %8.2f %-4s target %s %g %s  %s" % (
                t["name"], t["value"], t["unit"], sign, t["target"], t["unit"], "ok" if t["ok"] else "MISSED"))
        text = "\n".join(lines)
        with open(os.path.join(self.results, "figures.txt"), "w") as f:
            f.write(text + "\n")
        with open(os.path.join(self.results, "figures.md"), "w") as f:
            f.write("| measure | value | target | |\n|---|---:|---|---|\n")
            for t in self.targets:
                sign = "≤" if t["kind"] == "max" else "≥"
                f.write("| %s | %.2f %s | %s %g %s | %s |\n" % (t["name"], t["value"], t["unit"], sign,
                                                                 t["target"], t["unit"],
                                                                 "met" if t["ok"] else "**missed**"))
        self.log("")
        if self.smoke:
            self.log("smoke: every benchmark ran (figures in %s)" % self.results)
            return 0
        s = self.figures.get("startup", {})
        m = self.figures.get("modify", {})
        if s:
            self.log("medians: floor_read %.3f ms, -export %.3f ms, -view %.3f ms, crudini --get %.1f ms" % (
                s["floor_read_ms"], s["export_ms"], s["view_ms"], s.get("crudini_get_ms", float("nan"))))
        for where, f in m.items():
            self.log("medians (%s): floor_replace %.2f ms, -trace %.2f ms, crudini --set %.1f ms" % (
                where, f["floor_replace_ms"], f["trace_ms"], f.get("crudini_set_ms", float("nan"))))
        self.log(text)
        self.log("figures: %s" % os.path.join(self.results, "figures.json"))
        missed = [t for t in self.targets if not t["ok"]]
        if missed:
            self.log("%d of %d targets missed" % (len(missed), len(self.targets)))
            return 1
        self.log("all %d targets met" % len(self.targets))
        return 0


def main():
    p = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    p.add_argument("--root", required=True, help="source tree")
    p.add_argument("--bin", required=True, help="folder of zelipsconfig and the bench programs")
    p.add_argument("--work", required=True, help="folder for installations and results")
    p.add_argument("--rounds", type=int, default=5)
    p.add_argument("--smoke", action="store_true")
    p.add_argument("--only", default="startup,modify,scaling,memory,micro")
    args = p.parse_args()
    bench = Bench(args)
    for part in args.only.split(","):
        getattr(bench, part)()
    sys.exit(bench.report())


if __name__ == "__main__":
    main()
