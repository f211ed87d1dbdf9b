#!/usr/bin/env bash
# Usage: scripts/check.sh
#
# Checks the sources: format, length of lines, the share that tests have of them, a second compiler
# with warnings as errors, cppcheck, clang-tidy, and the tests with undefined behaviour trapping.
# Stops at the first step that fails.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"
take_no_arguments "$@"

# step NAME COMMAND...: runs a check, which says by itself what it finds. When it fails the script
# ends; a tested command instead would run on after its own failures.
step()
{
    current=$1
    shift
    say "check: $current"
    "$@"
    current=
}

export thr_checking=ON
current=
trap '[ -z "$current" ] || echo "check.sh: $current failed: correct what is listed above" >&2' EXIT
trap 'current= && exit 143' TERM # a script that is ended has found nothing

sources_of() { find "$@" -name '*.[ch]' -o -name '*.cpp' | sort; }

code_files()
{
    local folder folders=()
    for folder in thr tests examples bench docs; do
        [ ! -d $folder ] || folders+=($folder)
    done
    sources_of "${folders[@]}"
}

check_format() { code_files | xargs -r -d '\n' clang-format --dry-run --Werror; }

# Of comments and texts too, which the formatter leaves as they are.
check_line_length() { ! code_files | xargs -r -d '\n' grep -HnE '^.{101,}'; }

# Blank and comment lines are none of code.
lines_of_code() { xargs -r -d '\n' cat | grep -cvE '^[[:space:]]*(//.*)?$'; }

# Tests take work from whoever changes the library: a new one is worth its lines, or takes the place
# of others.
check_share_of_tests()
{
    local most=28 tests all
    tests=$(sources_of tests | lines_of_code)
    all=$(code_files | lines_of_code)
    [ $((100 * tests)) -le $((most * all)) ] || {
        echo "tests/ has $tests of $all lines of code: more than $most%" >&2
        return 1
    }
}

check_cppcheck()
{
    mkdir -p build/cppcheck
    cppcheck --quiet --error-exitcode=1 --inline-suppr -j "$(nproc)" \
        --cppcheck-build-dir=build/cppcheck \
        --platform=win64 --std=c++17 --enable=warning,performance,portability \
        --library=windows -I . -D_WIN32 -D_WIN64 -D_WIN32_WINNT=0x0601 -DTHR_BUILDING thr
}

check_tidy()
{
    sources_of thr | grep '\.cpp$' | xargs -r -d '\n' -n 1 -P "$(nproc)" \
        clang-tidy -p build/windows --quiet 2>&1 |
        { grep -v '^[0-9]* warnings generated\.$' || true; }
}

"$root/scripts/setup.sh"
cd "$root"
step clang-format check_format
step "length of lines" check_line_length
step "share of tests" check_share_of_tests
step "first compiler (preset windows)" build_preset windows
step "second compiler (preset windows-gcc)" build_preset windows-gcc
step cppcheck check_cppcheck
step clang-tidy check_tidy
step "undefined behaviour (preset windows-ubsan)" scripts/test.sh --preset windows-ubsan
say "all checks passed"
