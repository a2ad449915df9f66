# What the three transfer scripts share: taking the arguments, running a client to its end, and
# receiving a file. Every argument is data. It reaches a client as one word of its argument list or
# quoted for its command language, and is never evaluated by Tcl or a shell.
#
# Exit codes: 0 done, 1 busy, 2 no such source, 3 no space or memory, 4 host key or login refused,
# 5 anything else. A script that a signal ends could count as one that succeeded; these exit with 5.

encoding system iso8859-1; # names and passwords are bytes
log_user 0
match_max -d 65536

# A supervised script tells its success apart from 0, with which the interpreter ends by itself.
set exitCodes {busy 1 noSource 2 noSpace 3 refused 4 failed 5 done 6}
set temporary ""; # file being received
set secret ""; # the password, never to be told
# What the agent is told beside the sentence: who said it, and the words.
set causeKinds {local 1 server 2 client 3 verdict 4}
set said {verdict ""}

# Ends the transfer: with an exit code's name and a sentence for the operator. The sentence never
# holds what an argument or a server said: either may hold the password. That is for the agent, in
# words of a kind of their own: "server", "client", or "local" for this system's, about a file.
proc give_up {cause sentence {kind verdict} {words ""}} {
    global said
    set said [list $kind $words]
    throw [list TRANSFER $cause] $sentence
}

# Tells the agent why the transfer failed, in the page that the worker's environment names (see
# transfer_report.h). The password goes before anything is cut, so that no part of it stays.
proc report_failure {sentence} {
    global said causeKinds secret reportPage
    lassign $said kind words
    if {$reportPage eq ""} {
        return
    }
    if {$secret ne "" && $kind ne "local"} {
        set words [string map -nocase [list $secret "(password)"] $words]
    }
    catch {
        set page [open $reportPage WRONLY]
        fconfigure $page -translation binary
        puts -nonewline $page [binary format a8nnnna120a256 RUMAXFR\x01 400 \
            [dict get $causeKinds $kind] 0 0 $sentence $words]
        close $page
    }
}

# What a script becomes at first: a shell that runs the script once more, under its supervision, and
# exits with its code. Tcl cannot take signals itself: one that comes while it begins to wait for
# events stops it for ever. So the supervised script ignores them, and watches its standard input,
# whose other end this shell holds: that ends with the shell, whatever ends it, or by a signal to it.
#   $0, $1   interpreter, script
#   input    the pipe that holds the script's arguments
set supervisor {
    exec 3>/proc/self/fd/0 4<&0
    trap "signalled=1; exec 3>&-" TERM INT HUP QUIT ALRM
    (
        trap "" TERM INT HUP QUIT ALRM
        exec "$0" -nN "$1" - 3>&-
    ) <&4 4<&- &
    script=$!
    exec 4<&-
    while
        signalled=
        wait "$script"
        code=$?
        [ "$signalled" ] && [ "$code" -gt 128 ]
    do :; done
    case $code in
    6) exit 0 ;;
    [1-4]) exit "$code" ;;
    *) exit 5 ;;
    esac
}

# Runs a script's main procedure on the script's arguments, and exits.
proc run_transfer {main} {
    global argv argv0 env exitCodes reportPage
    set reportPage ""
    if {[info exists env(RUMA_TRANSFER_REPORT)]} {
        set reportPage $env(RUMA_TRANSFER_REPORT)
    }
    if {$argv ne "-"} {
        # Nothing waits for events here.
        trap {exit 5} {SIGTERM SIGINT SIGHUP SIGQUIT}
        supervise
    }
    trap SIG_IGN {SIGTERM SIGINT SIGHUP SIGQUIT}
    set cause done
    try {
        $main {*}[arguments]
    } trap TRANSFER {sentence options} {
        set cause [lindex [dict get $options -errorcode] 1]
    } on error {- options} {
        # The message itself may hold an argument.
        set cause failed
        set sentence "internal error, [lindex [dict get $options -errorcode] 0]\
                      at line [dict get $options -errorline]"
    }
    clean_up
    if {$cause ne "done"} {
        report_failure $sentence
        catch {puts stderr "[file tail $argv0]: $sentence"}
    }
    exit [dict get $exitCodes $cause]
}

# Becomes the script's supervisor. The arguments, as bytes, are moved from the argument list, which
# every user can see, to the script's standard input, with their length before them.
proc supervise {} {
    global argv0 argc supervisor
    set file [open /proc/self/cmdline rb]
    set words [lrange [split [read $file] \0] end-$argc end]
    close $file
    set text [join $words \0]
    if {[string length $text] > 32768} {
        report_failure "arguments too long"; # than a pipe holds
        puts stderr "[file tail $argv0]: arguments too long"
        exit 5
    }
    lassign [chan pipe] input output
    fconfigure $output -translation binary
    puts -nonewline $output "[string length $text]\n$text"
    close $output
    overlay -0 [string map {file {}} $input] /bin/sh -c $supervisor [info nameofexecutable] $argv0
}

proc arguments {} {
    fconfigure stdin -translation binary
    return [lrange [split [read stdin [gets stdin]] \0] 0 end-1]
}

proc clean_up {} {
    global temporary
    stop_client
    if {$temporary ne ""} {
        file delete -- $temporary
    }
}

# --- Arguments ------------------------------------------------------------------------------------

# Refuses what no client's command language or terminal can carry, and what is out of shape.
proc check_arguments {server limit args} {
    if {![regexp {^[0-9A-Za-z]([0-9A-Za-z.-]*[0-9A-Za-z])?$} $server]} {
        give_up failed "bad server"
    }
    if {![regexp {^[1-9][0-9]{0,6}$} $limit]} {
        give_up failed "bad time limit"
    }
    foreach name $args {
        if {$name eq "" || [regexp {[\x00-\x1f\x7f]} $name]} {
            give_up failed "bad name"
        }
    }
}

# The password as the user entered it. Of the backslashes that it was sent with, a shell's double
# quotes have removed all but those before brackets.
proc plain_password {argument} {
    global secret
    set password [string map {\\[ [ \\] ]} $argument]
    set secret $password
    if {[regexp {[\r\n]} $password]} {
        give_up failed "bad password"
    }
    return $password
}

# A name with a backslash before every character that means something to a command language.
proc backslashed {name} {
    return [regsub -all {[^0-9A-Za-z_./\x80-\xff-]} $name {\\&}]
}

# A remote name that cannot be taken for an option or a home directory.
proc plain_remote {name} {
    return [expr {[string index $name 0] in {- ~} ? "./$name" : $name}]
}

proc absolute {path} {
    return [expr {[string index $path 0] eq "/" ? $path : "[pwd]/$path"}]
}

# --- Local files ----------------------------------------------------------------------------------

proc check_source {path} {
    if {![file exists $path]} {
        give_up noSource "no such file to send" local $path
    }
    if {![file isfile $path] || ![file readable $path]} {
        give_up failed "the file to send cannot be read" local $path
    }
}

# Removes from a directory what scripts were receiving that have been killed outright: they could not.
proc remove_leftovers {directory} {
    foreach name [glob -nocomplain -directory $directory -types f .transfer-*] {
        if {[regexp {^\.transfer-(\d+)-[0-9a-f]{32}$} [file tail $name] - owner]
            && ![file exists /proc/$owner]} {
            catch {file delete -- $name}
        }
    }
}

# Creates the file to receive into: beside the destination, so that it can take its place at once,
# under a name that tells whose it is and that nobody can know before, and for nobody else to read.
# Returns its name.
proc begin_receiving {destination} {
    global temporary
    if {[string index $destination end] eq "/"} {
        give_up failed "the destination is a directory" local $destination
    }
    # A link is replaced, not followed.
    if {[catch {file lstat $destination status}] == 0} {
        if {$status(type) ni {file link}} {
            give_up failed "the destination is not a file" local $destination
        }
        if {$status(type) eq "file" && ![file writable $destination]} {
            give_up failed "the destination is write-protected" local $destination
        }
    }
    set random [open /dev/urandom rb]
    fconfigure $random -buffering none -buffersize 16
    binary scan [read $random 16] H* suffix
    close $random
    set directory [file dirname $destination]
    remove_leftovers $directory
    set name $directory/.transfer-[pid]-$suffix
    try {
        set temporary $name
        close [open $name {WRONLY CREAT EXCL} 0600]
    } on error {- options} {
        lassign [dict get $options -errorcode] - error text
        if {$error in {ENOSPC EDQUOT}} {
            give_up noSpace "no space for the destination" local "$text: $directory"
        }
        give_up failed "the destination's directory cannot be written" local "$text: $directory"
    }
    return $name
}

# Refuses a file that was cut off. One that grew meanwhile is whole. A size that the server does not
# tell is empty.
proc check_complete {expected arrived} {
    if {$expected ne "" && $arrived ne "" && $arrived < $expected} {
        give_up failed "the file arrived incomplete"
    }
}

# Gives the received file its name, and the mode of the file that it replaces. A new one can be read
# by the group of its directory, as which the file-system daemon sees it, whatever mode an old server
# has given it.
proc keep_received {destination} {
    global temporary
    set mode 0640
    if {[catch {file lstat $destination status}] == 0 && $status(type) eq "file"} {
        set mode [expr {$status(mode) & 0777}]
    }
    file attributes $temporary -permissions $mode
    file rename -force -- $temporary $destination
    set temporary ""
}

# --- The client -----------------------------------------------------------------------------------

# What `spawn` runs, by the shell: words of octal escapes, as `spawn` would re-encode the bytes of a
# name. The first is the standard input, the second the file that takes the standard output, the
# others are the client's command line. What mode an old server names for a file, the client may give
# it: for its owner at most. A client that crashes leaves no core file: it knows the password.
set launcher {
    umask 077
    ulimit -c 0
    input=$(printf %b "$0")
    for word do
        shift
        set -- "$@" "$(printf %b "$word")"
    done
    output=$1
    shift
    exec "$@" >"$output" <<end
$input
end
}

proc octal {word} {
    return [join [lmap character [split $word ""] {format {\0%03o} [scan $character %c]}] ""]
}

# Runs a client to its end, on a terminal of its own.
#   limit    seconds after which it is stopped, by a timer that the time of day does not matter to
#   input    its standard input, a text; prompts for the password do not come from there
#   output   its standard output: a file, or /dev/tty for the terminal
#   prompt   regular expression of a prompt that stands at the end of what it has written
#   password answer to the first prompt, if that asks for a password; any other prompt means that
#            the login is refused
#   on_line  procedure that gets each line of text it writes
# Returns its exit code. One that a signal ended has none, and `wait` says 0 for it: only the words
# behind that tell. The timer ends by the signal that ended its client.
proc run_client {limit input output prompt password on_line client} {
    global spawn_id user_spawn_id stty_init env launcher
    array unset env *
    array set env {PATH /usr/bin:/bin LC_ALL C HOME /nonexistent TERM dumb}
    set stty_init "-echo -opost"
    set words [list $input $output timeout --kill-after=1 $limit {*}$client]
    set timeout -1
    set answered false

    spawn -noecho /bin/sh -c $launcher {*}[lmap word $words {octal $word}]
    expect {
        -re {^[^\r\n]*[\r\n]+} {
            $on_line [string trimright $expect_out(0,string) \r\n]
            exp_continue
        }
        -re $prompt {
            if {$answered || ![regexp -nocase {pass(word|phrase|code)} $expect_out(0,string)]} {
                give_up refused "the server refused the login"
            }
            set answered true
            # The terminal would act on a control character; quoted, it passes it on.
            send -- "[regsub -all {[\x01-\x1f\x7f]} $password "\x16&"]\r"
            exp_continue
        }
        eof {
            $on_line $expect_out(buffer)
        }
        -i $user_spawn_id eof {
            give_up failed "ended by a signal"
        }
    }
    lassign [wait] - - failed code signalled
    unset spawn_id
    if {$failed != 0 || $signalled ne ""} {
        give_up failed "the client was ended by a signal"
    }
    if {$code == 124} {
        give_up failed "time limit reached"
    }
    # The codes of the timer itself, whose messages are not the client's.
    if {$code in {125 126 127}} {
        give_up failed "the client cannot be run"
    }
    return $code
}

# Ends the client with all its processes: they are a session of their own, which no signal to this
# script's process group reaches.
proc stop_client {} {
    global spawn_id
    if {![info exists spawn_id]} {
        return
    }
    catch {
        exec /bin/sh -c {
            trap "" TERM INT HUP
            kill -TERM -- "-$0"
            sleep 0.2
            kill -KILL -- "-$0"
        } [exp_pid] 2>/dev/null
    }
    catch close
    catch wait
    unset spawn_id
}
