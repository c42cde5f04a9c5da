#!/usr/bin/env python3
"""Runs one trace case of the optimised program under valgrind's lackey and
compares the loads and stores its own code made inside the blocks the case
allocated, between the two marker reads, with the accesses the program's
source makes through its access helpers (the fault-model runner records
them): same order, same block and offset, same widths, same kinds. So no
access is dropped, merged, split, widened or reordered by the compiler. An
instruction that reads and writes memory (lackey's M) is a load and a store."""
import argparse
import os
import subprocess
import sys
import tempfile


def run(command):
    done = subprocess.run(command, capture_output=True, text=True)
    if done.returncode != 0:
        sys.exit(f"{' '.join(command)}: status {done.returncode}\n{done.stdout[-2000:]}{done.stderr[-2000:]}")
    return done.stdout


def layout(text):
    """The code range, the marker and the blocks a runner printed."""
    code, marker, blocks = None, None, []
    for f in (line.split() for line in text.splitlines()):
        if f[0] == "X":
            code = (int(f[1], 16), int(f[2], 16))
        elif f[0] == "M":
            marker = int(f[1], 16)
        elif f[0] == "B":
            blocks.append((int(f[1], 16), int(f[2], 16)))
    return code, marker, blocks


def inside(accesses, marker, blocks):
    """(kind, block, offset, width) of each access between the marker reads."""
    out, on = [], False
    for kind, address, width in accesses:
        if address == marker:
            on = not on
            continue
        block = next((i for i, (lo, n) in enumerate(blocks) if lo <= address < lo + n), None)
        if on and block is not None:
            out.append((kind, block, address - blocks[block][0], width))
    return out


def lackey(log, code):
    with open(log) as lines:
        in_code = False
        for line in lines:
            if line.startswith("I"):
                in_code = code[0] <= int(line[3:].split(",")[0], 16) < code[1]
            elif line.startswith(" ") and in_code:
                address, width = (int(x, 16) for x in line[3:].split(","))
                for kind in ("L", "S") if line[1] == "M" else (line[1],):
                    yield kind, address, width


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--valgrind", default="valgrind")
    parser.add_argument("--runner", required=True)
    parser.add_argument("--recorder", required=True)
    parser.add_argument("--case", help="one case (default: every case the runner has)")
    args = parser.parse_args()
    if args.case is None:  # the runner names its cases when given none
        cases = subprocess.run([args.runner], capture_output=True, text=True).stderr.split("cases:")[1].split()
        return max(subprocess.run([sys.executable] + sys.argv + ["--case", case]).returncode for case in cases)

    recorded = run([args.recorder, args.case])
    _, marker, blocks = layout(recorded)
    expected = inside(((f[0], int(f[1], 16), int(f[2], 16)) for f in map(str.split, recorded.splitlines())
                       if f[0] in "LS"), marker, blocks)
    with tempfile.TemporaryDirectory() as tmp:
        log = os.path.join(tmp, "lackey.log")
        # VEX would otherwise drop loads whose results are dead from its own
        # translation, hiding the very loads this check looks for.
        traced = run([args.valgrind, "--tool=lackey", "--trace-mem=yes", "--vex-iropt-level=0",
                      f"--log-file={log}", args.runner, args.case])
        code, marker, traced_blocks = layout(traced)
        if [n for _, n in traced_blocks] != [n for _, n in blocks]:
            sys.exit(f"{args.case}: the two runs allocated different blocks")
        actual = inside(lackey(log, code), marker, traced_blocks)

    for i, (want, got) in enumerate(zip(expected, actual)):
        if want != got:
            sys.exit(f"{args.case}: access {i} differs: the source makes {want}, the program made {got}")
    if len(expected) != len(actual) or not expected:
        sys.exit(f"{args.case}: the source makes {len(expected)} accesses, the program made {len(actual)}")
    print(f"{args.case}: {len(actual)} accesses as the source makes them")


if __name__ == "__main__":
    sys.exit(main())
