#!/usr/bin/env bash
# Usage: scripts/test.sh [--preset NAME] [--filter PATTERN]
#
# Builds the library and runs every test program under Wine. Of the release build, unfiltered, it
# also checks the package as its users get it: scripts/consumers.sh.
#
#   --preset NAME     build and test this preset of CMakePresets.json (default: windows)
#   --filter PATTERN  run only the tests that match, a GoogleTest filter
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

seconds_per_program=600
preset=windows
filter='*'
while [ $# -gt 0 ]; do
    case $1 in
    -h | --help) usage && exit ;;
    --preset | --filter)
        [ $# -ge 2 ] || die "$1 needs a value (see --help)"
        printf -v "${1#--}" %s "$2"
        shift 2
        ;;
    *) die "unknown argument: $1 (see --help)" ;;
    esac
done

build=$root/build/$preset
logs=$build/test-logs
passed=0 failed=0 skipped=0
summary=()
program_pid=

# The preset's own prefix. Its heaps check each block's tail (0x10), and that a free one stays as it
# is (0x20).
start_wine_for_tests()
{
    start_wine "$build/wine"
    "$wine" reg add 'HKLM\System\CurrentControlSet\Control\Session Manager' /v GlobalFlag \
        /t REG_DWORD /d 0x30 /f </dev/null >/dev/null 2>&1 || die "Wine has no registry"
}

# The number in a program's last line that begins with this bracketed word, else 0.
count_of() { sed -nE "s/^\[ *$1 *\] ([0-9]+) tests?[ ,.].*/\1/p" "$2" | tail -n 1 | grep . || echo 0; }

# Adds a finished program to the totals.
tally()
{
    local name=$1 log=$2 status=$3 ok bad skip fault=
    if grep -q '^\[==========\] .* ran\.' "$log"; then
        ok=$(count_of PASSED "$log") bad=$(count_of FAILED "$log") skip=$(count_of SKIPPED "$log")
        if [ "$status" -ne 0 ] && [ "$bad" -eq 0 ]; then
            fault="ended with status $status after its tests"
        fi
    else
        ok=$(grep -c '^\[       OK \]' "$log") || true
        bad=$(grep -c '^\[  FAILED  \]' "$log") || true
        skip=$(grep -c '^\[  SKIPPED \]' "$log") || true
        fault="crashed or was ended (status $status) in: $(
            sed -n 's/^\[ RUN      \] //p' "$log" | tail -n 1 | grep . || echo 'no test')"
        [ "$status" -ne 124 ] || fault="was still running after $seconds_per_program s, ${fault#*) }"
    fi
    summary+=("$name:")
    if [ -n "$fault" ]; then
        bad=$((bad + 1))
        summary+=("    $fault (see ${log#"$root/"})")
    fi
    mapfile -t -O ${#summary[@]} summary < <(
        sed -n '/^\[==========\] .* ran\./,$p' "$log" | grep '^\[\|FAILED TEST' || true)
    passed=$((passed + ok)) failed=$((failed + bad)) skipped=$((skipped + skip))
}

# A program writes to a file: a console host may hold its output open after it has ended.
run_program()
{
    local program=$1 name raw log viewer_pid status=0
    name=$(basename "$program" .exe)
    raw=$logs/$name.raw log=$logs/$name.log
    say "$name"
    : >"$raw"
    (cd "$build" && exec timeout -k 10 $seconds_per_program "$wine" "$program" \
        --gtest_filter="$filter") </dev/null >"$raw" 2>&1 &
    program_pid=$!
    tail -n +1 -s 0.2 -f --pid=$program_pid "$raw" | sed -u 's/\r$//' &
    viewer_pid=$!
    wait $program_pid || status=$? # in the background, so that a signal ends the run at once
    program_pid=
    wait $viewer_pid
    sed 's/\r$//' "$raw" >"$log"
    rm "$raw"
    tally "$name" "$log" "$status"
}

run_programs()
{
    local programs program totals
    mapfile -t programs < <(grep . "$build/tests/programs.txt" || true)
    [ ${#programs[@]} -ne 0 ] || die "no test program is registered in tests/CMakeLists.txt"
    rm -rf "$logs"
    mkdir -p "$logs"
    start_wine_for_tests
    for program in "${programs[@]}"; do
        run_program "$program"
    done
    say "results of preset $preset"
    printf '%s\n' "${summary[@]}"
    totals="$passed passed, $failed failed"
    [ $skipped -eq 0 ] || totals+=", $skipped skipped"
    printf '%s\n' "$totals"
    [ $((passed + failed)) -ne 0 ] || die "no test was executed"
    [ $failed -eq 0 ] || die "tests failed: see the list above, and the logs in ${logs#"$root/"}"
}

"$root/scripts/setup.sh"
build_preset "$preset"
package_status=0
if [ "$preset-$filter" = 'windows-*' ]; then
    "$root/scripts/consumers.sh" || package_status=$?
fi
with_lock "$preset-tests" run_programs
[ $package_status -eq 0 ] || die "the package is not fit for its users: see the start of the output"
