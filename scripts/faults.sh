#!/usr/bin/env bash
# Usage: scripts/faults.sh [--quick] [FIRST[-LAST]]
#
# Plants the faults of tests/faults.txt one at a time in a copy of the sources, and tells which test
# finds each: programs named by the first word of the source's name run first, the refusal sweep
# last. All of them, or those with the numbers FIRST to LAST. Ends with status 0 when at least 57 of
# the 60 are found; of some, when all are. On an idle machine a fault that is found takes half a
# minute.
#
#   --quick  without the refusal sweep, which alone takes minutes
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

enough=57
seconds_per_program=600
folder=$root/build/faults
copy=$folder/tree
bin=$copy/build/windows/bin
first=1 last= quick=

case ${1-} in
-h | --help) usage && exit ;;
--quick) quick=yes && shift ;;
esac
case ${1-} in
'') ;;
*)
    [[ $1 =~ ^([1-9][0-9]*)(-([1-9][0-9]*))?$ ]] || die "unknown argument: $1 (see --help)"
    first=${BASH_REMATCH[1]} last=${BASH_REMATCH[3]:-${BASH_REMATCH[1]}}
    ;;
esac

# --- the list -----------------------------------------------------------------------------------

sources=() texts=() replacements=() harms=()

# The list's blocks, each ended by the line of its harm.
read_faults()
{
    local line source='' text='' replacement=''
    while IFS= read -r line; do
        case $line in
        'thr/'*) source=$line text='' replacement='' ;;
        '- '*) text+=${text:+$'\n'}${line#- } ;;
        '+ '*) replacement+=${replacement:+$'\n'}${line#+ } ;;
        '= '*)
            sources+=("$source") texts+=("$text") replacements+=("$replacement")
            harms+=("${line#= }")
            ;;
        '#'* | '') ;;
        *) die "tests/faults.txt has a line of no kind: $line" ;;
        esac
    done <"$root/tests/faults.txt"
}

# plant NUMBER: into the copy. The text has to be there, and once.
plant()
{
    local source=${sources[$1]} text=${texts[$1]} content rest
    content=$(<"$root/$source")
    rest=${content#*"$text"}
    [ -n "$text" ] && [ "$rest" != "$content" ] && [[ $rest != *"$text"* ]] ||
        die "fault $1: $source has that text not once: $text"
    printf '%s\n' "${content%%"$text"*}${replacements[$1]}$rest" >"$copy/$source"
}

# --- the copy -----------------------------------------------------------------------------------

# Takes what was planted out of the copy.
restore()
{
    local source
    for source in "$root"/thr/*; do
        cmp -s "$source" "$copy/thr/${source##*/}" || cp "$source" "$copy/thr/"
    done
}

# Builds these targets of the copy.
build_copy() (root=$copy && build_unlocked windows "$@") >"$folder/build.log" 2>&1

# The copy is made anew, and its tests have to pass, when what it is made of has changed.
make_copy()
{
    local stamp program
    cd "$root"
    stamp=$(tar --exclude=tests/faults.txt --sort=name -cf - CMake* cmake thr tests bench |
        sha256sum)
    [ "$stamp" != "$(cat "$folder/passed" 2>/dev/null || true)" ] || return 0
    say "building the copy build/faults/tree and running its tests"
    rm -rf "$folder"
    mkdir -p "$copy/build"
    tar --exclude=./build --exclude=./.git -cf - . | tar -C "$copy" -xmf -
    build_copy gtest || { cat "$folder/build.log" >&2 && die "the copy does not build"; }
    read_programs
    build_copy "${programs[@]}" || { cat "$folder/build.log" >&2 && die "the copy does not build"; }
    start_wine "$copy/build/wine"
    for program in "${programs[@]}"; do
        ! found_by "$program" || ! found_by "$program" ||
            die "without any fault $finder fails twice: see build/faults/$program.log"
    done
    printf '%s\n' "$stamp" >"$folder/passed"
}

# The test programs, and those that hold the library's objects: the others load the DLL.
read_programs()
{
    mapfile -t programs < <(sed 's|.*/||; s/\.exe$//' "$copy/build/windows/tests/programs.txt")
    [ ${#programs[@]} -ne 0 ] || die "the copy has no test programs"
    mapfile -t internal < <(tr '\n' ' ' <"$root/tests/CMakeLists.txt" |
        grep -oE 'thr_add_test\(NAME [^)]* INTERNAL\)' | cut -d ' ' -f 2)
    [ ${#internal[@]} -ne 0 ] || die "tests/CMakeLists.txt names no program with INTERNAL"
}

# --- runs ---------------------------------------------------------------------------------------

# found_by PROGRAM...: whether one of them fails; it and its first test that did are the finder.
found_by()
{
    local program log status
    for program; do
        log=$folder/$program.log status=0
        (cd "$copy/build/windows" && exec timeout -k 10 $seconds_per_program "$wine" \
            "$bin/$program.exe" --gtest_fail_fast) </dev/null >"$log" 2>&1 || status=$?
        [ $status -ne 0 ] || continue
        finder="$program $(sed -nE 's/\r$//; s/^\[  FAILED  \] ([^ ,]+).*/\1/p' "$log" | head -n 1)"
        if ! grep -q '^\[==========\] .* ran\.' "$log"; then
            finder="$program, which ends with $status in $(sed -n 's/\r$//; s/^\[ RUN      \] //p' \
                "$log" | tail -n 1)"
            end_server && start_server # what it has left running
        fi
        return 0
    done
    return 1
}

# The programs in the order in which the fault's own are likely to find it.
order_for()
{
    local family=${1#thr/thr_} program
    family=${family%%[_.]*}
    for program in "${programs[@]}"; do
        case $program in
        "$family"*) echo "0 $program" ;;
        *sweep*) [ "$quick" ] || echo "2 $program" ;;
        *) echo "1 $program" ;;
        esac
    done | sort -s -k 1,1 | cut -d ' ' -f 2
}

# try NUMBER: plants that fault, tells who finds it, and takes it out again.
try()
{
    local order outcome
    plant "$1"
    if build_copy thr "${internal[@]}"; then
        mapfile -t order < <(order_for "${sources[$1]}")
        # twice: a test that fails now and then finds nothing
        if found_by "${order[@]}" && found_by "${finder%%[ ,]*}"; then
            outcome="found by $finder"
            found=$((found + 1))
        else
            outcome='NOT FOUND'
        fi
    else
        outcome='DOES NOT COMPILE'
    fi
    printf '%2d %s: %s\n   %s\n' $(($1 + 1)) "${sources[$1]}" "${harms[$1]}" "$outcome"
    restore
}

run_faults()
{
    local number
    found=0
    read_faults
    last=${last:-${#sources[@]}}
    [ "$first" -le "$last" ] && [ "$last" -le ${#sources[@]} ] ||
        die "there are faults 1 to ${#sources[@]}"
    make_copy
    restore # what a run that was ended has left
    read_programs
    start_wine "$copy/build/wine"
    for ((number = first - 1; number < last; number++)); do
        try "$number"
    done
    say "$found of $((last - first + 1)) faults found"
    [ $((last - first + 1)) -eq ${#sources[@]} ] || enough=$((last - first + 1))
    [ $found -ge $enough ] || die "at least $enough have to be found"
}

"$root/scripts/setup.sh"
with_lock faults run_faults
