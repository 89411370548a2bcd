#!/usr/bin/env bash
# Checks the dynamic symbol table of libquelora.so.
#
#   check_symbols.sh <libquelora.so> <include/quelora/quelora.h>
#
# 1. Every defined dynamic symbol (nm -D --defined-only -C) must be one of:
#    - a qel_* C function declared in quelora.h,
#    - a member of qel_logger or qel_logger_handler,
#    - typeinfo / typeinfo name / vtable of qel_logger or qel_logger_handler,
#    - a linker-defined symbol: _edata _end __bss_start _init _fini.
# 2. Every C function of quelora.h must be defined.
# Prints the offending symbols and exits 1 on any failure.
set -euo pipefail

EXPECTED_DECLARED=41

NM=${NM:-nm}

if [ $# -ne 2 ]; then
    echo "usage: $0 <libquelora.so> <quelora.h>" >&2
    exit 2
fi
lib=$1
header=$2

# Names of the functions the header declares: "QEL_API <type> qel_name(".
mapfile -t declared < <(grep -oE '^QEL_API[^(]*[^A-Za-z0-9_]qel_[A-Za-z0-9_]+\(' "$header" \
                        | grep -oE 'qel_[A-Za-z0-9_]+\($' | tr -d '(' | sort -u)
if [ ${#declared[@]} -ne "$EXPECTED_DECLARED" ]; then
    echo "check_symbols: found ${#declared[@]} qel_* declarations in $header, expected $EXPECTED_DECLARED" >&2
    exit 1
fi

# Defined dynamic symbols, demangled, without address, type and version suffix.
nm_out=$("$NM" -D --defined-only -C "$lib")
mapfile -t defined < <(printf '%s\n' "$nm_out" \
                       | sed -E 's/^[0-9A-Fa-f]*[[:space:]]+[A-Za-z][[:space:]]+//; s/@.*$//' \
                       | sed '/^$/d' | sort -u)

declare -A is_declared=()
for name in "${declared[@]}"; do is_declared[$name]=1; done
declare -A is_defined=()
for name in "${defined[@]}"; do is_defined[$name]=1; done

failures=0

unexpected=()
for sym in "${defined[@]}"; do
    case "$sym" in
        _edata|_end|__bss_start|_init|_fini) continue ;;
    esac
    if [[ $sym =~ ^qel_[A-Za-z0-9_]+$ ]] && [ -n "${is_declared[$sym]:-}" ]; then
        continue
    fi
    if [[ $sym =~ ^qel_logger(_handler)?:: ]]; then
        continue
    fi
    if [[ $sym =~ ^(typeinfo|typeinfo\ name|vtable)\ for\ qel_logger(_handler)?$ ]]; then
        continue
    fi
    unexpected+=("$sym")
done
if [ ${#unexpected[@]} -gt 0 ]; then
    echo "check_symbols: ${#unexpected[@]} unexpected exported symbol(s) in $lib:"
    printf '  %s\n' "${unexpected[@]}"
    failures=1
fi

missing=()
for name in "${declared[@]}"; do
    [ -n "${is_defined[$name]:-}" ] || missing+=("$name")
done
required_count=${#declared[@]}
if [ ${#missing[@]} -gt 0 ]; then
    echo "check_symbols: ${#missing[@]} of $required_count required function(s) not defined in $lib:"
    printf '  %s\n' "${missing[@]}"
    failures=1
fi

if [ $failures -ne 0 ]; then
    exit 1
fi
echo "check_symbols: OK (${#defined[@]} exported symbols; all $required_count required functions defined)"
