#!/usr/bin/env bash
# Usage: scripts/soak.sh [ROUNDS] [SEED]
#
# Builds the library and its soak and runs that under Wine, 5 rounds by default, of about four
# seconds each: processes that lock and die at random. SEED, up to 99999, repeats the random choices
# of an earlier run.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

case ${1-} in
-h | --help) usage && exit ;;
esac
rounds=${1:-5} seed=${2:-$((RANDOM + 1))}
build=$root/build/windows
[ $# -le 2 ] && [[ "$rounds $seed" =~ ^[1-9][0-9]*\ [1-9][0-9]{0,4}$ ]] ||
    die "two numbers at most are taken, ROUNDS and SEED, not: $* (see --help)"

# What is left of it ends with the Wine server.
run_soak()
{
    local log=$build/soak.log status=0
    start_wine "$build/wine"
    say "soak of $rounds rounds, seed $seed"
    # Into a file: a console host may hold an output open after its program has ended.
    timeout -k 10 $((rounds * 60)) "$wine" "$build/bin/soak_test.exe" --gtest_repeat="$rounds" \
        --gtest_shuffle --gtest_random_seed="$seed" </dev/null >"$log" 2>&1 || status=$?
    end_server
    sed -n 's/\r$//; /^\[\|^$/!p' "$log"
    [ $status -eq 0 ] || die "the soak failed with status $status: see ${log#"$root/"}"
}

"$root/scripts/setup.sh"
build_preset windows soak_test
with_lock windows-tests run_soak # whose prefix it uses
