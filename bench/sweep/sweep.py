#!/usr/bin/env python3
"""Sessions that end without the crash hook, and the hook's own wait.

1. The uploader's sweep of N orphaned session files (a pass with sending
   switched off, so only the sweep works): wall time, peak RSS and the cost per
   session, beside one crash run (crash-processor on one session file), the
   yardstick, measured in the same run.
2. Fault-to-exit latency of a crashing host on the kit: from the start of a
   host that opens a session and crashes at once, to its end, beside the crash
   run alone; with --before, the same for an earlier build of the kit.
Figures are medians of paired, alternating runs."""
import argparse
import os
import shutil
import statistics
import subprocess
import tempfile
import time


def home_with_orphans(n, dead_pid):
    home = tempfile.mkdtemp(prefix="sweep-bench-")
    sessions = os.path.join(home, "Library/Logs/Quorvik/LumetryQX/SessionInfo")
    os.makedirs(sessions)
    os.makedirs(os.path.join(home, "Library/Logs/Quorvik/LogCourier2QX"))
    # A budget that holds every log, so the pass deletes none for space.
    config = os.path.join(home, "Library/Application Support/Quorvik/LogCourier2QX")
    os.makedirs(config)
    with open(os.path.join(config, "LogCourier2.cfg"), "w") as f:
        f.write("[settings]\nmaxdiskspace=100\n")
    for i in range(n):
        open(os.path.join(sessions, f"__{dead_pid}__Fam_Name_S{i}_K_T_host1_Prod.info"), "w").close()
    return home


def timed(argv, env, rss=True):
    """Wall seconds and (with `rss`, through /usr/bin/time) peak RSS in KiB."""
    wrapper = ["/usr/bin/time", "-f", "%M", "-o", "/dev/stderr"] if rss else []
    start = time.perf_counter()
    out = subprocess.run(wrapper + argv, env=env, check=False, stdin=subprocess.DEVNULL,
                         stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
    wall = time.perf_counter() - start
    return wall, int(out.stderr.strip().splitlines()[-1]) if rss else 0


def dead_pid():
    child = subprocess.run(["/bin/sh", "-c", "echo $$"], capture_output=True, text=True)
    return int(child.stdout)


def sweep(build, n, defaults, courier):
    home = home_with_orphans(n, dead_pid())
    env = dict(os.environ, HOME=home)
    subprocess.run([defaults, "-currentHost", "write", "com.quorvik.lumetryqx", "send", "-int", "0"], env=env,
                   check=True)
    wall, rss = timed([courier, "--verbose"], env)
    # The same pass again over the same spool, now without sessions: what the
    # rest of the pass costs in memory for that many logs.
    rest = timed([courier], env)[1]
    spool = os.listdir(os.path.join(home, "Library/Logs/Quorvik/LogCourier2QX"))
    left = os.listdir(os.path.join(home, "Library/Logs/Quorvik/LumetryQX/SessionInfo"))
    shutil.rmtree(home)
    logs = len([f for f in spool if f.startswith("ulog_")])
    # Past the budget's 100 MiB (about 90,000 logs) the pass deletes the oldest.
    if (logs != n and n < 90000) or logs == 0 or left:
        raise SystemExit(f"sweep of {n}: {logs} logs, {len(left)} files left")
    return wall, rss, rest


def crash_run(processor, rss=True):
    home = home_with_orphans(1, 4242)
    wall, rss = timed([processor, "Prod", "__4242__"], dict(os.environ, HOME=home), rss)
    shutil.rmtree(home)
    return wall, rss


def crashing_host(host, processor):
    home = tempfile.mkdtemp(prefix="hook-bench-")
    start = time.perf_counter()
    subprocess.run([host, "--processor", processor, "--signal", "segv"], check=False,
                   env=dict(os.environ, HOME=home), stdout=subprocess.DEVNULL)
    wall = time.perf_counter() - start
    shutil.rmtree(home)
    return wall


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--build", default="build")
    ap.add_argument("--before", help="an earlier build directory, for the hook's latency")
    ap.add_argument("--sizes", default="10000,100000")
    ap.add_argument("--runs", type=int, default=31)
    args = ap.parse_args()
    b = args.build
    courier = f"{b}/Uploader/LogCourier2.app/Contents/MacOS/LogCourier2"
    processor = f"{b}/Application/crash-processor"
    defaults = f"{b}/tools/lumetry-defaults"

    one_ms = statistics.median(crash_run(processor, rss=False)[0] for _ in range(args.runs)) * 1000
    one_rss = crash_run(processor)[1] / 1024
    print(f"crash run, one session: {one_ms:.2f} ms, peak RSS {one_rss:.1f} MiB")
    print("| orphaned sessions | pass wall | per session | ratio to one crash run "
          "| peak RSS of the pass | the same pass without sessions | the sweep's own |")
    print("|---:|---:|---:|---:|---:|---:|---:|")
    for n in (int(s) for s in args.sizes.split(",")):
        reps = 3 if n >= 100000 else 5
        results = [sweep(b, n, defaults, courier) for _ in range(reps)]
        wall = statistics.median(r[0] for r in results)
        rss = max(r[1] for r in results) / 1024
        rest = max(r[2] for r in results) / 1024
        per = wall / n * 1000
        print(f"| {n:,} | {wall:.2f} s | {per:.3f} ms | {per / one_ms:.2f}x | {rss:.1f} MiB "
              f"| {rest:.1f} MiB | {rss - rest:.1f} MiB |")

    builds = [("this build", b)] + ([("before", args.before)] if args.before else [])
    print("\n| kit | crashing host, start to end | crash run alone | hook overhead |")
    print("|---|---:|---:|---:|")
    for label, d in builds:
        host = f"{d}/HostKit/hostkit-crash-host"
        pairs = []
        for i in range(args.runs):
            order = [0, 1] if i % 2 == 0 else [1, 0]
            got = {}
            for which in order:
                got[which] = (crashing_host(host, f"{d}/Application/crash-processor") if which == 0
                              else crash_run(f"{d}/Application/crash-processor", rss=False)[0])
            pairs.append((got[0], got[1]))
        host_ms = statistics.median(p[0] for p in pairs) * 1000
        run_ms = statistics.median(p[1] for p in pairs) * 1000
        over = statistics.median(p[0] - p[1] for p in pairs) * 1000
        print(f"| {label} | {host_ms:.2f} ms | {run_ms:.2f} ms | {over:.2f} ms |")


if __name__ == "__main__":
    main()
