#!/bin/sh
# The package's files against the expected list, and its desktop entry and the AppStream metainfo
# through the freedesktop validators.
#   contents.sh <extracted root> <expected list> <with demo runtime: ON|OFF>
set -eu
export LC_ALL=C
root=$1 expected=$2 demo=$3
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

appstreamcli validate --no-net --pedantic "$root/usr/share/metainfo/$id.metainfo.xml"
# The metainfo, the desktop entry and the icon belong together.
appstreamcli validate-tree --no-net "$root"
