# Sourced by scripts/demo: what it needs, how it shows things, and how all of it ends.
# shellcheck shell=bash disable=SC2154 # common.sh has root and python
columns=100
temporary=${TMPDIR:-/tmp}
step=                # what is going on
step_began=          # in microseconds
step_bytes=0         # moved in it
shown=()             # lines of the closing table
work=                # directory of this run; everything lies in it
pids=()              # of the programs that run beside it
servers=             # process id of the FTP and SSH servers
servers_stop=        # they end when this descriptor closes
bold='' plain=''
[ ! -t 1 ] || bold=$'\033[1m' plain=$'\033[0m'

# --- What it needs

# Every sentence that it prints is something that the demonstration cannot do without.
lacking() {
    check_rights
    # Unix sockets lie below it.
    [ ${#temporary} -le 60 ] || echo "The name $temporary is too long: let TMPDIR name another."
    check_passage "$temporary"
    check_space "$temporary" 200
    check_space "$root" 600
    check_ports
}

# The servers run with an account of their own.
check_passage() { # DIRECTORY
    [ "$(id -u)" -ne 0 ] || setpriv --reuid=65534 --regid=65534 --clear-groups test -x "$1" ||
        echo "Other users cannot pass through $1: let TMPDIR name another directory."
}

check_rights() {
    if [ "$(id -u)" -ne 0 ]; then
        echo "Run it as root: it mounts, binds ports below 1024 and installs missing packages."
    elif ! unshare --mount true 2>/dev/null; then
        echo "The capability CAP_SYS_ADMIN is missing: the agent cannot have mounts of its own."
    fi
}

check_space() { # DIRECTORY MEGABYTES
    local free
    free=$(df --output=avail -BM "$1" | tail -n 1 | tr -dc 0-9)
    [ "$free" -ge "$2" ] || echo "$1 has $free MB free, and $2 MB are needed there."
}

# The programs listen on the standard ports of addresses of their own, which a server that listens on
# every address leaves to nobody.
check_ports() {
    "$python" - <<'PYTHON'
import errno, socket
for name, kind, port in (("UDP", socket.SOCK_DGRAM, 69), ("TCP", socket.SOCK_STREAM, 21),
                         ("TCP", socket.SOCK_STREAM, 22)):
    with socket.socket(socket.AF_INET, kind) as probe:
        try:
            probe.bind(("127.77.77.77", port))
        except OSError as error:
            if error.errno == errno.EADDRINUSE:
                print(f"A server has the {name} port {port} of every address: end it meanwhile, or "
                      "have it\nlisten on its own addresses only.")
PYTHON
}

# A loopback address with these ports free, drawn anew in each run.
draw_address() {
    "$python" -c 'import random, socket
while True:
    address = "127." + ".".join(str(random.randint(1, 254)) for _ in range(3))
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
        try:
            probe.bind((address, 69))
        except OSError:
            continue
        print(address)
        break'
}

# --- What it shows

# Lines of at most that many columns.
fit() { fold -s -w "$columns"; }

microseconds() { echo "${EPOCHREALTIME/./}"; }

begin() { # WHAT
    end_step
    step=$1 step_began=$(microseconds) step_bytes=0
    printf '\n%s== %s%s\n' "$bold" "$step" "$plain"
}

end_step() {
    local took
    [ -n "$step_began" ] || return 0
    took=$(($(microseconds) - step_began))
    shown+=("$(printf '%-60s %12s %8d.%01d' "$step" "$step_bytes" $((took / 1000000)) \
        $((took / 100000 % 10)))")
}

closing_table() {
    printf '\n%s%-60s %12s %10s%s\n' "$bold" "What was shown" "bytes" "seconds" "$plain"
    printf '%s\n' "${shown[@]}"
}

fail() {
    printf 'NOT TRUE: %s\n' "$*" | fit
    exit 1
}

# --- How it ends

# in_own_session SCRIPT ARGUMENT...: runs the script again where the terminal's interrupt does not
# reach, and passes that on to the script alone: a tool or a server that it meets would fail first.
in_own_session() {
    local story status=0
    [ -z "${ORVEX_DEMO_SESSION:-}" ] || return 0
    ORVEX_DEMO_SESSION=1 setsid "$@" &
    story=$!
    trap 'kill -TERM "$story" 2>/dev/null || :' INT TERM HUP
    while wait "$story" || kill -0 "$story" 2>/dev/null; do
        kill -0 "$story" 2>/dev/null || break
    done
    wait "$story" || status=$?
    exit "$status"
}

# await SECONDS COMMAND...: waits until the command succeeds.
await() {
    local deadline=$((SECONDS + $1))
    shift
    until "$@" >/dev/null 2>&1; do
        [ "$SECONDS" -lt "$deadline" ] || return 1
        read -r -t 0.1 <> <(:) || :
    done
}

# Workers of copies and their scripts outlive the agent, and compilers a build. They are known by
# their environment.
strays() {
    local each
    for each in /proc/[0-9]*; do
        ! grep -qzxF "RUMA_RUN_DIR=$work/run" "$each/environ" 2>/dev/null || echo "${each#/proc/}"
    done
}

end_strays() { # SIGNAL
    local pid left
    left=$(strays)
    for pid in $left; do
        kill "-$1" "$pid" 2>/dev/null || :
    done
    [ -z "$left" ]
}

# Ends everything that was started; the FTP and SSH servers end when their standard input does.
end_all() {
    local pid
    if [ -n "$servers_stop" ]; then
        exec {servers_stop}>&-
        servers_stop=
    fi
    for pid in "${pids[@]}"; do
        kill "$pid" 2>/dev/null || :
    done
    for pid in "${pids[@]}" $servers; do
        wait "$pid" 2>/dev/null || :
    done
    pids=() servers=
    [ -z "$work" ] || await 5 end_strays TERM || await 5 end_strays KILL || :
}

clean_up() {
    local status=$?
    trap '' TERM # it takes a moment, and is not left half done
    trap - EXIT
    if [ "$status" -ge 128 ]; then
        printf '\nInterrupted%s.\n' "${step:+ while this went on: $step}"
    elif [ "$status" -ne 0 ] && [ -n "$work" ]; then
        printf '\nFAILED in: %s. The logs:\n' "$step"
        (cd "$work" && tail -n 40 ./*.log) 2>/dev/null | fit
    fi
    end_all
    [ -z "$work" ] || rm -rf "$work"
    [ "$status" -lt 128 ] || echo "Everything that was started has been ended and removed."
    exit "$status"
}
