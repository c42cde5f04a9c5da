#!/bin/sh
# expect_run.sh STATUS PATTERN COMMAND...: runs the command once for every
# processor this process may run on, with {cpu} in TARNEL_FAULT and in
# PATTERN standing for that processor; passes when every run exits with
# STATUS and its standard output has a line matching PATTERN.
want=$1 pattern=$2
shift 2
cpus=$(python3 -c 'import os; print(*sorted(os.sched_getaffinity(0)))') || exit 1
fault=${TARNEL_FAULT-}
for cpu in $cpus; do
    TARNEL_FAULT=$(printf '%s' "$fault" | sed "s/{cpu}/$cpu/g")
    export TARNEL_FAULT
    expected=$(printf '%s' "$pattern" | sed "s/{cpu}/$cpu/g")
    out=$("$@")
    status=$?
    printf '%s\n' "$out"
    if [ "$status" -ne "$want" ]; then
        echo "TARNEL_FAULT=$TARNEL_FAULT: expected exit status $want, got $status"
        exit 1
    fi
    if ! printf '%s\n' "$out" | grep -q -E -- "$expected"; then
        echo "TARNEL_FAULT=$TARNEL_FAULT: no line matches: $expected"
        exit 1
    fi
done
