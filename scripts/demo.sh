#!/usr/bin/env bash
# Usage: scripts/demo.sh [FILE] [LEDGER OPTION...]
#
# Builds the library and its ledger example and runs it under Wine: workers and readers that share
# one data file while some of the workers are killed. FILE is the data file (default:
# build/demo/ledger.db). The options stand in any order, and in place of these:
# --workers 6 --entries 200 --kill 2 --readers 2. There is also --seed; each takes a number.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

file='' options=()
while [ $# -gt 0 ]; do
    case $1 in
    -h | --help) usage && exit ;;
    --workers | --entries | --kill | --readers | --seed)
        [[ ${2-} =~ ^[0-9]+$ ]] || die "$1 needs a number (see --help)"
        options+=("$1" "$2")
        shift 2
        ;;
    -*) die "unknown argument: $1 (see --help)" ;;
    *)
        [ -z "$file" ] || die "one FILE only, not \"$file\" and \"$1\" (see --help)"
        [ -n "$1" ] || die "FILE is empty (see --help)"
        file=$(realpath -m -- "$1")
        shift
        ;;
    esac
done
if [ -z "$file" ]; then
    mkdir -p "$root/build/demo"
    file=$root/build/demo/ledger.db
fi
is_plain_path "$file" || die "$plain_path for FILE, not \"$file\""

"$root/scripts/setup.sh"
build_preset windows thr ledger
share_wine
say "ledger $file"
run_shared "$root/build/windows/bin/ledger.exe" "Z:${file//\//\\}" \
    --workers 6 --entries 200 --kill 2 --readers 2 "${options[@]}" </dev/null
