#!/usr/bin/env bash
# Usage: scripts/soak.sh [SECONDS] [SEED]
#
# Builds the library and its soak and runs it under Wine for that long (default: 20 seconds):
# processes and threads that lock, start children, load, pipe and die at random. Any violation, and
# any growth of handles or memory, fails it. SEED repeats the random choices of an earlier run.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

case ${1-} in
-h | --help) usage && exit ;;
esac
seconds=${1:-20} seed=${2:-$RANDOM}
[[ "$seconds$seed" =~ ^[0-9]+$ && $seconds -gt 0 ]] || die "SECONDS and SEED are numbers (see --help)"

run_soak()
{
    use_prefix "$root/build/wine"
    # The services that Wine starts with its first program must not hold this script's output open.
    "$wine" cmd /c exit </dev/null >/dev/null 2>&1 || die "Wine does not run: see build/wine.log"
    say "soak of $seconds seconds"
    local log=$root/build/soak.log status=0
    # Into a file: a console host may hold an output open after its program has ended.
    timeout -k 10 $((seconds + 120)) "$wine" "$root/build/windows/bin/soak.exe" "$seconds" "$seed" \
        </dev/null >"$log" 2>&1 || status=$?
    sed 's/\r$//' "$log"
    [ $status -eq 0 ] || die "the soak failed with status $status: see build/soak.log"
}

"$root/scripts/setup.sh"
build_preset windows soak
with_lock soak run_soak
