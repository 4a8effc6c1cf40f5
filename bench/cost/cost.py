#!/usr/bin/env python3
"""Cost of one crash run against a hand-written C program doing the same
system calls (minimal.c), on prepared homes with N unrelated entries in the
session-information directory, with one matching session file and with none.

For each home and case it reports user-space instructions (callgrind, the
dynamic loader included), peak resident memory (/usr/bin/time -f %M) and
wall time as the median of paired runs in alternating order (pairs.c). It
prints a Markdown table, checks the targets, and draws cost against N.
Called by bench/cost/run, which builds the programs first.
"""
import argparse
import os
import re
import shutil
import statistics
import subprocess
import sys
import tempfile

PRODUCT = "Prod"
PID = "1234"
SESSION_NAME = "1234_Fam_Name_S1_K1_x_y_Prod.info"
LOG_NAME = "ulog_LumetryQX_AppCrash_K1_S1_0.rdy"
NO_MATCH_PID = "999999999"

# The targets the crash run is held to.
MAX_RSS_KIB = 4 * 1024
MAX_INSTRUCTION_RATIO = 2.0
MAX_WALL_RATIO = 1.15
RATIO_SIZES = (10_000, 200_000)


class Home:
    """A temporary HOME whose session directory holds `count` unrelated names."""

    def __init__(self, root, count, populate):
        self.path = os.path.join(root, "home-%d" % count)
        library = os.path.join(self.path, "Library")
        self.session_dir = os.path.join(library, "Logs/Quorvik/LumetryQX/SessionInfo")
        self.log_dir = os.path.join(library, "Logs/Quorvik/LogCourier2QX")
        os.makedirs(self.session_dir)
        os.makedirs(self.log_dir)
        subprocess.run([populate, self.session_dir, str(count)], check=True)
        self.env = dict(os.environ, HOME=self.path)

    def session_file(self):
        return os.path.join(self.session_dir, SESSION_NAME)

    def log_file(self):
        return os.path.join(self.log_dir, LOG_NAME)

    def prepare(self, match):
        """Puts the home back as a run found it: the session file there (or
        not), no usage log."""
        if match:
            os.close(os.open(self.session_file(), os.O_WRONLY | os.O_CREAT, 0o644))
        if os.path.exists(self.log_file()):
            os.unlink(self.log_file())


def pid_for(match):
    return PID if match else NO_MATCH_PID


def instructions(home, program, match, scratch):
    home.prepare(match)
    out = os.path.join(scratch, "callgrind.out")
    subprocess.run(["valgrind", "--tool=callgrind", "--dump-instr=no",
                    "--callgrind-out-file=" + out, program, PRODUCT, pid_for(match)],
                   env=home.env, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    with open(out) as f:
        for line in f:
            m = re.match(r"(?:summary|totals):\s*(\d+)", line)
            if m:
                return int(m.group(1))
    raise RuntimeError("no instruction count from callgrind for " + program)


def peak_rss_kib(home, program, match, repeats=5):
    values = []
    for _ in range(repeats):
        home.prepare(match)
        r = subprocess.run(["/usr/bin/time", "-f", "%M", program, PRODUCT, pid_for(match)],
                           env=home.env, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
                           text=True)
        values.append(int(r.stderr.strip().splitlines()[-1]))
    return statistics.median(values)


def paired_wall(home, pairs, program, minimal, match, runs):
    """Median milliseconds of each program and the median of the per-pair ratios."""
    home.prepare(match)
    plant = home.session_file() if match else "-"
    r = subprocess.run([pairs, str(runs), plant, home.log_file(), program, minimal, PRODUCT,
                        pid_for(match)], env=home.env, check=True, capture_output=True,
                       text=True)
    samples = [tuple(int(x) for x in line.split()) for line in r.stdout.splitlines()]
    ours = statistics.median(a for a, _ in samples) / 1e6
    theirs = statistics.median(b for _, b in samples) / 1e6
    ratio = statistics.median(a / b for a, b in samples)
    return ours, theirs, ratio


def measure(args):
    rows = []
    root = tempfile.mkdtemp(prefix="lumetry-cost-")
    try:
        for count in args.sizes:
            print("N = %d: preparing the home" % count, file=sys.stderr, flush=True)
            home = Home(root, count, args.populate)
            # The first run makes the machine identity that every later run reads.
            home.prepare(True)
            subprocess.run([args.program, PRODUCT, PID], env=home.env, check=False)
            runs = args.runs if count < 1_000_000 else args.runs_large
            for match in (True, False):
                print("N = %d, %s" % (count, "one match" if match else "no match"),
                      file=sys.stderr, flush=True)
                row = {"n": count, "match": match}
                row["ins"] = instructions(home, args.program, match, root)
                row["ins_c"] = instructions(home, args.minimal, match, root)
                row["rss"] = peak_rss_kib(home, args.program, match)
                row["rss_c"] = peak_rss_kib(home, args.minimal, match)
                row["ms"], row["ms_c"], row["wall_ratio"] = paired_wall(
                    home, args.pairs, args.program, args.minimal, match, runs)
                rows.append(row)
            shutil.rmtree(home.path)
    finally:
        shutil.rmtree(root, ignore_errors=True)
    return rows


def table(rows):
    lines = [
        "| N unrelated entries | session file | instructions, crash-processor | instructions, C | ratio "
        "| peak RSS, crash-processor | peak RSS, C | wall time, crash-processor | wall time, C "
        "| ratio (median of pairs) |",
        "|---:|---|---:|---:|---:|---:|---:|---:|---:|---:|",
    ]
    for r in rows:
        lines.append("| {:,} | {} | {:.2f} M | {:.2f} M | {:.2f}x | {:.1f} MiB | {:.1f} MiB "
                     "| {:.2f} ms | {:.2f} ms | {:.2f}x |".format(
                         r["n"], "one match" if r["match"] else "no match", r["ins"] / 1e6,
                         r["ins_c"] / 1e6, r["ins"] / r["ins_c"], r["rss"] / 1024,
                         r["rss_c"] / 1024, r["ms"], r["ms_c"], r["wall_ratio"]))
    return "\n".join(lines)


def check_targets(rows):
    failures = []
    for r in rows:
        label = "N = {:,}, {}".format(r["n"], "one match" if r["match"] else "no match")
        if r["rss"] > MAX_RSS_KIB:
            failures.append("%s: peak RSS %d KiB > %d KiB" % (label, r["rss"], MAX_RSS_KIB))
        if r["n"] in RATIO_SIZES:
            ratio = r["ins"] / r["ins_c"]
            if ratio > MAX_INSTRUCTION_RATIO:
                failures.append("%s: instructions %.2fx > %.2fx" % (label, ratio,
                                                                    MAX_INSTRUCTION_RATIO))
            if r["wall_ratio"] > MAX_WALL_RATIO:
                failures.append("%s: wall time %.2fx > %.2fx" % (label, r["wall_ratio"],
                                                                 MAX_WALL_RATIO))
    return failures


def plot(rows, path):
    import matplotlib
    matplotlib.use("Agg")
    matplotlib.rcParams["svg.hashsalt"] = "crash-run-cost"  # stable output
    import matplotlib.pyplot as plt

    fig, axes = plt.subplots(1, 4, figsize=(17, 4.2))
    panels = [("ins", "ins_c", 1e-6, "user-space instructions (millions)", "log"),
              ("ms", "ms_c", 1.0, "wall time, median (ms)", "log"),
              ("rss", "rss_c", 1 / 1024, "peak resident memory (MiB)", "linear")]
    for axis, (ours, theirs, scale, title, yscale) in zip(axes, panels):
        for match, style in ((True, "-"), (False, ":")):
            part = [r for r in rows if r["match"] == match]
            xs = [r["n"] / 1000 for r in part]
            case = "one match" if match else "no match"
            axis.plot(xs, [r[ours] * scale for r in part], "o" + style, color="tab:blue",
                      label="crash-processor, " + case)
            axis.plot(xs, [r[theirs] * scale for r in part], "s" + style, color="tab:gray",
                      label="C program, " + case)
        axis.set_title(title)
        axis.set_yscale(yscale)
    axes[2].axhline(MAX_RSS_KIB / 1024, color="tab:red", linewidth=0.8, label="4 MiB target")
    axes[2].set_ylim(bottom=0)

    ratio = axes[3]
    for match, style in ((True, "-"), (False, ":")):
        part = [r for r in rows if r["match"] == match]
        xs = [r["n"] / 1000 for r in part]
        case = "one match" if match else "no match"
        ratio.plot(xs, [r["ins"] / r["ins_c"] for r in part], "o" + style, color="tab:purple",
                   label="instructions, " + case)
        ratio.plot(xs, [r["wall_ratio"] for r in part], "^" + style, color="tab:green",
                   label="wall time, " + case)
    ratio.axhline(MAX_INSTRUCTION_RATIO, color="tab:purple", linewidth=0.8)
    ratio.axhline(MAX_WALL_RATIO, color="tab:green", linewidth=0.8)
    ratio.set_title("crash-processor / C program (lines: targets)")
    ratio.set_ylim(bottom=0)
    sizes = sorted({r["n"] / 1000 for r in rows})
    for axis in axes:
        axis.set_xscale("symlog", linthresh=10)
        axis.set_xlim(left=0)
        axis.set_xticks(sizes)
        axis.set_xticklabels(["{:,g}".format(n) for n in sizes])
        axis.set_xlabel("unrelated entries (thousands)")
        axis.grid(True, alpha=0.3)
    for axis in (axes[0], axes[2], axes[3]):
        axis.legend(fontsize=7)
    fig.tight_layout()
    fig.savefig(path, metadata={"Date": None})


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--program", required=True, help="the built crash-processor")
    parser.add_argument("--minimal", required=True, help="the built minimal C program")
    parser.add_argument("--populate", required=True)
    parser.add_argument("--pairs", required=True)
    parser.add_argument("--sizes", default="0,10000,200000,1000000",
                        help="comma-separated numbers of unrelated entries")
    parser.add_argument("--runs", type=int, default=101, help="paired runs per case")
    parser.add_argument("--runs-large", type=int, default=7,
                        help="paired runs per case at a million entries and more")
    parser.add_argument("--plot", help="write the plot here (SVG or PNG)")
    parser.add_argument("--markdown", help="write the table here as well")
    args = parser.parse_args()
    args.sizes = [int(s) for s in args.sizes.split(",") if s]

    rows = measure(args)
    text = table(rows)
    print(text)
    if args.markdown:
        with open(args.markdown, "w") as f:
            f.write(text + "\n")
    if args.plot:
        plot(rows, args.plot)
        print("plot: " + args.plot)
    failures = check_targets(rows)
    for failure in failures:
        print("target missed: " + failure)
    if not failures:
        print("targets met: peak RSS <= 4 MiB at every N; instructions <= %.1fx and wall time "
              "<= %.2fx of the C program at N = 10,000 and 200,000" %
              (MAX_INSTRUCTION_RATIO, MAX_WALL_RATIO))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
