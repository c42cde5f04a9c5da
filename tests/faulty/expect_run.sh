#!/bin/sh
# expect_run.sh STATUS PATTERN COMMAND...: runs the command and passes when it
# exits with STATUS and its standard output has a line matching PATTERN.
want=$1 pattern=$2
shift 2
out=$("$@")
status=$?
printf '%s\n' "$out"
if [ "$status" -ne "$want" ]; then
    echo "expected exit status $want, got $status"
    exit 1
fi
if ! printf '%s\n' "$out" | grep -q -E -- "$pattern"; then
    echo "no line matches: $pattern"
    exit 1
fi
