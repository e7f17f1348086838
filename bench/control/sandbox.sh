# Sourced by the control benchmarks: the product of an existing build tree, run offscreen with
# throw-away HOME and XDG folders and an agent port nobody else uses (never 8787).
# Needs: build (the build tree), name (the benchmark's, for messages and the scratch folder).
product="$build/bin/quillmere-menu"
[ -x "$product" ] || { echo "$name: $product missing; build the tree first" >&2; exit 1; }

scratch=$(mktemp -d "${TMPDIR:-/tmp}/quillmere-$name.XXXXXX")
export HOME="$scratch/home" XDG_RUNTIME_DIR="$scratch/run" QUILLMERE_VOLUMES_DIR="$scratch/volumes"
export XDG_DATA_HOME="$HOME/.local/share" XDG_CONFIG_HOME="$HOME/.config" QT_QPA_PLATFORM=offscreen
export QUILLMERE_AGENT_PORT=$((20000 + RANDOM % 40000))
unset DISPLAY WAYLAND_DISPLAY DBUS_SESSION_BUS_ADDRESS
mkdir -p "$HOME" "$XDG_RUNTIME_DIR" "$QUILLMERE_VOLUMES_DIR"
chmod 700 "$XDG_RUNTIME_DIR"
trap '"$product" --quit >/dev/null 2>&1 || true; [ -n "${KEEP:-}" ] || rm -rf "$scratch"' EXIT
