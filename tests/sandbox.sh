#!/bin/sh
# tests/sandbox.sh CMD [ARG...]
#
# Runs CMD as root in a private mount namespace that looks like the player
# and keeps the machine out of reach:
# - every mount of the machine is read-only (but /proc and the private /dev);
# - tmpfs on /opt/vtrhttpd (with localhost.drives/, default/ and work/, the
#   hosts' private working directory, exported as VTR_HOST_WORKDIR) and on
#   /tmp, and a private /dev (tmpfs with the machine's usual device nodes
#   bound back), so tests may create /dev/cdrom, fill the drives folder and
#   write /tmp state files;
# - the home folders (/root, /home, /run/user) are empty tmpfs;
# - the checkout stays reachable at its path (bound back when /tmp or a home
#   folder covers it), read-only but for its build/ folder and the folders
#   listed (colon separated) in VTR_SANDBOX_WRITABLE, where the tests write.
# Nothing leaks out: every mount disappears with the last process of the
# namespace. VTR_SANDBOX=1 marks the inside; when it is already set, CMD
# runs as is.
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

# The machine's /run goes read-only: no mount may try to record itself there.
mount() { command mount -n "$@"; }
here=$(pwd -P)
repo=$(cd "$(dirname "$0")/.." && pwd -P)
is_hidden() {  # below /tmp or a home folder
    case $1 in /tmp | /tmp/* | /root | /root/* | /home | /home/* | /run/user | /run/user/*) return 0 ;; esac
    return 1
}

top=/opt/vtrhttpd
[ -d "$top" ] || mkdir -p "$top" 2>/dev/null || top=/opt

# The machine read-only: every mount point in mountinfo (blanks, tabs and
# backslashes come escaped as \ooo) but /proc and what lies below /dev.
sed -e 's/^\([^ ]* \)\{4\}\([^ ]*\) .*/\2/' -e 's/\\040/ /g' -e 's/\\011/\t/g' -e 's/\\134/\\/g' \
    /proc/self/mountinfo | while IFS= read -r point; do
    case $point in /proc | /proc/* | /dev/*) continue ;; esac
    [ -e "$point" ] || continue
    mount -o remount,bind,ro -- "$point" 2>/dev/null || [ ! -e "$point" ] || {
        echo "$0: cannot make $point read-only" >&2
        exit 1
    }
done

mount -t tmpfs -o mode=0755 vtr-opt "$top"
mkdir -p /opt/vtrhttpd/localhost.drives /opt/vtrhttpd/default /opt/vtrhttpd/work

# The checkout and the writable folders lying below a folder about to be
# covered wait in /opt/vtrhttpd/.keep and move back once it is covered.
keep="$repo"
writable="$repo/build${VTR_SANDBOX_WRITABLE:+:$VTR_SANDBOX_WRITABLE}"
stash() {  # n, path
    if [ -d "$2" ] && is_hidden "$2"; then
        mkdir -p "$top/.keep/$1"
        mount --rbind -- "$2" "$top/.keep/$1"
    fi
}
n=0
stash 0 "$keep"
IFS=:
for w in $writable; do n=$((n + 1)); stash "$n" "$w"; done
unset IFS

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
for h in /root /home /run/user; do
    [ ! -d "$h" ] || mount -t tmpfs -o mode=0755 vtr-home "$h"
done

# Back at their paths (every folder made on the way open to all, so other
# users reach the checkout too); the writable ones get a writable mount.
unstash() {  # n, path
    if [ -d "$top/.keep/$1" ]; then
        (umask 022 && mkdir -p -- "$2")
        mount --move -- "$top/.keep/$1" "$2"
        rmdir -- "$top/.keep/$1"
    fi
}
n=0
unstash 0 "$keep"
IFS=:
for w in $writable; do
    n=$((n + 1))
    unstash "$n" "$w"
    if [ -d "$w" ]; then
        mount --bind -- "$w" "$w"
        mount -o remount,bind,rw -- "$w"
    fi
done
unset IFS
rm -rf "$top/.keep"
cd "$here" 2>/dev/null || cd /

export VTR_SANDBOX=1 VTR_HOST_WORKDIR=/opt/vtrhttpd/work
exec "$@"
