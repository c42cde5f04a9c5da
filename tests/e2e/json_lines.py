"""Runs tarneltest --json and checks, with Python's own JSON reader, that
every line of its standard output is one JSON object with the documented
keys and types: a message, or the closing verdict record."""
import json
import subprocess
import sys

MESSAGE_KEYS = {"time", "level", "severity", "cpu", "tag", "number", "exit_flag", "text"}
VERDICT_KEYS = {"time", "host", "schema_version", "verdict", "exit_status", "elapsed_seconds", "text", "cpu",
                "tested_cpus", "left_out_cpus", "l2", "failures", "corrected_errors", "warnings"}
L2_KEYS = {"cpu", "size", "line", "ways", "source", "sources", "shared_cpus"}
CORRECTED_KEYS = {"checked", "available", "sources", "before", "after", "increase"}


def check_verdict(v, returncode):
    assert set(v) == VERDICT_KEYS, v
    assert v["schema_version"] == 1, v
    assert v["host"] is None or isinstance(v["host"], str), v
    assert v["verdict"] == "pass" and v["exit_status"] == 0 and returncode == 0, (v, returncode)
    assert isinstance(v["elapsed_seconds"], (int, float)) and v["elapsed_seconds"] >= 0, v
    assert all(isinstance(c, int) for c in v["tested_cpus"]) and v["tested_cpus"], v
    for p in v["left_out_cpus"]:
        assert set(p) == {"cpu", "reason"} and p["reason"] in ("offline", "not-allowed"), p
    assert [g["cpu"] for g in v["l2"]] == v["tested_cpus"], v
    for g in v["l2"]:
        assert set(g) == L2_KEYS, g
        assert all(isinstance(g[k], int) and g[k] > 0 for k in ("size", "line", "ways")), g
        assert set(g["sources"]) == {"size", "line", "ways"}, g
        assert g["source"] == g["sources"]["size"], g
    assert v["failures"] == [], v
    c = v["corrected_errors"]
    assert set(c) == CORRECTED_KEYS and c["checked"] is True, c
    assert (c["increase"] is None) == (not c["available"]), c
    assert all(isinstance(w, str) for w in v["warnings"]), v


def main(binary):
    run = subprocess.run([binary, "--json", "-d", "-o", "count=1,test_mask=0"],
                         capture_output=True, timeout=60, check=False)
    lines = run.stdout.decode("utf-8").splitlines()
    objects = [json.loads(line) for line in lines]
    assert all(isinstance(o, dict) for o in objects), "a line is not an object"
    assert objects, "no output"
    for o in objects[:-1]:
        assert set(o) == MESSAGE_KEYS, o
        assert isinstance(o["level"], int) and isinstance(o["number"], int), o
        assert o["tag"] is None or isinstance(o["tag"], str), o
        assert o["cpu"] is None or isinstance(o["cpu"], int), o
    check_verdict(objects[-1], run.returncode)
    print(f"{len(objects)} JSON lines checked")


if __name__ == "__main__":
    main(sys.argv[1])
