#!/bin/sh
# What is installed below any prefix finds its libraries there by itself.
# Usage: install_test.sh CMAKE BUILD_DIRECTORY SBINDIR BINDIR LIBDIR
set -eu
cmake=$1 build=$2 sbin=$3 bin=$4 lib=$5
unset LD_LIBRARY_PATH LD_PRELOAD

stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT
DESTDIR=$stage "$cmake" --install "$build" --prefix /opt/ruma >"$stage/log" 2>&1 || {
    cat "$stage/log"
    exit 1
}
prefix=$stage/opt/ruma

fail() {
    echo "$1"
    exit 1
}

"$prefix/$sbin/fs_daemon" --version
"$prefix/$bin/ruma-trace" --help >/dev/null
"$prefix/$bin/ruma-doctor" --version
own=$(readlink -f "$prefix/$lib/libruma_host.so")
for file in "$sbin/fs_daemon" "$bin/ruma-trace" "$bin/ruma-doctor" "$lib/ruma_agent.so" \
    "$lib/orvex_flash_mib.so"; do
    libraries=$(ldd "$prefix/$file")
    case $libraries in
    *"not found"*) fail "$file lacks libraries: $libraries" ;;
    esac
    found=$(echo "$libraries" | sed -n 's/.*libruma_host.so => \([^ ]*\) .*/\1/p')
    [ "$(readlink -f "$found")" = "$own" ] || fail "$file takes libruma_host.so from '$found'"
done
