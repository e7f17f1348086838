#!/bin/sh
# The package's files against the expected list, and its desktop entry, the autostart entry the
# program writes and the AppStream metainfo through the freedesktop validators.
#   contents.sh <extracted root> <expected list> <with demo runtime: ON|OFF> <write_autostart_entry>
set -eu
export LC_ALL=C
root=$1 expected=$2 demo=$3 write_entry=$4
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# Compiled programs and runtime files are only there with the demo runtime.
if [ "$demo" = ON ]; then cp "$expected" "$work/expected"; else grep -v 'runtime/\|^/usr/lib/' "$expected" >"$work/expected"; fi
(cd "$root" && find . ! -type d | sed 's/^\.//' | sort) >"$work/actual"
diff -u "$work/expected" "$work/actual"

id=com.tallyhold.agent.app
desktop-file-validate "$root/usr/share/applications/$id.desktop"
# The program, and the actions launchers offer beside it.
[ "$(grep '^Exec=' "$root/usr/share/applications/$id.desktop" | tr '\n' '|')" = \
  "Exec=/usr/bin/quillmere-menu|Exec=/usr/bin/quillmere-menu --start-agent|Exec=/usr/bin/quillmere-menu --stop-agent|Exec=/usr/bin/quillmere-menu --open local-admin|" ]
# A path with a space, quotes and a percent sign exercises the entry's quoting and escapes.
"$write_entry" "$work/config" "$work/Quill \"mere\" 100%/bin/quillmere-menu"
desktop-file-validate "$work/config/autostart/$id.desktop"

appstreamcli validate --no-net --pedantic "$root/usr/share/metainfo/$id.metainfo.xml"
# The metainfo, the desktop entry and the icon belong together.
appstreamcli validate-tree --no-net "$root"
