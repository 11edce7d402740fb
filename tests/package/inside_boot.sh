#!/bin/bash
# Checks the services in a system that systemd booted.
set -u
. /packages/expect.sh
export LC_ALL=C

main_pid() { systemctl show -P MainPID "$1"; }
restarts() { [ "$(systemctl show -P NRestarts "$1")" -ge 1 ]; }
messages() { journalctl -u "$1" -b --no-pager -o cat; }
has_address() { ip -6 address show dev eth0 | grep -q "2001:db8::5/64"; }
nice_is() { [ "$(awk '{print $19}' "/proc/$(main_pid tandrel)/stat")" = "$1" ]; }
policy_is() { chrt -p "$(main_pid tandrel)" | grep -q "policy: $1"; }
killed_often() { # more often than the service manager permits by default
    for _ in 1 2 3 4 5 6 7; do
        eventually systemctl is-active --quiet "$1" && kill -KILL "$(main_pid "$1")" || return 1
    done
}
once() { [ "$(messages tandrel | grep -c "$1")" -eq 1 ]; }

expect "the system is up" systemctl is-system-running --wait
for unit in tavd tandrel tandrel-keep; do
    expect "$unit runs" eventually systemctl is-active "$unit"
done
expect "systemd knows each setting of the units" \
    sh -c '! journalctl -b --no-pager -o cat | grep -E "(tandrel|tavd).*Unknown key"'
expect "the daemon has one capability" \
    grep -q '^CapEff:[[:space:]]*0000000000001000$' "/proc/$(main_pid tandrel)/status"
expect "its system calls are filtered" grep -q '^Seccomp:[[:space:]]*2$' "/proc/$(main_pid tandrel)/status"
expect "the store has none" grep -q '^CapEff:[[:space:]]*0000000000000000$' "/proc/$(main_pid tavd)/status"
expect "the start is logged once" eventually once "Starting tandrel daemon"
expect "the store answers" eventually tav ls /

ip link add eth0 type veth peer name peer0
ip link set eth0 up
ip link set peer0 up
expect "an interface is added" tandrelctl interface add eth0
expect "an address is set and arrives in the kernel" tandrelctl address add eth0 2001:db8::5/64 --wait=60
expect "ip(8) shows it" has_address
expect "the network is online then" systemctl start tandrel-wait-online
expect "both views agree" eventually tandrelctl check

ip link set eth0 down
expect "an address of a link that goes down is remembered" \
    eventually sh -c 'tandrelctl keep --list | grep -q 2001:db8::5/64'
ip link set eth0 up
expect "and is back when the link is up" eventually has_address
expect "both views agree again" eventually tandrelctl check
expect "the keeper logs what it does" \
    eventually sh -c 'journalctl -b --no-pager -o cat -t tandrel-keep | grep -q "is set again"'

kill -KILL "$(main_pid tavd)"
expect "the killed store is restarted" eventually restarts tavd
expect "with what was stored" eventually sh -c 'tav dump | grep -q 2001:db8::5/64'
kill -KILL "$(main_pid tandrel)"
expect "the killed daemon is restarted" eventually restarts tandrel
expect "the daemon comes to terms with the new store" eventually tandrelctl check
expect "the daemon is killed seven times" killed_often tandrel
expect "and restarted each time" eventually systemctl is-active tandrel
expect "a stopped daemon stays stopped" sh -c 'systemctl stop tandrel && ! pgrep -x tandrel'
expect "it ended with status 0" test "$(systemctl show -P Result tandrel)" = success
expect "it starts again" sh -c 'systemctl start tandrel && systemctl is-active tandrel'
mkdir -p /etc/systemd/system/tandrel.service.d
cp /usr/share/doc/tandrel/examples/scheduling.conf /etc/systemd/system/tandrel.service.d/
sed -i 's/-D 2/-D 2 -n -5 -r rr 7/' /etc/default/tandrel
systemctl daemon-reload
expect "with the drop-in it starts" systemctl restart tandrel
expect "with the priority that -n names" eventually nice_is -5
expect "and the policy that -r names" eventually policy_is SCHED_RR

systemctl stop tandrel-keep
expect "an older version is installed" apt-get install -y -q --allow-downgrades /older/tandrel_*.deb
expect "with the service that tandrel-keep replaces" eventually systemctl is-active tandrel-nudge
expect "it is upgraded" apt-get install -y -q /packages/tandrel_*.deb
expect "the replaced service has ended" not systemctl is-active tandrel-nudge
expect "and is enabled nowhere" \
    test -z "$(find /etc/systemd /var/lib/systemd -name '*tandrel-nudge*')"
expect "tandrel-keep runs" eventually systemctl is-active tandrel-keep
echo "-- journalctl -u tandrel"
messages tandrel | tail -n 25
finish
