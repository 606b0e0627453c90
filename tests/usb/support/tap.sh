# What a scenario reports with. Results go to the second serial port, which nothing else writes to,
# and into the kernel's log, where they stand among what the kernel said.

# In a file, for a scenario may report from a subshell.
echo 0 >/tmp/.tests

report() {
    echo "$*" >/dev/ttyS1
    echo "<5>rig: $*" >/dev/kmsg
}

# ok NAME / not_ok NAME [WHY...]: one result; each WHY is a line of explanation.
result() {
    local verdict=$1 name=$2 line
    shift 2
    echo $(($(cat /tmp/.tests) + 1)) >/tmp/.tests
    report "$verdict $(cat /tmp/.tests) - $name"
    for line in "$@"; do
        echo "$line" | while IFS= read -r line; do report "#   $line"; done
    done
}
ok() { result ok "$@"; }
not_ok() { result "not ok" "$@"; }

# skip NAME WHY: a test that can't be run here.
skip() { result ok "$1 # SKIP $2"; }

# skip_all WHY: ends a scenario that can't be run here.
skip_all() {
    report "1..0 # SKIP $1"
    exit 1
}

# note LINE...: something a reader should know; no result.
note() {
    local line
    for line in "$@"; do
        echo "$line" | while IFS= read -r line; do report "# $line"; done
    done
}

plan() { report "1..$(cat /tmp/.tests)"; }

# check NAME COMMAND...: ok when the command succeeds; what it printed explains a failure.
check() {
    local name=$1
    shift
    if "$@" >/tmp/.output 2>&1; then
        ok "$name"
    else
        not_ok "$name" "$* gave status $?:" "$(tail -n 20 /tmp/.output)"
        return 1
    fi
}

# is NAME GOT WANTED: ok when both are the same text.
is() {
    if [ "$2" = "$3" ]; then
        ok "$1"
    else
        not_ok "$1" "got:    $2" "wanted: $3"
        return 1
    fi
}

# wait_for SECONDS COMMAND...: until the command succeeds, for so many seconds of guest time.
wait_for() {
    local end=$(($(cut -d . -f 1 /proc/uptime) + $1 + 1))
    shift
    while ! "$@" >/dev/null 2>&1; do
        [ "$(cut -d . -f 1 /proc/uptime)" -lt $end ] || return 1
        usleep 20000
    done
}

# save FILE...: keeps files of the guest in the scenario's folder on the host. Not while time matters:
# the guest's clock stands still or jumps while the host works.
save() { cp -r "$@" /files/; }
