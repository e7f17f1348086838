#!/usr/bin/env bash
# How fast a command answers: `--status` against the running program, end to end (process start
# to exit), beside `--version`, which starts and exits without talking to anyone (the floor).
#
#   bench/control/command-latency.sh [build-dir] [runs]     (defaults: build, 50)
#
# Runs the product from an existing build tree, offscreen, with throw-away HOME and XDG folders;
# the agent port is one nobody listens on (never 8787), so the demo agent the launch starts lives
# only as long as the product. Prints the median and the 90th percentile in milliseconds.
set -euo pipefail

build=$(cd "${1:-build}" && pwd)
runs=${2:-50}
name=command-latency
. "$(dirname "$0")/sandbox.sh"

"$product" >/dev/null 2>&1 &
for _ in $(seq 100); do
    [ -S "$XDG_RUNTIME_DIR/com.tallyhold.agent.app.socket" ] && break
    sleep 0.1
done
"$product" --status | grep -q 'quillmere-menu is not running' && { echo "the program did not come up" >&2; exit 1; }

# Milliseconds of each run, sorted; then the median and the 90th percentile.
measure() {
    for _ in $(seq "$runs"); do
        start=$(date +%s%N)
        "$product" "$@" >/dev/null || true
        echo $(( ($(date +%s%N) - start) / 1000 ))
    done | sort -n | awk '{ v[NR] = $1 } END { printf "median %.1f ms, p90 %.1f ms\n", v[int((NR + 1) / 2)] / 1000, v[int(NR * 0.9)] / 1000 }'
}
echo "--version:  $(measure --version)"
echo "--status:   $(measure --status)"
