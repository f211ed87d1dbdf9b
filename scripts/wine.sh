#!/usr/bin/env bash
# Usage: scripts/wine.sh PROGRAM [ARGUMENT...]
#
# Runs a Windows program under Wine, in the prefix build/wine, with thr.dll and its runtime DLLs on
# its path: a program of yours, or one of build/windows/bin by its name alone, as in
# scripts/wine.sh worker_pool, an example, which is built when it is not there. Arguments, input and
# output are handed on as they are; the exit status is the program's, as far as eight bits hold it,
# or 127 without one. Several may run at once and meet each other.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

case ${1-} in
-h | --help) usage && exit ;;
'' | -*) die "a PROGRAM is needed first (see --help)" ;;
esac
bin=$root/build/windows/bin
program=$1
shift

# What is missing is made, without a word on the program's output.
[ -e "$root/build/wine/.ready" ] || "$root/scripts/setup.sh" >&2
[ -e "$bin/thr.dll" ] || build_preset windows thr >&2

find_program()
{
    for candidate in "$program" "$program.exe" "$bin/$program" "$bin/$program.exe"; do
        [ ! -f "$candidate" ] || return 0
    done
    return 1
}

if ! find_program && [[ $program != */* && -d $root/examples/$program ]]; then
    build_preset windows thr "$program" >&2
fi
find_program ||
    { echo "wine.sh: no program \"$program\", here or in build/windows/bin" >&2 && exit 127; }

share_wine
export WINEPATH="Z:${bin//\//\\}${WINEPATH:+;$WINEPATH}"
[ ! -t 0 ] || exec < <(exec cat <&0) # a terminal's input goes through a pipe, like the outputs
run_shared "$(realpath -- "$candidate")" "$@"
