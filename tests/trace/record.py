#!/usr/bin/env python3
"""The reviewed access records: runs a case of access_record, folds its
accesses into runs and loops, and compares the result with records/CASE.txt,
printing the difference. With --update it writes the records instead, for a
person to read, check against the subtests' descriptions and commit.

A run is one line, `store32 buf0 [0, 64) step 4 = 0xaaaaaaaa`: accesses to
consecutive places, with a constant value, a stepped one (`= 0x10 +0x2`,
`= 0x3 <<1`, `= 512.0 *1.5`) or a cycle (`= [0xffffffff 0x0*2]`); loads
carry no value. `repeat N (offsets +D, values +V):` repeats the lines under
it, moved by D bytes and stepped by V each time; `repeat N with $1 ...:`
repeats them with the values of each time in the table after them."""
import argparse
import difflib
import os
import struct
import subprocess
import sys

MAX_CYCLE = 16  # the longest cycle of values a run shows: a pattern block
MAX_SLOTS = 4  # values one table row shows
MAX_TABLE_BODY = 128  # nodes repeated under one table, at the most
SMALL_STEP = 0x10000  # a larger addition is no step a person reads as one


def as_double(v):
    return struct.unpack("<d", struct.pack("<Q", v))[0]


def step(kind, v, width):
    """v stepped once by kind: ("+", n), ("<<", n), ("*", factor) or ("=",)."""
    if kind[0] == "*":
        return struct.unpack("<Q", struct.pack("<d", as_double(v) * kind[1]))[0]
    mask = (1 << 8 * width) - 1
    return {"+": lambda: (v + kind[1]) & mask, "<<": lambda: (v << kind[1]) & mask}.get(kind[0], lambda: v)()


def steps_between(a, b, width):
    """The ways of stepping value a to value b, simplest first."""
    mask = (1 << 8 * width) - 1
    if a == b:
        return [("=",)]
    out = [("+", (b - a) & mask)] if min((b - a) & mask, (a - b) & mask) <= SMALL_STEP else []
    out += [("<<", s) for s in range(1, 8 * width) if a and (a << s) & mask == b][:1]
    if width == 8 and as_double(a) not in (0.0, float("inf")) and as_double(b) == as_double(b):
        out.append(("*", as_double(b) / as_double(a)))
    return out


def describe(values, width):
    """The description of the longest prefix of values, and its length: a
    constant first, then a stepped value, then a cycle as long as a power of
    two (a pattern block's layout)."""
    options = []
    for period in (p for p in range(1, min(MAX_CYCLE, len(values)) + 1) if p & (p - 1) == 0):
        n = period
        while n < len(values) and values[n] == values[n - period]:
            n += 1
        if n >= 2 * period or n == len(values) == period:
            options.append((n, 2 if period == 1 else 0, -period, ("cycle", values[:period])))
    for kind in steps_between(values[0], values[1], width)[:3] if len(values) > 2 else []:
        n = 2
        while n < len(values) and step(kind, values[n - 1], width) == values[n]:
            n += 1
        if n > 2 and kind[0] != "=":
            options.append((n, 1, 0, (kind, values[0])))
    best = max(options)
    return best[3], best[0]


def show_value(v, width):
    return repr(as_double(v)) if width == 8 else f"{v:#x}"  # every 8-byte access is a double


def show_kind(kind):
    return f"*{kind[1]:g}" if kind[0] == "*" else f"{kind[0]}{kind[1]:#x}" if kind[0] == "+" else f"<<{kind[1]}"


def show_values(values, width):
    if isinstance(values, str):
        return values
    d, _ = describe(values, width)
    if d[0] != "cycle":
        return f"{show_value(d[1], width)} {show_kind(d[0])}"
    cycle, parts = d[1], []
    for i, v in enumerate(cycle):
        if i == 0 or v != cycle[i - 1]:
            parts.append([v, 1])
        else:
            parts[-1][1] += 1
    text = " ".join(show_value(v, width) + (f"*{n}" if n > 1 else "") for v, n in parts)
    return text if len(cycle) == 1 else f"[{text}]"


class Run:
    """Accesses of one kind and width to one block at a constant step; values
    holds every value stored (None for loads), or the name of a table slot."""

    def __init__(self, op, width, buf, off, stride, count, values):
        self.op, self.width, self.buf, self.off, self.stride, self.count, self.values = \
            op, width, buf, off, stride, count, values

    def lines(self):
        where = f"[{self.off}]" if self.count == 1 else \
            f"[{self.off}, {self.off + self.count * self.stride}) step {self.stride}"
        value = "" if self.values is None else " = " + show_values(self.values, self.width)
        return [f"{self.op}{8 * self.width} buf{self.buf} {where}{value}"]

    def moved(self, doff, kind):
        values = self.values if not isinstance(self.values, tuple) else \
            tuple(step(kind, v, self.width) for v in self.values)
        return Run(self.op, self.width, self.buf, self.off + doff, self.stride, self.count, values)

    def outline(self):
        return (self.op, self.width, self.buf, self.stride, self.count)

    def leaves(self):
        return [self]


class Loop:
    def __init__(self, body, count, doff=0, kind=("=",), table=None):
        self.body, self.count, self.doff, self.kind, self.table = body, count, doff, kind, table

    def lines(self):
        moves = ([f"offsets {self.doff:+d}"] if self.doff else []) + \
            ([] if self.kind[0] == "=" else ["values " + show_kind(self.kind)])
        head = f"repeat {self.count}" + (f" with {' '.join(self.table[0])}" if self.table else "") + \
            (f" ({', '.join(moves)})" if moves else "") + ":"
        tail = ["values:"] + ["  " + "  ".join(row) for row in self.table[1:]] if self.table else []
        return [head] + ["  " + x for n in self.body for x in n.lines()] + tail

    def moved(self, doff, kind):
        return Loop([n.moved(doff, kind) for n in self.body], self.count, self.doff, self.kind, self.table)

    def outline(self):
        return (self.count, self.doff, tuple(n.outline() for n in self.body))

    def leaves(self):
        return [x for n in self.body for x in n.leaves()]


def state(node):
    """Everything that tells two nodes apart."""
    if isinstance(node, Run):
        return vars(node)
    return (node.count, node.doff, node.kind, node.table, [state(n) for n in node.body])


def runs(accesses):
    """Consecutive accesses of one kind, width and block at a constant step
    (two only when adjacent), split where their values change shape."""
    out, i = [], 0
    while i < len(accesses):
        op, width, buf, off, _ = accesses[i]
        j, stride = i + 1, width
        if j < len(accesses) and accesses[j][:3] == (op, width, buf):
            stride = accesses[j][3] - off
            while j < len(accesses) and accesses[j][:3] == (op, width, buf) and accesses[j][3] == off + (j - i) * stride:
                j += 1
            if j - i == 2 and stride != width:
                j = i + 1
        while i < j:
            values, n = None, j - i
            if op == "store":
                n = describe([a[4] for a in accesses[i:j]], width)[1]
                values = tuple(a[4] for a in accesses[i:i + n])
            out.append(Run(op, width, buf, accesses[i][3], stride if n > 1 else width, n, values))
            i += n
    return out


def lines_of(nodes):
    return sum(len(n.lines()) for n in nodes)


def repeats(keys, i, k):
    return i + 2 * k <= len(keys) and all(keys[i + t] == keys[i + k + t] for t in range(k))


def exact_repeat(nodes, i, k):
    """How often nodes[i:i+k] repeats from i, moved alike each time."""
    a, b = nodes[i].leaves()[0], nodes[i + k].leaves()[0]
    va = next((x.values for x in nodes[i].leaves() if isinstance(x.values, tuple)), None)
    vb = next((x.values for x in nodes[i + k].leaves() if isinstance(x.values, tuple)), None)
    best = (1, 0, ("=",))
    for kind in steps_between(va[0], vb[0], a.width) if va and vb else [("=",)]:
        n = 1
        while i + (n + 1) * k <= len(nodes) and all(
                state(nodes[i + (n - 1) * k + t].moved(b.off - a.off, kind)) == state(nodes[i + n * k + t])
                for t in range(k)):
            n += 1
        best = max(best, (n, b.off - a.off, kind), key=lambda x: x[0])
    return best


def fold(nodes):
    """Exact repeats folded into loops, the shortest repeating group first,
    until nothing more folds; then the bodies in turn. A loop must save
    lines, and one whose values step must repeat at least three times: two
    values alike by chance are no step."""
    k = 1
    while k <= len(nodes) // 2:
        keys = [n.outline() for n in nodes]
        out, i = [], 0
        while i < len(nodes):
            if repeats(keys, i, k):
                body = lines_of(nodes[i:i + k])
                n, doff, kind = exact_repeat(nodes, i, k)
                if n * body > 1 + body and (kind[0] == "=" or n >= 3):
                    out.append(Loop(nodes[i:i + k], n, doff, kind))
                    i += n * k
                    continue
            out.append(nodes[i])
            i += 1
        k = 1 if len(out) < len(nodes) else k + 1
        nodes = out
    for node in nodes:
        if isinstance(node, Loop):
            node.body = fold(node.body)
    return nodes


def value_slots(nodes, i, k, n):
    """The leaves of each of n repetitions of nodes[i:i+k], and the places
    whose values differ between them, grouped where they agree in every
    repetition (a march's every store of P is one slot)."""
    reps = [[(x, show_values(x.values, x.width)) for t in range(k) for x in nodes[i + r * k + t].leaves()
             if x.values is not None] for r in range(n)]
    slots = []
    for p in range(len(reps[0])):
        if any(rep[p][1] != reps[0][p][1] for rep in reps):
            group = next((g for g in slots if all(rep[p][1] == rep[g[0]][1] for rep in reps)), None)
            group.append(p) if group else slots.append([p])
    return reps, slots


def table_loop(nodes, i, k, n):
    reps, slots = value_slots(nodes, i, k, n)
    names = [f"${s + 1}" for s in range(len(slots))]
    table = [names] + [[rep[g[0]][1] for g in slots] for rep in reps]
    for name, group in zip(names, slots):
        for p in group:
            reps[0][p][0].values = name
    return Loop(nodes[i:i + k], n, table=table)


def fold_values(nodes):
    """Repeats that differ only in their values folded into loops with a
    table, the one that covers most first (a march's fifty patterns, not
    pairs of its elements), before an exact fold can reach across the border
    of two of them."""
    while True:
        keys = [(n.outline(), [x.off for x in n.leaves()]) for n in nodes]
        best = None
        for i in range(len(nodes)):
            for k in range(1, min(MAX_TABLE_BODY, (len(nodes) - i) // 2) + 1):
                if not repeats(keys, i, k):
                    continue
                n = 2
                while repeats(keys, i + (n - 1) * k, k):
                    n += 1
                body = lines_of(nodes[i:i + k])
                if (best is None or n * k > best[0] * best[1]) and n * body > 2 + body + n and \
                        0 < len(value_slots(nodes, i, k, n)[1]) <= MAX_SLOTS:
                    best = (n, k, i)
        if best is None:
            return nodes
        n, k, i = best
        nodes = nodes[:i] + [table_loop(nodes, i, k, n)] + nodes[i + n * k:]


def record(recorder, case):
    """The record of one case: its blocks, draws and folded accesses, each
    access put down to the latest block that holds it."""
    done = subprocess.run([recorder, case], capture_output=True, text=True)
    if done.returncode != 0:
        sys.exit(f"{recorder} {case}: status {done.returncode}\n{done.stderr}")
    head, blocks, accesses, marker = [f"# {case}"], [], [], None
    for f in (line.split() for line in done.stdout.splitlines()):
        if f[0] == "M":
            marker = int(f[1], 16)
        elif f[0] == "B":
            blocks.append((int(f[1], 16), int(f[2], 16)))
            head.append(f"buf{len(blocks) - 1}: {blocks[-1][1]} bytes")
        elif f[0] == "D":
            head.append(f"draws: lrand48 {f[1]}, drand48 {f[2]}")
        elif f[0] in "LS" and int(f[1], 16) != marker:
            address = int(f[1], 16)
            buf = next((n for n in reversed(range(len(blocks))) if 0 <= address - blocks[n][0] < blocks[n][1]), None)
            accesses.append(("store" if f[0] == "S" else "load", int(f[2], 16), "?" if buf is None else buf,
                             address - (0 if buf is None else blocks[buf][0]), int(f[3], 16) if f[0] == "S" else None))
    return "\n".join(head + [x for n in fold(fold_values(runs(accesses))) for x in n.lines()]) + "\n"


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--recorder", required=True)
    parser.add_argument("--records", default=os.path.join(os.path.dirname(os.path.abspath(__file__)), "records"))
    parser.add_argument("--update", action="store_true", help="write the records instead of comparing")
    args = parser.parse_args()
    # The recorder names its cases when given none.
    cases = subprocess.run([args.recorder], capture_output=True, text=True).stderr.split("cases:")[1].split()
    failed = 0
    for case in cases:
        path, made = os.path.join(args.records, case + ".txt"), record(args.recorder, case)
        if args.update:
            with open(path, "w") as out:
                out.write(made)
            continue
        kept = open(path).read() if os.path.exists(path) else ""
        failed += made != kept
        sys.stdout.writelines(difflib.unified_diff(kept.splitlines(True), made.splitlines(True),
                                                   f"{path} (reviewed)", f"{case} (now)"))
        print(f"{case}: {'differs from its record' if made != kept else 'as recorded'}")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
