#!/bin/sh
# The shell completions the package installs, tried in bash and fish as Tab would: every option
# the help lists is offered, and after --open the page names it lists; in an interactive zsh one
# Tab completes an option and a page.
#   completions.sh <extracted root>
set -eu
root=$1
share=$root/usr/share
export LC_ALL=C HOME=$(mktemp -d) # fish keeps its history and variables in the home
trap 'rm -rf "$HOME"' EXIT
help=$(QT_QPA_PLATFORM=offscreen "$root/usr/bin/quillmere-menu" --help)
options=$(printf '%s\n' "$help" | sed -n 's/^  \(-[-a-z]*\)\(, \(--[-a-z]*\)\)\{0,1\} .*/\1 \3/p' | tr ' ' '\n' | grep . | sort)
pages=$(printf '%s\n' "$help" | sed -n 's/.*open a page: //p' | tr -d ' ' | tr ',' '\n' | sort)
[ -n "$options" ] && [ -n "$pages" ] || { echo "completions: no options or pages in --help" >&2; exit 1; }

# bash: what the function puts in COMPREPLY for the words typed so far.
bash_offers() {
    bash -c '. "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _quillmere_menu; printf "%s\n" "${COMPREPLY[@]}"' \
        -- "$share/bash-completion/completions/quillmere-menu" "$@" | sort
}
# fish: what the command line completes to, without the descriptions.
fish_offers() {
    fish --no-config -c "source $share/fish/vendor_completions.d/quillmere-menu.fish; complete -C'$1'" | cut -f1 | sort
}
check() {
    [ "$2" = "$3" ] || { printf 'completions: %s offers\n%s\ninstead of\n%s\n' "$1" "$2" "$3" >&2; exit 1; }
}
check "bash, options" "$(bash_offers quillmere-menu '')" "$options"
check "bash, --open" "$(bash_offers quillmere-menu --open '')" "$pages"
check "fish, options" "$(fish_offers 'quillmere-menu -')" "$options"
check "fish, --open" "$(fish_offers 'quillmere-menu --open ')" "$pages"
# zsh: waits until the line typed and one Tab shows the completed word (a time-out when it never does).
zsh_completes() {
    timeout 20 zsh -f -c 'zmodload zsh/zpty; zpty z zsh -f -i
        zpty -w z "fpath=($1 \$fpath); autoload -Uz compinit; compinit -u"
        zpty -w -n z "$2"; zpty -r z out "*$3*"' -- "$share/zsh/vendor-completions" "$1$(printf '\t')" "$2" ||
        { echo "completions: zsh did not complete '$1' to '$2'" >&2; exit 1; }
}
zsh_completes 'quillmere-menu --diag' 'quillmere-menu --diagnose'
zsh_completes 'quillmere-menu --open get' 'quillmere-menu --open getting-started'
