#!/usr/bin/env bash
# How soon `--status --watch` prints a change: from the state line the running program logs to the
# line the watch prints, over stop and start cycles of the demo agent.
#
#   bench/control/watch-latency.sh [build-dir] [cycles]     (defaults: build, 10)
#
# Runs the product from an existing build tree, offscreen, with throw-away HOME and XDG folders
# and the demo agent on a free port (never 8787). Both clocks are this machine's wall clock: the
# log's millisecond time stamps and the moment the reader of the watch's pipe gets each line.
set -euo pipefail

build=$(cd "${1:-build}" && pwd)
cycles=${2:-10}
name=watch-latency
. "$(dirname "$0")/sandbox.sh"
log="$XDG_DATA_HOME/TallyholdAgent/runtime/logs/menu-app.log"

"$product" >/dev/null 2>&1 &
for _ in $(seq 300); do
    "$product" --status >/dev/null 2>&1 && break # the launch has started the agent
    sleep 0.1
done

# Each line the watch prints, with the microsecond it reached the reader.
"$product" --status --watch --json | while IFS= read -r line; do
    printf '%s %s\n' "${EPOCHREALTIME/./}" "$line"
done >"$scratch/watched" &
sleep 1
for _ in $(seq "$cycles"); do
    "$product" --stop-agent >/dev/null
    "$product" --start-agent >/dev/null
    until "$product" --status >/dev/null; do sleep 0.05; done # Stop is offered once it is seen running
done
"$product" --quit >/dev/null
wait

# Every state line of the log after the watch began (its first line), paired with the first watch line of that
# state printed after it.
grep -o '^[^ ]* | State updated: [^=]*' "$log" | sed 's/ | State updated: /|/; s/ version$//' |
    while IFS='|' read -r stamp state; do
        echo "$(date -u -d "$stamp" +%s%6N) $state"
    done >"$scratch/logged"
sed -E 's/^([0-9]+) .*"state":"([^"]*)".*/\1 \2/' "$scratch/watched" >"$scratch/printed"
# Both lists are in order, so each logged change pairs with the next printed line of its state.
# The log stamps to the millisecond, possibly just after the line went out: a negative gap is 0.
awk 'NR == FNR { at[NR] = $1; $1 = ""; state[NR] = substr($0, 2); n = NR; next }
     $1 <= at[1] { next } # before the watch began: its first line is where it starts, not a change
     { logged = $1; $1 = ""; s = substr($0, 2)
       while (j < n && state[++j] != s) {}
       if (state[j] == s) { gap = (at[j] - logged) / 1000; print (gap < 0) ? 0 : gap } }' \
    "$scratch/printed" "$scratch/logged" | sort -n |
    awk '{ v[NR] = $1 } END { if (NR == 0) { print "no changes paired"; exit 1 }
         printf "%d changes: median %.1f ms, p90 %.1f ms, max %.1f ms\n", NR, v[int((NR + 1) / 2)], v[(int(NR * 0.9) > 0) ? int(NR * 0.9) : 1], v[NR] }'
