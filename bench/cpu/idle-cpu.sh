#!/usr/bin/env bash
# Idle cost of the tray controller: CPU share of one core and peak resident memory while it
# supervises a healthy demo agent and does nothing else.
#
#   bench/cpu/idle-cpu.sh [build-dir] [seconds]     (defaults: build, 60)
#
# Builds nothing: it runs the product and the demo agent from an existing build tree, on the
# offscreen platform, with a throw-away HOME and XDG folders and the agent on a free port (never
# 8787). WARMUP_SECONDS (default 10) passes before measuring, so launch work is not counted in
# the CPU figure; the peak RSS (VmHWM) covers the whole run. Wake-ups are the context switches of
# all the product's threads while measuring.
#
# WATCH=1 attaches one `--status --watch` to the running program before the warm-up ends, to
# compare the program's wake-ups with a watch against none (the watch itself is not counted).
#
# DESKTOP=1 runs it on the X server and session bus it is given instead, as on a desktop whose
# tray is missing or late (keep WARMUP_SECONDS past the 10 s no-tray notice), for example:
#   DESKTOP=1 WARMUP_SECONDS=15 xvfb-run -a dbus-run-session -- bench/cpu/idle-cpu.sh build 60
set -euo pipefail

build=$(cd "${1:-build}" && pwd)
seconds=${2:-60}
warmup=${WARMUP_SECONDS:-10}
product="$build/bin/quillmere-menu"
runtime="$build/share/quillmere-menu/runtime"
agentctl="$runtime/agentctl.sh"

for file in "$product" "$agentctl"; do
    [ -x "$file" ] || { echo "idle-cpu.sh: $file missing; build the tree first" >&2; exit 1; }
done

scratch=$(mktemp -d "${TMPDIR:-/tmp}/quillmere-idle-cpu.XXXXXX")
export HOME="$scratch/home"
export XDG_DATA_HOME="$HOME/.local/share" XDG_CONFIG_HOME="$HOME/.config" XDG_CACHE_HOME="$HOME/.cache"
export XDG_RUNTIME_DIR="$scratch/run"
export QUILLMERE_VOLUMES_DIR="$scratch/volumes"
if [ "${DESKTOP:-0}" = 1 ]; then
    [ -n "${DISPLAY:-}" ] && [ -n "${DBUS_SESSION_BUS_ADDRESS:-}" ] ||
        { echo "idle-cpu.sh: DESKTOP=1 needs DISPLAY and a session bus" >&2; exit 1; }
    export QT_QPA_PLATFORM=xcb
    unset WAYLAND_DISPLAY
else
    export QT_QPA_PLATFORM=offscreen
    unset DISPLAY WAYLAND_DISPLAY DBUS_SESSION_BUS_ADDRESS
fi
mkdir -p "$HOME" "$XDG_RUNTIME_DIR" "$QUILLMERE_VOLUMES_DIR"
chmod 700 "$XDG_RUNTIME_DIR"

listening() { (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }
port=
for _ in $(seq 50); do
    candidate=$((20000 + RANDOM % 40000))
    if [ "$candidate" != 8787 ] && ! listening "$candidate"; then
        port=$candidate
        break
    fi
done
[ -n "$port" ] || { echo "idle-cpu.sh: no free port found" >&2; exit 1; }
export QUILLMERE_AGENT_PORT=$port

product_pid=
watch_pid=
cleanup() {
    [ -z "$watch_pid" ] || kill -TERM "$watch_pid" 2>/dev/null || true
    if [ -n "$product_pid" ] && kill -0 "$product_pid" 2>/dev/null; then
        kill -TERM "$product_pid" 2>/dev/null || true
        for _ in $(seq 150); do kill -0 "$product_pid" 2>/dev/null || break; sleep 0.1; done
        kill -KILL "$product_pid" 2>/dev/null || true
    fi
    "$agentctl" stop >/dev/null 2>&1 || true
    rm -rf "$scratch"
}
trap cleanup EXIT

"$agentctl" start >/dev/null
agent_pid=$(cat "$XDG_RUNTIME_DIR/quillmere-demo-agent-$(id -u)-$port.pid")

"$product" >"$scratch/product.out" 2>&1 &
product_pid=$!

# CPU ticks (user + system, all threads) and a line from /proc/<pid>/status.
ticks() { sed 's/^.*) //' "/proc/$1/stat" | awk '{ print $12 + $13 }'; }
status_kb() { awk -v key="$2:" '$1 == key { print $2 }' "/proc/$1/status"; }
# Context switches of every thread; a thread that ends while measuring takes its count with it.
switches() { cat "/proc/$1"/task/*/status 2>/dev/null | awk '/ctxt_switches:/ { n += $2 } END { print n + 0 }'; }
alive() { [ -r "/proc/$1/stat" ] && [ "$(sed 's/^.*) //' "/proc/$1/stat" | cut -d' ' -f1)" != Z ]; }

menu_log="$XDG_DATA_HOME/TallyholdAgent/runtime/logs/menu-app.log"
if [ "${WATCH:-0}" = 1 ]; then
    for _ in $(seq 100); do [ -S "$XDG_RUNTIME_DIR/com.tallyhold.agent.app.socket" ] && break; sleep 0.1; done
    "$product" --status --watch >"$scratch/watch.out" 2>&1 &
    watch_pid=$!
fi
sleep "$warmup"
alive "$product_pid" || { echo "idle-cpu.sh: the product exited during warm-up:" >&2; cat "$scratch/product.out" >&2; exit 1; }
grep -q 'Status: Running' "$menu_log" 2>/dev/null ||
    echo "idle-cpu.sh: warning: the product has not reported the agent running yet" >&2

hz=$(getconf CLK_TCK)
product_start=$(ticks "$product_pid")
switches_start=$(switches "$product_pid")
agent_start=$(ticks "$agent_pid")
log_start=$(grep -c . "$menu_log" 2>/dev/null || echo 0)
rss_max=0
rss_sum=0
samples=0
for _ in $(seq "$seconds"); do
    sleep 1
    alive "$product_pid" || { echo "idle-cpu.sh: the product exited while measuring" >&2; exit 1; }
    rss=$(status_kb "$product_pid" VmRSS)
    rss_sum=$((rss_sum + rss))
    samples=$((samples + 1))
    [ "$rss" -gt "$rss_max" ] && rss_max=$rss
done
product_end=$(ticks "$product_pid")
switches_end=$(switches "$product_pid")
agent_end=$(ticks "$agent_pid")
hwm=$(status_kb "$product_pid" VmHWM)
threads=$(status_kb "$product_pid" Threads)
log_lines=$(($(grep -c . "$menu_log" 2>/dev/null || echo 0) - log_start))

awk -v pt=$((product_end - product_start)) -v at=$((agent_end - agent_start)) -v hz="$hz" -v s="$seconds" \
    -v hwm="$hwm" -v rmax="$rss_max" -v ravg=$((rss_sum / samples)) -v port="$port" -v threads="$threads" \
    -v warm="$warmup" -v lines="$log_lines" -v platform="$QT_QPA_PLATFORM" \
    -v wakes=$((switches_end - switches_start)) -v watched="${watch_pid:+, one watch attached}" 'BEGIN {
    printf "quillmere-menu idle for %d s after %d s warm-up (%s, agent on 127.0.0.1:%d%s)\n", s, warm, platform, port, watched
    printf "  CPU:  %.3f %% of one core (%d ticks at %d Hz)\n", 100 * pt / (hz * s), pt, hz
    printf "  wake-ups: %.2f a second (%d context switches)\n", wakes / s, wakes
    printf "  RSS:  peak (VmHWM) %.1f MB; while idle max %.1f MB, mean %.1f MB\n", hwm / 1024, rmax / 1024, ravg / 1024
    printf "  threads: %d; log lines written while idle: %d\n", threads, lines
    printf "  demo agent CPU: %.3f %% of one core\n", 100 * at / (hz * s)
}'
