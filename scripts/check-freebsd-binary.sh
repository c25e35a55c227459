#!/usr/bin/env bash
# Checks that a file is an x86-64 FreeBSD ELF executable.
set -euo pipefail
header=$(readelf -h "$1")
grep -q 'OS/ABI:.*FreeBSD' <<<"$header" || { echo "$1: not a FreeBSD binary" >&2; exit 1; }
grep -q 'Machine:.*X86-64' <<<"$header" || { echo "$1: not x86-64" >&2; exit 1; }
grep -q 'Type:.*EXEC\|Type:.*DYN' <<<"$header" || { echo "$1: not an executable" >&2; exit 1; }
echo "$1: FreeBSD x86-64 executable"
