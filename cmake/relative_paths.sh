#!/usr/bin/env bash
# relative_paths.sh BUILD SOURCE COMMAND...
# Runs a compiler's or linker's COMMAND in the folder BUILD. Both write their arguments into debug
# information: paths of the two folders become relative ones, and no variable adds any.
set -euo pipefail
build=$1 source=$2
shift 2
relative=$(realpath --relative-to="$build" "$source")
command=()
for argument; do
    for pair in "$build:." "$source:$relative"; do
        # alone, or behind an option's name
        if [[ $argument =~ ^(-[IL]|[^/]*[=,]|)"${pair%:*}"(/.*|=.*|)$ ]]; then
            argument=${BASH_REMATCH[1]}${pair##*:}${BASH_REMATCH[2]}
        fi
    done
    command+=("$argument")
done
exec env -u CPATH -u LIBRARY_PATH "${command[@]}"
