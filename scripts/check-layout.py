#!/usr/bin/env python3
"""Checks the house rules of the source tree: nothing under src/ includes a peer (peers/), and the
folders under src/ include each other without a circle. Prints the folder graph and exits 1 on a
breach."""
import os
import re
import sys

top = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")
src = os.path.join(top, "src")
peers = {d for d in os.listdir(os.path.join(top, "peers"))}
include = re.compile(r'^\s*#\s*include\s+"([A-Za-z0-9_]+)/', re.M)

edges, breaches = {}, []
for folder, _, files in os.walk(src):
    for name in files:
        if not name.endswith((".h", ".cpp")):
            continue
        path = os.path.join(folder, name)
        here = os.path.relpath(path, src).split(os.sep)[0]
        for target in include.findall(open(path, encoding="utf-8").read()):
            if target in peers and not os.path.isdir(os.path.join(src, target)):
                breaches.append(f"{os.path.relpath(path, top)} includes the peer {target}/")
            elif target != here:
                edges.setdefault(here, set()).add(target)

# circles: strongly connected components of more than one folder
index, low, stack, on, circles, counter = {}, {}, [], set(), [], [0]


def visit(v):
    index[v] = low[v] = counter[0]
    counter[0] += 1
    stack.append(v)
    on.add(v)
    for w in edges.get(v, ()):
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
            circles.append(sorted(comp))


for v in sorted(edges):
    if v not in index:
        visit(v)
for v in sorted(edges):
    print(f"  {v} -> {' '.join(sorted(edges[v]))}")
for c in circles:
    breaches.append("include circle among src/ folders: " + " ".join(c))
for b in breaches:
    print("layout: " + b)
print("layout: ok" if not breaches else f"layout: {len(breaches)} breach(es)")
sys.exit(1 if breaches else 0)
