#!/usr/bin/env bash
# Usage: scripts/demo.sh [FILE] [LEDGER OPTION...]
#
# Builds the library and its ledger example and runs it under Wine: workers and readers that share
# one data file while some of the workers are killed. FILE is the data file (default: build/demo/ledger.db); any
# options are passed on, after --workers 6 --entries 200 --kill 2 --readers 2.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

file=$root/build/demo/ledger.db
case ${1-} in
-h | --help) usage && exit ;;
'' | -*) mkdir -p "$root/build/demo" ;;
*)
    file=$(realpath -m -- "$1")
    shift
    ;;
esac

"$root/scripts/setup.sh"
build_preset windows thr ledger
use_prefix "$root/build/wine"
# The services that Wine starts with its first program must not hold this script's output open.
"$wine" cmd /c exit </dev/null >/dev/null 2>&1 || die "Wine does not run: see build/wine.log"

say "ledger $file"
# Both outputs go through pipes: on a terminal Wine would start its own console and repaint it.
{
    "$wine" "$root/build/windows/bin/ledger.exe" "Z:${file//\//\\}" \
        --workers 6 --entries 200 --kill 2 --readers 2 "$@" </dev/null 2>&1 >&3 3>&- | cat >&2 3>&-
} 3>&1 | cat
