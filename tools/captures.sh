#!/bin/bash
# captures.sh [--check] [PATH]: writes docs/screens.txt, which shows tandrelctl and tav history on
# terminals of 80 and 120 columns. With --check: fails if it does not show what they print now. PATH
# has the directories of the programs; without it they are built. Exit status 77: tmux is not
# installed.
set -u
cd "$(dirname "$(readlink -f "$0")")/.." || exit 1
capture=docs/screens.txt
interfaces="/Software/System Settings/Network/Interface"

inside() {
    export TAV_SOCKET=$CAPTURE_DIR/tav.sock LC_ALL=C.UTF-8 TZ=UTC NO_COLOR=1 TERM=xterm
    unset TANDREL_OPTIONS TMUX
    cd "$CAPTURE_DIR" || exit 1
    arrange >&2 || { echo "captures: the scene could not be set up" >&2; exit 1; }
    local scene=0 columns socket
    for columns in 80 120; do
        printf '=== a terminal of %d columns\n' "$columns"
        still tandrelctl show
        still tandrelctl check
        still tandrelctl status
        still tav history "'$interfaces/1/IPv6/Default Gateway'"
        watch
    done
}

# until_true COMMAND...: within half a minute.
until_true() {
    local left=300
    while [ $((left -= 1)) -gt 0 ]; do
        "$@" >/dev/null 2>&1 && return 0
        sleep 0.1
    done
    echo "captures: not true: $*" >&2
    return 1
}

arrange() {
    ip link set lo up
    # Enough of a network for one link; without a check for duplicates nothing is tentative.
    ip link add eth0 address 02:00:00:00:00:05 type veth peer name lan0
    echo 0 >/proc/sys/net/ipv6/conf/eth0/accept_dad
    ip link set lan0 address 02:00:00:00:00:01 up
    ip link set eth0 up
    tavd --memory --initial-node "$interfaces" &
    until_true tav ls / || return
    tandrel -d -D 2 2>"$CAPTURE_DIR/tandrel.log" &
    until_true tandrelctl status || return
    tandrelctl interface add eth0
    tandrelctl address add eth0 2001:db8:2::5/64 --node office --wait=30
    tandrelctl gateway set eth0 fe80::9 --wait=30
    tandrelctl gateway set eth0 fe80::1 --wait=30
    ip address add 2001:db8:1::ff:fe00:5/64 dev eth0 valid_lft 86400 preferred_lft 14400
    # Somebody forgot the length of the prefix, which tav does not notice.
    local lab="$interfaces/1/IPv6/Addresses/lab"
    tav set "$lab/Address/Value" 2001:db8:7::7 "$lab/Type/Value" Static
    # Checks for duplicates are off, but an address is tentative until the kernel has noticed.
    until_true sh -c 'tandrelctl show | awk "/tentative/ {bad = 1} /= 2001:db8:1::ff/ {found = 1}
        END {exit bad || !found}"'
}

# Each terminal has a server of its own, because the last one may still be ending.
on_terminal() {
    socket=$CAPTURE_DIR/tmux$((scene += 1))
    tmux -f /dev/null -S "$socket" new-session -d -x "$columns" -y 24 "$1" || exit 1
}
screen() { tmux -S "$socket" capture-pane -p "$@"; }
shows() { screen | grep -qF -- "$1"; }
print_screen() {
    printf '\n$ %s\n' "$1"
    sed 's/ *$//' | sed -e :more -e '/^\n*$/{$d;N;b more' -e '}'
}

# still COMMAND: all that it prints.
still() {
    on_terminal "$*; echo =end=; exec sleep 60"
    until_true shows =end= || exit 1
    screen -S - | sed '/^=end=$/,$d' | print_screen "$*"
    tmux -S "$socket" kill-server
}

# watch: its screen after an address has come and gone.
watch() {
    on_terminal 'exec tandrelctl watch'
    until_true shows 'q quits' || exit 1
    ip address add 2001:db8:4::9/64 dev eth0 nodad
    until_true shows '= 2001:db8:4::9/64' || exit 1
    ip address del 2001:db8:4::9/64 dev eth0
    until_true shows '- eth0 store: address node' || exit 1
    screen | print_screen "tandrelctl watch"
    tmux -S "$socket" kill-server
    printf '\n'
}

# What differs from run to run.
normalised() {
    sed -e 's/^[0-9]*  [0-9-]*T[0-9:]*Z/N  TIME/' \
        -e 's/[0-9][0-9]:[0-9][0-9]:[0-9][0-9] /HH:MM:SS /' -e 's/process [0-9]*/process N/' \
        -e 's/[0-9]*s ago/Ns ago/' -e 's/^last errors: .*/last errors: .../' \
        -e 's/valid [0-9dhms]*, preferred [0-9dhms]*/valid N, preferred N/' "$@"
}

if [ "${1-}" = --inside ]; then
    inside
    exit
fi
check=no
[ "${1-}" != --check ] || { check=yes; shift; }
. tools/setup.sh
need_namespaces
if [ $# -gt 0 ]; then
    PATH=$1:$PATH
    command -v tmux >/dev/null || { echo "skipped: tmux is not installed"; exit 77; }
else
    # shellcheck disable=SC2086
    need_packages $build_packages $demo_packages tmux
    configure release
    build release tandrel tavd tav_tool tandrelctl
    PATH=$PWD/build/release:$PWD/build/release/ctl:$PWD/build/release/platform/tav:$PATH
fi
spaces=(--net --mount --pid --fork --kill-child --mount-proc)
[ "$(id -u)" -eq 0 ] || spaces+=(--user --map-root-user)
CAPTURE_DIR=$scratch PATH=$PATH unshare "${spaces[@]}" bash tools/captures.sh --inside \
    >"$scratch/screens" || exit 1
if [ "$check" = no ]; then
    cp "$scratch/screens" "$capture"
else
    diff <(normalised "$capture") <(normalised "$scratch/screens") ||
        die "$capture is not up to date; run tools/captures.sh"
fi
