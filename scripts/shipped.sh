#!/usr/bin/env bash
# Usage: scripts/shipped.sh [windows-ucrt]
#
# Builds what is shipped twice, in two folders, and checks that it is the same byte for byte, that
# no path of this machine is in it, what the DLL imports, how it is hardened, and that its debug
# information leads from an address to function, file and line. Of the preset windows, the default,
# it also builds the library as users do who have none: with their compiler, or in their project.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

preset=${1:-windows}
case $preset in
-h | --help) usage && exit ;;
windows | windows-ucrt) ;;
*) die "unknown argument: $1 (see --help)" ;;
esac

work=$root/build/shipped first=$root/build/shipped/first second="$root/build/shipped/the second"
files=(bin/thr.dll bin/thr.dll.debug bin/thr.pdb lib/libthr.dll.a lib/thr.lib lib/thr.def)

# quietly COMMAND...: shows its output only when it fails.
quietly()
{
    "$@" >"$work/log" 2>&1 || { cat "$work/log" >&2 && die "that failed: $*"; }
}

build_copy()
{
    local copy=$1
    say "building ${copy#"$root/"}"
    mkdir -p "$copy"
    tar -C "$root" --exclude=./build --exclude=./.git -cf - . | tar -C "$copy" -xf -
    (
        cd "$copy"
        quietly cmake --preset "$preset" -DBUILD_TESTING=OFF
        quietly cmake --build --preset "$preset" --target thr thr_lib package
    )
}

check_same()
{
    local file
    cd "$first/build/$preset"
    for file in "${files[@]}" *.zip; do
        cmp "$file" "$second/build/$preset/$file" || die "two builds of $file differ"
        ! grep -qF "$work" "$file" || die "$file holds the path that it was built in"
    done
}

check_dll()
{
    local dll=bin/thr.dll runtime=msvcrt fact
    [ $preset = windows ] || runtime='api-ms-win-crt-[a-z0-9-]*'
    llvm-readobj --coff-imports $dll | sed -n 's/^  Name: //p' >"$work/imports"
    grep -qx 'KERNEL32\.dll' "$work/imports" || die "the imports of thr.dll can't be read"
    ! grep -vxE "(KERNEL32|USER32|$runtime|lib(stdc\+\+-6|gcc_s_seh-1|winpthread-1))\.dll" \
        "$work/imports" || die "thr.dll imports what is listed above"
    { llvm-readobj --file-headers $dll && llvm-nm thr/CMakeFiles/thr_objects.dir/*.obj; } \
        >"$work/facts"
    for fact in _DYNAMIC_BASE _HIGH_ENTROPY_VA _NX_COMPAT 'SymbolCount: 0$' \
        ' U __stack_chk_fail$' ' U __memcpy_chk$'; do
        grep -qE "$fact" "$work/facts" || die "neither thr.dll's header nor an object has: $fact"
    done
}

# Every function of the PDB: its source's name, its address in the image, and its own name.
list_functions()
{
    local base
    base=$(llvm-readobj --sections bin/thr.dll | awk '/VirtualAddress:/ { print $2; exit }')
    llvm-pdbutil dump --symbols bin/thr.pdb | awk -v base=$((base + 0x180000000)) '
        /^ *Mod [0-9]+ / { source = $0; gsub(/.*[\\\/]|\.obj`.*/, "", source) }
        /S_[GL]PROC32/ { name = $0; gsub(/^[^`]*`|`$/, "", name) }
        name && /addr = 0001:/ {
            sub(/.*addr = 0001:/, ""); sub(/,.*/, "")
            printf "%s\t%.0f\t%s\n", source, base + $0, name
            name = ""
        }'
}

# By the PDB, and by the information for gdb, a function of each source is found there at a line.
check_debug_information()
{
    local source address
    list_functions >"$work/functions" || true # what is missing is told below
    cp bin/thr.dll bin/thr.pdb "$work" # without the other file
    cut -f 2 "$work/functions" | llvm-symbolizer --no-inlines --obj="$work/thr.dll" |
        awk 'NF { line = line "\t" $0; next } { print substr(line, 2); line = "" }' |
        paste "$work/functions" - | tr '\\' / >"$work/resolved"
    for source in "$root"/thr/*.cpp; do
        source=$(basename "$source")
        address=$(awk -F '\t' -v source="$source" '
            $1 == source && index($4, $3) == 1 && $5 ~ "^thr/" source ":[1-9]" && !found++ {
                print $2
            }' "$work/resolved")
        [ -n "$address" ] || die "thr.pdb leads to no line of thr/$source"
        llvm-dwarfdump --lookup="$address" bin/thr.dll.debug >"$work/lookup" || true
        grep -q "DW_AT_name.*\"thr/$source\"" "$work/lookup" &&
            grep -q "^Line info: file .*$source', line [1-9]" "$work/lookup" ||
            die "thr.dll.debug leads to no line of thr/$source"
    done
}

# Nothing that only this project's toolchain files name can be found by itself.
configure_plainly()
{
    local target=x86_64-w64-mingw32
    quietly cmake -G Ninja "$@" -DCMAKE_SYSTEM_NAME=Windows -DTHR_BOOST_DIR=/usr/include \
        -DCMAKE_C_COMPILER=/usr/bin/$target-gcc-posix -DCMAKE_RC_COMPILER=/usr/bin/$target-windres \
        -DCMAKE_CXX_COMPILER=/usr/bin/$target-g++-posix -DCMAKE_MAKE_PROGRAM="$(command -v ninja)" \
        -DCMAKE_FIND_USE_SYSTEM_ENVIRONMENT_PATH=OFF -DCMAKE_FIND_USE_CMAKE_SYSTEM_PATH=OFF
}

check_plain_builds()
{
    local what
    say "building without a preset"
    configure_plainly -S "$second" -B "$work/plain build"
    for what in llvm-dlltool doxygen GoogleTest; do
        [ "$(grep -ci "$what not found" "$work/log")" -eq 1 ] || die "no line tells of no $what"
    done
    quietly cmake --build "$work/plain build" --target thr
    ! (cd "$work/plain build" && cmake -DNAME=none -DCOMPONENT=Unspecified \
        -P "$second/cmake/make_zip.cmake") >"$work/log" 2>&1 &&
        grep -q 'no licences' "$work/log" || die "a package is made without licences"
    mkdir "$work/host"
    cat >"$work/host/CMakeLists.txt" <<'END'
cmake_minimum_required(VERSION 3.21)
project(host C)
add_subdirectory("../the second" thr)
add_executable(host host.c)
target_link_libraries(host PRIVATE thr::thr)
add_custom_command(TARGET host POST_BUILD
  COMMAND ${CMAKE_COMMAND} -E copy_if_different ${thr_RUNTIME_DLLS} $<TARGET_FILE_DIR:host>)
END
    printf '#include "thr/thr.h"\nint main(void) { return thr_getpid(); }\n' >"$work/host/host.c"
    configure_plainly -S "$work/host" -B "$work/host/build"
    quietly cmake --build "$work/host/build" --target host
    ! ninja -C "$work/host/build" -t targets | grep -E '^(package|ledger|thr_bench|test):' ||
        die "a project that takes the library in gets the targets above"
}

check_shipped()
{
    rm -rf "$work"
    build_copy "$first"
    build_copy "$second"
    check_same
    check_dll
    check_debug_information
    [ $preset != windows ] || check_plain_builds
    say "what is shipped is right"
}

"$root/scripts/setup.sh"
with_lock shipped check_shipped
