# What the scripts share: messages, locks, the build of a preset, Wine. Sourced, never run.
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
wine=/usr/lib/wine/wine64
wineserver=/usr/lib/wine/wineserver64
export LC_ALL=C.UTF-8

say() { printf '== %s\n' "$*"; }

die()
{
    printf '%s: %s\n' "$(basename "$0")" "$*" >&2
    exit 1
}

# Prints the comment at the top of the script that runs.
usage() { sed -n '2,/^[^#]/{s/^# \{0,1\}//p}' "$0"; }

# Runs a command while no other script holds the lock of that name. The command's programs do not
# inherit the lock: a Wine server outlives them.
with_lock()
{
    local name=$1
    shift
    mkdir -p "$root/build"
    exec 9>"$root/build/$name.lock"
    if ! flock -n 9; then
        say "waiting for another script, which holds build/$name.lock"
        flock 9
    fi
    "$@" 9>&-
    exec 9>&-
}

# build_preset PRESET [TARGET...]: configures and builds it, everything unless targets are given.
build_preset() { with_lock "$1-build" build_unlocked "$@"; }

build_unlocked()
(
    preset=$1 targets=()
    shift
    [ $# -eq 0 ] || targets=(--target "$@")
    cd "$root"
    say "configuring build/$preset"
    cmake --preset "$preset" || die "configuring preset $preset failed, see above"
    say "building build/$preset"
    cmake --build --preset "$preset" --parallel "$(nproc)" "${targets[@]}" ||
        die "building preset $preset failed, see above"
)

# Makes Wine use this prefix: no windows, no offers to install anything, and no debugger, which may
# end a crashed program with exit status 0.
use_prefix()
{
    export WINEPREFIX=$1 WINEARCH=win64 WINEDEBUG=${WINEDEBUG:--all} DISPLAY=
    export WINEDLLOVERRIDES=mscoree,mshtml,winedbg.exe=
}

# start_wine PREFIX: makes Wine use a copy of build/wine in which this script's programs are alone,
# and keeps its server up until stop_wine, or the script's end.
start_wine()
{
    use_prefix "$1"
    if [ ! -e "$WINEPREFIX/.ready" ]; then
        rm -rf "$WINEPREFIX"
        cp -a "$root/build/wine" "$WINEPREFIX"
    fi
    trap stop_wine EXIT
    trap 'exit 130' INT
    trap 'exit 143' TERM HUP
    "$wineserver" -k 2>/dev/null || true # left by a run that was killed
    "$wineserver" -w
    "$wineserver" -p </dev/null >/dev/null 2>&1
    # The services that Wine starts with its first program must not hold this script's output open.
    "$wine" cmd /c exit </dev/null >/dev/null 2>&1 || die "Wine does not run: see build/wine.log"
}

# A program that the script runs in the background has its id in program_pid.
stop_wine()
{
    trap - EXIT
    [ -z "${program_pid-}" ] || kill "$program_pid" 2>/dev/null || true
    "$wineserver" -k 2>/dev/null || true
}
