#!/usr/bin/env bash
# Usage: scripts/soak.sh [SECONDS] [SEED]
#
# Builds the library and its soak and runs it under Wine for that long (default: 20 seconds):
# processes that lock and die at random. Any violation, and any growth of handles or memory, fails
# it. SEED repeats the random choices of an earlier run.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

case ${1-} in
-h | --help) usage && exit ;;
esac
seconds=${1:-20} seed=${2:-$RANDOM}
build=$root/build/windows
[ $# -le 2 ] && [[ "$seconds$seed" =~ ^[0-9]+$ && $seconds -gt 0 ]] ||
    die "two numbers at most are taken, SECONDS and SEED, not: $* (see --help)"

# What is left of it ends with the Wine server.
run_soak()
{
    local log=$build/soak.log status=0
    start_wine "$build/wine"
    say "soak of $seconds seconds, seed $seed"
    # Into a file: a console host may hold an output open after its program has ended.
    timeout -k 10 $((seconds + 120)) "$wine" "$build/bin/soak.exe" "$seconds" "$seed" \
        </dev/null >"$log" 2>&1 || status=$?
    end_server
    sed 's/\r$//' "$log"
    [ $status -eq 0 ] || die "the soak failed with status $status: see ${log#"$root/"}"
}

"$root/scripts/setup.sh"
build_preset windows soak
with_lock windows-tests run_soak # whose prefix it uses
