# Sourced after common.sh: Debian roots of their own, kept in
# ${XDG_CACHE_HOME:-/var/cache}/orvex-targets.
# shellcheck shell=bash

suite_of_release=bookworm
roots=${XDG_CACHE_HOME:-/var/cache}/orvex-targets

# The mirror that this system's own packages come from.
mirror() {
    # shellcheck disable=SC2016 # apt's own placeholders
    apt-get indextargets --format '$(SITE) $(CODENAME) $(LABEL)' 'Identifier: Packages' |
        awk -v suite="$suite_of_release" '$2 == suite && $3 == "Debian" { print $1; exit }'
}

# make_root NAME ARCHITECTURE PACKAGES [WRAPPER...]: makes $roots/NAME with a minimal Debian and the
# packages, a list with commas, unless it is there already with exactly these. The wrapper runs what
# makes it. Whoever else makes it at the same time waits.
make_root() {
    local name=$1 architecture=$2 packages=$3 stamp site
    shift 3
    local directory=$roots/$name
    mkdir -p "$roots"
    stamp="$suite_of_release $architecture $packages"
    (
        flock 9
        [ "$(cat "$directory/.orvex-stamp" 2>/dev/null)" != "$stamp" ] || exit 0
        site=$(mirror)
        [ -n "$site" ] || {
            echo "No root $name: apt knows no mirror of Debian $suite_of_release"
            exit 1
        }
        say "Making a root in $directory"
        rm -rf --one-file-system "$directory" "$directory.new"
        "$@" debootstrap --arch="$architecture" --variant=minbase ${packages:+--include="$packages"} \
            "$suite_of_release" "$directory.new" "$site" >"$roots/$name.log" 2>&1 || {
            tail -n 30 "$roots/$name.log"
            echo "No root $name: debootstrap failed, see $roots/$name.log"
            exit 1
        }
        rm -rf "$directory.new/var/cache/apt/archives"
        printf '%s\n' "$stamp" >"$directory.new/.orvex-stamp"
        mv "$directory.new" "$directory"
    ) 9>"$roots/$name.lock"
}

# fill_root NAME PACKAGE...: fetches packages and what they depend on into a root of make_root, so
# that apt installs them there without a network. Nothing is installed.
fill_root() {
    local directory=$roots/$1 stamp
    shift
    stamp=$(printf '%s\n' "$@" | sort)
    (
        flock 9
        [ "$(cat "$directory/.orvex-filled" 2>/dev/null)" != "$stamp" ] || exit 0
        say "Fetching packages into $directory"
        {
            chroot "$directory" apt-get update -qq &&
                chroot "$directory" apt-get install -y -qq --download-only "$@"
        } >"$directory.log" 2>&1 || {
            tail -n 30 "$directory.log"
            echo "Packages for $directory could not be fetched, see $directory.log"
            exit 1
        }
        printf '%s\n' "$stamp" >"$directory/.orvex-filled"
    ) 9>"$directory.lock"
}
