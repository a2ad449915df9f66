# What the scripts of the two SSH clients, scp and sftp, share.

# Options of either client. No configuration but this counts. A server's key is recorded at the
# first contact, in one file of the platform's, and must be the same ever after.
proc ssh_options {user} {
    global knownHosts
    return [list -F /dev/null \
        -o LogLevel=ERROR \
        -o User=[ssh_quoted $user] \
        -o UserKnownHostsFile=[ssh_quoted [string map {% %%} $knownHosts]] \
        -o GlobalKnownHostsFile=/dev/null \
        -o StrictHostKeyChecking=accept-new \
        -o UpdateHostKeys=no \
        -o BatchMode=no \
        -o PubkeyAuthentication=no \
        -o PreferredAuthentications=password,keyboard-interactive \
        -o NumberOfPasswordPrompts=1 \
        -o ConnectTimeout=30 \
        -o ServerAliveInterval=15 \
        -o ServerAliveCountMax=4]
}

# A word of the client's configuration language.
proc ssh_quoted {text} {
    return "\"[string map {\\ \\\\ \" \\\"} $text]\""
}

# Names the file of the known host keys: in the state directory, which survives a boot, or where none
# is installed in "ssh" in the run directory. A key that could not be recorded would never be found changed, so
# the file must be writable.
proc prepare_known_hosts {} {
    global knownHosts
    set directory [platform_directory RUMA_STATE_DIR /var/lib/ruma/state]
    if {![file exists $directory]} {
        set directory [platform_directory RUMA_RUN_DIR /run/ruma]/ssh
        # A confined worker's is there already. One that is missing in the end, the next step tells.
        catch {file mkdir $directory}
    }
    set knownHosts $directory/known_hosts
    if {[catch {close [open $knownHosts {WRONLY CREAT APPEND} 0600]}]} {
        give_up failed "host keys cannot be recorded in $directory"
    }
}

proc platform_directory {variable default} {
    global env
    return [expr {[info exists env($variable)] && $env($variable) ne "" ? $env($variable) : $default}]
}

# Runs scp or sftp. Returns what `ssh_cause` makes of a failure; nothing after a success. What the
# client writes to a terminal as its standard output is among its lines.
proc run_ssh_client {limit input output server user password verb client} {
    global sshLines
    set sshLines {}
    # By keyboard-interactive authentication, a server can ask for anything.
    set address [regsub -all {[^0-9A-Za-z]} "($user@$server) " {\\&}]
    set prompt "^(?:$address\[^\\r\\n]+|\[^\\r\\n]*assword: ?)\$"
    if {[run_client $limit $input $output $prompt $password note_ssh_line $client] == 0} {
        return {}
    }
    return [ssh_cause $sshLines $verb]
}

proc server_lacks_sftp {} {
    global sshLines
    return [expr {[lsearch -regexp $sshLines {^subsystem request failed}] >= 0}]
}

proc note_ssh_line {line} {
    global sshLines
    lappend sshLines $line
}

# What the messages of a failed client mean: regular expression, exit code's name, sentence. The
# first that a line matches holds, and the line is the client's word for it. A reason stands at the
# end of its line, behind the names.
proc ssh_cause {lines verb} {
    # After a get, "no such file" is about the source; a put has found its own.
    set missing [expr {$verb eq "get" ? "noSource" : "failed"}]
    set causes [list \
        {^Host key verification failed\.$} refused "the server's host key has changed" \
        {: Permission denied \([a-z,-]*\)\.$} refused "the server refused the login" \
        {Too many authentication failures$} refused "the server refused the login" \
        {: (No space left on device|Disk quota exceeded)$} noSpace "no space for the destination" \
        {^(scp: )?write remote ".*": Failure$} noSpace "the server cannot write: most likely it is full" \
        {: (Cannot allocate memory|Out of memory)$} noSpace "no memory" \
        {: (Text file busy|Device or resource busy)$} busy "the file is in use" \
        {^(scp: )?(open|write) local ".*": } failed "the destination cannot be written" \
        {: No such file or directory$} $missing "no such remote file or directory" \
        {^File ".*" not found\.$} $missing "no such remote file" \
        {: Permission denied$} failed "the server permits no access to the file" \
        {: not a regular file$} failed "the source is not a file" \
        {^ssh: connect to } failed "the server cannot be reached"]
    foreach {pattern cause sentence} $causes {
        set at [lsearch -regexp $lines $pattern]
        if {$at >= 0} {
            return [list $cause $sentence client [lindex $lines $at]]
        }
    }
    return [list failed "the transfer failed" client [lindex [lsearch -all -inline $lines ?*] end]]
}
