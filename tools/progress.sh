# shellcheck shell=bash
# Sourced by the commands (through setup.sh): runs their long steps. A step reports on standard
# error what it does, how far it is and how long it has taken: on a terminal in one line that is
# rewritten, elsewhere in a line every 15 seconds. If a command is interrupted, nothing of it
# remains: its processes are in their own process namespace, its files in one directory.

say() { printf '%s\n' "$*"; }
die() { clear_line; printf '%s: %s\n' "${0##*/}" "$*" >&2; exit 1; }

scratch=$(mktemp -d "${TMPDIR:-/tmp}/${0##*/}.XXXXXX") || exit 1
chmod 711 "$scratch" # some tests run programs as other users
export TMPDIR=$scratch
step_log=$scratch/step.log # what the last step printed

doing=''  # the name of the running step, for the reader
runner='' # its process
drawn=no  # whether there is a line to rewrite

trap clean_up EXIT
trap 'interrupted 130' INT
trap 'interrupted 143' TERM
trap 'interrupted 129' HUP

interrupted() {
    trap '' INT TERM HUP
    clear_line
    printf '%s: interrupted%s\n' "${0##*/}" "${doing:+: ${doing,}}" >&2
    exit "$1"
}
clean_up() {
    if [ -n "$runner" ]; then
        kill "-${end_with:-KILL}" "$runner" 2>/dev/null
        # When every process that could write there has ended, nothing of the step remains.
        cat <&"$step_output" >/dev/null
    fi
    rm -rf "$scratch"
}

on_a_terminal() { [ -t 2 ] && [ "${TERM:-dumb}" != dumb ]; }
clear_line() {
    [ "$drawn" = no ] || printf '\r\033[K' >&2
    drawn=no
}
clock() { printf '%d:%02d' $(($1 / 60)) $(($1 % 60)); }

# draw: shows $doing, $state and the time, unless it is too early for that.
draw() {
    local text
    text="$doing${state:+: $state}, $(clock $((SECONDS - began)))"
    if on_a_terminal; then
        printf '\r%s\033[K' "${text:0:$width}" >&2
        drawn=yes
    elif [ "$SECONDS" -ge "$next_line" ]; then
        printf '%s\n' "$text" >&2
        next_line=$((SECONDS + 15))
    fi
}

# The namespaces of a step. If we are not root, a user namespace gives the privilege to create them.
box=(--pid --fork --kill-child --mount --mount-proc)
[ "$(id -u)" -eq 0 ] || box+=(--user --map-current-user)
unshare "${box[@]}" true 2>/dev/null || box=()

# boxed COMMAND...: ends, with everything that it has started, when the process that runs it is
# killed. The shell makes a background step ignore the terminal's signals; this undoes that.
boxed() {
    local plainly=(env --default-signal=INT --default-signal=QUIT)
    [ ${#box[@]} -gt 0 ] || exec "${plainly[@]}" "$@"
    # In a session of its own: a Ctrl-C that reached the step as well could make it fail before this
    # shell knows why. The first process of the namespace must reap orphans, as a shell does.
    # shellcheck disable=SC2016
    exec setsid unshare "${box[@]}" "${plainly[@]}" bash -c '"$@"; exit "$?"' step "$@"
}

# step KIND WHAT COMMAND...: runs a command and returns its status. note_KIND handles each line that
# it prints. For a command outside a box, $start_by is the function that starts it and $end_with the
# signal that ends it.
step() {
    local kind=$1 status width
    doing=$2
    shift 2
    state='' failures=0 began=$SECONDS next_line=$((SECONDS + 15))
    read -r _ width < <(stty size <&2 2>/dev/null)
    width=$((${width:-80} - 1))
    : >"$step_log"
    on_a_terminal || printf '%s ...\n' "$doing" >&2
    exec {step_output}< <("${start_by:-boxed}" "$@" </dev/null 2>&1)
    runner=$!
    follow "note_$kind" <&"$step_output"
    wait "$runner"
    status=$?
    runner=''
    exec {step_output}<&-
    # Long steps stay visible.
    if [ "$drawn" = yes ] && [ $((SECONDS - began)) -ge 2 ]; then
        draw
        printf '\n' >&2
        drawn=no
    fi
    clear_line
    doing=''
    return "$status"
}

# follow FUNCTION: calls it with each line of standard input, and draws at least once a second.
follow() {
    local line part='' status
    while :; do
        IFS= read -r -t 1 line
        status=$?
        part+=$line
        if [ "$status" -le 128 ]; then
            [ "$status" -eq 0 ] || [ -n "$part" ] || break
            "$1" "$part"
            part=''
        fi
        draw
    done
}

# pass_on TEXT: prints a line for the reader between the progress lines.
pass_on() {
    clear_line
    printf '%s\n' "$1"
}

# Kinds of steps. $state shows the reader how far the step is.
note_log() { printf '%s\n' "$1" >>"$step_log"; }
note_lines() {
    note_log "$1"
    pass_on "$1"
}
note_ninja() {
    note_log "$1"
    [[ ! $1 =~ ^\[([0-9]+)/([0-9]+)\] ]] || state="${BASH_REMATCH[1]} of ${BASH_REMATCH[2]}"
}
note_make() {
    note_log "$1"
    case $1 in *' CC '* | *' LD '* | *' AR '*) state="$((${state%% *} + 1)) files" ;; esac
}
# Prints only ctest's lines about failing tests.
note_ctest() {
    local text=$1
    if [[ $text =~ ^\ *([0-9]+)/([0-9]+)\ Test\ +#[0-9]+:\ ([^ ]+)\ [.]*(.*) ]]; then
        case ${BASH_REMATCH[4]} in
        *Passed* | *Skipped*) text='' ;;
        *) failures=$((failures + 1)) ;;
        esac
        state="${BASH_REMATCH[1]} of ${BASH_REMATCH[2]}, $failures failed, now at ${BASH_REMATCH[3]%%.*}"
    fi
    local own='^( +Start +[0-9]+:.*|Internal ctest changing.*|Test project .*|[0-9]+% tests passed.*'
    own+='|Total Test time.*|Errors while running CTest)?$'
    [[ $text =~ $own ]] || pass_on "$text"
}
apt_total=0 apt_count=0
note_apt() {
    note_log "$1"
    case $1 in
    *' newly installed'*) [[ ! $1 =~ ([0-9]+)\ newly ]] || apt_total=${BASH_REMATCH[1]} ;;
    Get:*) if [ "$apt_total" -gt 0 ]; then apt_is fetching; else state="reading package lists"; fi ;;
    'Unpacking '*) apt_is unpacking ;;
    'Setting up '*) apt_is 'setting up' ;;
    esac
}
note_debootstrap() {
    note_log "$1"
    case $1 in 'I: '*' '[a-z0-9]*...) state=${1#I: } state=${state%...} ;; esac
}
# apt_is PHASE: counts one more package in this phase.
apt_is() {
    [[ $state == "$1 "* ]] || apt_count=0
    state="$1 $((apt_count += 1)) of $apt_total"
}
