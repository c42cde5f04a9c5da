#!/usr/bin/env bash
# Regenerates docs/PERFORMANCE.md from measurements on this machine:
#
#   bench/report.sh [output.md]
#
# Run it by hand, as root: it installs what is missing (memtester, stress-ng,
# strace, the build tools) with apt-get, and memtester locks its memory. It
# builds the release program (preset `run`) and the benchmarks (Release, in
# build/perf), then measures for a few minutes. It is not part of the tests
# or of CI. bench/report.py does the measuring and writes the page.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
out=${1:-$root/docs/PERFORMANCE.md}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
    echo "bench/report.sh: $*" >&2
    exit 1
}
step() { echo "== $*" >&2; }

# ---- Tools ---------------------------------------------------------------
declare -A package_of=(
    [cmake]=cmake [ninja]=ninja-build [g++]=g++ [python3]=python3 [taskset]=util-linux
    [strace]=strace [memtester]=memtester [stress-ng]=stress-ng
)
missing=()
for tool in "${!package_of[@]}"; do
    command -v "$tool" >/dev/null 2>&1 || missing+=("${package_of[$tool]}")
done
if command -v dpkg-query >/dev/null 2>&1; then
    for pkg in libbenchmark-dev libgtest-dev; do
        dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q 'ok installed' || missing+=("$pkg")
    done
fi
if ((${#missing[@]})); then
    [[ $(id -u) == 0 ]] || fail "missing ${missing[*]}: run as root so that they can be installed, or install them"
    command -v apt-get >/dev/null 2>&1 || fail "missing ${missing[*]} and there is no apt-get to install them"
    step "installing ${missing[*]}"
    apt-get update -qq >"$work/apt.log" 2>&1 || { cat "$work/apt.log" >&2; fail "apt-get update failed"; }
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${missing[@]}" >>"$work/apt.log" 2>&1 ||
        { tail -n 20 "$work/apt.log" >&2; fail "could not install ${missing[*]}"; }
fi
for tool in "${!package_of[@]}"; do
    command -v "$tool" >/dev/null 2>&1 || fail "$tool is still missing"
done
[[ $(id -u) == 0 ]] || fail "memtester must lock its memory and stress-ng reads the caches: run as root"

# ---- Builds --------------------------------------------------------------
step "building the release program (cmake --preset run)"
if ! (cd "$root" && cmake --preset run && cmake --build --preset run --target tarneltest) \
    >"$work/release.log" 2>&1; then
    tail -n 30 "$work/release.log" >&2
    fail "the release build failed"
fi
program=$root/build/release/tarneltest

step "building the benchmarks (Release, build/perf)"
if ! { cmake -S "$root" -B "$root/build/perf" -G Ninja -DCMAKE_BUILD_TYPE=Release -DTARNEL_TESTS=ON \
    -DTARNEL_FAULT_MODEL=ON -DTARNEL_CHECKS=OFF && cmake --build "$root/build/perf" --target tarnel_bench; } \
    >"$work/perf.log" 2>&1; then
    tail -n 30 "$work/perf.log" >&2
    fail "the benchmark build failed"
fi
bench=$root/build/perf/bench/tarnel_bench

# ---- Measurements and the page --------------------------------------------
step "benchmarks: subtests and reference loops (about three minutes)"
"$bench" --benchmark_repetitions=5 --benchmark_enable_random_interleaving=true --benchmark_min_time=0.3 \
    --benchmark_report_aggregates_only=true \
    --benchmark_out="$work/bench.json" --benchmark_out_format=json >"$work/bench.txt" 2>&1 ||
    { tail -n 30 "$work/bench.txt" >&2; fail "the benchmark program failed"; }

python3 "$root/bench/report.py" --program "$program" --bench-json "$work/bench.json" --work "$work" --out "$out"
step "wrote $out"
