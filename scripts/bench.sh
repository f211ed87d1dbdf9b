#!/usr/bin/env bash
# Usage: scripts/bench.sh [--quick] [--only TEXT] [--json FILE] [--svg FILE]
#
# Builds the library and its benchmark and runs it under Wine: what each operation costs over the
# raw Win32 calls and over what one might take instead. Wants a calm machine. The table goes to
# standard output; docs/performance.md says how to read it. Fails when a goal is missed or an
# operation makes other calls than its steps prescribe.
#
#   --quick      short measurements: less than a minute instead of some
#   --only TEXT  measure only the rows with this text in their names
#   --json FILE  also writes the results to FILE
#   --svg FILE   also draws how costs grow
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

options=() json='' svg=''
while [ $# -gt 0 ]; do
    case $1 in
    -h | --help) usage && exit ;;
    --quick) options+=(--quick) && shift ;;
    --only)
        [ $# -ge 2 ] || die "$1 needs a text (see --help)"
        options+=(--only "$2")
        shift 2
        ;;
    --json | --svg)
        [ $# -ge 2 ] || die "$1 needs a file (see --help)"
        printf -v "${1#--}" %s "$(realpath -m -- "$2")"
        shift 2
        ;;
    *) die "unknown argument: $1 (see --help)" ;;
    esac
done

build=$root/build/windows

run_bench()
{
    local status=0
    start_wine "$build/bench-wine"
    cd "$build"
    say "measuring on $(nproc) processors, load $(cut -d ' ' -f 1-3 /proc/loadavg)"
    # Through a pipe: on a terminal Wine would start its own console and repaint it.
    "$wine" bin/thr_bench.exe "${options[@]}" --json bench.json </dev/null 2>&1 | cat ||
        status=$?
    [ $status -le 1 ] || die "a measurement could not be made, see above"
    stop_wine
    [ -z "$json" ] || cp bench.json "$json"
    [ -z "$svg" ] || awk -f "$root/bench/plot.awk" bench.json >"$svg" || die "can't draw $svg"
    [ $status -eq 0 ] || die "a goal is missed or a count of calls differs, see above"
}

"$root/scripts/setup.sh"
build_preset windows thr thr_bench
with_lock windows-bench run_bench
