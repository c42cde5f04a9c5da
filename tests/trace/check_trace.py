#!/usr/bin/env python3
"""Runs one trace case under valgrind's lackey and compares the loads and
stores that the program's code made inside the watched buffers, between the
two marker reads, with the accesses the case expects (from a plain run of
the same case): same order, same buffer and offset, same widths, same kinds.
An instruction that reads and writes memory (lackey's M) counts as a load
followed by a store."""
import argparse
import os
import subprocess
import sys
import tempfile


def parse_expected(text):
    code = marker = None
    buffers, expected = [], []
    for line in text.splitlines():
        f = line.split()
        if not f:
            continue
        if f[0] == "X":
            code = (int(f[1], 16), int(f[2], 16))
        elif f[0] == "M":
            marker = int(f[1], 16)
        elif f[0] == "B":
            start = int(f[1], 16)
            buffers.append((start, start + int(f[2], 16)))
        elif f[0] in ("L", "S"):
            expected.append((f[0], int(f[1], 16), int(f[2], 16)))
    return code, marker, buffers, expected


def relative(accesses, buffers):
    """(kind, buffer index, offset, size) of each access."""
    out = []
    for kind, address, size in accesses:
        index = next((i for i, (lo, hi) in enumerate(buffers) if lo <= address < hi), None)
        out.append((kind, index, address - buffers[index][0] if index is not None else address, size))
    return out


def parse_actual(log, code, marker, buffers):
    actual, inside, in_code = [], False, False
    with open(log) as lines:
        for line in lines:
            if line.startswith("I"):
                in_code = code[0] <= int(line[3:].split(",")[0], 16) < code[1]
                continue
            if not line.startswith(" ") or not in_code:
                continue
            kind = line[1]
            address, size = line[3:].split(",")
            address, size = int(address, 16), int(size)
            if address == marker:
                inside = not inside
                continue
            if not inside or not any(lo <= address < hi for lo, hi in buffers):
                continue
            if kind == "M":
                actual += [("L", address, size), ("S", address, size)]
            else:
                actual.append((kind, address, size))
    return actual


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--valgrind", default="valgrind")
    parser.add_argument("--runner", required=True)
    parser.add_argument("--case", required=True)
    args = parser.parse_args()

    plain = subprocess.run([args.runner, "--expect", args.case], capture_output=True, text=True)
    if plain.returncode != 0:
        print(plain.stdout[-2000:], plain.stderr[-2000:])
        print(f"{args.case}: the runner failed with status {plain.returncode}")
        return 1
    _, _, expected_buffers, expected = parse_expected(plain.stdout)

    with tempfile.TemporaryDirectory() as tmp:
        log = os.path.join(tmp, "lackey.log")
        run = subprocess.run(
            # VEX would otherwise drop loads whose results are dead from its
            # own translation, hiding the very loads this check looks for.
            [args.valgrind, "--tool=lackey", "--trace-mem=yes", "--vex-iropt-level=0",
             f"--log-file={log}", args.runner, args.case],
            capture_output=True, text=True)
        if run.returncode != 0:
            print(run.stdout[-2000:], run.stderr[-2000:])
            print(f"{args.case}: the traced runner failed with status {run.returncode}")
            return 1
        code, marker, buffers, _ = parse_expected(run.stdout)
        if code is None or marker is None or not buffers:
            print(f"{args.case}: the runner named no code range, marker or buffer")
            return 1
        if [hi - lo for lo, hi in buffers] != [hi - lo for lo, hi in expected_buffers]:
            print(f"{args.case}: the two runs watched different buffers")
            return 1
        actual = relative(parse_actual(log, code, marker, buffers), buffers)
    expected = relative(expected, expected_buffers)

    def show(a):
        return f"{a[0]} buffer {a[1]} +{a[2]:#x} width {a[3]}"

    for i, (want, got) in enumerate(zip(expected, actual)):
        if want != got:
            print(f"{args.case}: access {i} differs: expected {show(want)}, traced {show(got)}")
            return 1
    if len(expected) != len(actual):
        print(f"{args.case}: expected {len(expected)} accesses, traced {len(actual)}")
        return 1
    print(f"{args.case}: {len(actual)} accesses as expected")
    return 0


if __name__ == "__main__":
    sys.exit(main())
