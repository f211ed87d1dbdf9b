#!/usr/bin/env bash
# Usage: scripts/test.sh [--preset NAME] [--filter PATTERN]
#
# Builds the library and runs every test program under Wine. Of a release build, unfiltered, it
# also checks the package as its users get it (scripts/consumers.sh).
#
#   --preset NAME     build and test this preset of CMakePresets.json (default: windows)
#   --filter PATTERN  run only the tests that match, a GoogleTest filter, and start only the
#                     programs that have such tests
#
# Of a program its closing lines are shown, and the output of the tests that failed; the rest is in
# build/NAME/test-logs.
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

grep -q "\"name\": \"$preset\"" "$root/CMakePresets.json" ||
    die "there is no preset \"$preset\": see CMakePresets.json"

build=$root/build/$preset
logs=$build/test-logs
passed=0 failed=0 skipped=0
failed_programs=()

# The number in a program's last line that begins with this bracketed word, else 0.
count_of()
{
    sed -nE "s/^\[ *$1 *\] ([0-9]+) tests?[ ,.].*/\1/p" "$2" | tail -n 1 | grep . || echo 0
}

last_started() { sed -n 's/^\[ RUN      \] //p' "$1" | tail -n 1 | grep . || echo 'no test yet'; }

# The output of each test that did not pass, one that never ended included.
print_failures()
{
    awk '/^\[ RUN      \]/ { text = ""; inside = 1 }
        inside { text = text $0 "\n" }
        /^\[       OK \]|^\[  SKIPPED \]/ { inside = 0 }
        inside && /^\[  FAILED  \]/ { printf "%s", text; inside = 0 }
        END { if (inside) printf "%s", text }' "$1"
}

# Shows a finished program and adds it to the totals.
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
        fault="crashed or was ended (status $status)"
        [ "$status" -ne 124 ] || fault="was still running after $seconds_per_program s"
        fault+=" in: $(last_started "$log")"
    fi
    say "$name"
    print_failures "$log"
    sed -n '/^\[==========\] .* ran\./,$p' "$log" | grep '^\[\|FAILED TEST' || true
    if [ -n "$fault" ]; then
        bad=$((bad + 1))
        say "$name $fault (see ${log#"$root/"})"
    fi
    [ "$bad" -eq 0 ] || failed_programs+=("$name")
    passed=$((passed + ok)) failed=$((failed + bad)) skipped=$((skipped + skip))
}

# On a terminal: the test that runs, in one line, until this is ended.
show_progress()
{
    local name=$1 raw=$2 columns
    columns=$(tput cols 2>/dev/null) || columns=80
    while sleep 0.3; do
        printf '\r\e[K%.*s' $((columns - 1)) \
            "$name, test $(grep -c "^\[ RUN" "$raw" || true): $(last_started "$raw" | tr -d "\r")"
    done
}

# A program writes to a file: a console host may hold its output open after it has ended.
run_program()
{
    local program=$1 name raw log watcher='' status=0
    name=$(basename "$program" .exe)
    raw=$logs/$name.raw log=$logs/$name.log
    : >"$raw"
    if [ -t 1 ]; then
        show_progress "$name" "$raw" &
        watcher=$!
    fi
    (cd "$build" && exec timeout -k 10 $seconds_per_program "$wine" "$program" \
        --gtest_filter="$filter") </dev/null >"$raw" 2>&1 || status=$?
    if [ -n "$watcher" ]; then
        kill "$watcher" && wait "$watcher" || true
        printf '\r\e[K'
    fi
    sed 's/\r$//' "$raw" >"$log"
    rm "$raw"
    tally "$name" "$log" "$status"
}

# Whether a test of the program matches the filter.
has_tests()
{
    local listing=$logs/listing
    (cd "$build" && timeout -k 10 60 "$wine" "$1" --gtest_list_tests --gtest_filter="$filter") \
        </dev/null >"$listing" 2>&1 || die "$(basename "$1") does not list its tests: see $listing"
    grep -q '^  ' "$listing"
}

# One more test: the calls of each operation, beside those of the raw one.
run_calls()
{
    local log=$logs/thr_bench.log
    say "thr_bench --calls"
    if (cd "$build" && exec timeout -k 10 $seconds_per_program "$wine" bin/thr_bench.exe --calls) \
        </dev/null >"$log" 2>&1; then
        passed=$((passed + 1))
        tail -n 2 "$log"
    else
        failed=$((failed + 1))
        failed_programs+=(thr_bench)
        grep DIFFERENT "$log" || tail "$log"
    fi
}

run_programs()
{
    local programs program totals
    mapfile -t programs < <(grep . "$build/tests/programs.txt" || true)
    [ ${#programs[@]} -ne 0 ] || die "no test program is registered in tests/CMakeLists.txt"
    rm -rf "$logs"
    mkdir -p "$logs"
    start_wine "$build/wine"
    for program in "${programs[@]}"; do
        [ "$filter" != '*' ] && ! has_tests "$program" || run_program "$program"
    done
    # Counters of coverage write files when a DLL goes, and need memory for it.
    [[ $filter != '*' || $preset = *-coverage ]] || run_calls
    [ $((passed + failed + skipped)) -ne 0 ] || die "no test matches the filter \"$filter\""
    say "results of preset $preset"
    totals="$passed passed, $failed failed"
    [ $skipped -eq 0 ] || totals+=", $skipped skipped"
    printf '%s\n' "$totals"
    [ $failed -eq 0 ] ||
        die "tests failed in ${failed_programs[*]}: see above, and the logs in ${logs#"$root/"}"
}

"$root/scripts/setup.sh"
[ "$preset" != windows-ucrt ] || command -v x86_64-w64-mingw32ucrt-g++ >/dev/null ||
    die "install g++-mingw-w64-ucrt64, which is there from Debian 13 on"
build_preset "$preset"
package_status=0
if [ "$filter" = "*" ] && [[ $preset =~ ^windows(-ucrt)?$ ]]; then
    "$root/scripts/consumers.sh" --preset "$preset" || package_status=$?
fi
with_lock "$preset-tests" run_programs
[ $package_status -eq 0 ] || die "the package is not fit for its users: see the start of the output"
