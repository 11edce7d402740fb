# shellcheck shell=bash
# The demonstration of ./demo, inside its namespaces. DEMO_DIR is its working directory.
set -u
trap 'exit 130' INT TERM

dir=$DEMO_DIR
export TAV_SOCKET=$dir/tav.sock
interface="/Software/System Settings/Network/Interface/1"
addresses="$interface/IPv6/Addresses"
gateway="$interface/IPv6/Default Gateway"

if [ -t 1 ]; then
    bold=$'\e[1m' dim=$'\e[2m' green=$'\e[32m' red=$'\e[31m' plain=$'\e[0m' colour=always
else
    bold='' dim='' green='' red='' plain='' colour=never
fi

fail() {
    printf '%s✗ %s%s\n' "$red" "$*" "$plain"
    printf 'The last lines of the daemon:\n'
    tail -n 15 "$dir/tandrel.log"
    exit 1
}

# --- what each side has -------------------------------------------------------------------------

kernel_addresses() { ip -6 -o address show dev eth0 | awk '{print $4}' | sort; }
kernel_gateway() { ip -6 route show default dev eth0 proto static | awk '{print $3; exit}'; }
kernel_has() { kernel_addresses | grep -qxF "$1"; }

store_address() { tav get "$addresses/$1/Address/Value" 2>/dev/null; }
store_addresses() {
    local name
    for name in $(tav ls "$addresses" 2>/dev/null); do store_address "$name"; done | sort
}
store_gateway() { tav get "$gateway/Value" 2>/dev/null; }
store_has() { store_addresses | grep -qxF "$1"; }
type_of() {
    local name
    for name in $(tav ls "$addresses" 2>/dev/null); do
        [ "$(store_address "$name")" = "$1" ] && tav get "$addresses/$name/Type/Value"
    done
}

in_step() {
    [ -n "$(kernel_addresses)" ] && [ "$(kernel_addresses)" = "$(store_addresses)" ] &&
        [ "$(kernel_gateway)" = "$(store_gateway)" ]
}

# both_views WHEN: side by side.
both_views() {
    printf '   %s%s:%s\n' "$dim" "$1" "$plain"
    [ "$DEMO_SHOW" = no ] || printf '   $ tandrelctl show eth0\n'
    tandrelctl --color="$colour" show eth0 2>&1 | sed 's/^/   /'
    [ "$DEMO_SHOW" = no ] || check_and_watch "$1"
}

# --- with --show --------------------------------------------------------------------------------

# check_and_watch WHEN: the output of check for this state, and of watch since the last one.
check_and_watch() {
    local status text
    # Waits until everything in progress is finished; then the views must agree.
    [ "$1" != after ] || expect 20 "tandrelctl check finds no difference." tandrelctl check --quiet eth0
    sleep 0.3 # for the watch
    text=$(tandrelctl --color="$colour" check eth0 2>&1)
    status=$?
    printf '$ tandrelctl check eth0\n%s\n(exit status %d)\n' "$text" "$status" | sed 's/^/   /'
    printf '   $ tandrelctl watch eth0   (since the last step)\n'
    tail -n "+$((watch_mark + 1))" "$dir/watch.log" | sed 's/^/   /'
    watch_mark=$(wc -l <"$dir/watch.log")
}
start_watch() {
    watch_mark=0
    : >"$dir/watch.log"
    tandrelctl watch eth0 >"$dir/watch.log" 2>&1 &
}

# last_screen FILE: the last content of a terminal's alternate screen, without colours.
last_screen() {
    tr -d '\r' <"$1" | sed 's/\x1b\[[0-9]\{1,\}Hq quits[^\x1b]*//; s/\x1b\[?1049l.*//; s/\x1b\[[0-9;]*[mKJ]//g; s/\x1b\[?[0-9]*[hl]//g' |
        awk '/\033\[H/ { sub(/.*\033\[H/, ""); screen = $0; next } { screen = screen "\n" $0 }
             END { print screen }'
}
# watch_on_a_terminal: one address is added and removed during a watch on a terminal.
watch_on_a_terminal() {
    local watcher screen=$dir/screen
    : >"$screen"
    printf '   $ tandrelctl watch eth0   (on a terminal, its last screen)\n'
    script --quiet --flush --command 'stty rows 24 cols 110; exec tandrelctl --color=never watch eth0' \
        "$screen" </dev/null >/dev/null &
    watcher=$!
    on_screen() { last_screen "$screen" | grep -qF -- "$1"; }
    expect 20 "It draws its table." on_screen 'KERNEL'
    ip address add 2001:db8:4::9/64 dev eth0
    expect 20 "An address added in the kernel appears in it ..." on_screen '= 2001:db8:4::9/64'
    ip address del 2001:db8:4::9/64 dev eth0
    expect 20 "... and disappears again." on_screen '- eth0 store: address node'
    last_screen "$screen" | sed 's/^/   |/'
    kill -INT "$(pgrep -P "$watcher" -x tandrelctl)"
    wait "$watcher"
}

# --- output -------------------------------------------------------------------------------------

chapter=0
log_mark=0
headline() {
    chapter=$((chapter + 1))
    printf '\n%s%d. %s%s\n' "$bold" "$chapter" "$*" "$plain"
    log_mark=$(wc -l <"$dir/tandrel.log" 2>/dev/null || echo 0)
}
# Shows the command as a user would type it, with the long paths as $A and $G, and runs it.
do_it() {
    local word line=''
    for word in "$@"; do
        case $word in
        "$addresses"*) word="\"\$A${word#"$addresses"}\"" ;;
        "$gateway"*) word="\"\$G${word#"$gateway"}\"" ;;
        *' '*) word="\"$word\"" ;;
        esac
        line+=" $word"
    done
    printf ' $%s\n' "$line"
    "$@" || fail "the command failed"
}
daemon_said() {
    tail -n "+$((log_mark + 1))" "$dir/tandrel.log" | grep -E "$1" | awk '!seen[$0]++' |
        head -n 4 | sed "s/^/   ${dim}tandrel: /; s/\$/${plain}/"
}
# waiting TEXT: rewrites the terminal's last line.
waiting() { [ ! -t 2 ] || printf '\r%s\e[K' "${1:0:79}" >&2; }
# expect SECONDS SENTENCE COMMAND...: the sentence becomes true in this time, or the demo fails.
expect() {
    local seconds=$1 sentence=$2 began=$SECONDS waited
    shift 2
    until "$@"; do
        waited=$((SECONDS - began))
        [ "$waited" -lt "$seconds" ] || { both_views now; fail "not within $seconds s: $sentence"; }
        [ "$waited" -lt 2 ] || waiting "   waiting, $waited of at most $seconds s: $sentence"
        sleep 0.1
    done
    waiting ''
    printf ' %s✓ %s%s\n' "$green" "$sentence" "$plain"
}
not() { ! "$@"; }

# --- the world ----------------------------------------------------------------------------------

make_world() {
    ip link set lo up
    unshare --net sleep infinity &
    neighbour=$!
    # The neighbour's namespace exists as soon as it differs from ours.
    until [ "$(readlink /proc/$neighbour/ns/net)" != "$(readlink /proc/self/ns/net)" ]; do
        sleep 0.02
    done
    ip link add eth0 address 02:00:00:00:00:05 type veth peer name uplink netns "$neighbour" || fail "no veth pair"
    in_neighbour() { nsenter --target "$neighbour" --net "$@"; }
    in_neighbour sysctl -q -w net.ipv6.conf.all.forwarding=1
    in_neighbour ip address add fe80::1/64 dev uplink nodad
    in_neighbour ip address add fe80::2/64 dev uplink nodad
    in_neighbour ip link set uplink up
    ip link set eth0 up
    # No default lifetime: the advertised router must not mix with the configured gateway.
    cat >"$dir/radvd.conf" <<'CONF'
interface uplink {
    AdvSendAdvert on;
    MinRtrAdvInterval 3;
    MaxRtrAdvInterval 4;
    AdvDefaultLifetime 0;
    prefix 2001:db8:1::/64 { AdvOnLink on; AdvAutonomous on; };
};
CONF
    in_neighbour radvd -n -C "$dir/radvd.conf" -p "$dir/radvd.pid" -m stderr >"$dir/radvd.log" 2>&1 &
}
start_store() {
    tavd --socket "$TAV_SOCKET" --database "$dir/settings.db" --initial-node "${interface%/1}" \
        2>>"$dir/tavd.log" &
    store=$!
}
store_answers() { tav ls / >/dev/null 2>&1; }
start_daemon() {
    tandrel -d -D 3 2>>"$dir/tandrel.log" &
    daemon=$!
}

printf '%sA kernel, a settings store, and tandrel between them%s\n' "$bold" "$plain"
printf 'A network namespace contains the link eth0; a router on that link advertises 2001:db8:1::/64.\n'
printf '%sIn the commands below: A="%s"%s\n' "$dim" "$addresses" "$plain"
printf '%s                       G="%s"%s\n' "$dim" "$gateway" "$plain"
: >"$dir/tandrel.log"
make_world
start_store
expect 5 "The settings store (tavd) is running, and empty." store_answers
[ "$DEMO_SHOW" = no ] || start_watch

headline "The kernel configures itself; its addresses are stored."
both_views before
do_it tav mknode "$interface"
printf ' $ tandrel -d -D 3 &\n'
start_daemon
advertised() { kernel_addresses | grep -q '^2001:db8:1:'; }
expect 15 "The kernel gave eth0 a link-local address, and one from the advertised prefix." advertised
automatic() {
    in_step && [ "$(type_of "$(kernel_addresses | grep '^fe80:')")" = Link-Local ] &&
        [ "$(type_of "$(kernel_addresses | grep '^2001:db8:1:')")" = Automatic ]
}
expect 10 "The store holds both, with their types." automatic
both_views after
daemon_said 'ADDING addr'

headline "A Static address is set in the store; it appears in the kernel."
both_views before
do_it tav set "$addresses/office/Address/Value" 2001:db8:2::5/64 \
    "$addresses/office/Type/Value" Static
expect 5 "The kernel has 2001:db8:2::5/64 on eth0." kernel_has 2001:db8:2::5/64
both_views after
daemon_said 'Processing TAV event|ADDING addr'

headline "A gateway is set in the same way, then changed."
both_views before
do_it tav set "$gateway/Value" fe80::1
gateway_is() { [ "$(kernel_gateway)" = "$1" ] && [ "$(store_gateway)" = "$1" ]; }
expect 5 "The kernel's default route is via fe80::1." gateway_is fe80::1
both_views between
do_it tav set "$gateway/Value" fe80::2
expect 5 "Now via fe80::2, and fe80::1 is gone." gateway_is fe80::2
both_views after
daemon_said 'overriding|route \['

headline "An address is deleted in the kernel; it is removed from the store."
both_views before
do_it ip address del 2001:db8:2::5/64 dev eth0
expect 5 "The store no longer has 2001:db8:2::5/64." not store_has 2001:db8:2::5/64
both_views after
daemon_said 'REMOVING addr'

headline "The store service is killed and comes back; the daemon recovers."
both_views before
printf ' $ kill -KILL <tavd>\n'
# Suppresses bash's own message about it.
{ kill -KILL "$store"; wait "$store"; } 2>/dev/null
noticed() { tail -n "+$((log_mark + 1))" "$dir/tandrel.log" | grep -q 'Caught exception'; }
expect 5 "The daemon noticed; it tries again every ten seconds." noticed
both_views between
printf ' $ tavd --database settings.db &\n'
start_store
expect 5 "The store is back, with everything that it had acknowledged." store_answers
do_it tav set "$addresses/lab/Address/Value" 2001:db8:3::7/64 "$addresses/lab/Type/Value" Static
expect 25 "The daemon has recovered, too: the kernel has 2001:db8:3::7/64." kernel_has 2001:db8:3::7/64
expect 10 "Both views agree." in_step
both_views after
daemon_said 'Caught exception|beginning normal operation'

if [ "$DEMO_SHOW" = yes ]; then
    headline "An address is added and removed, and 'tandrelctl watch' shows it."
    watch_on_a_terminal
fi
if [ "$DEMO_STAY" = yes ]; then
    cat <<TEXT

${bold}It keeps running; this shell is inside.${plain} Try:
   tandrelctl show; tandrelctl check; tandrelctl watch
   tav tree /
   ip -6 address add 2001:db8:9::1/64 dev eth0; tav tree "\$addresses"
   tav set "\$addresses/desk/Address/Value" 2001:db8:4::1/64 "\$addresses/desk/Type/Value" Static
   tav rm -r "\$gateway"; ip -6 route
   tail -f \$DEMO_DIR/tandrel.log
Leave with "exit"; everything ends then.
TEXT
    export addresses gateway
    PS1='demo# ' bash --norc -i
fi

headline "The daemon is stopped."
both_views before
printf ' $ kill -TERM <tandrel>\n'
kill -TERM "$daemon" 2>/dev/null
wait "$daemon"
status=$?
[ "$status" -eq 0 ] || fail "the daemon ended with status $status"
printf ' %s✓ It ended with status 0, and left both sides as they were.%s\n' "$green" "$plain"
# A user of --stay may have changed them.
[ "$DEMO_STAY" = yes ] || in_step || fail "the views differ"
both_views afterwards
daemon_said 'exit signal|Exiting'

printf '\n%sAll of this happened on a real kernel.%s To try it yourself, run ./demo --stay; then read README.md.\n' \
    "$bold" "$plain"
