#!/usr/bin/env python3
"""Runs each workload through torvkern and the peer systems that are installed, several
times each, and prints a table of median wall times with Torva's ratio to the fastest
peer. Each system's answer is checked against Torva's; a mismatch is marked loudly.
A CSV and a JSON copy of the table are written beside it (bench/peers/results/).

    run.py [--runs N] [--kernel PATH] [--only NAME,...]

Workloads live in workloads/NAME/, one small file per system:
    torva.tv  gp.gp  maxima.mac  ginsh.txt  py_sympy.py
and a file `answer` naming how to read the answer from the output:
    last    the last non-empty line, blanks removed
    digits  the number of decimal digits printed (line breaks and backslashes ignored)
A system without a file for a workload is skipped for it. Start-up is measured apart,
with an empty script per system, and shown in its own row.
"""
import argparse
import csv
import datetime
import json
import os
import platform
import re
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))


def systems(kernel):
    """name -> (file name of the workload, command for a script path), installed ones only."""
    table = {
        "torva": ("torva.tv", lambda f: [kernel, "-b", "-", f]),
        "gp": ("gp.gp", lambda f: ["gp", "-q", "-f", "--default", "parisizemax=2000000000", f]),
        "maxima": ("maxima.mac", lambda f: ["maxima", "--very-quiet", "-r", 'batchload("%s")$ quit()$' % f]),
        "ginsh": ("ginsh.txt", lambda f: ["sh", "-c", 'ginsh < "$0"', f]),
        "sympy": ("py_sympy.py", lambda f: [sys.executable, f]),
    }
    found = {}
    for name, (file, cmd) in table.items():
        if name == "torva":
            if os.access(kernel, os.X_OK):
                found[name] = (file, cmd)
        elif name == "sympy":
            if subprocess.run([sys.executable, "-c", "import sympy"], capture_output=True).returncode == 0:
                found[name] = (file, cmd)
        elif shutil.which(name):
            found[name] = (file, cmd)
    return found


def read_answer(kind, output):
    if kind == "digits":
        return str(len(re.sub(r"[^0-9]", "", output)))
    lines = [l for l in output.splitlines() if l.strip()]
    if not lines:
        return ""
    return re.sub(r'[\s"]', "", lines[-1])


def clean(system, output):
    """What a system prints besides its answer: maxima echoes its commands."""
    if system == "maxima":
        echoed = re.compile(r"^(batchload\(.*\)|quit\(\))\$?$")
        return "\n".join(l for l in output.splitlines() if not echoed.match(l.strip()))
    return output


def run_once(cmd, timeout):
    start = time.perf_counter()
    try:
        p = subprocess.run(cmd, capture_output=True, text=True, timeout=timeout, stdin=subprocess.DEVNULL)
    except subprocess.TimeoutExpired:
        return None, "timeout"
    elapsed = time.perf_counter() - start
    if p.returncode != 0:
        return None, (p.stdout + p.stderr).strip()[-300:]
    return elapsed, p.stdout


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--runs", type=int, default=5)
    ap.add_argument("--kernel", default=os.path.join(ROOT, "build", "torva", "bin", "torvkern"))
    ap.add_argument("--only", default="")
    ap.add_argument("--timeout", type=float, default=600)
    args = ap.parse_args()

    found = systems(args.kernel)
    if "torva" not in found:
        sys.exit("bench: no torvkern at %s (build first)" % args.kernel)
    names = sorted(d for d in os.listdir(os.path.join(HERE, "workloads"))
                   if os.path.isdir(os.path.join(HERE, "workloads", d)))
    if args.only:
        names = [n for n in names if n in args.only.split(",")]
    peers = [s for s in ["gp", "maxima", "ginsh", "sympy"] if s in found]
    order = ["torva"] + peers
    rows = []

    # Start-up: an empty script per system.
    empty = tempfile.mkdtemp()
    start_row = {"workload": "(start-up)", "times": {}, "answers": {}, "notes": []}
    for s in order:
        file, cmd = found[s]
        path = os.path.join(empty, file)
        open(path, "w").close()
        times = []
        for _ in range(args.runs):
            t, out = run_once(cmd(path), args.timeout)
            if t is None:
                start_row["notes"].append("%s failed: %s" % (s, out))
                break
            times.append(t)
        if times:
            start_row["times"][s] = statistics.median(times)
    rows.append(start_row)

    for w in names:
        wdir = os.path.join(HERE, "workloads", w)
        kind = open(os.path.join(wdir, "answer")).read().strip()
        row = {"workload": w, "times": {}, "answers": {}, "notes": []}
        for s in order:
            file, cmd = found[s]
            path = os.path.join(wdir, file)
            if not os.path.exists(path):
                continue
            times, answer = [], None
            for _ in range(args.runs):
                t, out = run_once(cmd(path), args.timeout)
                if t is None:
                    row["notes"].append("%s failed: %s" % (s, out))
                    times = []
                    break
                times.append(t)
                answer = read_answer(kind, clean(s, out))
            if times:
                row["times"][s] = statistics.median(times)
                row["answers"][s] = answer
        ref = row["answers"].get("torva")
        for s, a in row["answers"].items():
            if ref is not None and a != ref:
                row["notes"].append("MISMATCH: %s answers %s, torva %s" % (s, a[:40], ref[:40]))
        rows.append(row)

    # The table.
    header = ["workload"] + order + ["torva / fastest peer", "answer"]
    lines = ["| " + " | ".join(header) + " |", "|" + "---|" * len(header)]
    for r in rows:
        cells = [r["workload"]]
        for s in order:
            t = r["times"].get(s)
            cells.append("%.3f s" % t if t is not None else "-")
        peer_times = [r["times"][s] for s in peers if s in r["times"]]
        if "torva" in r["times"] and peer_times:
            r["ratio"] = r["times"]["torva"] / min(peer_times)
            cells.append("%.2f" % r["ratio"])
        else:
            r["ratio"] = None
            cells.append("-")
        cells.append(r["answers"].get("torva", "")[:24])
        lines.append("| " + " | ".join(cells) + " |")
    stamp = datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%d %H:%M UTC")
    machine = "%s, %d cores, %s" % (platform.machine(), os.cpu_count() or 0, platform.platform())
    print("Median wall time of %d runs per system, whole processes; %s; %s" % (args.runs, stamp, machine))
    print("\n".join(lines))
    notes = [(r["workload"], n) for r in rows for n in r["notes"]]
    for w, n in notes:
        print("  %s: %s" % (w, n))
    if any("MISMATCH" in n for _, n in notes):
        print("\n!!! ANSWERS DIFFER: see MISMATCH lines above !!!")

    out = os.path.join(HERE, "results")
    os.makedirs(out, exist_ok=True)
    with open(os.path.join(out, "latest.csv"), "w", newline="") as f:
        wr = csv.writer(f)
        wr.writerow(["workload"] + order + ["ratio", "answer", "notes"])
        for r in rows:
            wr.writerow([r["workload"]] + [("%.4f" % r["times"][s]) if s in r["times"] else "" for s in order]
                        + ["" if r["ratio"] is None else "%.3f" % r["ratio"], r["answers"].get("torva", ""),
                           "; ".join(r["notes"])])
    with open(os.path.join(out, "latest.json"), "w") as f:
        json.dump({"date": stamp, "machine": machine, "runs": args.runs, "systems": order, "rows": rows}, f, indent=1)
    return 1 if any("MISMATCH" in n for _, n in notes) else 0


if __name__ == "__main__":
    sys.exit(main())
