#!/bin/sh
# Runs the program from the package's extracted files with a home of its own: --help and
# --version answer without leaving a file behind; a plain start logs, starts the demo agent from
# its runtime folder, and SIGTERM stops the agent before the program exits.
#   smoke.sh <extracted root> <version>
set -eu
root=$1 version=$2
work=$(mktemp -d)
program=$root/usr/bin/quillmere-menu
agent=$root/usr/share/quillmere-menu/runtime/quillmere-demo-agent
export HOME="$work/home" XDG_DATA_HOME="$work/home/data" XDG_CONFIG_HOME="$work/home/config"
export XDG_RUNTIME_DIR="$work/run" QT_QPA_PLATFORM=offscreen QT_LOGGING_RULES="qt.core.qobject.connect=false"
unset DISPLAY WAYLAND_DISPLAY DBUS_SESSION_BUS_ADDRESS
log=$XDG_DATA_HOME/TallyholdAgent/runtime/logs/menu-app.log
mkdir -m 700 "$HOME" "$XDG_RUNTIME_DIR"
pid=
cleanup() {
    [ -z "$pid" ] || kill -KILL "$pid" 2>/dev/null || true
    "$root/usr/share/quillmere-menu/runtime/agentctl.sh" stop >/dev/null 2>&1 || true
    rm -rf "$work"
}
trap cleanup EXIT
fail() {
    echo "smoke: $*" >&2
    if [ -f "$log" ]; then cat "$log" >&2; fi
    exit 1
}
# wait_for <seconds> <command...>: polls until the command succeeds.
wait_for() {
    deadline=$(($(date +%s) + $1))
    shift
    until "$@"; do
        [ "$(date +%s)" -lt "$deadline" ] || return 1
        sleep 0.1
    done
}
gone() { ! kill -0 "$pid" 2>/dev/null; }

# A port of this run's own, with nothing answering on it.
port=$((20000 + $$ % 20000))
while QUILLMERE_AGENT_PORT=$port "$agent" --probe >/dev/null 2>&1; do port=$((port + 1)); done
export QUILLMERE_AGENT_PORT=$port

[ "$(timeout 10 "$program" --version)" = "quillmere-menu $version" ] || fail "--version"
timeout 10 "$program" --help | grep -q '^Usage: quillmere-menu' || fail "--help"
[ -z "$(find "$HOME" "$XDG_RUNTIME_DIR" -mindepth 1)" ] || fail "--help or --version touched the home or runtime folder"

"$program" >"$work/output" 2>&1 &
pid=$!
wait_for 30 "$agent" --probe || fail "the agent did not come up"
grep -q "Application did finish launching." "$log" || fail "no launch in the log"
kill -TERM "$pid"
wait_for 30 gone || fail "still running after SIGTERM"
status=0
wait "$pid" || status=$?
pid=
[ "$status" -eq 0 ] || fail "exit status $status after SIGTERM"
! "$agent" --probe || fail "the agent still answers after the program stopped"
grep -q "Application will terminate." "$log" || fail "no orderly termination in the log"
