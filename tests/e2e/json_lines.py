"""Runs tarneltest --json and checks, with Python's own JSON reader, that
every line of its standard output is one JSON object with the documented
keys: a message, or the closing verdict."""
import json
import subprocess
import sys

MESSAGE_KEYS = {"time", "level", "severity", "cpu", "tag", "number", "exit_flag", "text"}
VERDICT_KEYS = {"time", "verdict", "exit_status", "cpu", "text"}


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
    assert set(objects[-1]) == VERDICT_KEYS, objects[-1]
    assert objects[-1]["verdict"] == "PASS" and run.returncode == 0, (objects[-1], run.returncode)
    print(f"{len(objects)} JSON lines checked")


if __name__ == "__main__":
    main(sys.argv[1])
