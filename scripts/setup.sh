#!/usr/bin/env bash
# Usage: scripts/setup.sh
#
# Installs the Debian packages that building, testing and checking need, where they are missing,
# and creates the Wine prefix build/wine. The scripts that need these run it first.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"
take_no_arguments "$@"

# Each package, and the program or file that shows that it is there.
requirements=(
    g++-mingw-w64-x86-64-posix=x86_64-w64-mingw32-g++-posix
    wine64=$wine
    wine=/usr/bin/wine
    libboost-dev=/usr/include/boost/optional.hpp
    googletest=/usr/src/googletest/googletest/src/gtest-all.cc
    cmake=cmake
    ninja-build=ninja
    zip=zip
    doxygen=doxygen
    meson=meson
    pkgconf=pkgconf
    graphviz=dot
    clang=clang++
    lld=ld.lld
    llvm=llvm-dlltool
    clang-format=clang-format
    clang-tidy=clang-tidy
    cppcheck=cppcheck
)
# From Debian 13 on; testing tells no number.
debian=$(. /etc/os-release && echo "${VERSION_ID:-13}")
[ "${debian%%.*}" -lt 13 ] ||
    requirements+=(g++-mingw-w64-ucrt64=x86_64-w64-mingw32ucrt-g++)

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

install_missing()
{
    local missing
    mapfile -t missing < <(missing_packages)
    [ ${#missing[@]} -ne 0 ] || return 0
    say "installing ${missing[*]}"
    install_packages "${missing[@]}" || true
    mapfile -t missing < <(missing_packages)
    [ ${#missing[@]} -eq 0 ] ||
        die "packages are missing, as root run: apt-get install ${missing[*]}" \
            "(why it failed is in build/packages.log)"
}

# Under another name until it is whole.
create_prefix()
{
    local prefix=$root/build/wine log=$root/build/wine.log
    [ ! -e "$prefix/.ready" ] || return 0
    say "creating the Wine prefix build/wine"
    rm -rf "$prefix" "$prefix.new"
    use_prefix "$prefix.new"
    timeout -k 5 300 "$wine" wineboot -i </dev/null >"$log" 2>&1 ||
        die "Wine could not create its prefix: see $log"
    end_server # once it has saved the registry
    touch "$prefix.new/.ready"
    mv "$prefix.new" "$prefix"
}

set_up()
{
    install_missing
    create_prefix
}

with_lock setup set_up
