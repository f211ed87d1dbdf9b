#!/usr/bin/env bash
# Usage: scripts/consumers.sh [--preset NAME]
#
# Makes the package, unpacks it into build/consumers and checks what a user gets: every public
# header by itself with two compilers, programs in C and C++ and the examples built against these
# files alone, by CMake, Meson, pkg-config and hand, and run under Wine, and what they print. The
# package has the manual, made with warnings as errors.
#
#   --preset NAME  the package to check: windows (the default) or windows-ucrt
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

case ${1-} in
-h | --help) usage && exit ;;
--preset) preset=${2-} ;;
'') preset=windows ;;
*) die "unknown argument: $1 (see --help)" ;;
esac
case $preset in
windows)
    kind=win64 target=x86_64-w64-mingw32 flavour=-posix
    runtime='msvcrt\.dll' other=api-ms-win-crt
    ;;
windows-ucrt)
    kind=win64-ucrt target=x86_64-w64-mingw32ucrt flavour=''
    runtime=api-ms-win-crt other='msvcrt\.dll'
    ;;
*) die "no package is checked of preset \"$preset\" (see --help)" ;;
esac

work=$root/build/consumers
prefix='' # where the package is
programs=$root/docs/manual/programs
gcc=$target-gcc$flavour
gxx=$target-g++$flavour

unpack_package()
{
    local version zip text file
    version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$root/build/$preset/CMakeCache.txt")
    zip=$root/build/$preset/thr-$version-$kind.zip
    rm -rf "$work"
    mkdir -p "$work/the package"
    (cd "$work/the package" && cmake -E tar xf "$zip")
    prefix=$work/the\ package/$(basename "$zip" .zip)
    $target-objdump -p "$prefix/bin/thr.dll" | grep "DLL Name: $runtime" >"$work/runtime" ||
        die "the package $kind does not use the C runtime of its name"
    for file in "$prefix"/bin/*.{exe,dll}; do
        $target-objdump -p "$file" >"$work/imports" || die "objdump can't read $file"
        ! grep "DLL Name: $other" "$work/imports" || die "$(basename "$file") imports that"
    done
    [ -s "$prefix/bin/thr.pdb" ] || die "the package has no thr.pdb"
    ! grep -rlF -e "$root/build" -e "$root/thr/" "$prefix" ||
        die "the files of the package above hold the path of this build"
    for text in 'GCC RUNTIME LIBRARY EXCEPTION' winpthreads 'GNU GENERAL PUBLIC LICENSE'; do
        grep -rq "$text" "$prefix/share/doc/thr/licenses" ||
            die "the licences of the runtime DLLs do not tell of: $text"
    done
}

# --- headers ------------------------------------------------------------------------------------

clang_for_mingw=(clang --target=$target)
gcc_folder=$(dirname "$($gxx -print-file-name=include)")
clangxx_for_mingw=("${clang_for_mingw[@]}" -nostdinc++ -isystem "$gcc_folder/include/c++"
    -isystem "$gcc_folder/include/c++/$target"
    -isystem "$gcc_folder/include/c++/backward")

# check_header COMPILER HEADER LANGUAGE STANDARD ORDER: the header alone, or before or after the
# platform's, and its records and functions in use.
check_header()
{
    local compiler=$1 header=$2 language=$3 standard=$4 order=$5 command
    case $compiler-$language in
    gcc-c) command=($gcc) ;;
    gcc-c++) command=($gxx) ;;
    clang-c) command=("${clang_for_mingw[@]}") ;;
    clang-c++) command=("${clangxx_for_mingw[@]}") ;;
    # no platform headers: the declarations as the other compiler family of Windows reads them
    msvc-*) command=(clang --target=x86_64-pc-windows-msvc -ffreestanding -Wno-pragma-pack) ;;
    esac
    {
        [ "$order" != after ] || printf '#include <%s>\n' windows.h errno.h stdlib.h
        echo "#include \"thr/$header\""
        [ "$order" != before ] || printf '#include <%s>\n' windows.h errno.h stdlib.h
        echo "#include \"thr/$header\""
        echo 'int probe(thr_sys_func *record);'
        echo 'int probe(thr_sys_func *record)'
        echo '{ thr_sys_func_init(record, 1, 2); return thr_sys_func_get_errno(record); }'
    } | "${command[@]}" -x "$language" -std="$standard" -Wall -Wextra -Wpedantic -Werror \
        -fsyntax-only -I "$prefix/include" - ||
        { echo "thr/$header: $compiler, $standard, $order: does not compile" >&2 && return 1; }
}

# thr_classes.h includes the other two: in C++ it stands for all where the order is what matters.
header_cases()
{
    local compiler order standard header
    for compiler in gcc clang; do
        for order in before after; do
            echo $compiler thr_classes.h c++ c++17 $order
            echo $compiler thr_classes.h c++ c++20 $order
            echo $compiler thr.h c c11 $order
        done
        for standard in c++17 c++20; do
            for header in thr.h thr_classes.h thr_exception.h; do
                echo $compiler $header c++ $standard alone
            done
        done
        echo $compiler thr.h c c11 alone
    done
    echo msvc thr.h c c11 alone
    echo msvc thr.h c++ c++17 alone
}

# Runs check_header for every line of its input, as many at once as there are processors.
check_headers()
{
    local arguments running=0 failed=0
    while read -ra arguments; do
        if [ $running -ge "$(nproc)" ]; then
            wait -n || failed=1
        else
            running=$((running + 1))
        fi
        check_header "${arguments[@]}" </dev/null &
    done
    while [ $running -gt 0 ]; do
        wait -n || failed=1
        running=$((running - 1))
    done
    return $failed
}

# --- misuse -------------------------------------------------------------------------------------

# expect_warnings PROGRAM MARK COMMAND...: a compiler warns at the lines that the mark, a pattern,
# finds in the program, and at no other.
expect_warnings()
{
    local program=$root/docs/manual/programs/$1 mark=$2 log=$work/misuse.log
    shift 2
    "$@" -Wall -Wextra -Wpedantic -I "$prefix/include" -c "$program" -o "$work/misuse.obj" \
        >"$log" 2>&1 || { cat "$log" >&2 && die "$(basename "$program") does not compile"; }
    diff <(grep -nE "$mark" "$program" | cut -d : -f 1) \
        <(sed -nE 's/^[^:]*:([0-9]+):[0-9]+: warning: .*/\1/p' "$log" | sort -nu) ||
        { cat "$log" >&2 && die "$1 warns of other lines of $(basename "$program"), see above"; }
}

check_misuse()
{
    local name
    say "looking whether compilers warn of misuse"
    for name in misuse consumer; do
        expect_warnings $name.c '// warns$' $gcc -std=c11
        expect_warnings $name.c '// warns$' "${clang_for_mingw[@]}" -std=c11
        expect_warnings $name.cpp '// warns$' $gxx -std=c++17
        expect_warnings $name.cpp '// warns(: clang)?$' "${clangxx_for_mingw[@]}" -std=c++17 \
            -Wthread-safety
    done
}

# --- programs -----------------------------------------------------------------------------------

# build SOURCE TARGET-FOLDER: by a CMake project that finds the package and nothing of this tree.
build()
{
    cmake -G Ninja -S "$1" -B "$2" -DCMAKE_BUILD_TYPE=Release -DCMAKE_SYSTEM_NAME=Windows \
        -DCMAKE_C_COMPILER=$gcc -DCMAKE_CXX_COMPILER=$gxx -DCMAKE_PREFIX_PATH="$prefix" \
        >"$2.log" 2>&1 && cmake --build "$2" --parallel "$(nproc)" >>"$2.log" 2>&1 ||
        { cat "$2.log" && die "building $1 against the package failed, see above"; }
}

# run_program STATUS PROGRAM [ARGUMENT...]: with the package's folder of DLLs on its path. It reads
# the file $input, if one is set. Its output goes to a file: what Wine starts beside it may hold
# that open.
run_program()
{
    local expected=$1 log=$2.log status=0
    shift
    timeout -k 10 120 "$wine" "$@" <"${input:-/dev/null}" >"$log" 2>&1 7>&- || status=$?
    [ $status -eq "$expected" ] ||
        { tr -d '\r' <"$log" >&2 &&
            die "$(basename "$1") ended with status $status, not $expected"; }
    tr -d '\r' <"$log"
}

# expect PATTERN EXAMPLE [ARGUMENT...]: the example ends well, and the pattern is all that it
# prints.
expect()
{
    local pattern=$1 example=$2 output
    shift 2
    output=$(run_program 0 "$work/examples/bin/$example.exe" "$@")
    [[ $output == $pattern ]] ||
        { printf '%s\n' "$output" >&2 && die "$example printed that, not: $pattern"; }
}

run_examples()
{
    local folder=$work/run dos_folder tail="all in order and none missing; no lock file left*" i
    dos_folder=Z:${folder//\//\\}
    mkdir -p "$folder"
    expect "*total: 60 entries acknowledged, 0 more written, 0 torn *audit: 60 entries, 0 *, \
$tail" ledger "$dos_folder\\ledger.db" --workers 3 --entries 20 --kill 0 --readers 2
    touch "$folder/ö.db.mtx.flock" # left over: whoever takes this lock removes it
    expect "*; 1 workers killed, *audit: *, $tail" \
        ledger "$dos_folder\\ö.db" --workers 3 --entries 20 --kill 1
    expect "*worker 2: 10 deposits of 2220 in all, 30 audits, *
the table holds 3440, the workers brought 3440, 0 audits failed: right" \
        worker_pool --workers 2 --rounds 40
    expect "plugin_words: 4 words
plugin_palindrome: a palindrome" plugin_host plugin_words plugin_palindrome
    { seq 200 && printf 'a\x1ab\n\n%0600d\nno newline' 0; } >"$folder/lines"
    input=$folder/lines expect "$(awk '{ printf "%4d  %s\n", NR, $0 }' "$folder/lines")" pipe_feed
    touch "$folder/left.mtx.flock"
    expect "left over  mutex *left.mtx.flock?" lock_status "$dos_folder\\left"
    hold_lock "$dos_folder\\ledger.db"
    for ((i = 0; i < 300; i++)); do
        [ ! -e "$folder/ledger.db.mtx.flock" ] || break
        sleep 0.1
    done
    expect "held  *mutex *ledger.db.mtx.flock?" lock_status "$dos_folder\\ledger.db"
    kill $!
}

# hold_lock FILE: starts a worker of the ledger that stays under the lock for a while: there is no
# room for what it says.
hold_lock()
{
    mkfifo "$work/full"
    exec 8<>"$work/full"
    timeout 0.3 cat /dev/zero >&8 || true
    LEDGER_FILE=$1 timeout -k 5 60 "$wine" "$work/examples/bin/ledger.exe" --worker 1 1 0 0 \
        </dev/null >&8 2>&1 7>&- &
    exec 8>&-
}

# link_other NAME [OPTION...]: as a toolchain that knows nothing of MinGW.
link_other()
{
    local program=$work/$1
    shift
    clang --target=x86_64-pc-windows-msvc -ffreestanding -Werror "$@" -c -I "$prefix/include" \
        "$programs/other_linker.c" -o "$program.obj" &&
        lld-link /nologo /nodefaultlib /entry:start /subsystem:console "/out:$program.exe" \
            "$program.obj" "$prefix/lib/thr.lib" "$($gcc -print-file-name=libkernel32.a)"
}

vectorcall=(-Xclang -fdefault-calling-conv=vectorcall) # -Gv of the Visual C++ family

build_by_meson()
{
    sed "s/x86_64-w64-mingw32/$target/; s/-posix/$flavour/" "$programs/mingw-w64.ini" \
        >"$work/cross.ini"
    meson setup --cross-file "$work/cross.ini" -Dpkg_config_path="$prefix/lib/pkgconfig" \
        "$work/meson" "$programs" >"$work/meson.log" 2>&1 &&
        ninja -C "$work/meson" >>"$work/meson.log" 2>&1 ||
        { cat "$work/meson.log" && die "building the programs by Meson failed, see above"; }
}

build_by_hand()
{
    local options
    options=$(PKG_CONFIG_LIBDIR=$prefix/lib/pkgconfig pkg-config --cflags --libs 'thr >= 1.0')
    eval "options=($options)"
    $gcc -std=c11 "$programs/consumer.c" "${options[@]}" -o "$work/consumer_pkg_config.exe" ||
        die "building by pkg-config's options failed, see above"
    "${clang_for_mingw[@]}" -fuse-ld=lld -L "$gcc_folder" -std=c11 -Wall -Wextra -Wpedantic \
        -Werror -I "$prefix/include" "$programs/consumer.c" "$prefix/lib/thr.lib" \
        -o "$work/consumer_thr_lib.exe" || die "linking with thr.lib failed, see above"
    link_other other_linker || die "linking with thr.lib by lld-link failed, see above"
    link_other other_convention "${vectorcall[@]}" ||
        die "linking with another default calling convention failed, see above"
    ! link_other no_convention "${vectorcall[@]}" -D__cdecl= >"$work/no_convention.log" 2>&1 ||
        die "that program links without the header's convention, too: nothing was shown"
}

# The package's reason must be told, and not a link fail later.
refuse_another_processor()
{
    ! cmake -G Ninja -S "$programs" -B "$work/arm64" -DCMAKE_SYSTEM_NAME=Windows \
        -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
        -DCMAKE_{C,CXX}_COMPILER_TARGET=aarch64-w64-mingw32 \
        -DCMAKE_TRY_COMPILE_TARGET_TYPE=STATIC_LIBRARY -DCMAKE_PREFIX_PATH="$prefix" \
        >"$work/arm64.log" 2>&1 && grep -q 'thr is for Windows on x64' "$work/arm64.log" ||
        { cat "$work/arm64.log" && die "the package does not refuse ARM64, see above"; }
}

build_programs()
{
    say "building programs and examples against the package"
    build "$programs" "$work/programs"
    build "$prefix/share/doc/thr/examples" "$work/examples"
    build_by_meson
    build_by_hand
    refuse_another_processor
}

run_programs()
{
    local example program
    say "running them"
    share_wine
    export WINEPATH="Z:${prefix//\//\\}\\bin"
    for program in programs/consumer_c programs/consumer_cpp meson/consumer_c meson/consumer_cpp \
        consumer_pkg_config consumer_thr_lib; do
        run_program 0 "$work/$program.exe" | tail -n 1
    done
    run_program 42 "$work/other_linker.exe"
    run_program 42 "$work/other_convention.exe"
    for example in "$prefix"/share/doc/thr/examples/*/; do
        program=$work/examples/bin/$(basename "$example").exe
        run_program 0 "$program" --help >"$work/help.txt"
        grep -qi '^usage: ' "$work/help.txt" || die "$(basename "$program") --help tells no usage"
        run_program 2 "$program" --no-such-option >"$work/help.txt"
        [ "$(wc -l <"$work/help.txt")" -eq 1 ] ||
            die "$(basename "$program") does not tell in one line that its arguments are wrong"
    done
    run_examples
}

check_package()
{
    unpack_package
    say "compiling the headers by themselves"
    check_headers < <(header_cases) || die "a header does not compile by itself, see above"
    check_misuse
    build_programs
    run_programs
    say "the package works"
}

"$root/scripts/setup.sh"
build_preset "$preset" package
with_lock consumers check_package
