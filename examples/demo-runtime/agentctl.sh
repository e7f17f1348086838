#!/bin/sh
# Starts or stops the demo agent that sits beside this script.
#   agentctl.sh start   start the agent in the background and wait until /healthz answers,
#                       giving up after 10 s
#   agentctl.sh stop    send the agent SIGTERM and wait until it has gone
# Both are idempotent. Exit code 0 on success; otherwise a message on standard error, and for a
# start, first what the agent wrote to its log meanwhile (why it did not come up) on standard
# output, where whoever started the script looks.
# QUILLMERE_AGENT_PORT moves the agent off port 8787.

set -u

here=$(CDPATH='' cd -- "$(dirname -- "$0")" && pwd) || exit 1
agent="$here/quillmere-demo-agent"
port=${QUILLMERE_AGENT_PORT:-8787}
pid_file="${XDG_RUNTIME_DIR:-/tmp}/quillmere-demo-agent-$(id -u)-$port.pid"
log_dir="${XDG_DATA_HOME:-$HOME/.local/share}/TallyholdAgent/runtime/logs"
log_file="$log_dir/agent.log"
# Seconds a start waits in all, and a stop waits for the agent to go away.
start_wait=10
stop_wait=10

fail() {
    echo "agentctl.sh: $*" >&2
    exit 1
}

pause() {
    sleep 0.1 2>/dev/null || sleep 1
}

# True while the process exists and is not a zombie waiting for a parent to reap it.
alive() {
    kill -0 "$1" 2>/dev/null || return 1
    if [ -r "/proc/$1/stat" ]; then
        state=$(sed 's/^.*) //' "/proc/$1/stat" 2>/dev/null | cut -d' ' -f1)
        [ "$state" != Z ] || return 1
    fi
    return 0
}

# The pid from the pid file when that process is still our agent; empty otherwise.
running_pid() {
    [ -f "$pid_file" ] || return 0
    pid=$(cat "$pid_file" 2>/dev/null)
    case $pid in '' | *[!0-9]*) return 0 ;; esac
    alive "$pid" || return 0
    # A pid reused by an unrelated process is not ours to signal.
    if [ -r "/proc/$pid/cmdline" ] && ! tr '\0' '\n' <"/proc/$pid/cmdline" | grep -q 'quillmere-demo-agent$'; then
        return 0
    fi
    echo "$pid"
}

healthy() {
    "$agent" --probe >/dev/null 2>&1
}

# The agent's log after its first $1 lines.
agent_says() {
    tail -n "+$(($1 + 1))" "$log_file" 2>/dev/null
}

start() {
    [ -x "$agent" ] || fail "agent binary missing or not executable: $agent"
    # A probe may take a second, so none starts in the last second of the wait.
    deadline=$(($(date +%s) + start_wait - 1))
    seen=0
    [ -f "$log_file" ] && seen=$(wc -l <"$log_file")
    pid=$(running_pid)
    action="already running"
    if [ -z "$pid" ]; then
        action=started
        rm -f "$pid_file"
        if healthy; then
            echo "Agent already answering on 127.0.0.1:$port."
            return 0
        fi
        mkdir -p "$log_dir" || fail "cannot create log folder $log_dir"
        mkdir -p "$(dirname -- "$pid_file")" || fail "cannot create folder for $pid_file"
        # Detached from the caller: its own session, no inherited standard streams, so whoever
        # runs this script sees it finish as soon as the agent answers.
        if command -v setsid >/dev/null 2>&1; then
            setsid "$agent" </dev/null >>"$log_file" 2>&1 &
        else
            nohup "$agent" </dev/null >>"$log_file" 2>&1 &
        fi
        pid=$!
        if ! echo "$pid" >"$pid_file"; then
            kill -TERM "$pid" 2>/dev/null
            fail "cannot write $pid_file"
        fi
    fi

    while [ "$(date +%s)" -lt "$deadline" ]; do
        if ! alive "$pid"; then
            rm -f "$pid_file"
            agent_says "$seen"
            fail "agent exited during start"
        fi
        if healthy; then
            echo "Agent $action (pid $pid) on 127.0.0.1:$port."
            return 0
        fi
        pause
    done
    agent_says "$seen"
    fail "agent (pid $pid) did not answer on 127.0.0.1:$port within $start_wait s"
}

stop() {
    pid=$(running_pid)
    if [ -z "$pid" ]; then
        rm -f "$pid_file"
        echo "Agent not running."
        return 0
    fi
    kill -TERM "$pid" 2>/dev/null
    deadline=$(($(date +%s) + stop_wait))
    while alive "$pid"; do
        [ "$(date +%s)" -lt "$deadline" ] || fail "agent (pid $pid) still running $stop_wait s after SIGTERM"
        pause
    done
    rm -f "$pid_file"
    echo "Agent stopped."
}

case ${1:-} in
start) start ;;
stop) stop ;;
*)
    echo "usage: $0 start|stop" >&2
    exit 2
    ;;
esac
