#!/usr/bin/env bash
# Checks what ships besides the code, using a built tree (default: build):
#   - the manual pages pass mandoc's linter with no message at all, except
#     cross-references to other systems' manuals that this host lacks;
#   - the FreeBSD rc.d script is valid sh and has configtest;
#   - cmake --install (with DESTDIR, since the configuration directory is
#     absolute) lays out exactly the expected files, for the default prefix
#     and for /usr, and the units name the installed programs and the one
#     configuration file /etc/vxobrd.conf;
#   - systemd-analyze verify accepts the installed units, man pages included,
#     and systemd-analyze security rates vxbrd.service 2.5 or better.
# Runs as root (it bind-mounts the staged tree in a private mount namespace).
# Exits non-zero with a message on the first problem.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
build=${1:-build}
[ -d "$build" ] || { echo "check-dist: no build directory $build" >&2; exit 1; }

fail() {
    echo "check-dist: $*" >&2
    exit 1
}

for tool in mandoc systemd-analyze man unshare; do
    command -v "$tool" >/dev/null || fail "$tool is missing (scripts/install-deps.sh installs it)"
done

stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT

# install PREFIX: installs under $stage/PREFIX-NAME, prints the layout.
install_to() {
    local prefix=$1 into=$stage/$2
    DESTDIR=$into cmake --install "$build" --prefix "$prefix" >/dev/null
    (cd "$into" && find . ! -type d -printf '%m %P\n' | sort -k2)
}

units=(vxbrd.service vxbrd-metrics.service vxbrd-metrics.timer)
echo "--- cmake --install, prefix /usr/local"
expected="644 etc/vxobrd.conf.sample
644 usr/local/lib/systemd/system/vxbrd-metrics.service
644 usr/local/lib/systemd/system/vxbrd-metrics.timer
644 usr/local/lib/systemd/system/vxbrd.service
755 usr/local/sbin/vxbrd
755 usr/local/sbin/vxbrdctl
644 usr/local/share/man/man5/vxobrd.conf.5
644 usr/local/share/man/man8/vxbrd.8
644 usr/local/share/man/man8/vxbrdctl.8"
actual=$(install_to /usr/local local)
if [ "$actual" != "$expected" ]; then
    diff <(echo "$expected") <(echo "$actual") >&2 || true
    fail "installed files differ from the expected list (< expected, > installed)"
fi
echo "$actual"
unit=$stage/local/usr/local/lib/systemd/system/vxbrd.service
grep -qx "ExecStartPre=/usr/local/sbin/vxbrdctl check -q -c /etc/vxobrd.conf" "$unit" ||
    fail "the unit's ExecStartPre does not check /etc/vxobrd.conf with the installed vxbrdctl"
grep -qx "ExecStart=/usr/local/sbin/vxbrd -f -c /etc/vxobrd.conf" "$unit" ||
    fail "the unit's ExecStart does not name the install and /etc/vxobrd.conf"

echo "--- cmake --install, prefix /usr: the configuration stays in /etc"
actual=$(install_to /usr usr)
echo "$actual" | grep -qx "644 etc/vxobrd.conf.sample" || fail "prefix /usr: no /etc/vxobrd.conf.sample"
grep -qx "ExecStart=/usr/sbin/vxbrd -f -c /etc/vxobrd.conf" \
    "$stage/usr/usr/lib/systemd/system/vxbrd.service" || fail "prefix /usr: ExecStart is wrong"

echo "--- mandoc -T lint"
# Manuals of FreeBSD or of packages a build host need not have; a reference
# to anything else, our own pages included, must resolve.
elsewhere='(rc\.conf 5|newsyslog 8|syslogd 8|tap 4|pf 4|pf\.conf 5|ipfw 8|syslog 3|fork 2|jq 1|cron 8|daemon 8|promtool 1|jail 8|rctl 8|epair 4|mac_portacl 4|capsicum 4|sendto 2|loader\.conf 5)'
for page in app/vxbrd.8 app/vxobrd.conf.5 vxbrdctl/vxbrdctl.8; do
    messages=$(mandoc -T lint -W style -M "$stage/local/usr/local/share/man:/usr/share/man" "$page" 2>&1 |
        grep -v -e 'outdated mandoc.db' \
            -Ee "STYLE: referenced manual not found: Xr $elsewhere( \([0-9]+ times\))?\$" || true)
    [ -z "$messages" ] || fail "mandoc -T lint $page:"$'\n'"$messages"
    mandoc -T lint -W warning "$page" || fail "mandoc -T lint -W warning $page failed"
    echo "$page: clean"
done

echo "--- sh -n dist/freebsd/rc.d/vxbrd"
sh -n dist/freebsd/rc.d/vxbrd
grep -q '^required_modules=' dist/freebsd/rc.d/vxbrd || fail "the rc.d script loads no tap driver"
grep -q '^extra_commands="configtest"' dist/freebsd/rc.d/vxbrd || fail "the rc.d script has no configtest"
grep -q '^vxbrd_umask="077"' dist/freebsd/rc.d/vxbrd || fail "the rc.d script leaves the socket open"

echo "--- systemd-analyze verify"
# The units name /usr/local/sbin: the staged tree is mounted there, in a mount
# namespace of this check's own. Documentation= is checked with man(1).
verify=$(unshare --mount --propagation private -- sh -c '
    mount --bind "$1/usr/local" /usr/local || exit 1
    shift
    for unit in "$@"; do
        MANPATH=/usr/local/share/man systemd-analyze verify "/usr/local/lib/systemd/system/$unit" || exit 1
    done' verify "$stage/local" "${units[@]}" 2>&1) || fail "systemd-analyze verify:"$'\n'"$verify"
[ -z "$verify" ] || fail "systemd-analyze verify has remarks:"$'\n'"$verify"
echo "${units[*]}: clean"

echo "--- systemd-analyze security vxbrd.service"
# Exposure 2.5 at most (the threshold is in tenths), while the daemon still
# opens raw sockets and taps.
score=$(systemd-analyze security --offline=yes "$unit" 2>&1 | tail -n 1)
echo "$score"
systemd-analyze security --offline=yes --threshold=25 "$unit" >/dev/null ||
    fail "vxbrd.service is exposed more than 2.5: $score"

echo "--- dist checks passed"
