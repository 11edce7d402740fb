#!/bin/bash
# The packages' life cycle in a clean tree without a service manager: installed, used, upgraded,
# removed, installed again, purged.
set -u
. /packages/expect.sh
export DEBIAN_FRONTEND=noninteractive LC_ALL=C

ip link add eth0 type veth peer name peer0
ip link set eth0 up
ip link set peer0 up

address=2001:db8::5/64
has_address() { ip -6 address show dev eth0 | grep -q "$address"; }
stored() { tav dump | grep -q "$address"; }
install_from() { apt-get install -y -q --no-install-recommends "$1"/*.deb; }
installed_files() { find / -xdev \( -name '*tandrel*' -o -name 'tav*' -o -name 'libtav*' \) \
    -not -path '/proc/*' -not -path '/packages/*' -not -path '/newer/*' -not -path '/older/*' -not -path '/sys/*' \
    -not -path '/var/cache/*' -not -path '/var/log/*' -not -path '/var/lib/dpkg/*' -not -path '/dev/*'; }

# No init booted this tree, so the packages start nothing by themselves.
services() { service tavd "$1" && service tandrel "$1" && service tandrel-keep "$1"; }

expect "installs" install_from /packages
expect "the services start" services start
expect "and say that they run" eventually services status
expect "the daemon runs as a user of its own" pgrep -u tandrel -x tandrel
expect "with one capability" grep -q '^CapEff:[[:space:]]*0000000000001000$' "/proc/$(pgrep -x tandrel)/status"
expect "the service runs as a user of its own" pgrep -u tav -x tavd
expect "the database is for its user only" test "$(stat -c '%U %a' /var/lib/tav)" = "tav 750"

expect "the store answers" eventually tav ls /
expect "an interface is added" tandrelctl interface add eth0
expect "an address is set and arrives in the kernel" tandrelctl address add eth0 "$address" --wait=60
expect "ip(8) shows it" eventually has_address
expect "both views agree" tandrelctl check
ip link set eth0 down
expect "an address of a link that goes down is remembered" \
    eventually sh -c "tandrelctl keep --list | grep -q $address"
ip link set eth0 up
expect "and is back when the link is up" eventually has_address

sed -i 's/-D 2/-D 3/' /etc/default/tandrel
expect "upgrades" install_from /newer
expect "the services start again" services restart
expect "and say that they run" eventually services status
expect "the newer version is there" sh -c 'dpkg-query -W -f "\${Version}" tandrel | grep -q newer'
expect "the database survived" eventually stored
expect "so did the edited options" grep -q -- '-D 3' /etc/default/tandrel
expect "which are in force" sh -c 'tr "\0" " " </proc/$(pgrep -x tandrel)/cmdline | grep -q -- "-d -D 3"'
expect "the address is there" eventually has_address

expect "the services stop" services stop
expect "is removed" apt-get remove -y -q tandrel tavd
expect "the service is gone" not pgrep -x tavd
expect "the daemon is gone" not pgrep -x tandrel
expect "the keeper is gone" not pgrep -x tandrelctl
expect "the database stays" test -s /var/lib/tav/settings.db
expect "the options stay" grep -q -- '-D 3' /etc/default/tandrel
expect "is installed again" install_from /newer
expect "the services start once more" services start
expect "with what was stored" eventually stored

expect "is purged" apt-get purge -y -q tandrel tavd libtav0 libtav-dev
expect "nothing is left" test -z "$(installed_files)"
installed_files
finish
