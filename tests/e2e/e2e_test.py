#!/usr/bin/env python3
"""End to end: the real tarneltest binary run as a person would run it, its
exit status, its output and the verdict record of every kind of real run.
Runs are kept short (one pass, or no subtest with test_mask=0). A failing
worker comes from tarneltest_faulty, the same program with a fault planted
from the environment.

e2e_test.py --binary TARNELTEST [--faulty TARNELTEST_FAULTY] [--list | TEST...]"""
import argparse
import json
import os
import pty
import re
import shlex
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest

BINARY, FAULTY, DRAWS_SHIM = None, None, None
CPUS = sorted(os.sched_getaffinity(0))


def run(args, binary=None, cpus=None, env=None, ignored=None, stdout=subprocess.PIPE, signal_after=None,
        sig=signal.SIGTERM, close_stdout=False):
    """(status, out, err) of one run; `sig` is sent once the output holds `signal_after`."""
    def child():
        if cpus is not None:
            os.sched_setaffinity(0, cpus)
        if ignored is not None:
            signal.signal(ignored, signal.SIG_IGN)  # kept across exec, as nohup does
        if close_stdout:
            os.close(1)
    if (binary or BINARY) == FAULTY and not any(a.startswith("--localise") or a == "--describe" for a in args):
        args = ["--localise", "0"] + args  # the sweep after a fault has a test of its own
    environment = dict(os.environ, **(env or {}))
    with subprocess.Popen([binary or BINARY] + args, stdout=stdout, stderr=subprocess.PIPE, text=True,
                          env=environment, preexec_fn=child) as p:
        out = ""
        if signal_after is not None:
            while signal_after not in out:
                line = p.stdout.readline()
                if not line:
                    break
                out += line
            p.send_signal(sig)
        rest, err = p.communicate(timeout=60)
        return p.returncode, out + (rest or ""), err


def cpus_of(cpu_list):
    """The processors of a list in the kernel's form ("0-2,5"), as texts."""
    ids = []
    for part in cpu_list.split(","):
        low, _, high = part.partition("-")
        ids += [str(i) for i in range(int(low), int(high or low) + 1)]
    return ids


def cpu_cgroup():
    """(directory, quota file, quota) of the cgroup tree that really carries
    the cpu controller, from the mount table: version 2 where its root lists
    cpu among those its children get, else version 1's cpu hierarchy; None where
    neither is mounted (a plain folder at /sys/fs/cgroup throttles nothing)."""
    v1 = None
    with open("/proc/self/mountinfo") as mounts:
        for line in mounts:
            fields = line.split()
            after = fields[fields.index("-") + 1:]
            if after[0] == "cgroup2":
                with open(os.path.join(fields[4], "cgroup.subtree_control")) as controllers:
                    if "cpu" in controllers.read().split():
                        return fields[4], "cpu.max", "2000 100000"
            elif after[0] == "cgroup" and "cpu" in after[2].split(","):
                v1 = fields[4], "cpu.cfs_quota_us", "2000"
    return v1


def least_room():
    """An address space, in KiB, in which a run starts all its workers but no
    test buffer fits: the least in which it does, to 16, and 64 more. A worker
    can start before the next one is created and take a few pages of its
    own; with less to spare, that next worker's stack may not fit."""
    low, high = 8192, 1 << 21
    while high - low > 16:
        middle = (low + high) // 2
        done = subprocess.run(["sh", "-c", f'ulimit -v {middle} && exec "$0" -q -o test_mask=0', BINARY],
                              capture_output=True, text=True)
        low, high = (low, middle) if "selects no subtest" in done.stdout else (middle, high)
    return high + 64


def record(out):
    return json.loads(out.splitlines()[-1])


def recording(source, root):
    """A recorded machine's sensors (tests/sensors/NAME) laid out as the run
    reads them, its msr readings (msr.txt) as the device files' recordings:
    a page before the run and one after, each register at 8 times its
    number."""
    shutil.copytree(source, root, symlinks=True)
    with open(f"{source}/msr.txt") as readings:
        for cpu, when, register, value in (line.split() for line in readings if line[0] != "#"):
            path = f"{root}/dev/cpu/{cpu}/msr"
            if not os.path.exists(path):
                os.makedirs(os.path.dirname(path))
                with open(path, "wb") as device:
                    device.truncate(8192)
            with open(path, "r+b") as device:
                os.pwrite(device.fileno(), int(value, 0).to_bytes(8, "little"),
                          4096 * (when == "after") + 8 * int(register, 16))
    return root


def table(name, columns):
    """The rows of a reviewed table beside this file: its lines but the
    comments, split at tabs into `columns` fields, "\\n" a line's end."""
    with open(os.path.join(os.path.dirname(os.path.abspath(__file__)), name)) as lines:
        rows = [line.rstrip("\n").replace("\\n", "\n").split("\t") for line in lines if not line.startswith("#")]
    return [row + [""] * (columns - len(row)) for row in rows]


class EndToEnd(unittest.TestCase):
    def test_command_lines_that_end_before_the_run(self):
        """The reviewed table command_lines.txt."""
        for args, want, out_has, err_has in table("command_lines.txt", 4):
            with self.subTest(args=args):
                status, out, err = run(shlex.split(args))
                self.assertEqual(status, int(want))
                self.assertIn(out_has, out)
                self.assertIn(err_has, err)
                self.assertNotRegex(out, r' #1 |"number":1,', "a run started")
                if args.startswith("--json"):
                    v = record(out)
                    self.assertEqual((v["exit_status"], v["tested_cpus"]), (2, []))
                    self.assertIn(shlex.split(args)[-1], v["text"])

    def test_hostile_inputs_and_conditions(self):
        """The reviewed table hostile_inputs.txt: each command ends in time,
        with its status and texts."""
        sanitized = os.environ.get("ASAN_OPTIONS") or os.environ.get("TSAN_OPTIONS")
        have = {"plain": not sanitized, "faulty": bool(FAULTY), "2cpus": len(CPUS) >= 2,
                "ns": subprocess.run(["unshare", "-m", "true"]).returncode == 0}
        room = None
        for needs, command, want, out_re, err_re in table("hostile_inputs.txt", 5):
            if not all(have[need] for need in needs.split()):
                continue
            if "$ROOM" in command and room is None:
                room = least_room()
            with self.subTest(command=command), tempfile.TemporaryDirectory() as tmp:
                env = dict(os.environ, T=BINARY, F=FAULTY or "", D=tmp, ROOM=str(room), C=str(CPUS[-1]),
                           M=os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "sysinfo", "machines"))
                done = subprocess.run(["sh", "-c", command], capture_output=True, text=True, env=env, timeout=60)
                self.assertEqual(done.returncode, int(want), done.stdout + done.stderr)
                self.assertRegex(done.stdout, out_re or "^")
                self.assertRegex(done.stderr, err_re or "^")

    def test_cpuid_describes_the_caches_where_sysfs_is_masked(self):
        """A container that masks /sys/devices/system/cpu: the geometry still
        comes from CPUID, read on each processor, not from the defaults."""
        mask = "mount -t tmpfs none /sys/devices/system/cpu && exec \"$0\" \"$@\""
        done = subprocess.run(["unshare", "-m", "sh", "-c", mask, BINARY, "--json", "-o", "test_mask=0"],
                              capture_output=True, text=True)
        if done.returncode not in (0, 3):
            self.skipTest(f"no private mount namespace here: {done.stderr.strip()}")
        v = record(done.stdout)
        self.assertEqual(sorted(g["cpu"] for g in v["l2"]), CPUS)
        self.assertTrue(all(g["source"].startswith("CPUID leaf") for g in v["l2"]), v["l2"])

    def test_describe_names_every_part_and_tests_nothing(self):
        """--describe: each processor's part and L2, the machine, no run; with
        --sysroot a recorded machine (a Dell R710: two packages, SMT, each L2
        shared by a core's two threads)."""
        tree = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "sysinfo", "machines", "dell_r710")
        status, out, _ = run(["--describe", "--json", "--sysroot", tree])
        v = json.loads(out)
        self.assertEqual((status, len(v["processors"]), v["machine"]["virtualised"]), (0, 16, False))
        self.assertEqual({k: v["processors"][9][k] for k in ("cpu", "package", "core", "smt_siblings", "family",
                                                             "model_number", "stepping", "microcode", "ppin")},
                         {"cpu": 9, "package": 1, "core": 0, "smt_siblings": "1,9", "family": 6, "model_number": 26,
                          "stepping": 5, "microcode": "0x19", "ppin": None})
        self.assertEqual(v["processors"][9]["l2"], {"size": 262144, "line": 64, "ways": 8, "source": "sysfs",
                                                    "shared_cpus": "1,9"})
        status, out, _ = run(["--describe"])
        self.assertEqual(status, 0)
        self.assertNotRegex(out, " #1 ")
        self.assertEqual(sorted(int(c) for c in re.findall(r"^cpu([0-9]+): L2 ", out, re.M)), CPUS)
        self.assertEqual(run(["--sysroot", tree])[0], 2)  # no run can test a recorded machine

    def test_machine_checks_from_rasdaemons_database(self):
        """rasdaemon's own database, made by the real rasdaemon in a private
        mount namespace, with rows inserted during a run as rasdaemon writes
        them: a corrected L2 error is a warning naming processor and bank,
        an uncorrected one on a tested processor fails the run, one on an
        untested processor is only reported; bookworm's columns and the
        newer ones (ppin, microcode) alike."""
        if not shutil.which("rasdaemon"):
            self.skipTest("rasdaemon not found (.ci/run installs Debian's rasdaemon)")
        import sqlite3
        import tempfile
        with tempfile.TemporaryDirectory() as tmp:
            made = os.path.join(tmp, "made.db")
            subprocess.run(["unshare", "-m", "sh", "-c",
                            "mount -t tmpfs none /var/lib && mkdir /var/lib/rasdaemon && "
                            "(mount -t debugfs none /sys/kernel/debug; mount -t tracefs none /sys/kernel/debug/tracing;"
                            " timeout 3 rasdaemon -f -r; cp /var/lib/rasdaemon/ras-mc_event.db \"$0\")", made],
                           capture_output=True)
            if not os.path.exists(made):
                self.skipTest("rasdaemon made no database here (no private mount namespace)")
            cpu, signed = CPUS[-1], lambda status: status - (1 << 64) if status >> 63 else status

            def run_with_rows(db, rows):
                with subprocess.Popen([BINARY, "--json", "--ras-db", db, "--metrics", db + ".prom", "-o",
                                       "count=1,test_mask=8"], stdout=subprocess.PIPE, text=True) as p:
                    out = p.stdout.readline()  # the run has read the database
                    with sqlite3.connect(db) as c:
                        c.executemany("INSERT INTO mce_record (timestamp, status, walltime, cpu, bank, cpuvendor, "
                                      "bank_name, error_msg, mcastatus_msg) VALUES (datetime(), ?, 0, ?, ?, ?, ?, ?, ?)",
                                      [(signed(status), row_cpu, bank, vendor, bank_name, message, message)
                                       for row_cpu, bank, vendor, status, bank_name, message in rows])
                    out += p.communicate(timeout=60)[0]
                    return p.returncode, out

            intel_l2 = (cpu, 6, 0, 0x9000000000000116, "", "Data CACHE Level-2 Data-Read Error")
            amd_l2 = (cpu, 2, 2, 0x9000000000000135, "L2 Cache (bank=2)", "Corrected error, no action required.")
            uncorrected = (cpu, 4, 0, 0xB200000000000116, "", "Data CACHE Level-2 Data-Read Error")
            untested = (4095, 6, 0, 0xB200000000000116, "", "Data CACHE Level-2 Data-Read Error")
            for newer, rows, want in [(False, [intel_l2, amd_l2, uncorrected, untested], 1), (True, [intel_l2, amd_l2], 0)]:
                db = os.path.join(tmp, f"{newer}.db")
                shutil.copy(made, db)
                with sqlite3.connect(db) as c:
                    if newer:  # what a newer rasdaemon appends to an upgraded database
                        c.execute("ALTER TABLE mce_record ADD COLUMN ppin INTEGER")
                        c.execute("ALTER TABLE mce_record ADD COLUMN microcode INTEGER")
                    c.execute("INSERT INTO mce_record (timestamp, status, cpu, bank, cpuvendor, bank_name, error_msg, "
                              "mcastatus_msg) VALUES ('before', 0, 0, 0, 0, '', 'before the run', '')")

                status, out = run_with_rows(db, rows)
                v = record(out)
                self.assertEqual((status, len(v["machine_checks"])), (want, len(rows)), out)
                # The metrics count them by processor and severity.
                counted = [(cpu, "corrected", 2)] + [(cpu, "uncorrected", 1), (4095, "uncorrected", 1)] * want
                self.assertIn("".join(f'tarneltest_last_run_machine_checks{{cpu="{c}",severity="{s}"}} {n}\n'
                                      for c, s, n in counted), open(db + ".prom").read())
                self.assertIn(f"corrected L2 cache error on cpu{cpu}, bank 6: Data CACHE Level-2 Data-Read Error",
                              v["warnings"])
                self.assertIn(f"corrected L2 cache error on cpu{cpu}, bank 2: L2 Cache (bank=2); Corrected error, "
                              "no action required.", v["warnings"])
                if want:
                    self.assertEqual([(f["cpu"], f["machine_check"]) for f in v["failures"]],
                                     [(cpu, "Data CACHE Level-2 Data-Read Error")])
                    self.assertIn("uncorrected L2 cache error on cpu4095, bank 6 (not tested): Data CACHE Level-2 "
                                  "Data-Read Error", v["warnings"])
            # A storm, 200,000 records of one kind and 40 of others: told by
            # kind with counts, in a line journald keeps whole (LineMax 48K).
            shutil.copy(made, os.path.join(tmp, "storm.db"))
            others = [(cpu, 7, 0, 0x9000000000000116, "", f"kind {k}") for k in range(40)]
            status, out = run_with_rows(os.path.join(tmp, "storm.db"), [intel_l2] * 200000 + others)
            v = record(out)
            self.assertLess(len(out.splitlines()[-1]), 48 * 1024)
            self.assertEqual((status, len(v["machine_checks"]), v["machine_checks"][0]["count"]), (0, 32, 200000))
            self.assertIn(f"200000 corrected L2 cache errors on cpu{cpu}, bank 6: Data CACHE Level-2 Data-Read Error",
                          v["warnings"])
            self.assertIn("9 more corrected machine-check records of other kinds (only the first 32 kinds are "
                          "itemised)", v["warnings"])
            # Uncorrected kinds past the 32 are told by processor, and fail a
            # run when that processor was tested.
            shutil.copy(made, os.path.join(tmp, "uncorrected.db"))
            status, out = run_with_rows(os.path.join(tmp, "uncorrected.db"),
                                        [(4095 if k < 32 else cpu, 7, 0, 0xB200000000000116, "", f"kind {k}")
                                         for k in range(35)])
            v = record(out)
            self.assertEqual((status, [(f["cpu"], f["machine_check"]) for f in v["failures"]]),
                             (1, [(cpu, "uncorrected machine checks of other kinds")]))
            self.assertEqual(v["machine_checks"][-1]["count"], 3)

    def test_run_conditions_are_warnings(self):
        """Buffers not locked (an unprivileged user under ulimit -l 0), CPU
        time a cgroup quota withheld, and another instance on the same
        processors: each a warning, none changing the status."""
        args = ["-q", "-o", "count=1,test_mask=16"]
        status, out, err = run(["-c", 'ulimit -l 0 && exec setpriv --reuid=65534 --regid=65534 --clear-groups '
                                '"$0" "$@"', BINARY] + args, binary="sh")
        if "setpriv" in err or "ulimit" in err:
            self.skipTest(f"cannot drop the memory-lock privilege here: {err.strip()}")
        self.assertEqual(status, 0)
        # (A sanitizer's runtime takes mlock over and never refuses it.)
        if not (os.environ.get("ASAN_OPTIONS") or os.environ.get("TSAN_OPTIONS")):
            self.assertRegex(out, r"WARNING: [0-9]+ buffers could not be locked in memory \(mlock refused; the "
                                  r"memory-lock limit is 0 KiB\)")
        with subprocess.Popen([BINARY, "-q", "-o", "count=4"], stdout=subprocess.PIPE, text=True) as first:
            time.sleep(0.3)
            status, out, _ = run(args)
            self.assertEqual(status, 0)
            self.assertIn(f"WARNING: another tarneltest, pid {first.pid} (cpus ", out)
            first.communicate(timeout=60)
        mounted = cpu_cgroup()
        if mounted is None:
            self.skipTest("no cgroup file system with the cpu controller is mounted here")
        group = os.path.join(mounted[0], f"tarneltest-e2e-{os.getpid()}")
        os.mkdir(group)
        self.addCleanup(os.rmdir, group)  # empty again once the run has ended
        with open(os.path.join(group, mounted[1]), "w") as f:
            f.write(mounted[2])
        procs = os.path.join(group, "cgroup.procs")
        status, out, _ = run(["-c", f'echo $$ > {procs} && exec "$0" "$@"', BINARY, "-q", "-o", "count=2,test_mask=16"],
                             binary="sh")
        self.assertEqual(status, 0)
        self.assertRegex(out, rf"WARNING: CPU time was throttled by a cgroup quota \(.*{mounted[2]}.*\) in [0-9]+ of "
                              r"[0-9]+ periods")

    def test_a_default_taken_is_said_even_when_quiet(self):
        status, out, _ = run(["-q", "-o", "count=2000,test_mask=0"])
        self.assertEqual(status, 3)
        self.assertIn(" INFO main #23 Value outside 1..1024, taking the default 8 instead\n", out)

    def test_json_lines_are_objects_with_the_documented_keys(self):
        status, out, err = run(["--json", "-d", "-o", "count=1,test_mask=8"])
        self.assertEqual((status, err), (0, ""))
        lines = [json.loads(line) for line in out.splitlines()]
        message_keys = {"time", "level", "severity", "cpu", "thread", "tag", "number", "exit_flag", "text"}
        for line in lines[:-1]:
            self.assertEqual(set(line), message_keys)
        v = lines[-1]
        self.assertEqual(set(v), {"time", "host", "schema_version", "verdict", "exit_status", "elapsed_seconds",
                                  "text", "cpu", "thread", "options", "version", "build", "seed", "tested_cpus",
                                  "left_out_cpus",
                                  "failed_cpus", "l2", "failures", "machine_checks", "hardware_counts",
                                  "clock", "temperatures", "processors", "machine", "warnings"})
        self.assertEqual([p["cpu"] for p in v["processors"]], CPUS)
        self.assertEqual(set(v["machine"]), {"host", "kernel", "virtualised", "start_time"})
        self.assertEqual((v["verdict"], v["exit_status"], v["failures"]), ("pass", 0, []))
        self.assertEqual(v["options"], "count=1,test_mask=8")  # what ran, and which build
        self.assertTrue(v["version"].startswith("1.0 "))
        self.assertRegex(v["build"], r"^1\.0(\+g[0-9a-f]{7,}|\+unknown)?$")  # which build ran
        self.assertIn(f", build {v['build']}\n", run(["--version"])[1])
        self.assertGreaterEqual(v["elapsed_seconds"], 1.9)  # the two one-second pauses
        self.assertEqual(v["host"], socket.gethostname())
        self.assertEqual(v["tested_cpus"], CPUS)
        self.assertEqual([g["cpu"] for g in v["l2"]], CPUS)  # each one's geometry, in processor order
        # A source that cannot be read is said once, with why.
        notes = [line["text"] for line in lines if line["text"].startswith("hardware reports not read: ")]
        self.assertEqual(len(notes), len(set(notes)))
        self.assertTrue(any("rasdaemon" in note for note in notes) or os.path.exists("/var/lib/rasdaemon"))

    def test_debug_line_once_per_processor_of_the_affinity(self):
        for cpus in (CPUS, CPUS[-1:]):
            # A geometry listing: it tests nothing, so it is no pass.
            status, out, _ = run(["-d", "-o", "test_mask=0"], cpus=cpus)
            self.assertEqual(status, 3)
            self.assertEqual(out.count(" VERDICT COULD NOT TEST: test_mask 0 selects no subtest: nothing was tested"), 1)
            # Each worker announces its geometry bound to its own processor,
            # and the harness shows the one each worker sized its buffers from.
            seen = re.findall(r" DEBUG cpu([0-9]+) \[l2cache\] #0 Cache Access stress for cache_size ([0-9a-f]+) ", out)
            shown = re.findall(r" \[dxttest\] #0 L2 of cpu([0-9]+): ([0-9]+) bytes", out)
            self.assertEqual(sorted((int(c), int(size, 16)) for c, size in seen),
                             sorted((int(c), int(s)) for c, s in shown))
            self.assertEqual(sorted(int(c) for c, _ in seen), cpus)

    def test_lost_output_is_never_a_pass(self):
        """Output that cannot be written is said once on standard error, and
        the run cannot pass; a fault found still says so."""
        said = "tarneltest: cannot write standard output"
        full = os.open("/dev/full", os.O_WRONLY)
        for closed in (False, True):
            for form in ("-q", "--json"):
                status, _, err = run([form, "-o", "count=1,test_mask=8"], stdout=full, close_stdout=closed)
                self.assertEqual((status, err.count(said)), (3, 1), err)
        if FAULTY:
            status, _, _ = run(["-q", "-o", "count=1,test_mask=8"], binary=FAULTY, stdout=full,
                               env={"TARNEL_FAULT": f"lost,{CPUS[0]},0,24"})
            self.assertEqual(status, 1)
        os.close(full)

    def test_progress_line_only_on_a_terminal_that_can_redraw_it(self):
        """With -q on a terminal a live progress line is redrawn in place (a
        burn-in's names the run and the time left); a dumb terminal cannot
        move back to the start of a line: there it is never drawn."""
        for term, args, drawn in [("xterm", [], "\r\033[K"), ("xterm", ["--duration", "1"], "burn-in: run 1, "),
                                  ("dumb", ["--runs", "1"], None)]:
            master, slave = pty.openpty()
            status, _, _ = run(args + ["-q", "-o", "count=1,test_mask=8"], env={"TERM": term}, stdout=slave)
            os.close(slave)
            screen = b""
            try:
                while chunk := os.read(master, 4096):
                    screen += chunk
            except OSError:  # the terminal's other side is gone
                pass
            os.close(master)
            self.assertEqual(status, 0)
            if drawn:
                self.assertIn(drawn.encode(), screen)
            else:
                self.assertNotIn(b"\r\033[K", screen)

    def test_inherited_ignored_interrupts_stay_ignored(self):
        """A signal ignored when the run started (nohup, a script's
        background job) stays ignored; the same signal otherwise ends it."""
        for sig in (signal.SIGHUP, signal.SIGINT):
            args = ["-o", "count=1,test_mask=8"]
            self.assertEqual(run(args, signal_after=" #1 ", sig=sig, ignored=sig)[0], 0)
            self.assertEqual(run(args, signal_after=" #1 ", sig=sig)[0], 128 + sig)

    def test_strace_failing_a_worker_leaves_its_processor_untested(self):
        """A worker thread that cannot be created, or bound, leaves its
        processor untested: the run is no pass. And a run reads the kernel's
        processor lists once, not once per processor id."""
        if not shutil.which("strace"):
            self.skipTest("strace not found (.ci/run installs it)")
        args = [BINARY, "-q", "-o", "count=1,test_mask=8"]
        for fault, reason in [("clone3:error=EAGAIN:when=2+", "thread-not-created"),
                              ("sched_setaffinity:error=EINVAL", "not-bound")]:
            status, out, _ = run(["-f", "-qq", "-o", "/dev/null", "-e", "inject=" + fault] + args[:1] + args[2:],
                                 binary="strace")
            self.assertEqual(status, 3, out)
            if reason == "not-bound":  # unbound, each worker's lines still name the processor it tests
                self.assertEqual(sorted(map(int, re.findall(r" INFO cpu([0-9]+) #3 ", out))), CPUS)
            self.assertRegex(out, r"VERDICT COULD NOT TEST: not every processor was tested: left out cpu[0-9]+ \("
                             + reason)
        # (Its status is left alone: a leak checker cannot stop the threads of
        # a traced process, and says so at exit.)
        _, _, err = run(["-f", "-e", "trace=open,openat"] + args, binary="strace")
        self.assertEqual(err.count('cpu/possible"'), 1)

    def test_a_signal_from_another_process_ends_the_run_as_interrupted(self):
        """SIGTERM as the run starts, and a SIGBUS sent with kill, which is no
        memory error, once the last worker created is in its subtest, when no
        thread is still starting: a thread sanitizer runs a SIGBUS handler at
        once, even on a thread too new for it to know."""
        last_worker_in = f'"cpu":{CPUS[-1]},"thread":"worker","tag":null,"number":3,'
        for sig, status, mask, after in ((signal.SIGTERM, 143, 0, '"number":1,'),
                                         (signal.SIGBUS, 135, 8, last_worker_in)):
            with self.subTest(sig.name):
                got, out, _ = run(["--json", "-o", f"count=1,test_mask={mask}"], signal_after=after, sig=sig)
                self.assertEqual(got, status)
                self.assertNotIn('"number":4,', out, "the run went on")
                v = record(out)
                self.assertEqual((v["verdict"], v["exit_status"], v["text"], v["failures"]),
                                 ("interrupted", status, f"interrupted by {sig.name} (exit status {status})", []))

    def test_a_burn_in_runs_until_its_limit(self):
        status, out, _ = run(["--runs", "3", "-q", "-o", "count=1,test_mask=8"])
        self.assertEqual(status, 0)
        self.assertEqual(re.findall(r" RUN ([0-9]+) PASS in ", out), ["1", "2", "3"])
        self.assertRegex(out, r" SUMMARY burn-in: 3 runs, 3 passed, 0 found a fault\n(.*\n)*.* VERDICT PASS: 3 runs "
                              r"passed in [0-9.]+ s\n$")
        self.assertEqual(len(re.findall(r"Z run 2 VERDICT PASS", out)), 1)  # each run's lines carry its number
        # No run starts after the deadline; the one in progress finishes.
        status, out, _ = run(["--duration", "5", "--json", "-o", "count=1,test_mask=8"])
        records = [json.loads(line) for line in out.splitlines()]
        self.assertTrue(all(r["run"] >= 1 for r in records[:-1]))
        v = records[-1]
        self.assertEqual((status, v["verdict"], v["runs"], v["runs_passed"]), (0, "pass", 3, 3))
        self.assertLess(v["elapsed_seconds"], 5 + 2.5)
        self.assertEqual(set(v), {"time", "host", "schema_version", "verdict", "exit_status", "text", "options",
                                  "version", "build", "runs", "runs_passed", "runs_failed", "seeds", "failed_runs",
                                  "unfinished_runs", "retests", "reproducibility", "elapsed_seconds",
                                  "machine_checks", "hardware_counts", "warnings", "processors", "machine"})

    def test_sigint_ends_a_burn_in_with_130_and_its_record(self):
        start = time.monotonic()
        status, out, _ = run(["--runs", "50", "--json", "-o", "count=1,test_mask=8"], signal_after='"run":2',
                             sig=signal.SIGINT)
        v = record(out)
        self.assertEqual((status, v["verdict"], v["exit_status"], v["runs"]), (130, "interrupted", 130, 2))
        self.assertLess(time.monotonic() - start - v["elapsed_seconds"], 1.0)  # the stop took under a second

    def test_a_burn_in_stops_at_a_fault_unless_it_keeps_going(self):
        if not FAULTY:
            self.skipTest("no fault-model build")
        cpu = CPUS[-1]
        fault = {"TARNEL_FAULT": f"stuck1,{cpu},2,24,3"}  # the Cache Hit test's packed records, every run
        status, out, _ = run(["--runs", "3", "-q", "-o", "count=1,test_mask=16"], binary=FAULTY, env=fault)
        self.assertEqual(status, 1)
        self.assertIn(f" SUMMARY run 1 found a fault on cpu{cpu} in Cache Hit Stress\n", out)
        self.assertNotIn(" RUN 2 ", out)
        status, out, _ = run(["--runs", "3", "--keep-going", "--json", "-o", "count=1,test_mask=16"], binary=FAULTY,
                             env=fault)
        v = record(out)
        self.assertEqual((status, v["runs"], v["runs_failed"]), (1, 3, 3))
        self.assertEqual(v["failed_runs"][2], {"run": 3, "cpu": cpu, "subtest": "Cache Hit Stress",
                                               "localisation": None, "l2_cpus": None})

    def test_a_planted_fault_decides_the_run_on_every_processor(self):
        """The reviewed table planted_faults.txt: found faults fail the run
        naming that processor and subtest, in the text and in the record."""
        if not FAULTY:
            self.skipTest("no fault-model build")
        for fault, mask, want, line, message, worker_status, subtest in table("planted_faults.txt", 7):
            for cpu in CPUS:
                with self.subTest(fault=fault, cpu=cpu):
                    env = {"TARNEL_FAULT": fault.format(cpu=cpu)}
                    status, out, _ = run(["-o", f"count=1,test_mask={mask}"], binary=FAULTY, env=env)
                    self.assertEqual(status, int(want), out)
                    self.assertRegex(out, line.replace("{cpu}", str(cpu)))
                    if not message:
                        continue
                    status, out, _ = run(["--json", "-o", f"count=1,test_mask={mask}"], binary=FAULTY, env=env)
                    self.assertEqual(out.count(f'"number":{message},'), 1)
                    v = record(out)
                    self.assertEqual((status, v["verdict"], v["failed_cpus"]), (1, "fault", [cpu]))
                    self.assertEqual(v["failures"], [{"cpu": cpu, "message": int(message),
                                                      "worker_status": int(worker_status) if worker_status else None,
                                                      "subtest": subtest, "possible_subtests": [subtest],
                                                      "hung": False, "no_memory": False, "stalled": None,
                                                      "machine_check": None, "address": None,
                                                      "localisation": None}])

    def test_localisation_tells_each_planted_fault_apart(self):
        """The reviewed table localised_faults.txt: after the fault, the sweep
        on the failing processor names the planted word's offset, its bit,
        stored or read, and the L2 set its physical address implies, in the
        record, the summary line and the metrics; with nothing planted in its
        buffer it says the fault was not reproduced."""
        if not FAULTY:
            self.skipTest("no fault-model build")
        args = ["--localise", "30", "-o", "count=1,test_mask=8"]
        for fault, pattern, offset, bit, kind, count in table("localised_faults.txt", 6):
            for cpu in CPUS:
                with self.subTest(fault=fault, cpu=cpu):
                    env = {"TARNEL_FAULT": f"stuck1,{cpu},0,64,3;" + fault.format(cpu=cpu)}
                    status, out, _ = run(["--json", "-q"] + args, binary=FAULTY, env=env)
                    v = record(out)
                    found, l2 = v["failures"][0]["localisation"], next(g for g in v["l2"] if g["cpu"] == cpu)
                    self.assertEqual((status, found["ran"], found["pattern"]), (1, True, pattern))
                    if count:
                        self.assertEqual(found["miscompares"], int(count))
                    self.assertEqual(v["failures"][0]["address"], found["records"][0]["address"])
                    for m in found["records"]:
                        self.assertEqual((m["offset"], m["bits"], m["class"]), (int(offset), [int(bit)], kind))
                        self.assertEqual(int(m["xor"], 16), 1 << int(bit))
                        self.assertEqual(int(m["actual"], 16), int(m["expected"], 16) ^ int(m["xor"], 16))
                        sets = l2["size"] // (l2["line"] * l2["ways"])
                        if m["physical"] is None:  # not root
                            self.assertEqual((m["l2_set"], m["physical_why"]),
                                             (None, "page frames are shown only with CAP_SYS_ADMIN"))
                        else:
                            self.assertEqual(m["l2_set"], int(m["physical"], 16) // l2["line"] % sets)
            with tempfile.TemporaryDirectory() as tmp:
                status, out, _ = run(["-q", "--metrics", f"{tmp}/t.prom"] + args, binary=FAULTY, env=env)
                self.assertRegex(out, rf"SUMMARY localisation on cpu{cpu}: {pattern} at (physical 0x[0-9a-f]+ "
                                      rf"\(L2 set [0-9]+\)|offset {offset} .*), {kind}; ")
                with open(f"{tmp}/t.prom") as metrics:
                    self.assertRegex(metrics.read(), rf'tarneltest_localised_miscompares{{cpu="{cpu}"}} [1-9]')
        status, out, _ = run(["-q", "--localise", "1", "-o", "count=1,test_mask=8"], binary=FAULTY,
                             env={"TARNEL_FAULT": f"stuck1,{cpu},0,64,3"})
        self.assertRegex(out, rf"SUMMARY localisation on cpu{cpu}: not reproduced in 1\.[0-9] s ")

    def test_seeds_repeat_a_runs_draws(self):
        """--seed repeats a one-processor run's draws exactly (read by a
        preloaded lrand48), and a run without it draws as the C library's
        own state does, seed 0; the record and the summary name the
        seed, and each run of a burn-in of three takes a different one."""
        if not DRAWS_SHIM or os.environ.get("ASAN_OPTIONS") or os.environ.get("TSAN_OPTIONS"):
            self.skipTest("no draws shim, or a sanitizer's runtime, which must be loaded first")
        cpu = CPUS[-1]

        def draws(*seed):
            with tempfile.TemporaryDirectory() as tmp:
                status, out, _ = run(["--json", "-q", "-o", "count=1,test_mask=64", *seed], cpus=[cpu],
                                     env={"LD_PRELOAD": DRAWS_SHIM, "DRAWS_LOG": f"{tmp}/draws"})
                with open(f"{tmp}/draws") as log:
                    return status, record(out)["seed"], log.read().split()
        first, again, other, plain = draws("--seed", "7"), draws("--seed", "7"), draws("--seed", "8"), draws()
        self.assertEqual((first[0], first[1], len(first[2]) >= 10), (0, 7, True))
        self.assertEqual(first, again)
        self.assertNotEqual(first[2], other[2])
        self.assertEqual(plain, (0, 0, draws("--seed", "0")[2]))
        status, out, _ = run(["--seed", "9", "-o", "count=1,test_mask=8"])
        self.assertRegex(out, r"SUMMARY version .*, seed 9, sub-options ")
        status, out, _ = run(["--json", "-q", "--runs", "3", "--seed", "11", "-o", "count=1,test_mask=8"])
        seeds = record(out)["seeds"]
        self.assertEqual((status, len(set(seeds)), seeds[0]), (0, 3, 11))

    def test_one_l2_at_a_time_finds_a_fault_in_its_turn(self):
        """Each L2's processors run in a turn of their own, the rest left out:
        a fault on the first L2 is found in its turn and named with it; the
        later turns run only with --keep-going; the sweep and the retests
        work as in a normal run; a burn-in cycles through the L2s and ends
        on a whole cycle; a hang ends its own turn at --timeout, after the
        turns before it passed."""
        if not FAULTY:
            self.skipTest("no fault-model build")
        _, out, _ = run(["--describe", "--json"])
        domains = []
        for p in json.loads(out)["processors"]:
            sharing = p["l2"]["shared_cpus"]
            if not any(str(p["cpu"]) in cpus_of(d) for d in domains):
                domains.append(sharing if sharing != "unknown" else str(p["cpu"]))
        first, last = CPUS[0], CPUS[-1]
        args = ["--one-l2-at-a-time", "--json", "-q", "-o", "count=1,test_mask=8"]
        with tempfile.TemporaryDirectory() as tmp:
            status, out, _ = run(args + ["--metrics", f"{tmp}/m.prom"], binary=FAULTY,
                                 env={"TARNEL_FAULT": f"lost,{first},0,24"})
            with open(f"{tmp}/m.prom") as metrics:
                tested = re.findall(r'^tarneltest_cpu_tested\{cpu="([0-9]+)"\} ([01])$', metrics.read(), re.M)
        # The metrics count as tested only the L2s that had a turn.
        self.assertEqual(sorted(tested, key=lambda t: int(t[0])),
                         sorted(((c, "1" if c in cpus_of(domains[0]) else "0") for d in domains for c in cpus_of(d)),
                                key=lambda t: int(t[0])))
        v, turns = record(out), [r for r in map(json.loads, out.splitlines()[:-1]) if "exit_status" in r]
        self.assertEqual((status, v["verdict"], v["burn_in"], v["l2_domains"]), (1, "fault", False, domains))
        self.assertEqual([(t["run"], t["cpus"], t["verdict"]) for t in v["l2_turns"]], [(1, domains[0], "fault")])
        self.assertEqual(v["failed_runs"], [{"run": 1, "cpu": first, "subtest": "Write/Read/Verify",
                                             "localisation": None, "l2_cpus": domains[0]}])
        self.assertEqual(turns[0]["tested_cpus"], [int(c) for c in cpus_of(domains[0])])
        status, out, _ = run(args[:1] + ["--keep-going"] + args[1:], binary=FAULTY,
                             env={"TARNEL_FAULT": f"lost,{first},0,24"})
        v = record(out)
        self.assertEqual((status, [t["verdict"] for t in v["l2_turns"]]), (1, ["fault"] + ["pass"] * (len(domains) - 1)))
        self.assertEqual([t["cpus"] for t in v["l2_turns"]], domains)
        # Its sweep and its retests, as in a normal run.
        status, out, _ = run(args + ["--localise", "2", "--retest", "1"], binary=FAULTY,
                             env={"TARNEL_FAULT": f"stuck1,{first},0,64,3;stuck1,{first},sweep,4100,3"})
        v = record(out)
        self.assertRegex(v["failed_runs"][0]["localisation"], r"^bit 35 stuck at 1 ")
        self.assertEqual([(r["cpu"], r["failed"], r["runs"], r["verdict"]) for r in v["reproducibility"]],
                         [(first, 2, 2, "reproduced on this processor alone")])
        # A burn-in cycles through the L2s and stops only once a cycle is
        # done; the first cycle draws as asked, the later ones afresh.
        status, out, _ = run(args + ["--runs", str(len(domains) + 1), "--seed", "5"], binary=FAULTY)
        v = record(out)
        self.assertEqual((status, v["burn_in"], [t["cpus"] for t in v["l2_turns"]]), (0, True, domains * 2))
        self.assertEqual(v["seeds"][:len(domains)], [5] * len(domains))
        self.assertNotIn(5, v["seeds"][len(domains):])
        # Past its deadline after the first turn (a run takes two seconds),
        # it still finishes the cycle.
        status, out, _ = run(args + ["--duration", "1"])
        self.assertEqual((status, [t["cpus"] for t in record(out)["l2_turns"]]), (0, domains))
        status, out, _ = run(["--one-l2-at-a-time", "-q", "--timeout", "3", "-o", "count=1,test_mask=8"],
                             binary=FAULTY, env={"TARNEL_FAULT": f"hang,{last},0,64"})
        self.assertEqual(status, 4)
        self.assertRegex(out, rf" RUN {len(domains)} HUNG on the L2 of cpus {domains[-1]} in [3-9]\.[0-9] s\n")
        self.assertRegex(out, rf" SUMMARY one L2 at a time: {len(domains)} runs?, {len(domains) - 1} passed, ")

    def test_clock_and_temperatures_of_recorded_machines(self):
        """Recorded msr readings, cpufreq and hwmon trees (tests/sensors) give
        the exact clocks, temperatures and warnings reviewed beside them, in
        the summary, the metrics and the record; this machine's own run says
        why it has none; with a processor left free the sensors are sampled
        from it during the run."""
        if CPUS[:2] != [0, 1]:
            self.skipTest("the recordings' expectations are of a run on cpus 0 and 1")
        folder = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "sensors")
        names = sorted(n for n in os.listdir(folder) if os.path.isdir(f"{folder}/{n}"))
        self.assertEqual(names, ["i3_7100", "ryzen_5900x"])
        args = ["-q", "-o", "count=1,test_mask=8"]
        for name in names:
            with tempfile.TemporaryDirectory() as tmp, self.subTest(name):
                root = recording(f"{folder}/{name}", f"{tmp}/root")
                _, text, _ = run(args + ["--sensors-from", root, "--metrics", f"{tmp}/m.prom"], cpus=CPUS[:2])
                said = [line.split(" ", 1)[1] for line in text.splitlines()
                        if re.match(r"\S+ SUMMARY (clock|cpufreq|temperature|WARNING: .* reached)", line)]
                with open(f"{tmp}/m.prom") as metrics:
                    said += [line.rstrip("\n") for line in metrics
                             if re.match(r"tarneltest_(cpu_effective|cpu_cpufreq|temperature)", line)]
                with open(f"{folder}/{name}.txt") as expected:
                    self.assertEqual(said, expected.read().splitlines())
                _, out, _ = run(["--json"] + args + ["--sensors-from", root], cpus=CPUS[:2])
                v = record(out)
                with open(f"{folder}/{name}.json") as expected:
                    self.assertEqual({"clock": v["clock"], "temperatures": v["temperatures"]}, json.load(expected))
                _, out, _ = run(["--json"] + args + ["--sensors-from", root], cpus=CPUS[:1])
                t = record(out)["temperatures"]
                self.assertEqual((t["sampled_during_run"], t["why"], t["samples"] >= 3), (True, None, True))
        _, out, _ = run(["--json"] + args)
        v = record(out)
        self.assertTrue(all(c["effective_mhz"] or c["why"] for c in v["clock"]))
        self.assertTrue(v["temperatures"]["sensors"] or v["temperatures"]["why"])

    def test_a_stalled_worker_ends_the_run_as_hung(self):
        """A worker stopped for ever ends the run at --timeout with HUNG and 4,
        naming its processor and subtest; a fault another worker found still
        gives 1; an early end leaves the unfinished processors cut short; in
        a burn-in the hung run stops it with 4."""
        if not FAULTY:
            self.skipTest("no fault-model build")
        cpu = CPUS[-1]
        status, out, _ = run(["--json", "--timeout", "3", "-o", "count=1,test_mask=8"], binary=FAULTY,
                             env={"TARNEL_FAULT": f"hang,{cpu},0,64"})
        v = record(out)
        self.assertEqual((status, v["verdict"], v["failed_cpus"]), (4, "hung", [cpu]))
        self.assertEqual([(f["cpu"], f["hung"], f["subtest"]) for f in v["failures"]], [(cpu, True, "Write/Read/Verify")])
        status, out, _ = run(["-q", "--runs", "3", "--timeout", "3", "-o", "count=1,test_mask=8"], binary=FAULTY,
                             env={"TARNEL_FAULT": f"hang,{cpu},0,64"})
        self.assertEqual(status, 4)
        self.assertIn(" RUN 1 HUNG in ", out)
        self.assertNotIn(" RUN 2 ", out)
        if len(CPUS) < 2:
            return
        other = CPUS[0]
        # cpu's packed records fail, other's worker hangs: the fault decides.
        status, out, _ = run(["--json", "--timeout", "3", "-o", "count=1,test_mask=16"], binary=FAULTY,
                             env={"TARNEL_FAULT": f"hang,{other},0,64;stuck1,{cpu},2,24,3"})
        v = record(out)
        self.assertEqual((status, v["verdict"]), (1, "fault"))
        self.assertEqual(sorted((f["cpu"], f["hung"]) for f in v["failures"]), sorted([(cpu, False), (other, True)]))
        # A miscompare ends the run at once: the hung worker is cut short.
        status, out, _ = run(["--json", "-o", "count=1,test_mask=8"], binary=FAULTY,
                             env={"TARNEL_FAULT": f"hang,{other},0,64;lost,{cpu},0,24"})
        v = record(out)
        self.assertEqual((status, v["tested_cpus"], v["failed_cpus"]), (1, [cpu], [cpu]))
        self.assertIn({"cpu": other, "reason": "cut-short"}, v["left_out_cpus"])

    def test_a_burn_in_ends_its_runs_whatever_they_do(self):
        """SIGTERM to a burn-in whose run is stopped ends it within seconds,
        143 and its record; a run stopped past its own limit is ended as
        hung; a run killed from outside is named with its signal, in its own
        record and the burn-in's, and could not test."""
        def burn_in_with_run(act, more=()):
            with subprocess.Popen([BINARY, "--runs", "3", "--json", "-o", "count=1,test_mask=8", *more],
                                  stdout=subprocess.PIPE, text=True) as p:
                p.stdout.readline()  # the first run's first line: it is running
                child = int(subprocess.run(["pgrep", "-P", str(p.pid)], capture_output=True, text=True).stdout)
                start = act(p, child)
                out, _ = p.communicate(timeout=60)
                return p.returncode, time.monotonic() - start, [json.loads(line) for line in out.splitlines()]

        def stop_then_terminate(p, child):
            os.kill(child, signal.SIGSTOP)
            start = time.monotonic()
            p.send_signal(signal.SIGTERM)
            return start

        status, took, records = burn_in_with_run(stop_then_terminate)
        self.assertEqual((status, records[-1]["verdict"], records[-1]["exit_status"]), (143, "interrupted", 143))
        self.assertLess(took, 5)
        # A run stopped past its own limit is ended from outside as hung.
        status, _, records = burn_in_with_run(lambda p, child: os.kill(child, signal.SIGSTOP) or time.monotonic(),
                                              ["--timeout", "3"])
        self.assertEqual((status, records[-1]["verdict"], records[-1]["unfinished_runs"][0]["verdict"]),
                         (4, "hung", "hung"))
        status, _, records = burn_in_with_run(lambda p, child: os.kill(child, signal.SIGKILL) or time.monotonic())
        said = "run 1 was killed by SIGKILL (the out-of-memory killer ends processes so)"
        self.assertEqual(status, 3)
        self.assertIn({"run": 1, "verdict": "could-not-test", "text": said[6:]}, records[-1]["unfinished_runs"])
        self.assertEqual([(r["verdict"], r["text"]) for r in records if r.get("run") == 1 and "verdict" in r],
                         [("could-not-test", said)])

    def test_retests_of_a_fault(self):
        """--retest reruns the failing subtest on the failing processor alone,
        and says how often it failed, in the text and in the record."""
        if not FAULTY:
            self.skipTest("no fault-model build")
        cpu = CPUS[-1]
        env = {"TARNEL_FAULT": f"stuck1,{cpu},2,24,3"}
        status, out, _ = run(["-q", "--retest", "3", "-o", "count=1,test_mask=16"], binary=FAULTY, env=env)
        self.assertEqual(status, 1)
        self.assertRegex(out, rf" SUMMARY retest: cpu{cpu} Cache Hit Stress failed 3 of 3.*\n.* SUMMARY "
                              rf"reproducibility of cpu{cpu}: failed 4 of 4, reproduced on this processor alone\n"
                              ".* VERDICT FAIL: ")
        status, out, _ = run(["--json", "-q", "--retest", "2", "-o", "count=1,test_mask=16"], binary=FAULTY, env=env)
        v = record(out)
        self.assertEqual((status, v["verdict"]), (1, "fault"))
        self.assertEqual(v["retests"][0], {"cpu": cpu, "failing_cpu": cpu, "subtest": "Cache Hit Stress", "runs": 2,
                                           "failed": 2, "passed": 0, "could_not_test": 0})
        # Each sweep, the run's and the retest's, localises the bit planted in its buffer. The
        # Cache Hit test's freed blocks may become the sweep's, their planted bit with them.
        env = {"TARNEL_FAULT": f"stuck1,{cpu},0,64,3;stuck1,{cpu},sweep,4100,3"}
        status, out, _ = run(["--json", "-q", "--retest", "1", "--localise", "30", "-o", "count=1,test_mask=8"],
                             binary=FAULTY, env=env)
        found = record(out)["reproducibility"]
        self.assertEqual([(r["cpu"], r["failed"], r["runs"], r["verdict"]) for r in found],
                         [(cpu, 2, 2, "reproduced on this processor alone")])
        self.assertEqual([w[:21] for w in found[0]["localisation"]], ["bit 35 stuck at 1 at "] * 2)

    def test_metrics_as_node_exporter_serves_them(self):
        """--metrics, served by Debian's node_exporter (its textfile collector
        alone, on a loopback port) and scraped as Prometheus would: a pass, a
        burn-in and a fault on one processor, each with its values, nothing
        half-written left beside them; a pass whose metrics cannot be written
        could not test."""
        status, _, err = run(["-q", "-o", "count=1,test_mask=8", "--metrics", "/nonexistent/t.prom"])
        self.assertEqual(status, 3)
        self.assertIn("tarneltest: cannot write the metrics to /nonexistent/t.prom (No such file or directory): "
                      "the run's result cannot reach the monitoring, so it cannot pass\n", err)
        if not shutil.which("prometheus-node-exporter"):
            self.skipTest("prometheus-node-exporter not found (.ci/run installs Debian's prometheus-node-exporter)")
        import tempfile
        import urllib.request
        with tempfile.TemporaryDirectory() as tmp, socket.socket() as s:
            s.bind(("127.0.0.1", 0))
            address = "127.0.0.1:%d" % s.getsockname()[1]
            s.close()
            exporter = subprocess.Popen(["prometheus-node-exporter", "--collector.disable-defaults",
                                         "--collector.textfile", "--collector.textfile.directory=" + tmp,
                                         "--web.listen-address=" + address], stderr=subprocess.DEVNULL)
            self.addCleanup(exporter.wait)
            self.addCleanup(exporter.terminate)
            last, cpu = CPUS[-1], lambda name, n, v: {f'tarneltest_cpu_{name}{{cpu="{n}"}}': v}
            cases = [(BINARY, [], 0, {k: v for n in CPUS for k, v in {**cpu("tested", n, "1"),
                                                                      **cpu("failed", n, "0")}.items()}),
                     (BINARY, ["--runs", "2"], 0, {'tarneltest_last_run_runs{verdict="pass"}': "2",
                                                   'tarneltest_last_run_runs{verdict="fault"}': "0"}),
                     # The miscompare ends the run: the others may be cut short.
                     (FAULTY, [], 1, {**cpu("tested", last, "1"), **cpu("failed", last, "1"),
                                      **{k: v for n in CPUS[:-1] for k, v in cpu("failed", n, "0").items()}})]
            for binary, more, want, values in cases[:3 if FAULTY else 2]:
                start = time.time()
                status, out, _ = run(["-q", "-o", "count=1,test_mask=8", "--metrics", tmp + "/t.prom", *more],
                                     binary=binary, env={"TARNEL_FAULT": f"stuck1,{last},0,64,3"})
                self.assertEqual((status, os.listdir(tmp)), (want, ["t.prom"]), out)
                for _ in range(100):
                    try:
                        text = urllib.request.urlopen(f"http://{address}/metrics").read().decode()
                        break
                    except OSError:
                        time.sleep(0.1)
                else:
                    self.fail("node_exporter did not answer")
                got = dict(line.rsplit(" ", 1) for line in text.splitlines() if line[0] != "#")
                self.assertEqual(got["node_textfile_scrape_error"], "0")
                self.assertTrue(start - 1 <= float(got["tarneltest_last_run_timestamp_seconds"]) <= time.time())
                self.assertGreater(float(got["tarneltest_last_run_duration_seconds"]), 0)
                values.update({f'tarneltest_last_run_verdict{{verdict="{v}"}}': str(int(i == want))
                               for i, v in ((0, "pass"), (1, "fault"), (2, "usage"), (3, "could-not-test"),
                                            (4, "hung"), (130, "interrupted"))},
                              tarneltest_last_run_exit_status=str(want))
                self.assertEqual({k: got.get(k) for k in values}, values)


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--binary", required=True)
    parser.add_argument("--faulty")
    parser.add_argument("--draws-shim")
    parser.add_argument("--list", action="store_true")
    parser.add_argument("tests", nargs="*")
    options = parser.parse_args()
    BINARY, FAULTY, DRAWS_SHIM = options.binary, options.faulty, options.draws_shim
    names = unittest.defaultTestLoader.getTestCaseNames(EndToEnd)
    if options.list:
        print(";".join(name[len("test_"):] for name in names), end="")
        sys.exit(0)
    suite = unittest.TestSuite(EndToEnd("test_" + n) for n in options.tests or [n[len("test_"):] for n in names])
    result = unittest.TextTestRunner(verbosity=2).run(suite)
    # 77: skipped, for ctest, when every case asked was.
    sys.exit(1 if not result.wasSuccessful() else 77 if len(result.skipped) == result.testsRun else 0)
