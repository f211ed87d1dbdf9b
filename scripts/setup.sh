#!/usr/bin/env bash
# Usage: scripts/setup.sh
#
# Installs the Debian packages that building, testing and checking need, where they are missing,
# and creates the Wine prefix build/wine. The other scripts run it first.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

# Each package, and the program or file that shows that it is there.
requirements=(
    g++-mingw-w64-x86-64-posix=x86_64-w64-mingw32-g++-posix
    wine64=$wine
    wine=/usr/bin/wine
    libboost-dev=/usr/include/boost/optional.hpp
    googletest=/usr/src/googletest/googletest/src/gtest-all.cc
    cmake=cmake
    ninja-build=ninja
    doxygen=doxygen
    clang=clang++
    lld=ld.lld
    llvm=llvm-dlltool
    clang-format=clang-format
    clang-tidy=clang-tidy
    cppcheck=cppcheck
)

missing_packages()
{
    local requirement probe
    for requirement in "${requirements[@]}"; do
        probe=${requirement#*=}
        case $probe in
        /*) [ -e "$probe" ] ;;
        *) command -v "$probe" >/dev/null ;;
        esac || echo "${requirement%%=*}"
    done
}

apt()
{
    local as_root=()
    [ "$(id -u)" -eq 0 ] || as_root=(sudo -n)
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
        apt-get -q -o Acquire::Retries=2 -o DPkg::Lock::Timeout=300 "$@" </dev/null
}

install_missing()
{
    local missing
    mapfile -t missing < <(missing_packages)
    [ ${#missing[@]} -ne 0 ] || return 0
    say "installing ${missing[*]}"
    # The package lists of a new machine are absent, those of an old one out of date.
    apt install -y --no-install-recommends "${missing[@]}" ||
        { say "updating the package lists" && apt update &&
            apt install -y --no-install-recommends "${missing[@]}"; } || true
    mapfile -t missing < <(missing_packages)
    [ ${#missing[@]} -eq 0 ] ||
        die "packages are missing, as root run: apt-get install ${missing[*]}"
}

create_prefix()
{
    use_prefix "$root/build/wine"
    [ ! -e "$WINEPREFIX/.ready" ] || return 0
    say "creating the Wine prefix build/wine"
    rm -rf "$WINEPREFIX"
    local log=$root/build/wine.log
    timeout -k 5 300 "$wine" wineboot -i </dev/null >"$log" 2>&1 ||
        die "Wine could not create its prefix: see $log"
    "$wineserver" -k || true # ends the server once it has saved the registry
    "$wineserver" -w
    touch "$WINEPREFIX/.ready"
}

set_up()
{
    install_missing
    create_prefix
}

case ${1-} in
-h | --help) usage && exit ;;
'') ;;
*) die "unknown argument: $1 (see --help)" ;;
esac
with_lock setup set_up
