#!/usr/bin/env bash
# Usage: scripts/check.sh
#
# Checks the sources: format, a second compiler with warnings as errors, cppcheck, clang-tidy, and
# the tests with undefined behaviour trapping. Stops at the first step that fails.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

case ${1-} in
-h | --help) usage && exit ;;
'') ;;
*) die "unknown argument: $1 (see --help)" ;;
esac

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

current=
trap '[ -z "$current" ] || echo "check.sh: $current failed: correct what is listed above" >&2' EXIT

sources_of() { find "$@" -name '*.[ch]' -o -name '*.cpp' | sort; }

check_format()
{
    local folder folders=()
    for folder in thr tests examples bench docs; do
        [ ! -d $folder ] || folders+=($folder)
    done
    sources_of "${folders[@]}" | xargs -r -d '\n' clang-format --dry-run --Werror
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
        clang-tidy -p build/windows-clang --quiet 2>&1 |
        { grep -v '^[0-9]* warnings generated\.$' || true; }
}

"$root/scripts/setup.sh"
cd "$root"
step clang-format check_format
step "second compiler (preset windows-clang)" build_preset windows-clang
step cppcheck check_cppcheck
step clang-tidy check_tidy
step "undefined behaviour (preset windows-ubsan)" scripts/test.sh --preset windows-ubsan
say "all checks passed"
