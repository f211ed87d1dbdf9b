#!/usr/bin/env bash
# Usage: scripts/bench.sh [--quick | --calls] [--only TEXT] [--svg FILE]
#
# Builds the library and its benchmark and runs it under Wine: what each operation costs over the
# raw Win32 calls and over what one might take instead. Wants a calm machine. The table goes to
# standard output; docs/performance.md says how to read it. Fails when a goal is missed or an
# operation makes other calls than the raw one.
#
#   --quick      short measurements: about a minute instead of some
#   --calls      count the calls and measure nothing: a few seconds on any machine
#   --only TEXT  take only the rows with this text in their names
#   --svg FILE   also draw how costs grow, from the table
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

options=() svg=''
while [ $# -gt 0 ]; do
    case $1 in
    -h | --help) usage && exit ;;
    --quick | --calls) options+=("$1") && shift ;;
    --only)
        [ $# -ge 2 ] || die "$1 needs a text (see --help)"
        options+=(--only "$2")
        shift 2
        ;;
    --svg)
        [ $# -ge 2 ] || die "$1 needs a file (see --help)"
        svg=$(realpath -m -- "$2")
        shift 2
        ;;
    *) die "unknown argument: $1 (see --help)" ;;
    esac
done

build=$root/build/windows

install_gnuplot()
{
    command -v gnuplot >/dev/null || install_packages gnuplot-nox ||
        die "as root run: apt-get install gnuplot-nox (why it failed is in build/packages.log)"
}

run_bench()
{
    local status=0
    start_wine "$build/bench-wine"
    cd "$build"
    say "on $(nproc) processors, load $(cut -d ' ' -f 1-3 /proc/loadavg)"
    # Through a pipe: on a terminal Wine would start its own console and repaint it.
    "$wine" bin/thr_bench.exe "${options[@]}" </dev/null 2>&1 | sed -u 's/\r$//' | tee bench.txt ||
        status=$?
    [ $status -le 1 ] || die "a row could not be made, see above"
    stop_wine
    if [ -n "$svg" ]; then
        gnuplot -e "table='bench.txt'" -e "svg='bench.svg'" "$root/bench/growth.gp" &&
            cp bench.svg "$svg" || die "can't draw $svg: all rows of a growth are needed"
    fi
    [ $status -eq 0 ] || die "a goal is missed or calls differ, see above"
}

"$root/scripts/setup.sh"
[ -z "$svg" ] || install_gnuplot
build_preset windows thr thr_bench
with_lock windows-bench run_bench
