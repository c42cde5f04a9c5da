#!/bin/sh
# check_package.sh BUILD_DIR SOURCE_DIR deb|units|ansible: the Debian package
# (built here into a temporary directory), the systemd units and the Ansible
# playbook. Nothing is installed on this machine. Exit 77: skipped.
set -eu
build=$1 source=$2
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
fail() { echo "$1"; exit 1; }
need() { command -v "$1" >/dev/null || { echo "skipped: $1 not found ($2)"; exit 77; }; }
package() {
    cpack -G DEB -B "$tmp" --config "$build/CPackConfig.cmake" >/dev/null
    deb=$(ls "$tmp"/tarneltest_*_amd64.deb)
}
case $3 in
deb)
    package
    # The package carries the build: the version and the source revision.
    version=$("$build/tarneltest" --version | sed -n 's/.*, build //p')
    echo "$version" | grep -Eq '^[0-9.]+(\+g[0-9a-f]{7,}|\+unknown)?$' || fail "build named $version"
    [ "$deb" = "$tmp/tarneltest_${version}_amd64.deb" ] || fail "package named $deb, version $version"
    for file in bin/tarneltest share/man/man1/tarneltest.1 lib/systemd/system/tarneltest.service \
                lib/systemd/system/tarneltest.timer; do
        dpkg-deb -c "$deb" | grep -q " \./usr/$file\$" || fail "not in the package: /usr/$file"
    done
    [ "$(dpkg-deb -f "$deb" Package Version Architecture)" = "Package: tarneltest
Version: $version
Architecture: amd64" ] || fail "control: $(dpkg-deb -f "$deb")"
    dpkg-deb -f "$deb" Depends | grep -q 'libc6 (>= ' || fail "no Depends from dpkg-shlibdeps"
    dpkg-deb -f "$deb" Description | grep -q 'L2 cache' || fail "no description"
    ;;
units)
    need systemd-analyze "Debian's systemd package"
    cp "$source"/deploy/systemd/tarneltest.service "$source"/deploy/systemd/tarneltest.timer "$tmp"
    # systemd finds the bare command in its own search path; here, the built one.
    sed -i "s|^ExecStart=tarneltest |ExecStart=$build/tarneltest |" "$tmp/tarneltest.service"
    out=$(systemd-analyze verify --man=no "$tmp/tarneltest.service" "$tmp/tarneltest.timer" 2>&1) || fail "$out"
    [ -z "$out" ] || fail "$out"
    ;;
ansible)
    need ansible-playbook ".ci/run installs Debian's ansible-core"
    play="ansible-playbook -i localhost, -c local $source/deploy/ansible/tarneltest.yml"
    $play -e "tarneltest_binary=$build/tarneltest tarneltest_duration=3 tarneltest_results=$tmp/pass.jsonl"
    python3 -c 'import json, sys
records = [json.loads(line) for line in open(sys.argv[1])]
assert [(r["inventory_hostname"], r["verdict"]) for r in records] == [("localhost", "pass")] and records[0]["runs"] >= 1, records
' "$tmp/pass.jsonl"
    # A host whose burn-in does not pass fails the play, and its record says so.
    if $play -e "tarneltest_binary=/bin/false tarneltest_results=$tmp/fail.jsonl"; then fail "the play passed"; fi
    grep -q '"exit_status": 1' "$tmp/fail.jsonl" || fail "$(cat "$tmp/fail.jsonl")"
    # The install task in check mode: it would install the package, and does not.
    package
    installed=$(dpkg-query -W -f '${Version}' tarneltest 2>/dev/null || true)
    $play --check --tags install -e "tarneltest_deb=$deb"
    rm -f /tmp/tarneltest.deb
    [ "$(dpkg-query -W -f '${Version}' tarneltest 2>/dev/null || true)" = "$installed" ] || fail "check mode installed it"
    ;;
esac
