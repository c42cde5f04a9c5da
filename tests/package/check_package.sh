#!/bin/sh
# check_package.sh BUILD_DIR SOURCE_DIR deb|lintian|scripts|units|service|ansible: the
# Debian package (built here into a temporary directory, and checked by
# Debian's own checker), the systemd units (checked, and the service started
# by a real systemd in a throwaway container on this machine's own /usr) and
# the Ansible playbook. Nothing is installed on this machine. Exit 77: skipped.
set -eu
build=$1 source=$2
tmp=$(mktemp -d)
[ -n "${KEEP:-}" ] || trap 'rm -rf "$tmp"' EXIT
fail() { echo "$1"; exit 1; }
need() { command -v "$1" >/dev/null || { echo "skipped: $1 not found ($2)"; exit 77; }; }
# The shipped unit, with the test at `binary` (systemd finds the bare
# command in its own search path).
unit_with() {
    sed "s|exec tarneltest |exec $1 |" "$source/deploy/systemd/tarneltest.service"
}
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
    for file in bin/tarneltest share/man/man1/tarneltest.1.gz share/doc/tarneltest/copyright \
                share/doc/tarneltest/changelog.gz lib/systemd/system/tarneltest.service \
                lib/systemd/system/tarneltest.timer; do
        dpkg-deb -c "$deb" | grep -q " \./usr/$file\$" || fail "not in the package: /usr/$file"
    done
    [ "$(dpkg-deb -f "$deb" Package Version Architecture)" = "Package: tarneltest
Version: $version
Architecture: amd64" ] || fail "control: $(dpkg-deb -f "$deb")"
    dpkg-deb -f "$deb" Depends | grep -q 'libc6 (>= ' || fail "no Depends from dpkg-shlibdeps"
    dpkg-deb -f "$deb" Description | grep -q 'L2 cache' || fail "no description"
    # Built with Debian's hardening: bound at start, libc calls fortified.
    dpkg-deb -x "$deb" "$tmp/root"
    readelf -d "$tmp/root/usr/bin/tarneltest" | grep -q 'FLAGS.*BIND_NOW' || fail "not linked with -z now"
    readelf -W --dyn-syms "$tmp/root/usr/bin/tarneltest" | grep -q '__[a-z]*_chk' || fail "not fortified"
    ;;
scripts)
    # The maintainer scripts, run as dpkg runs them on an installation root
    # of their own (no systemd running there): the timer enabled, masked on
    # removal, and gone on purge.
    need deb-systemd-helper "Debian's init-system-helpers"
    package
    dpkg-deb -x "$deb" "$tmp/root" && dpkg-deb -e "$deb" "$tmp/control"
    mkdir -p "$tmp/root/etc" "$tmp/root/var/lib/systemd" && ln -s usr/lib "$tmp/root/lib"
    left() { find "$tmp/root/etc" "$tmp/root/var" -name 'tarneltest*' | sed "s|$tmp/root||" | sort | tr '\n' ' '; }
    step() { unshare -m sh -c 'mount -t tmpfs none /run && exec "$@"' sh env DPKG_ROOT="$tmp/root" \
             DPKG_MAINTSCRIPT_PACKAGE=tarneltest "$tmp/control/$1" "$2" || fail "$1 $2 failed"; }
    step postinst configure
    [ "$(left)" = "/etc/systemd/system/timers.target.wants/tarneltest.timer /var/lib/systemd/deb-systemd-helper-enabled/tarneltest.timer.dsh-also /var/lib/systemd/deb-systemd-helper-enabled/timers.target.wants/tarneltest.timer " ] ||
        fail "installed: $(left)"
    step prerm remove && step postrm remove
    [ "$(readlink "$tmp/root/etc/systemd/system/tarneltest.timer")" = /dev/null ] || fail "removed, not masked: $(left)"
    step postrm purge
    [ -z "$(left)" ] || fail "purged, left: $(left)"
    ;;
lintian)
    need lintian ".ci/run installs Debian's lintian"
    package
    out=$(lintian --fail-on error,warning "$deb" 2>/dev/null) || fail "$out"
    [ -z "$out" ] || fail "$out"
    ;;
units)
    need systemd-analyze "Debian's systemd package"
    cp "$source"/deploy/systemd/tarneltest.timer "$tmp"
    unit_with "$build/tarneltest" > "$tmp/tarneltest.service"
    out=$(systemd-analyze verify --man=no "$tmp/tarneltest.service" "$tmp/tarneltest.timer" 2>&1) || fail "$out"
    [ -z "$out" ] || fail "$out"
    # Exposure 1.0 at most, as systemd scores it (2.7 before the filters).
    out=$(systemd-analyze security --offline=true --threshold=10 "$tmp/tarneltest.service" 2>&1) || fail "$out"
    ;;
service)
    need systemd-nspawn ".ci/run installs Debian's systemd-container"
    [ "$(id -u)" = 0 ] || { echo "skipped: systemd-nspawn boots a container only as root"; exit 77; }
    faulty=$build/tests/faulty/tarneltest_faulty
    [ -x "$faulty" ] || { echo "skipped: no fault-model build"; exit 77; }
    unit_with /opt/tarneltest/tarneltest > "$tmp/tarneltest.service"
    # The faulty run: a stuck bit in the first test's buffer on the last processor.
    cpu=$(($(nproc) - 1))
    printf '[Service]\nEnvironment=TARNEL_FAULT=stuck1,%s,0,64,3\n' "$cpu" > "$tmp/fault.conf"
    boot() {  # binary, where to keep what it did, more of systemd-nspawn's options
        binary=$1 keep=$2
        shift 2
        timeout 300 systemd-nspawn -q -D / --volatile=yes --register=no --keep-unit \
            --bind-ro="$binary:/opt/tarneltest/tarneltest" \
            --bind-ro="$tmp/tarneltest.service:/etc/systemd/system/tarneltest.service" \
            --bind-ro="$source/tests/package/check.service:/etc/systemd/system/check.service" \
            --bind="$keep:/out" "$@" -b -- systemd.unit=check.service systemd.firstboot=off > "$keep/boot" 2>&1 ||
            fail "the container did not boot: $(tail -n 5 "$keep/boot")"
    }
    # The journal's last line is the record, its hardware reports read as the
    # dynamic user (rasdaemon's database as rasdaemon made it).
    record() {
        tail -n 1 "$1/journal" | python3 -c 'import json, sys; r = json.load(sys.stdin)
print(r["verdict"], r["exit_status"], r["failed_cpus"], [t["failed"] for t in r.get("retests", [])],
      r["hardware_counts"]["not_read"])'
    }
    mkdir "$tmp/pass" "$tmp/fault"
    touch "$tmp/pass/exporter"
    boot "$build/tarneltest" "$tmp/pass"
    boot "$faulty" "$tmp/fault" --bind-ro="$tmp/fault.conf:/etc/systemd/system/tarneltest.service.d/fault.conf"
    [ "$(cat "$tmp/pass/unit")" = "$(printf 'Result=success\nExecMainStatus=0')" ] || fail "$(cat "$tmp/pass/unit")"
    [ "$(record "$tmp/pass")" = "pass 0 [] [] []" ] || fail "the passing run's record: $(record "$tmp/pass")"
    grep -qx 'tarneltest_last_run_exit_status 0' "$tmp/pass/tarneltest.prom" || fail "no metrics where node_exporter reads"
    [ "$(cat "$tmp/fault/unit")" = "$(printf 'Result=exit-code\nExecMainStatus=1')" ] || fail "$(cat "$tmp/fault/unit")"
    [ "$(record "$tmp/fault")" = "fault 1 [$cpu] [2] []" ] || fail "the faulty run's record: $(record "$tmp/fault")"
    # No node_exporter, no metrics, and no failure for it.
    [ ! -e "$tmp/fault/tarneltest.prom" ] || fail "metrics written where node_exporter has no directory"
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
