#!/usr/bin/env bash
# Usage: scripts/bundle.sh [--preset NAME] [PROGRAM...]
#
# Makes the bundle of tests for Windows, build/windows/thr-<version>-win64-tests.zip, and shows that
# it works by itself: unpacked into a folder with blanks in its name, its run_tests.cmd runs under
# Wine, all programs or those named (as in its programs.txt). A test whose data is missing must then
# make it fail.
#
#   --preset NAME  the bundle of another preset of CMakePresets.json (default: windows)
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

preset=windows
case ${1-} in
-h | --help) usage && exit ;;
--preset)
    preset=${2:?--preset needs a value}
    shift 2
    ;;
-*) die "unknown argument: $1 (see --help)" ;;
esac

work=$root/build/bundle
folder='' # of the unpacked bundle

unpack()
{
    local version zip
    version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$root/build/$preset/CMakeCache.txt")
    zip=$(echo "$root/build/$preset/thr-$version"-win64*-tests.zip)
    rm -rf "$work/a folder"
    mkdir -p "$work/a folder"
    (cd "$work/a folder" && cmake -E tar xf "$zip")
    folder=$work/a\ folder/$(basename "$zip" .zip)
}

# run_tests STATUS LAST-LINE [PROGRAM...]: run_tests.cmd ends so.
run_tests()
{
    local expected=$1 last=$2 status=0 command
    shift 2
    command=Z:${folder//\//\\}\\run_tests.cmd
    (cd / && exec timeout -k 10 1800 "$wine" cmd /c "$command" "$@") \
        </dev/null >"$work/output" 2>"$work/errors" || status=$?
    tr -d '\r' <"$work/output"
    [ "$status, $(tail -n 1 "$work/output" | tr -d '\r')" = "$expected, $last" ] ||
        die "run_tests.cmd ended with status $status: see ${folder#"$root/"}/logs"
}

check_bundle()
{
    local programs=("$@")
    unpack
    [ $# -ne 0 ] || mapfile -t programs <"$folder/programs.txt"
    start_wine "$work/wine"
    say "running ${#programs[@]} programs of $(basename "$folder")"
    run_tests 0 "${#programs[@]} passed, 0 failed" "$@"
    say "with a file missing: exports_test must fail"
    rm "$folder/bin/fixtures/thr.h"
    run_tests 1 "1 passed, 1 failed" exports_test locks_test
    say "the bundle works"
}

"$root/scripts/setup.sh"
build_preset "$preset" test-bundle
with_lock bundle check_bundle "$@"
