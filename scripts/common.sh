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
