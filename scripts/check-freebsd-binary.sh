#!/usr/bin/env bash
# Checks that a file is an x86-64 FreeBSD ELF executable: the FreeBSD ABI
# note, FreeBSD's run-time linker as interpreter, and the machine type.
set -euo pipefail
header=$(readelf -h "$1")
notes=$(readelf -n "$1")
program=$(readelf -l "$1")
grep -q 'FreeBSD.*NT_VERSION' <<<"$notes" || { echo "$1: no FreeBSD ABI note" >&2; exit 1; }
grep -q '/libexec/ld-elf.so.1' <<<"$program" || { echo "$1: not linked for FreeBSD's run-time linker" >&2; exit 1; }
grep -q 'Machine:.*X86-64' <<<"$header" || { echo "$1: not x86-64" >&2; exit 1; }
grep -q 'Type:.*EXEC\|Type:.*DYN' <<<"$header" || { echo "$1: not an executable" >&2; exit 1; }
echo "$1: FreeBSD x86-64 executable"
