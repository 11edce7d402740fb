#!/bin/bash
# check_documents.sh SOURCE-DIR TANDRELCTL: the manual pages are well-formed and describe exactly
# what the programs have; the completion knows the options.
set -u
source_dir=$1
ctl=$2
page=$source_dir/ctl/man/tandrelctl.1
daemon_page=$source_dir/shell/man/tandrel.8
failed=0
fail() { printf 'FAILED: %s\n' "$*" >&2; failed=1; }

mandoc -T lint -W warning "$page" "$daemon_page" >&2 || fail "mandoc reports errors in a page"

commands=(show check watch status wait 'address add' 'address replace' 'address del' 'gateway set'
    'gateway clear' 'interface list' 'interface add' 'interface del' 'interface merge' import nudge
    keep confirm)
text=$(mandoc -T ascii "$page" | sed 's/.\x08//g')
long_options() { grep -oE -- '--[a-z][a-z-]*' | sort -u; }

# --- tandrelctl(1) and --help have the same options
helped=$({
    "$ctl" --help
    for command in "${commands[@]}"; do
        # shellcheck disable=SC2086
        "$ctl" $command --help
    done
} | long_options)
[ "$(wc -l <<<"$helped")" -ge 10 ] || fail "few options were found: $helped"
documented=$(long_options <<<"$text")
[ "$helped" = "$documented" ] ||
    fail "options differ: $(diff <(echo "$helped") <(echo "$documented"))"
for command in "${commands[@]}"; do
    grep -q "tandrelctl $command" <<<"$text" || fail "tandrelctl(1) lacks $command"
done

# --- output that cannot be written is a failure
"$ctl" --help >/dev/full 2>/dev/null && fail "a full disk is not reported"

# --- the completion knows each command's options
# shellcheck source=/dev/null
. "$source_dir/ctl/completion/tandrelctl"
for command in "${commands[@]}"; do
    # shellcheck disable=SC2086
    helped=$("$ctl" $command --help | grep -E '^ +-' | long_options | grep -v '^--help$')
    completed=$(_tandrelctl_options "$command" | long_options |
        grep -vE '^--(help|color|interface-prefix)$')
    [ "$helped" = "$completed" ] || fail "completion of '$command': $completed; help: $helped"
done

# complete_words WORD...: prints the completions of the last word, as bash would ask for them: it
# splits words at colons.
# shellcheck source=/dev/null
. /usr/share/bash-completion/bash_completion || fail "bash-completion is not installed"
complete_words() {
    COMP_LINE=$*
    COMP_POINT=${#COMP_LINE}
    mapfile -t COMP_WORDS < <(printf '%s\n' "$@" | sed 's/:/\n:\n/g')
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
    COMPREPLY=()
    _tandrelctl
    echo "${COMPREPLY[*]}"
}
# Replaces the program that the completion calls.
# shellcheck disable=SC2317
tandrelctl() {
    case $* in
    'interface list --all') printf '1\teth0\tsynchronised\n2\teth1\tno node in the store\n' ;;
    'show eth0 --json') printf '   "kernel": {\n "address": "fe80::1/64"\n },\n   "store": {\n     "node": "x",\n     "address": "2001:db8::5/64",\n }\n' ;;
    esac
}
expect() {
    local wanted=$1 got
    shift
    got=$(complete_words "$@")
    [ "$got" = "$wanted" ] || fail "completing '$*' offers '$got', not '$wanted'"
}
COMP_WORDBREAKS=' :'
expect 'show' tandrelctl sh
expect 'add replace del' tandrelctl address ''
expect 'eth0 eth1' tandrelctl address add eth
expect 'eth0 eth1' tandrelctl -i eth show ''
expect '2001:db8::5/64' tandrelctl address del eth0 2001
expect 'auto always never' tandrelctl --color ''
expect '--from-kernel' tandrelctl import --f
expect '' tandrelctl nudge ''
expect 'eth0 eth1' tandrelctl keep --forget ''
expect ':5/64' tandrelctl address del eth0 2001:db8:

# --- tandrel(8) lists every message up to level 3 under its level, and no other
sources=$(cat "$source_dir"/{shell,netlink,store,sync}/*.cpp | tr '\n' ' ' | sed 's/"  *"//g')
# shellcheck disable=SC2016 # perl's own variables
messages=$(perl -ne 'while (/log_(info|notice|warning|error|critical)(_at)?\(\s*(?:([0-3]),\s*)?"((?:\\.|[^"\\])*)"/g) {
        my $level = $2 ? $3 : $1 =~ /info|notice/ ? 1 : 0; # the latter need any verbosity, or none
        print "$level $4\n" if defined $level;
    }' <<<"$sources" | sort -u)
[ "$(wc -l <<<"$messages")" -ge 50 ] || fail "few messages were found"
listed=$(sed -n '/^\.Ss Always/,/^\.Ss Level 4/p' "$daemon_page" | awk '/^\.Ss Always/ { level = 0 } /^\.Ss Level/ { level = $3 + 0 }
    /^\.It Li "/ { sub(/^\.It Li "/, ""); sub(/"$/, ""); print level " " $0 }' | sort -u)
[ "$messages" = "$listed" ] ||
    fail "messages by level differ (<: sources, >: tandrel(8)): $(diff <(echo "$messages") <(echo "$listed"))"
# Texts on standard error that are not logged. Those of the log itself and of a backtrace's lines
# have no fixed text.
# shellcheck disable=SC2016
printed=$(perl -ne 'while (/(?:fputs\(|fprintf\(stderr,\s*)"((?:\\.|[^"\\])*?)(?:\\n)?"/g) { print "$1\n" }' <<<"$sources" |
    grep -E '[A-Za-z]{4}' | sort -u)
[ "$(wc -l <<<"$printed")" -ge 8 ] || fail "few texts on standard error were found"
while IFS= read -r message; do
    grep -qF -- "${message%:}" "$daemon_page" || fail "tandrel(8) lacks what is printed: $message"
done <<<"$printed"
# Each list up to level 2 must end with an explanation, not with an item that has none.
awk '/^\.Ss Level 3/ { exit } /^\.El/ && before ~ /^\.It/ { print before; bad = 1 } { before = $0 } END { exit bad }' \
    "$daemon_page" || fail "tandrel(8) does not explain the above"
signals=$(grep -oE '\bSIG(SEGV|ILL|FPE|PIPE|HUP|INT|QUIT|TERM|[A-Z0-9]+)\b' "$source_dir/shell/signals.cpp" | sort -u)
[ "$(wc -l <<<"$signals")" -ge 8 ] || fail "few signals were found"
for signal in $signals; do
    grep -qE "^\.It Dv .*\b$signal\b" "$daemon_page" || fail "tandrel(8) lacks $signal"
done
usage=$(grep -oE '^\\t-[a-zA-Z]|"\\t-[a-zA-Z]' "$source_dir/shell/options.cpp" | grep -oE '[a-zA-Z]$' | sort -u)
[ -n "$usage" ] || fail "no options were found in the usage text"
for letter in $usage; do
    grep -qE "^\.It Fl $letter( |\$)" "$daemon_page" || fail "tandrel(8) lacks -$letter"
done
exit "$failed"
