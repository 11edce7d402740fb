#!/bin/bash
# Boots the tree with systemd, in a container, and checks the services there. Call this in a new
# mount namespace.
set -u
root=$1
mount --make-rprivate /
# The container's manager keeps its mounts there and wants it to be volatile.
mkdir -p /run/systemd
mount -t tmpfs tmpfs /run/systemd
install -m 755 tests/package/inside_boot.sh tests/package/expect.sh "$root/packages/"
chroot "$root" sh -c 'DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends /packages/*.deb' \
    >"$root/../install.log" 2>&1 || { tail -n 20 "$root/../install.log" >&2; exit 1; }
# shellcheck disable=SC2154 # the caller sets counts
systemd-nspawn -q -D "$root" --boot --register=no --keep-unit --private-network \
    --console=read-only --bind="$counts:/counts" </dev/null >"$root/../console.log" 2>&1 &
container=$!

# The container's first process is the child of the one that made it.
for ((i = 0; i < 300; i++)); do
    leader=$(cat "/proc/$container/task/$container/children" 2>/dev/null)
    leader=${leader%% *}
    [ -n "$leader" ] && nsenter -t "$leader" -a systemctl is-system-running --wait 2>/dev/null && break
    sleep 0.2
done
nsenter -t "$leader" -a env counts=/counts bash /packages/inside_boot.sh
status=$?
nsenter -t "$leader" -a systemctl poweroff
wait "$container"
exit "$status"
