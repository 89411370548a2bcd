#!/usr/bin/env bash
# Checks the dynamic symbol table of libquelora.so:
#   check_symbols.sh <libquelora.so> <include/quelora/quelora.h>
# 1. Every defined dynamic symbol (nm -D --defined-only -C) is a qel_* function
#    declared in quelora.h, a member, typeinfo, typeinfo name or vtable of
#    qel_logger or qel_logger_handler, or a linker symbol (_edata _end
#    __bss_start _init _fini).
# 2. Every function of quelora.h (41 of them) is defined.
# Prints the offending symbols and exits 1 on any failure.
set -euo pipefail
[ $# -eq 2 ] || { echo "usage: $0 <libquelora.so> <quelora.h>" >&2; exit 2; }
# Declared: "QEL_API <type> qel_name(". Defined: demangled, without address,
# type and version suffix.
declared=$(grep -oE '^QEL_API[^(]*[^A-Za-z0-9_]qel_[A-Za-z0-9_]+\(' "$2" | grep -oE 'qel_[A-Za-z0-9_]+\($' | tr -d '(' | sort -u)
count=$(grep -c . <<<"$declared" || true)
[ "$count" -eq 41 ] || { echo "check_symbols: found $count qel_* declarations in $2, expected 41" >&2; exit 1; }
defined=$("${NM:-nm}" -D --defined-only -C "$1" | sed -E 's/^[0-9A-Fa-f]*[[:space:]]+[A-Za-z][[:space:]]+//; s/@.*$//' \
          | sed '/^$/d' | sort -u)
allowed='^(_edata|_end|__bss_start|_init|_fini)$|^qel_logger(_handler)?::'
allowed+='|^(typeinfo|typeinfo name|vtable) for qel_logger(_handler)?$'
unexpected=$(comm -13 <(echo "$declared") <(echo "$defined") | grep -vE "$allowed" || true)
missing=$(comm -23 <(echo "$declared") <(echo "$defined"))
report() { # symbols, text
    [ -z "$1" ] && return
    echo "check_symbols: $(grep -c . <<<"$1") $2"
    sed 's/^/  /' <<<"$1"
}
report "$unexpected" "unexpected exported symbol(s) in $1:"
report "$missing" "of $count required function(s) not defined in $1:"
[ -z "$unexpected$missing" ] || exit 1
echo "check_symbols: OK ($(grep -c . <<<"$defined") exported symbols; all $count required functions defined)"
