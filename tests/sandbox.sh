#!/bin/sh
# tests/sandbox.sh CMD [ARG...]
#
# Runs CMD as root in a private mount namespace that looks like the player:
# tmpfs on /opt/vtrhttpd (with localhost.drives/ and default/) and on /tmp,
# and a private /dev (tmpfs with the machine's usual device nodes bound
# back), so tests may create /dev/cdrom, fill the drives folder and write
# /tmp state files without touching the machine. Nothing leaks out: every
# mount disappears with the last process of the namespace.
#
# The build tree must not live under /tmp: the sandbox's /tmp hides it.
# VTR_SANDBOX=1 marks the inside; when it is already set, CMD runs as is.
set -eu

if [ "${VTR_SANDBOX:-}" = 1 ]; then
    exec "$@"
fi
if [ $# -eq 0 ]; then
    echo "usage: $0 CMD [ARG...]" >&2
    exit 2
fi

if [ "${1:-}" != "--vtr-sandbox-inside" ]; then
    user_ns=
    [ "$(id -u)" = 0 ] || user_ns=--map-root-user
    exec unshare --mount --propagation private $user_ns -- /bin/sh "$0" --vtr-sandbox-inside "$@"
fi
shift

top=/opt/vtrhttpd
[ -d "$top" ] || mkdir -p "$top" 2>/dev/null || top=/opt
mount -t tmpfs -o mode=0755 vtr-opt "$top"
mkdir -p /opt/vtrhttpd/localhost.drives /opt/vtrhttpd/default

# A private /dev: keep the machine's nodes reachable through a bind of the
# old /dev, put a tmpfs over /dev and bind the usual nodes back one by one.
old=/opt/vtrhttpd/.machine-dev
mkdir -p "$old"
mount --rbind /dev "$old"
mount -t tmpfs -o mode=0755 vtr-dev /dev
for node in null zero full random urandom tty ptmx; do
    if [ -e "$old/$node" ]; then
        touch "/dev/$node"
        mount --bind "$old/$node" "/dev/$node"
    fi
done
for dir in pts shm mqueue hugepages; do
    if [ -d "$old/$dir" ]; then
        mkdir -p "/dev/$dir"
        mount --rbind "$old/$dir" "/dev/$dir"
    fi
done
chmod 1777 /dev/shm 2>/dev/null || true
ln -s /proc/self/fd /dev/fd
ln -s /proc/self/fd/0 /dev/stdin
ln -s /proc/self/fd/1 /dev/stdout
ln -s /proc/self/fd/2 /dev/stderr
[ -e /proc/kcore ] && ln -s /proc/kcore /dev/core
umount -l "$old" 2>/dev/null || true
rmdir "$old" 2>/dev/null || true

mount -t tmpfs -o mode=1777 vtr-tmp /tmp

export VTR_SANDBOX=1
exec "$@"
