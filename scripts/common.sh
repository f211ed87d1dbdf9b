# What the scripts share: messages, signals, locks, the build of a preset, Wine. Sourced, never run.
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd -P)
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

# For a script that takes nothing but --help.
take_no_arguments()
{
    [ $# -gt 0 ] || return 0
    case $1 in
    -h | --help) usage && exit ;;
    *) die "unknown argument: $1 (see --help)" ;;
    esac
}

# Other characters are not for the library (see the manual's page of limits), for the system, or for
# the tools that build.
is_plain_path() { [[ $1 =~ ^[A-Za-z0-9\ /._@~=+-]*$ ]]; }
plain_path="a path of ASCII letters, digits, blanks and ._@~=+- is needed"

# --- signals ------------------------------------------------------------------------------------

# A shell takes a signal only when the command that it runs has ended, and leaves behind what that
# has started. So a script runs as the child of a shell that does nothing but wait. All that it
# starts carries that shell's mark in its environment, Wine's programs too, which leave their
# parents and sessions; what carries it in the end is ended.
run_supervised()
{
    local status=0 ended=
    trap 'exit 129' HUP
    trap 'exit 130' INT
    trap 'exit 143' TERM
    trap end_run EXIT
    thr_run=${thr_run-}$$: "$BASH" "$0" "$@" <&0 &
    wait $! || status=$?
    ended=yes
    exit $status
}

# The ids of this shell's processes. The search itself has no mark.
marked_processes()
{
    thr_run='' grep -lsazE "^thr_run=(.*:)?$$:" /proc/[0-9]*/environ | cut -d / -f 3
}

end_run()
{
    local processes tries
    trap '' HUP INT TERM
    [ "$ended" ] || kill "$!" 2>/dev/null || true # it may not have its mark yet
    for ((tries = 0; tries < 200; tries++)); do
        mapfile -t processes < <(marked_processes)
        [ ${#processes[@]} -gt 0 ] || break
        if [ $tries -ge 100 ]; then
            kill -KILL "${processes[@]}" 2>/dev/null || true
        elif [ $((tries % 10)) -eq 0 ]; then
            kill "${processes[@]}" 2>/dev/null || true
        fi
        sleep 0.1
    done
    end_shared_wine
}

# --- locks and builds ---------------------------------------------------------------------------

# Runs a command while no other script holds the lock of that name. The command's programs do not
# inherit the lock.
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

# On a terminal the build shows one line that changes; in a log it says when it is done. Warnings
# are errors where the project checks itself, and sets thr_checking.
build_unlocked()
(
    preset=$1 targets=() log=$root/build/$1.log quiet=()
    shift
    [ $# -eq 0 ] || targets=(--target "$@")
    [ -t 1 ] || quiet=(-- --quiet)
    cd "$root"
    say "building build/$preset"
    SECONDS=0
    cmake --preset "$preset" "-DCMAKE_COMPILE_WARNING_AS_ERROR=${thr_checking:-OFF}" >"$log" 2>&1 ||
        { cat "$log" >&2 && die "configuring preset $preset failed, see above"; }
    cmake --build --preset "$preset" --parallel "$(nproc)" "${targets[@]}" "${quiet[@]}" ||
        die "building preset $preset failed, see above"
    [ -t 1 ] || say "built in $SECONDS s"
)

# --- packages -----------------------------------------------------------------------------------

# Without this run's mark: half an installation would be worse than one that goes on.
apt()
{
    local as_root=()
    [ "$(id -u)" -eq 0 ] || as_root=(sudo -n)
    thr_run='' "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
        apt-get -q -o Acquire::Retries=2 -o DPkg::Lock::Timeout=300 "$@" </dev/null
}

# The package lists of a new machine are absent, those of an old one out of date.
install_packages()
{
    {
        apt install -y --no-install-recommends "$@" ||
            { apt update && apt install -y --no-install-recommends "$@"; }
    } >"$root/build/packages.log" 2>&1
}

# --- Wine ---------------------------------------------------------------------------------------

# Makes Wine use this prefix: no windows, no offers to install anything, and no debugger, which may
# end a crashed program with exit status 0.
use_prefix()
{
    export WINEPREFIX=$1 WINEARCH=win64 WINEDEBUG=${WINEDEBUG:--all} DISPLAY=
    export WINEDLLOVERRIDES=mscoree,mshtml,winedbg.exe=
}

# Keeps the prefix's server up until it is ended. The services that Wine starts with its first
# program must not hold this script's output open, nor any of its locks. There may be a server.
start_server()
{
    "$BASH" -c '"$1" -p 6>&-; "$2" cmd /c exit 6>&- || exit 1' - "$wineserver" "$wine" \
        </dev/null >/dev/null 2>&1 7>&- || die "Wine does not run: see build/wine.log"
}

end_server()
{
    "$wineserver" -k 2>/dev/null || true # there may be none
    "$wineserver" -w
}

# start_wine PREFIX: makes Wine use a copy of build/wine in which this script's programs are alone.
# Only what is written in place is copied, the rest is linked. The server ends with this script.
start_wine()
{
    use_prefix "$1"
    if [ ! -e "$WINEPREFIX/.ready" ]; then
        rm -rf "$WINEPREFIX" "$WINEPREFIX.new"
        cp -al "$root/build/wine" "$WINEPREFIX.new"
        find "$root/build/wine" -maxdepth 1 -type f -exec \
            cp -a --remove-destination -t "$WINEPREFIX.new" {} +
        mv "$WINEPREFIX.new" "$WINEPREFIX"
    fi
    end_server # left by a run that was killed
    start_server
}

stop_wine() { end_server; }

# share_wine: makes Wine use build/wine beside other scripts, all of which hold wine.lock. The
# server has no mark: the script that ends last ends it. A start goes on when its script is ended,
# and holds wine-start.lock.
share_wine()
{
    use_prefix "$root/build/wine"
    exec 6>"$root/build/wine-start.lock" 7>"$root/build/wine.lock"
    flock 6
    ! flock -n 7 || end_server # left by a run that was killed
    flock -s 7
    thr_run='' start_server
    exec 6>&-
}

end_shared_wine()
{
    [ -e "$root/build/wine.lock" ] || return 0
    exec 6>"$root/build/wine-start.lock" 7>"$root/build/wine.lock"
    flock -w 60 6 || true
    ! flock -n 7 || WINEPREFIX=$root/build/wine end_server
    exec 6>&- 7>&-
}

# run_shared PROGRAM [ARGUMENT...]: after share_wine. Both outputs go through pipes: on a terminal
# Wine would start its own console and repaint it.
run_shared()
{
    { "$wine" "$@" 2>&1 >&3 3>&- | cat >&2 3>&-; } 3>&1 7>&- | cat
}

# --- the run ------------------------------------------------------------------------------------

if [[ :${thr_run-} != *:$PPID: ]]; then
    is_plain_path "$root" ||
        die "$plain_path: move the folder \"$root\""
    # A background job of a script has this signal ignored, and could not take it up.
    [[ $(trap -p INT) != *"''"* ]] || exec env --default-signal=INT "$BASH" "$0" "$@"
    run_supervised "$@"
fi
