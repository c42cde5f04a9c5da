#!/usr/bin/env python3
"""Measures tarneltest beside its peers and writes docs/PERFORMANCE.md.

Called by bench/report.sh, which installs the tools and builds the program
and the benchmarks first: this script runs the release program (default run,
all processors against one), memtester's sequential-increment test and
stress-ng's cache stressor, and turns those figures and the benchmark
program's JSON output into the page.
"""
import argparse
import datetime
import json
import os
import platform
import re
import resource
import statistics
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
PAUSES_SECONDS = 2.0   # the two mandated one-second pauses of every run
RUNS = 3               # runs of each program configuration; medians are shown
LONG_COUNT = 256       # a pass count whose work outlasts the first pause
MEMTESTER_LOOPS = 100
STRESS_NG_SECONDS = 10


def fail(text):
    print(f"bench/report.py: {text}", file=sys.stderr)
    sys.exit(1)


def step(text):
    print(f"== {text}", file=sys.stderr)


# ---- The benchmark program's figures ----------------------------------------

def load_bench(path):
    with open(path) as f:
        data = json.load(f)
    rows = {}
    for b in data["benchmarks"]:
        if b.get("run_type") == "aggregate" and b.get("aggregate_name") != "median":
            continue
        if b.get("error_occurred"):
            fail(f"benchmark {b['name']} failed: {b.get('error_message')}")
        name = b.get("run_name", b["name"])
        scale = {"ns": 1e-9, "us": 1e-6, "ms": 1e-3, "s": 1.0}[b.get("time_unit", "ns")]
        rows[name] = {
            "cpu": b["cpu_time"] * scale,
            "real": b["real_time"] * scale,
            "rate": b.get("bytes_per_second", 0.0),
            "ratio": b.get("ratio"),
            "pass_ratio": b.get("pass_ratio"),
            "faults": b.get("faults"),
        }
    work_out_ratios(data["context"], rows)
    return data["context"], rows


def work_out_ratios(context, rows):
    """Each row's ratio from the medians: its traffic, shape by shape (the
    context's "traffic:<row>" entries), at the reference loops' median
    rates, over its median time; and for a row with a pass count, the same
    for what it adds over the row with the next lower count."""
    reference_seconds = {}
    for key, text in context.items():
        if not key.startswith("traffic:"):
            continue
        row = key[len("traffic:"):]
        total = 0.0
        for part in filter(None, text.split(";")):
            shape, nbytes = part.rsplit("=", 1)
            ref = rows.get(f"ref/{shape}")
            if ref is None or not ref["rate"]:
                total = None
                break
            total += float(nbytes) / ref["rate"]
        reference_seconds[row] = total
    for row, r in rows.items():
        r["ratio"] = r["pass_ratio"] = None
        ref = reference_seconds.get(row)
        if ref is None or ref == 0 or r["cpu"] <= 0 or row.endswith("/passes:0"):
            continue
        r["ratio"] = ref / r["cpu"]
        if "/passes:" not in row:
            continue
        base, passes = row.rsplit("/passes:", 1)
        lower = [int(k.rsplit(":", 1)[1]) for k in rows
                 if k.startswith(base + "/passes:") and int(k.rsplit(":", 1)[1]) < int(passes)]
        if not lower:
            continue
        prev = f"{base}/passes:{max(lower)}"
        prev_ref = reference_seconds.get(prev)
        if prev_ref is not None and r["cpu"] > rows[prev]["cpu"]:
            r["pass_ratio"] = (ref - prev_ref) / (r["cpu"] - rows[prev]["cpu"])


# Subtests in the order the per-processor sequence runs them, with what each
# does around its passes (allocation, locking, draws), as specified.
SUBTESTS = [
    ("cache_wrrdvr_stress", "Write/Read/Verify",
     "allocates 2 x ways x cache size bytes per call, unlocked as specified, and frees them; the C library "
     "maps a buffer that large afresh for every call, so its first pass takes a page fault for every 4 KiB "
     "page it writes"),
    ("cache_hit_stress", "Cache Hit Stress",
     "allocates, locks with mlock, unlocks and frees four buffers of one cache size within the call"),
    ("cache_miss_stress", "Cache Miss Stress",
     "allocates, locks, unlocks and frees two buffers of twice the cache size within the call"),
    ("crand", "Random Swap", "allocates, locks, unlocks and frees two cache-sized buffers within the call"),
    ("cache_interconnect_stress", "CPU-cache interconnect",
     "allocates, locks, unlocks and frees one cache-sized buffer, and makes six locked draws per pass"),
    ("cache_march_stress4", "30N march, variable stride",
     "allocates, locks, unlocks and frees one cache-sized buffer, and builds fifty patterns"),
    ("cache_march_stress3", "30N march, line-length striding",
     "allocates, locks, unlocks and frees one cache-sized buffer"),
    ("cache_march_stress1", "March, row striding",
     "allocates, locks, unlocks and frees one buffer of twice the cache size"),
    ("cache_march_stress2", "March, column striding",
     "allocates, locks, unlocks and frees one cache-sized buffer"),
    ("cache_rand_off_stress", "Random Offset",
     "draws its three offset lists, one locked lrand48 call per entry (up to 512 entries a list) plus one for "
     "the length, and allocates and frees each list; at most 512 accesses a phase follow per pass"),
]


# Kernels whose specified arithmetic, not their accesses, sets their pace.
KERNEL_NOTES = {
    "cache_writemissfp_read":
        "each element multiplies the value by 1.5 and adds the double it loads to the sum, in order, as "
        "specified: two serial floating-point chains of several cycles per element, which no reordering may "
        "shorten without changing the rounding of the stored sum",
}


def subtest_rows(rows, name):
    """The subtest's rows by pass count (None: its only row)."""
    found = {}
    for run, r in rows.items():
        if run == f"subtest/{name}":
            found[None] = r
        elif run.startswith(f"subtest/{name}/passes:"):
            found[int(run.split(":")[1])] = r
    return found


def us(seconds):
    return f"{seconds * 1e6:,.0f} µs" if seconds < 0.01 else f"{seconds * 1e3:,.1f} ms"


def gbps(rate):
    return f"{rate / 1e9:.1f} GB/s"


def size_text(n):
    return f"{n / 2**20:,.2f} MiB" if n >= 2**20 else f"{n / 1024:,.1f} KiB"


def fmt_ratio(value):
    return "—" if value is None else f"{value:.2f}"


def reasons(name, note, r, fixed, later_passes):
    """Why a subtest's ratio is below 0.9, from the figures themselves."""
    out = []
    if fixed is not None and r["cpu"] > 0 and fixed["cpu"] / r["cpu"] >= 0.03:
        out.append(f"the work around its pass takes {us(fixed['cpu'])} of its {us(r['cpu'])} "
                   f"({100 * fixed['cpu'] / r['cpu']:.0f} %): it {note}")
    faulting = bool(r.get("faults")) and r["faults"] >= 64
    if faulting:
        text = f"each call takes {r['faults']:.0f} page faults"
        if not out:
            text += f": it {note}"
        if later_passes is not None and later_passes.get("pass_ratio") is not None:
            text += (f"; the passes after the first in a longer call, on pages already present, run at "
                     f"{later_passes['pass_ratio']:.2f} of their reference")
        out.append(text)
    tiny = r["rate"] * r["cpu"] < 64 * 1024
    if tiny and later_passes is not None and later_passes.get("pass_ratio") is not None:
        out.append(f"its pass is too short to time alone; in a 1000-pass call the passes run at "
                   f"{later_passes['pass_ratio']:.2f} of their reference loops")
    elif not faulting and r.get("pass_ratio") is not None and r["pass_ratio"] < 0.95:
        out.append(f"its pass alone runs at {r['pass_ratio']:.2f} of its reference loops"
                   + (" (within the 10 % its loops are held to)" if r["pass_ratio"] >= 0.9 else ""))
    if not out:
        out.append("not explained by the work around its pass or by page faults (look at its loops with objdump -d)")
    return "; ".join(out)


# ---- The program, memtester, stress-ng ---------------------------------------

def timed(argv, env=None):
    """Wall seconds, processor seconds (user + system) and output of one run."""
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    start = time.monotonic()
    done = subprocess.run(argv, env=env, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    wall = time.monotonic() - start
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    cpu = (after.ru_utime - before.ru_utime) + (after.ru_stime - before.ru_stime)
    return wall, cpu, done.returncode, done.stdout


def program_runs(argv, label):
    walls, cpus = [], []
    for _ in range(RUNS):
        wall, cpu, status, output = timed(argv)
        if status != 0:
            fail(f"{label} ({' '.join(argv)}) exited with status {status}:\n{output[-2000:]}")
        walls.append(wall)
        cpus.append(cpu)
    return statistics.median(walls), statistics.median(cpus), walls


def program_geometry(program):
    """The L2 geometry tarneltest takes on processor 0, from its debug text."""
    _, _, status, output = timed(["taskset", "-c", "0", program, "-d", "-o", "test_mask=8,count=1"])
    if status != 0:
        fail(f"tarneltest -d exited with status {status}:\n{output[-2000:]}")
    m = re.search(r"cache_size ([0-9a-fA-F]+) line_size ([0-9a-fA-F]+)", output)
    return (int(m.group(1), 16), int(m.group(2), 16)) if m else None


def memtester_mask():
    """The MEMTESTER_TEST_MASK bit of "Sequential Increment" in this memtester."""
    for bit in range(32):
        env = dict(os.environ, MEMTESTER_TEST_MASK=str(1 << bit))
        done = subprocess.run(["memtester", "64K", "1"], env=env, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True)
        if "Sequential Increment" in done.stdout:
            return 1 << bit
    fail("no MEMTESTER_TEST_MASK bit runs memtester's Sequential Increment test")


def memtester_seqinc(size_bytes, work):
    """Seconds of each Sequential Increment test, from the writes that bracket it.

    memtester always runs its stuck-address test first in every loop, so
    the process time would mostly be that test's. Its output is flushed
    when the stuck-address test ends and again when the sequential-increment
    test ends, with no system call in between: strace's timestamps of those
    two writes bracket the test.
    """
    mask = memtester_mask()
    trace = os.path.join(work, "memtester.strace")
    env = dict(os.environ, MEMTESTER_TEST_MASK=str(mask))
    done = subprocess.run(["strace", "-ttt", "-e", "trace=write", "-o", trace, "memtester",
                           f"{size_bytes // 1024}K", str(MEMTESTER_LOOPS)],
                          env=env, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
    if done.returncode != 0:
        fail(f"memtester exited with status {done.returncode}: {done.stderr[-2000:]}")
    stamps = []
    with open(trace) as f:
        for line in f:
            m = re.match(r"\s*(?:\d+\s+)?(\d+\.\d+) write\(1, \"(.*)", line)
            if m:
                stamps.append((float(m.group(1)), m.group(2)))
    intervals = [t - stamps[i - 1][0] for i, (t, text) in enumerate(stamps)
                 if i > 0 and "Sequential Increment" in text]
    if len(intervals) < MEMTESTER_LOOPS // 2:
        fail("could not find memtester's Sequential Increment test in its output")
    return mask, statistics.median(intervals)


def stress_ng_cache(processors):
    argv = ["stress-ng", "--cache", str(processors), "--cache-level", "2", "--metrics-brief", "-v",
            "-t", f"{STRESS_NG_SECONDS}s"]
    done = subprocess.run(argv, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    if done.returncode != 0:
        fail(f"stress-ng exited with status {done.returncode}:\n{done.stdout[-2000:]}")
    out = done.stdout
    result = {"argv": " ".join(argv)}
    m = re.search(r"cache: using cache buffer size of (\d+)K", out)
    result["buffer"] = int(m.group(1)) * 1024 if m else None
    m = re.search(r"\]\s+cache\s+(\d+)\s+([\d.]+)\s+([\d.]+)\s+([\d.]+)\s+([\d.]+)\s+([\d.]+)", out)
    if m:
        result.update(bogo_ops=int(m.group(1)), seconds=float(m.group(2)), per_second=float(m.group(5)),
                      per_cpu_second=float(m.group(6)))
    for key, pattern in (("ops", r"([\d.]+) cache ops per second"),
                         ("reads", r"([\d.]+) shared cache reads per second"),
                         ("writes", r"([\d.]+) shared cache writes per second")):
        m = re.search(pattern, out)
        result[key] = float(m.group(1)) if m else None
    if "per_second" not in result:
        fail(f"could not read stress-ng's metrics:\n{out[-2000:]}")
    return result


# ---- The page -------------------------------------------------------------------

def machine_line():
    model = "unknown processor"
    try:
        with open("/proc/cpuinfo") as f:
            for line in f:
                if line.startswith("model name"):
                    model = line.split(":", 1)[1].strip()
                    break
    except OSError:
        pass
    return f"{model}, {os.cpu_count()} processors, Linux {platform.release()}"


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--program", required=True)
    parser.add_argument("--bench-json", required=True)
    parser.add_argument("--work", required=True)
    parser.add_argument("--out", required=True)
    args = parser.parse_args()

    context, rows = load_bench(args.bench_json)
    cache_size = int(context["l2_cache_size"])
    line_size = int(context["l2_line_size"])
    ways = int(context["l2_ways"])
    processors = os.cpu_count() or 1

    step("default runs, all processors and processor 0 alone")
    with open("/proc/loadavg") as f:
        load_before = " ".join(f.read().split()[:3])
    default_wall, default_cpu, default_walls = program_runs([args.program], "tarneltest")
    one_wall, one_cpu, _ = program_runs(["taskset", "-c", "0", args.program], "taskset -c 0 tarneltest")
    long_opt = f"count={LONG_COUNT}"
    long_wall, long_cpu, _ = program_runs([args.program, "-o", long_opt], f"tarneltest -o {long_opt}")
    long_one_wall, long_one_cpu, _ = program_runs(["taskset", "-c", "0", args.program, "-o", long_opt],
                                                  f"taskset -c 0 tarneltest -o {long_opt}")
    geometry = program_geometry(args.program)

    step("memtester, sequential increment")
    working_set = 2 * cache_size
    mask, seqinc_seconds = memtester_seqinc(working_set, args.work)
    step("stress-ng, cache stressor at level 2")
    stress = stress_ng_cache(processors)

    lines = []
    add = lines.append
    add("# Performance")
    add("")
    add("Regenerate this page with `bench/report.sh` (run it by hand as root: it installs memtester, stress-ng")
    add("and strace when they are missing, builds the release program and the benchmarks, and measures for a")
    add("few minutes; it is not part of the tests or of CI). Every figure below comes from one run of it.")
    add("")
    add(f"Measured {datetime.datetime.now(datetime.timezone.utc):%Y-%m-%d %H:%M} UTC on {machine_line()}.")
    add(f"Benchmark geometry (the C library's L2): {cache_size // 1024} KiB, {line_size}-byte lines, {ways} ways."
        + (f" tarneltest's own choice on processor 0: {geometry[0] // 1024} KiB, {geometry[1]}-byte lines."
           if geometry else ""))
    add(f"Load average while the benchmarks ran: {', '.join(f'{x:.2f}' for x in context.get('load_avg', []))}"
        " (other work on the machine slows wall times; the benchmark figures are the benchmark thread's"
        " processor time).")
    add("")

    # Subtests against their references.
    add("## Subtests against their reference loops")
    add("")
    add("`build/perf/bench/tarnel_bench` (bench/tarnel_bench.cpp, Google Benchmark, Release build) runs every")
    add("subtest at the geometry above with one pass, and hand-unrolled volatile loops for each access shape")
    add("the subtests use. A subtest's traffic is the bytes its accesses move, counted shape by shape by")
    add("`tarnel_bench_census` (bench/census.cpp), which puts every access down to the kernel that made it.")
    add("*Ratio* is the time the reference loops take to move that traffic, shape by shape, over the time the")
    add("call took (1 = as fast as this machine does those shapes); it counts everything the call does.")
    add("*Pass alone* leaves out what the call does around its pass (the `passes:0` row: allocation, locking,")
    add("draws, messages), shown as *Around the pass*. Times are medians of five repetitions of every row, run in")
    add("random order so that changing load on the machine falls on subtests and references alike; on a")
    add("shared machine a ratio still moves by about 10 % from one run of the script to the next.")
    add("")
    add("| Subtest | Traffic per call | Time per call | Rate | Ratio | Pass alone | Around the pass | Page faults |")
    add("|---|---:|---:|---:|---:|---:|---:|---:|")
    below = []
    for name, title, note in SUBTESTS:
        found = subtest_rows(rows, name)
        r = found.get(1, found.get(None))
        if r is None:
            continue
        fixed = found.get(0)
        bytes_per_call = r["rate"] * r["cpu"]
        if bytes_per_call < 64 * 1024:
            r = dict(r, pass_ratio=None)  # a pass too short to time apart from the call
        add(f"| {title} (`{name}`) | {size_text(bytes_per_call)} | {us(r['cpu'])} | {gbps(r['rate'])} | "
            f"{fmt_ratio(r['ratio'])} | {fmt_ratio(r['pass_ratio'])} | {us(fixed['cpu']) if fixed else '—'} | "
            f"{r['faults'] or 0:.0f} |")
        if r["ratio"] is not None and r["ratio"] < 0.9:
            longest = found.get(max(found, key=lambda k: k or 0)) if len(found) > 2 else None
            below.append(f"- **{title}** ({r['ratio']:.2f}): {reasons(name, note, r, fixed, longest)}.")
    add("")
    extra = []
    for name, passes, what in (("cache_wrrdvr_stress", 64, "with 64 passes"),
                               ("cache_rand_off_stress", 1000, "with 1000 passes")):
        r = subtest_rows(rows, name).get(passes)
        if r is not None:
            extra.append(f"`{name}` {what}: ratio {fmt_ratio(r['ratio'])}, the passes it adds "
                         f"{fmt_ratio(r['pass_ratio'])}.")
    if extra:
        add("Other rows: " + " ".join(extra))
        add("")
    add("### Below 0.9, and why")
    add("")
    lines.extend(below if below else ["None."])
    add("")
    add("The loops themselves were checked with `objdump -d`: every sweep is unrolled eight-fold (block")
    add("primitives sixteen-fold) with the access helpers' single `mov` per access and no call inside a pass.")
    add("The variable-stride 30N march and the interconnect test copy their pattern blocks into locals whose")
    add("address never escapes, so a volatile store cannot change them and their words stay in registers (all")
    add("but a few, which come from the stack once the registers are used up) instead of being")
    add("reloaded before every store. What the calls spend around their passes is specified: buffers")
    add("allocated, locked, unlocked and freed by each call, one locked generator call per draw.")
    add("")
    kernels = [(run[len("kernel/"):], r) for run, r in rows.items() if run.startswith("kernel/")]
    if kernels:
        add("### The Cache Miss Stress test kernel by kernel")
        add("")
        add("Each kernel alone, one pass over a buffer of twice the cache that stays allocated:")
        add("")
        add("| Kernel | Rate | Ratio | Why below 0.9 |")
        add("|---|---:|---:|---|")
        for kernel, r in kernels:
            why = ""
            if r["ratio"] is not None and r["ratio"] < 0.9:
                why = KERNEL_NOTES.get(kernel.split("/")[0], "not explained (look at its loop with objdump -d)")
            add(f"| `{kernel}` | {gbps(r['rate'])} | {fmt_ratio(r['ratio'])} | {why} |")
        add("")
    add("### Reference loops")
    add("")
    add("| Shape | Region | Rate |")
    add("|---|---:|---:|")
    for run, r in rows.items():
        if run.startswith("ref/"):
            shape, region = run[4:].rsplit("/", 1)
            add(f"| `{shape}` | {int(region) // 1024} KiB | {gbps(r['rate'])} |")
    add("")

    # Wall times.
    add("## Run time")
    add("")
    add(f"`{os.path.relpath(args.program, ROOT)}`, median of "
        f"{RUNS} runs each; processor time is user plus system time of the whole process. Load average")
    add(f"before these runs: {load_before} on {processors} processors (work of other processes stretches wall")
    add("times, not processor times).")
    add("")
    add("| Run | Wall time | Of which the two pauses | Processor time |")
    add("|---|---:|---:|---:|")
    add(f"| default (`tarneltest`, {processors} processors, 8 passes) | {default_wall:.2f} s | "
        f"{PAUSES_SECONDS:.2f} s ({100 * PAUSES_SECONDS / default_wall:.0f} %) | {default_cpu:.2f} s |")
    add(f"| one processor (`taskset -c 0 tarneltest`) | {one_wall:.2f} s | {PAUSES_SECONDS:.2f} s | {one_cpu:.2f} s |")
    add(f"| `tarneltest -o {long_opt}`, {processors} processors | {long_wall:.2f} s | {PAUSES_SECONDS:.2f} s | "
        f"{long_cpu:.2f} s |")
    add(f"| `taskset -c 0 tarneltest -o {long_opt}` | {long_one_wall:.2f} s | {PAUSES_SECONDS:.2f} s | "
        f"{long_one_cpu:.2f} s |")
    add("")
    add(f"Default runs: {', '.join(f'{w:.2f} s' for w in default_walls)}. The workers start before the first")
    add("one-second pause and run during it; a default run's work is shorter than that pause, so its wall time")
    add("is the two pauses plus start-up.")
    add("")
    per_worker = long_cpu / max(long_one_cpu, 1e-9) / processors
    add(f"All processors against one: **{default_wall / one_wall:.2f}** for the default run, and "
        f"**{long_wall / long_one_wall:.2f}** with `{long_opt}`, whose work outlasts the first pause. Each")
    add(f"worker runs on its own processor: the {processors} workers take {long_cpu:.2f} s of processor time "
        f"against {long_one_cpu:.2f} s for one, {per_worker:.2f} times a lone worker's time each: "
        + ("they hardly slow each other down." if per_worker <= 1.15 else
           "they slow each other down through what the processors share (the last-level cache, memory)."))
    if long_wall / long_one_wall > 1.15:
        add(f"The longer wall time comes from the other processes on the machine (load average {load_before}):")
        add("a lone worker finds a processor free while all workers must share every processor with them.")
    add("")

    # Peers.
    add("## Beside memtester and stress-ng")
    add("")
    wr = subtest_rows(rows, "cache_wrrdvr_stress")
    verified = 2 * (cache_size // 4) * 4
    add(f"Sequential verify on the same {working_set // 2**20} MiB working set. memtester {working_set // 1024}K, "
        f"`MEMTESTER_TEST_MASK={mask}` (Sequential Increment; memtester always runs its stuck-address test too),")
    add(f"{MEMTESTER_LOOPS} loops: its test stores both halves of its buffer then reads and compares them, as")
    add("the Write/Read/Verify test does with its two regions. memtester's time is the wall time between the")
    add("two output flushes that bracket the test (strace timestamps), median of the loops; its buffer is locked")
    add("and already written when the test starts.")
    add("")
    add("| Test | Accesses | Verified bytes per second |")
    add("|---|---|---:|")
    add(f"| memtester Sequential Increment | 64-bit | {gbps(working_set / seqinc_seconds)} |")
    if 1 in wr:
        add(f"| Write/Read/Verify, a one-pass call (allocation, page faults) | 32-bit, interleaved | "
            f"{gbps(verified / wr[1]['cpu'])} |")
    most = max((k for k in wr if k is not None), default=0)
    if 1 in wr and most > 1 and wr[most]["cpu"] > wr[1]["cpu"]:
        add(f"| Write/Read/Verify, a pass after the first (pages present) | 32-bit, interleaved | "
            f"{gbps(verified * (most - 1) / (wr[most]['cpu'] - wr[1]['cpu']))} |")
    add("")
    add("The Write/Read/Verify test's words are 32 bits wide as specified, memtester's 64: it makes twice")
    add("the accesses for the same bytes. Its figures are the benchmark thread's processor time (the")
    add(f"later passes: a {most}-pass call less a one-pass call); memtester's are wall time, which other work on")
    add("the machine can only lengthen.")
    add("")
    add(f"stress-ng's cache stressor, `{stress['argv']}`:")
    add("")
    add("| Tool | Cache it sizes for | What it reports |")
    add("|---|---|---|")
    buf = f"{stress['buffer'] // 1024} KiB buffer" if stress.get("buffer") else "not printed"
    extra = ""
    if stress.get("ops"):
        extra = (f"; {stress['ops'] / 1e6:,.0f} M cache ops/s, {stress['reads'] / 1e6:,.0f} M reads/s, "
                 f"{stress['writes'] / 1e6:,.0f} M writes/s")
    add(f"| stress-ng --cache {processors} --cache-level 2 | {buf} | {stress['per_second']:,.0f} bogo ops/s "
        f"({stress['per_cpu_second']:,.0f} per processor second){extra}; nothing verified |")
    total_bytes = 0.0
    total_seconds = 0.0
    for name, _, _ in SUBTESTS:
        found = subtest_rows(rows, name)
        r = found.get(1, found.get(None))
        if r is not None:
            total_bytes += r["rate"] * r["cpu"]
            total_seconds += r["cpu"]
    gtxt = f"{geometry[0] // 1024} KiB, {geometry[1]}-byte lines" if geometry else "see above"
    add(f"| tarneltest, every subtest once | {gtxt} (buffers of half to twice it) | "
        f"{total_bytes / 2**20:,.0f} MiB of test traffic in {total_seconds * 1e3:,.0f} ms per processor "
        f"({gbps(total_bytes / total_seconds)}), every verifying subtest compares what it wrote |")
    add("")
    add("stress-ng counts bogo operations of its own loop, not bytes, so the two rates do not divide; the")
    add("table shows what each tool sizes itself for and reports on this machine.")
    add("")

    os.makedirs(os.path.dirname(os.path.abspath(args.out)), exist_ok=True)
    with open(args.out, "w") as f:
        f.write("\n".join(lines))


if __name__ == "__main__":
    main()
