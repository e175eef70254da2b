#!/bin/sh
# host/run-demo.sh [--port N] [--bind ADDRESS] [--in-place] [-- SERVER-OPTION...]
#
# Builds vtr-cmdserver if needed and serves the demo drive tree (demo/) with
# it in the sandbox (tests/sandbox.sh): a private mount namespace that looks
# like the player (tmpfs on /opt/vtrhttpd and /tmp), where the rest of the
# machine is read-only and the home folders are hidden, so a client reaches
# nothing but the drives. The drives are a copy of demo/drives, so copies,
# moves and deletes made from the console are gone when the server stops;
# --in-place binds demo/drives itself (writable) instead.
# Open the printed address in a browser; Ctrl-C stops the server.
#
# Environment: BUILD_DIR (default <repository>/build/pc, the test command's PC
# build). As root on Debian, missing build packages are installed with apt.
set -eu

repo=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$repo/build/pc}
port=8080
bind=127.0.0.1
in_place=0
while [ $# -gt 0 ]; do
    case $1 in
        --port) port=$2; shift 2 ;;
        --bind) bind=$2; shift 2 ;;
        --in-place) in_place=1; shift ;;
        --) shift; break ;;
        -h|--help) sed -n '2,14p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
        *) echo "run-demo.sh: unknown option $1 (see --help)" >&2; exit 2 ;;
    esac
done

# On a fresh Debian machine (as root) install what building needs.
if [ "$(id -u)" = 0 ] && command -v apt-get > /dev/null; then
    missing=""
    for p in cmake make g++ pkg-config libmicrohttpd-dev googletest libgtest-dev util-linux; do
        dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing="$missing $p"
    done
    if [ -n "$missing" ]; then
        echo "run-demo.sh: installing$missing" >&2
        apt-get update -qq >&2
        DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends $missing >&2
    fi
fi
if [ ! -x "$build/vtr-cmdserver" ] || [ ! -e "$build/libvantor_command_server_command_file_operation.so" ] \
   || [ ! -x "$build/netfs_client" ]; then
    echo "run-demo.sh: building in $build" >&2
    [ -f "$build/CMakeCache.txt" ] || cmake -S "$repo" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >&2
    make -C "$build" -j2 vtr-cmdserver netfs_client fileop_plugin >&2
fi
if [ ! -x "$build/vtr-cmdserver" ]; then
    echo "run-demo.sh: vtr-cmdserver was not built (is libmicrohttpd-dev installed?)" >&2
    exit 1
fi

case $bind in
    *:*) shown="[$bind]" ;;
    *) shown=$bind ;;
esac
[ "$bind" = 0.0.0.0 ] && shown=$(hostname -I 2>/dev/null | cut -d' ' -f1) && [ -n "$shown" ] || true
echo "vtr-cmdserver on the demo drives: open http://${shown:-$bind}:$port/ in a browser (Ctrl-C stops)" >&2

# Everything below runs inside the namespace, the build tree reachable there.
build=$(cd "$build" && pwd -P)
export VTR_SANDBOX_WRITABLE="$build"
exec "$repo/tests/sandbox.sh" /bin/sh -euc '
    repo=$1 build=$2 port=$3 bind=$4 in_place=$5
    shift 5
    drives=/opt/vtrhttpd/localhost.drives
    if [ "$in_place" = 1 ]; then
        mount -n --bind "$repo/demo/drives" "$drives"
        mount -n -o remount,bind,rw "$drives"
    else
        cp -a "$repo/demo/drives/." "$drives/"
    fi
    cp "$repo/demo/vtr.conf" /opt/vtrhttpd/default/vtr.conf
    cp "$repo/demo/usb_name.txt" /tmp/usb_name.txt
    cp "$build/netfs_client" /opt/vtrhttpd/default/netfs_client
    exec "$build/vtr-cmdserver" --port "$port" --bind "$bind" --config /opt/vtrhttpd/default/vtr.conf "$@"
' run-demo "$repo" "$build" "$port" "$bind" "$in_place" "$@"
