#!/usr/bin/env python3
"""The include graph between the kernel's module prefixes, and the rules it must keep.

Every file in KERNEL/ named PREFIX_something belongs to module PREFIX; an #include of
another module's header is an edge. Printed: each module and the modules it includes.
With --check the run fails when a cycle joins modules other than the evaluator, the
function table and arithmetic (MEV, MFN, MAR: a built-in may call back into the
evaluator), or when a source file is longer than --max-lines.
"""
import argparse
import collections
import os
import re
import sys

ALLOWED_CYCLE = {"MEV", "MFN", "MAR"}
INCLUDE = re.compile(r'\s*#\s*include\s+"([^"]+)"')


def prefix(name):
    m = re.match(r"([A-Z]+)_", os.path.basename(name))
    return m.group(1) if m else None


def graph(root):
    edges = collections.defaultdict(set)
    why = collections.defaultdict(list)
    for f in sorted(os.listdir(root)):
        p = prefix(f)
        if not p:
            continue
        with open(os.path.join(root, f), encoding="utf-8") as text:
            for line in text:
                m = INCLUDE.match(line)
                q = m and prefix(m.group(1))
                if q and q != p:
                    edges[p].add(q)
                    why[(p, q)].append(f"{f} -> {m.group(1)}")
        edges.setdefault(p, set())
    return edges, why


def cycles(edges):
    """Strongly connected components of more than one module (Tarjan)."""
    index, low, stack, on, out = {}, {}, [], set(), []

    def visit(v):
        index[v] = low[v] = len(index)
        stack.append(v)
        on.add(v)
        for w in sorted(edges[v]):
            if w not in index:
                visit(w)
                low[v] = min(low[v], low[w])
            elif w in on:
                low[v] = min(low[v], index[w])
        if low[v] == index[v]:
            comp = []
            while True:
                w = stack.pop()
                on.discard(w)
                comp.append(w)
                if w == v:
                    break
            if len(comp) > 1:
                out.append(sorted(comp))

    for v in sorted(edges):
        if v not in index:
            visit(v)
    return out


def main():
    ap = argparse.ArgumentParser(description=__doc__)
    ap.add_argument("root", nargs="?", default=os.path.join(os.path.dirname(__file__), "..", "KERNEL"))
    ap.add_argument("--check", action="store_true")
    ap.add_argument("--max-lines", type=int, default=1500)
    args = ap.parse_args()
    edges, why = graph(args.root)
    for p in sorted(edges):
        print(f"{p} -> {' '.join(sorted(edges[p])) or '-'}")
    faults = []
    for comp in cycles(edges):
        print("cycle:", " ".join(comp))
        if not set(comp) <= ALLOWED_CYCLE:
            inner = [f"  {a} -> {b}: {', '.join(why[(a, b)])}" for a in comp for b in comp if (a, b) in why]
            faults.append("a cycle outside the evaluator's: " + " ".join(comp) + "\n" + "\n".join(inner))
    for f in sorted(os.listdir(args.root)):
        if f.endswith((".cpp", ".h")):
            with open(os.path.join(args.root, f), encoding="utf-8") as text:
                n = sum(1 for _ in text)
            if n > args.max_lines:
                faults.append(f"{f} has {n} lines (at most {args.max_lines})")
    if args.check and faults:
        print("\n".join(faults), file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
