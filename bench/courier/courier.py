#!/usr/bin/env python3
"""LogCourier2 against one command of curl, over loopback HTTPS.

The tests' HTTPS server (tests/courier_test_server.py, keeping connections
open) receives, in the same run: a LogCourier2 pass over N usage logs of
2 KiB, and curl uploading the same files in one command over one connection
(a config file with one form and URL per file, joined by "next"). Prints wall
time, TCP connections and peak RSS of each and the ratios (medians of paired,
alternating runs), the peak RSS of a pass over one 90 MiB file, and plots the
walls to an SVG. Exits 1 when a target is missed: wall at most 1.5x curl's,
one connection, peak RSS at most 16 MiB."""
import argparse
import glob
import os
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

HOST = "lumetry.quorvik.com"
URL = "https://%s/lumetry/UploadFile/" % HOST


def make_certificates(work):
    ec = ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes"]
    run = lambda *a: subprocess.run(["openssl", *a], check=True, capture_output=True)
    run("req", "-x509", *ec, "-keyout", f"{work}/ca.key", "-out", f"{work}/ca.pem", "-days", "1",
        "-subj", "/CN=Bench-CA", "-addext", "basicConstraints=critical,CA:TRUE")
    run("req", *ec, "-keyout", f"{work}/server.key", "-out", f"{work}/server.csr",
        "-subj", "/CN=" + HOST)
    with open(f"{work}/ext", "w") as f:
        f.write("subjectAltName=DNS:%s,DNS:*.quorvik.com\n" % HOST)
    run("x509", "-req", "-in", f"{work}/server.csr", "-CA", f"{work}/ca.pem", "-CAkey",
        f"{work}/ca.key", "-CAcreateserial", "-days", "1", "-extfile", f"{work}/ext",
        "-out", f"{work}/server.pem")


def connections_since(server_dir, first):
    """(requests, distinct connections) recorded after request number `first`."""
    seen, count = set(), 0
    for head in sorted(glob.glob(f"{server_dir}/requests/*.head")):
        if int(os.path.basename(head).split(".")[0]) <= first:
            continue
        count += 1
        with open(head, errors="replace") as f:
            for line in f:
                if line.startswith("x-test-connection: "):
                    seen.add(line.split()[1])
    return count, len(seen)


def request_count(server_dir):
    return len(glob.glob(f"{server_dir}/requests/*.head"))


def fill(spool, n, size):
    os.makedirs(spool, exist_ok=True)
    names = []
    for i in range(n):
        name = f"ulog_LumetryQX_AppCrash_K_B{i:05d}_0.rdy"
        with open(os.path.join(spool, name), "wb") as f:
            f.write(os.urandom(size))
        names.append(os.path.join(spool, name))
    return names


def timed(argv, env):
    start = time.perf_counter()
    out = subprocess.run(["/usr/bin/time", "-f", "%M", "-o", "/dev/stderr"] + argv, env=env,
                         stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                         stderr=subprocess.PIPE, text=True)
    wall = time.perf_counter() - start
    if out.returncode != 0:
        raise SystemExit("failed: %s\n%s" % (" ".join(argv[:3]), out.stderr))
    return wall, int(out.stderr.strip().splitlines()[-1]) / 1024


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--courier", required=True)
    ap.add_argument("--server", default="tests/courier_test_server.py")
    ap.add_argument("--sizes", default="200,1000")
    ap.add_argument("--pairs", type=int, default=7)
    ap.add_argument("--plot")
    args = ap.parse_args()
    work = tempfile.mkdtemp(prefix="courier-bench-")
    make_certificates(work)
    server = subprocess.Popen([sys.executable, args.server, "--cert", f"{work}/server.pem",
                               "--key", f"{work}/server.key", "--dir", f"{work}/server",
                               "--lifetime", "3600"])
    try:
        for _ in range(100):
            if os.path.exists(f"{work}/server/port"):
                break
            time.sleep(0.1)
        port = open(f"{work}/server/port").read()
        connect = f"{HOST}:443:127.0.0.1:{port}"
        home = f"{work}/home"
        spool = f"{home}/Library/Logs/Quorvik/LogCourier2QX"
        env = dict(os.environ, HOME=home)
        # The largest disk budget, so a 90 MiB log is kept and sent.
        os.makedirs(f"{home}/Library/Application Support/Quorvik/LogCourier2QX")
        with open(f"{home}/Library/Application Support/Quorvik/LogCourier2QX/LogCourier2.cfg",
                  "w") as f:
            f.write("[settings]\nmaxdiskspace=100\n")
        courier = [args.courier, "--connect-to", connect, "--cacert", f"{work}/ca.pem"]
        subprocess.run(courier, env=env, check=True)  # makes the machine id and the directories

        def run_courier(n, size=2048):
            fill(spool, n, size)
            first = request_count(f"{work}/server")
            wall, rss = timed(courier, env)
            left = [f for f in os.listdir(spool) if f.startswith("ulog_")]
            requests, conns = connections_since(f"{work}/server", first)
            if left or requests != n + 2:
                raise SystemExit(f"pass over {n}: {len(left)} left, {requests} requests")
            return wall, rss, conns

        def run_curl(n):
            files = fill(f"{work}/curl", n, 2048)
            # "next" starts each transfer's options afresh; the connection stays.
            with open(f"{work}/curl.cfg", "w") as f:
                for i, path in enumerate(files):
                    f.write(("next\n" if i else "") + f'connect-to = "{connect}"\n'
                            f'cacert = "{work}/ca.pem"\nsilent\nurl = "{URL}"\n'
                            f'form = "file=@{path};type=application/octet-stream"\n'
                            'output = "/dev/null"\n')
            first = request_count(f"{work}/server")
            wall, rss = timed(["curl", "--config", f"{work}/curl.cfg"], env)
            shutil.rmtree(f"{work}/curl")
            requests, conns = connections_since(f"{work}/server", first)
            if requests != n:
                raise SystemExit(f"curl over {n}: {requests} requests")
            return wall, rss, conns

        rows, failed = [], False
        print("| files of 2 KiB | LogCourier2 wall | curl wall | ratio | connections (LogCourier2 / curl) "
              "| peak RSS (LogCourier2 / curl) |")
        print("|---:|---:|---:|---:|---:|---:|")
        for n in (int(x) for x in args.sizes.split(",")):
            pairs = []
            for i in range(args.pairs):
                a, b = (run_courier(n), run_curl(n)) if i % 2 == 0 else reversed(
                    (run_curl(n), run_courier(n)))
                pairs.append((a, b))
            cw = statistics.median(p[0][0] for p in pairs)
            uw = statistics.median(p[1][0] for p in pairs)
            ratio = statistics.median(p[0][0] / p[1][0] for p in pairs)
            conns = max(p[0][2] for p in pairs)
            rss = max(p[0][1] for p in pairs)
            print(f"| {n:,} | {cw * 1000:.0f} ms | {uw * 1000:.0f} ms | {ratio:.2f}x "
                  f"| {conns} / {max(p[1][2] for p in pairs)} | {rss:.1f} / "
                  f"{max(p[1][1] for p in pairs):.1f} MiB |")
            rows.append((n, cw, uw))
            failed |= ratio > 1.5 or conns != 1 or rss > 16
        wall, rss, conns = run_courier(1, 90 << 20)
        print(f"\nOne file of 90 MiB: {wall * 1000:.0f} ms, {conns} connection, peak RSS {rss:.1f} MiB")
        failed |= rss > 16
        if args.plot:
            import matplotlib
            matplotlib.use("Agg")
            import matplotlib.pyplot as plt
            fig, ax = plt.subplots(figsize=(6, 3.5))
            xs = [str(r[0]) for r in rows]
            ax.bar([i - 0.2 for i in range(len(rows))], [r[1] * 1000 for r in rows], 0.4,
                   label="LogCourier2 (one pass)")
            ax.bar([i + 0.2 for i in range(len(rows))], [r[2] * 1000 for r in rows], 0.4,
                   label="curl (one command)")
            ax.set_xticks(range(len(rows)), xs)
            ax.set_xlabel("usage logs of 2 KiB")
            ax.set_ylabel("wall time, ms (median)")
            ax.legend()
            fig.tight_layout()
            fig.savefig(args.plot)
        return 1 if failed else 0
    finally:
        server.kill()
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
