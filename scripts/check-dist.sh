#!/usr/bin/env bash
# Checks what ships besides the code, using a built tree (default: build):
#   - the manual pages pass mandoc's linter with no message at all, except
#     cross-references to other systems' manuals that this host lacks;
#   - the FreeBSD rc.d script is valid sh;
#   - cmake --install into a staging prefix lays out exactly the expected files;
#   - systemd-analyze verify accepts the installed unit, man pages included.
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

for tool in mandoc systemd-analyze man; do
    command -v "$tool" >/dev/null || fail "$tool is missing (scripts/install-deps.sh installs it)"
done

stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT

echo "--- cmake --install into a staging prefix"
cmake --install "$build" --prefix "$stage" >/dev/null
expected="644 etc/vxobrd.conf.sample
644 lib/systemd/system/vxbrd.service
755 sbin/vxbrd
755 sbin/vxbrdctl
644 share/man/man5/vxobrd.conf.5
644 share/man/man8/vxbrd.8
644 share/man/man8/vxbrdctl.8"
actual=$(cd "$stage" && find . ! -type d -printf '%m %P\n' | sort -k2)
if [ "$actual" != "$expected" ]; then
    diff <(echo "$expected") <(echo "$actual") >&2 || true
    fail "installed files differ from the expected list (< expected, > installed)"
fi
echo "$actual"
grep -qx "ExecStart=$stage/sbin/vxbrd -f -c $stage/etc/vxobrd.conf" \
    "$stage/lib/systemd/system/vxbrd.service" || fail "the unit's ExecStart does not name the install"

echo "--- mandoc -T lint"
# Manuals of FreeBSD or of packages a build host need not have; a reference
# to anything else, our own pages included, must resolve.
elsewhere='(rc\.conf 5|newsyslog 8|syslogd 8|tap 4|pf 4|ipfw 8|syslog 3|fork 2|jq 1|cron 8)'
for page in app/vxbrd.8 app/vxobrd.conf.5 vxbrdctl/vxbrdctl.8; do
    messages=$(mandoc -T lint -W style -M "$stage/share/man:/usr/share/man" "$page" 2>&1 |
        grep -v -e 'outdated mandoc.db' \
            -Ee "STYLE: referenced manual not found: Xr $elsewhere( \([0-9]+ times\))?\$" || true)
    [ -z "$messages" ] || fail "mandoc -T lint $page:"$'\n'"$messages"
    mandoc -T lint -W warning "$page" || fail "mandoc -T lint -W warning $page failed"
    echo "$page: clean"
done

echo "--- sh -n dist/freebsd/rc.d/vxbrd"
sh -n dist/freebsd/rc.d/vxbrd
grep -q '^required_modules=' dist/freebsd/rc.d/vxbrd || fail "the rc.d script loads no tap driver"

echo "--- systemd-analyze verify"
# Documentation= is checked with man(1), which finds the staged pages here.
verify=$(MANPATH="$stage/share/man" systemd-analyze verify \
    "$stage/lib/systemd/system/vxbrd.service" 2>&1) || fail "systemd-analyze verify:"$'\n'"$verify"
[ -z "$verify" ] || fail "systemd-analyze verify has remarks:"$'\n'"$verify"
echo "vxbrd.service: clean"

echo "--- dist checks passed"
