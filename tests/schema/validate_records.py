#!/usr/bin/python3
"""The published schemas (docs/schema) against real records of every kind,
made by the real binaries: a pass, a fault, a fault with retests, could not
test, hung, interrupted, a usage error, burn-ins passed and failed, a run
one L2 at a time, a run reading recorded sensors, and --describe of this
machine and of a recorded one. Run by Debian's python3
with its python3-jsonschema. A record the schema refuses fails, and so does
a schema that takes a record with a planted shape error.

validate_records.py SCHEMA_DIR TARNELTEST TARNELTEST_FAULTY SYSROOT SENSORS"""
import json
import os
import signal
import subprocess
import sys
import time

from jsonschema import Draft202012Validator, RefResolver

SCHEMAS, BINARY, FAULTY, SYSROOT, SENSORS = sys.argv[1:6]
BASE = "file://" + os.path.abspath(SCHEMAS) + "/"  # the schemas name each other by file name
# A bit stuck in the Write/Read/Verify test's buffer, and one in the sweep's
# that localises it.
FAULT = {"TARNEL_FAULT": "stuck1,{0},0,64,3;stuck1,{0},sweep,4100,3".format(max(os.sched_getaffinity(0)))}


def errors(kind, record):
    with open(os.path.join(SCHEMAS, kind + ".schema.json")) as f:
        schema = json.load(f)
    Draft202012Validator.check_schema(schema)
    validator = Draft202012Validator(schema, resolver=RefResolver(BASE + kind + ".schema.json", schema))
    return [f"{'/'.join(map(str, e.absolute_path))}: {e.message}" for e in validator.iter_errors(record)]


def last_record(args, binary=BINARY, env=None, interrupt_after=None):
    with subprocess.Popen([binary] + args, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True,
                          env=dict(os.environ, **(env or {}))) as p:
        if interrupt_after is not None:
            time.sleep(interrupt_after)
            p.send_signal(signal.SIGTERM)
        out, _ = p.communicate(timeout=120)
    return json.loads(out.strip().splitlines()[-1])


KINDS = [  # (what, schema, verdict, command line, binary, environment, interrupt after)
    ("pass", "run-record", "pass", ["--json", "-q"], BINARY, None, None),
    ("fault", "run-record", "fault", ["--json", "-q", "-o", "count=1"], FAULTY, FAULT, None),
    ("retested fault", "run-record", "fault", ["--json", "-q", "-o", "count=1", "--retest", "1"], FAULTY, FAULT, None),
    ("nothing selected", "run-record", "could-not-test", ["--json", "-o", "test_mask=0"], BINARY, None, None),
    ("hung", "run-record", "hung", ["--json", "-q", "--timeout", "3"], FAULTY,
     {"TARNEL_FAULT": "hang,%d,0,64" % min(os.sched_getaffinity(0))}, None),
    ("interrupted", "run-record", "interrupted", ["--json", "-q"], BINARY, None, 0.5),
    ("usage", "run-record", "usage", ["--json", "--no-such-option"], BINARY, None, None),
    ("burn-in", "burn-in-record", "pass", ["--json", "-q", "--runs", "1"], BINARY, None, None),
    ("failing burn-in", "burn-in-record", "fault", ["--json", "-q", "--runs", "2", "--keep-going", "-o", "count=1"],
     FAULTY, FAULT, None),
    ("one L2 at a time", "burn-in-record", "fault", ["--json", "-q", "--one-l2-at-a-time", "--keep-going", "-o",
                                                     "count=1"], FAULTY, FAULT, None),
    ("recorded sensors", "run-record", "pass", ["--json", "-q", "-o", "test_mask=8", "--sensors-from", SENSORS],
     BINARY, None, None),
    ("describe", "describe", None, ["--json", "--describe"], BINARY, None, None),
    ("recorded describe", "describe", None, ["--json", "--describe", "--sysroot", SYSROOT], BINARY, None, None),
]

failed = 0
records = {}
for what, kind, verdict, args, binary, env, after in KINDS:
    record = last_record(args, binary, env, after)
    records[what] = (kind, record)
    said = errors(kind, record)
    if verdict is not None and record.get("verdict") != verdict:
        said.append(f"verdict {record.get('verdict')!r}, not {verdict!r}")
    print(f"{what}: {'ok' if not said else '; '.join(said)}")
    failed += bool(said)

# A schema that cannot refuse is no proof: shape errors planted in real records.
PLANTED = [
    ("fault", lambda r: r.update(exit_status=0), "a verdict its exit status contradicts"),
    ("recorded sensors", lambda r: r["temperatures"]["sensors"][0].update(driver="acpitz"), "a driver not read"),
    ("one L2 at a time", lambda r: r["l2_turns"][0].update(cpus="cpu0"), "a turn's processors not as a list"),
    ("fault", lambda r: r["failures"][0].update(subtest="Cache Stress"), "a subtest that does not exist"),
    ("fault", lambda r: r["failures"][0]["localisation"]["records"][0].update(bits=[64]), "a bit past 63"),
    ("pass", lambda r: r.update(processors_tested=r["tested_cpus"]), "a key the schema does not name"),
    ("failing burn-in", lambda r: r["failed_runs"][0].pop("cpu"), "a failed run without its processor"),
    ("describe", lambda r: r["processors"][0].update(microcode=101), "microcode not in hex"),
]
for what, plant, how in PLANTED:
    kind, record = records[what]
    record = json.loads(json.dumps(record))
    plant(record)
    if not errors(kind, record):
        print(f"planted in {what}: {how}, and the schema took it")
        failed += 1
sys.exit(1 if failed else 0)
