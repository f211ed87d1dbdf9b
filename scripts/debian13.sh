#!/usr/bin/env bash
# Usage: scripts/debian13.sh [COMMAND...]
#
# Runs COMMAND in a Debian 13 tree, in a copy of this project; without one, scripts/test.sh for both
# C runtimes, msvcrt and UCRT, and the looks at what is shipped for UCRT. The tree is build/debian13:
# the first call makes it, from the package mirror of this machine. Needs root. The copy,
# "/a user/thr" in the tree, keeps its build folder between calls.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

tree=$root/build/debian13
copy="/a user/thr" # a blank, and a name that no file of the package holds by chance

case ${1-} in
-h | --help) usage && exit ;;
esac
[ $# -ne 0 ] || set -- sh -c 'scripts/test.sh && scripts/test.sh --preset windows-ucrt &&
    scripts/shipped.sh windows-ucrt'
[ "$(id -u)" -eq 0 ] || die "only root can enter another Debian: run it as root"

# The machine's own way to its packages, whatever that is: its first mirror and its settings.
make_tree()
{
    [ ! -e "$tree/.ready" ] || return 0
    local mirror
    command -v debootstrap >/dev/null || install_packages debootstrap ||
        die "as root run: apt-get install debootstrap (why it failed is in build/packages.log)"
    mirror=$(apt-get indextargets --format '$(REPO_URI)' 'Created-By: Packages' 'Origin: Debian' |
        head -n 1)
    [ -n "$mirror" ] || die "no package mirror is set up: as root run apt-get update"
    say "making a Debian 13 tree in build/debian13"
    rm -rf "$tree"
    mkdir -p "$tree"
    # It mounts in the tree, which must end with it, and takes no path with a blank.
    unshare --mount sh -euc 'mount --make-rprivate / && mount --bind "$1" /mnt &&
        exec debootstrap --variant=minbase trixie /mnt "$2"' sh "$tree" "$mirror" \
        >"$root/build/debian13.log" 2>&1 ||
        die "the tree could not be made: see build/debian13.log"
    apt-config dump Acquire >"$tree/etc/apt/apt.conf.d/90host"
    touch "$tree/.ready"
}

# What is no longer in the project goes, what was built stays.
copy_project()
{
    mkdir -p "$tree$copy/build"
    find "$tree$copy" -mindepth 1 -maxdepth 1 ! -name build -exec rm -rf {} +
    tar -C "$root" --exclude=./build --exclude=./.git -cf - . | tar -C "$tree$copy" -xf -
    cp /etc/resolv.conf "$tree/etc/resolv.conf"
}

prepare()
{
    make_tree
    copy_project
}

with_lock debian13 prepare
say "in Debian 13: $*"
# Mounts and processes of its own: all are gone when it ends, however it ends.
exec unshare --mount --pid --fork --kill-child sh -euc '
    unset thr_run
    tree=$1 copy=$2
    shift 2
    mount --make-rprivate /
    mount --rbind /dev "$tree/dev"
    mount -t proc proc "$tree/proc"
    exec chroot "$tree" sh -c "cd \"\$0\" && exec \"\$@\"" "$copy" "$@"' sh "$tree" "$copy" "$@"
