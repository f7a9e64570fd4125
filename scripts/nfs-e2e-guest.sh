#!/bin/bash
# The guest half of scripts/nfs-e2e.sh: runs as root in the QEMU guest, in
# the host's root file system (read-only over 9p) with tmpfs on /tmp, /run
# and /var/lib/nfs and a tmpfs copy of /etc. Checks that a silent host fails
# a mount within the subscriber's limit; starts the kernel NFS server; puts
# an export in force through the exports file and quill-exports-watch; mounts
# it over 127.0.0.1 through the mount adapter (with the subscriber's own
# argument vectors), writes through the mount and unmounts; starts the system
# bus with the installed policy and has two users' processes meet on it. Ends
# with one line on standard output: "QUILL-NFS-E2E: PASS" or
# "QUILL-NFS-E2E: FAIL <why>".
#
# Environment: QUILL_BUILD_DIR (the built tools), QUILL_SOURCE_DIR.
#
# Hook: arguments given to this script form a command that runs after the
# round trip, with the server still up and these variables set:
#   QUILL_E2E_EXPORTS   the exports file in force (/etc/exports, on tmpfs)
#   QUILL_E2E_EXPORT    an exported tmpfs directory (fsid=1, 127.0.0.1 rw)
#   QUILL_MOUNT, QUILL_UMOUNT   the mount adapter under both names
#   DBUS_SYSTEM_BUS_ADDRESS     the guest's system bus (the host-wide bus),
#                       running with the policy file installed
#   PATH                including the build's tools directory
# A hook that fails (or takes longer than QUILL_E2E_HOOK_TIMEOUT seconds,
# default 120) fails the test.
set -uo pipefail
export PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin

say() { echo "nfs-e2e-guest: $*"; }
fail() {
    echo "QUILL-NFS-E2E: FAIL $*"
    exit 1
}
# shellcheck source=scripts/e2e-waits.sh
source "$(dirname "${BASH_SOURCE[0]}")/e2e-waits.sh"

tools="$QUILL_BUILD_DIR/tools"
adapter="$tools/quill-nfs-mount"
[[ -x $adapter ]] || fail "no mount adapter at $adapter"

# ------------------------------------------------------------ the server
ip link set lo up || fail "no loopback"
# Pseudo-terminals, as on any host: the storage subscriber runs the mount
# commands as terminal tasks.
if ! grep -q ' /dev/pts devpts ' /proc/mounts; then
    mkdir -p /dev/pts
    mount -t devpts -o gid=5,mode=620,ptmxmode=0666 devpts /dev/pts || fail "can't mount devpts"
fi
bounded 30 modprobe -a nfsd nfs nfsv3 || fail "modprobe nfsd nfs nfsv3"
mount -t nfsd nfsd /proc/fs/nfsd || fail "can't mount the nfsd file system"
mkdir -p /run/rpcbind /var/lib/nfs/rpc_pipefs /var/lib/nfs/v4recovery
# A host that takes connections and never answers (portmapper and NFS
# ports, TCP and UDP) must fail the adapter's mount well inside the
# subscriber's 55 s. Before the real server starts, so that the ports are
# free.
python3 - >/run/silent-server.log 2>&1 <<'SILENT' &
import socket, time
tcp, udp = [], []
for port in (111, 2049):
    tcp.append(socket.create_server(("127.0.0.2", port)))
    u = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    u.bind(("127.0.0.2", port))
    udp.append(u)
held = []
for s in tcp:
    s.setblocking(False)
end = time.time() + 120
while time.time() < end:
    for s in tcp:
        try:
            held.append(s.accept()[0])
        except BlockingIOError:
            pass
    time.sleep(0.05)
SILENT
silent=$!
sleep 0.5
kill -0 "$silent" 2>/dev/null || fail "the silent server did not start: $(cat /run/silent-server.log)"
mkdir -p /tmp/quill-dead
started=$(date +%s)
if bounded 70 "$adapter" -o soft,intr,locallocks 127.0.0.2:/dead /tmp/quill-dead >/run/dead-mount.log 2>&1; then
    fail "a mount from a silent server succeeded"
fi
took=$(($(date +%s) - started))
kill "$silent" 2>/dev/null
say "a silent server failed the mount after ${took} s: $(tr '\n' ' ' </run/dead-mount.log)"
[[ $took -lt 55 ]] || fail "a silent server held the mount for ${took} s (limit 55)"

bounded 10 rpcbind -w || fail "rpcbind did not start"

# A writable /etc (a tmpfs copy of the host's), so that the exports file is
# replaced the way a real host's is.
mkdir -p /run/etc
cp -a /etc/. /run/etc/ || fail "can't copy /etc"
mount --bind /run/etc /etc || fail "can't bind the copy of /etc"
: >/etc/exports
: >/var/lib/nfs/etab
: >/var/lib/nfs/rmtab

# The host-wide notification bus: the system bus with our policy installed
# where a host keeps it.
mkdir -p /etc/dbus-1/system.d /run/dbus
cp "$QUILL_SOURCE_DIR/dbus/com.tessaly.quillcore.Notifications.conf" /etc/dbus-1/system.d/
bounded 10 dbus-daemon --system --fork || fail "the system bus did not start"
bounded 10 dbus-send --system --print-reply --dest=org.freedesktop.DBus / org.freedesktop.DBus.GetId >/dev/null ||
    fail "the system bus does not answer"

"$tools/quill-exports-watch" --exports /etc/exports >/run/quill-exports-watch.log 2>&1 &
watcher=$!
bounded 20 rpc.nfsd -N 4 2 || fail "rpc.nfsd"
bounded 10 rpc.mountd -N 4 || fail "rpc.mountd"

cleanup() {
    kill "$watcher" "$(cat /run/dbus/pid 2>/dev/null)" 2>/dev/null
    rpc.nfsd 0 2>/dev/null
}
trap cleanup EXIT

# ------------------------------------------------------------ export
export_dir=/tmp/quill-export
mnt=/tmp/quill-mnt
mkdir -p "$export_dir" "$mnt"
chmod 0777 "$export_dir"
# Rewritten whole and renamed into place; the watcher must put it in force
# within a second.
printf '%s 127.0.0.1(rw,no_subtree_check,no_root_squash,insecure,fsid=1)\n' "$export_dir" >/etc/exports.new
mv /etc/exports.new /etc/exports
in_force() { exportfs -s 2>/dev/null | grep -q "^$export_dir "; }
wait_for 1 in_force || fail "the export was not in force within a second (watcher: $(cat /run/quill-exports-watch.log))"
say "export in force: $(exportfs -s | tr '\n' ' ')"

# ------------------------------------------------------------ mount
# The subscriber's argument vector, without a port (the URL had none).
bounded 60 "$adapter" -o soft,intr,locallocks "127.0.0.1:$export_dir" "$mnt" ||
    fail "the mount adapter failed to mount 127.0.0.1:$export_dir"
grep -q " $mnt nfs " /proc/mounts || fail "no NFS mount at $mnt: $(grep " $mnt " /proc/mounts)"
say "mounted: $(grep " $mnt " /proc/mounts)"
echo "written through NFS $$" >"$mnt/hello.txt" || fail "can't write through the mount"
sync
[[ $(cat "$export_dir/hello.txt" 2>/dev/null) == "written through NFS $$" ]] ||
    fail "the file written through the mount is not in the exported directory"

# A sub-export URL's port -1 is dropped, so a second mount of the same export
# elsewhere works too.
mnt2=/tmp/quill-mnt2
mkdir -p "$mnt2"
bounded 60 "$adapter" -o port=-1,mountport=-1,soft,intr,locallocks "127.0.0.1:$export_dir" "$mnt2" ||
    fail "the mount adapter failed with port=-1"
[[ -f $mnt2/hello.txt ]] || fail "the second mount does not show the file"

# ------------------------------------------------------------ unmount
ln -sf "$adapter" /run/quill-nfs-umount
for m in "$mnt2" "$mnt"; do
    bounded 60 /run/quill-nfs-umount -f "$m" || fail "the adapter failed to unmount $m"
    ! grep -q " $m " /proc/mounts || fail "$m is still mounted"
done
# The adapter refuses to take down what is not NFS.
if bounded 10 /run/quill-nfs-umount -f /tmp 2>/dev/null; then fail "the adapter unmounted /tmp"; fi

# ------------------------------------------------------------ host-wide bus
# Two processes of different users meet on the system bus through the
# library's host-wide centre (the notification test peer, when built).
peer="$QUILL_BUILD_DIR/tests/quill_notify_peer"
if [[ -x $peer ]]; then
    name="QuillE2EMeet$$"
    bounded 20 setpriv --reuid=nobody --regid=nogroup --clear-groups "$peer" --host meet "$name" >/run/meet-nobody.log 2>&1 &
    other=$!
    bounded 20 "$peer" --host meet "$name" >/run/meet-root.log 2>&1 || fail "root heard nobody on the system bus: $(cat /run/meet-root.log)"
    wait "$other" || fail "nobody heard root on the system bus: $(cat /run/meet-nobody.log)"
    say "root and nobody met on the system bus"
fi

# ------------------------------------------------------------ hook
if [[ $# -gt 0 ]]; then
    say "hook: $*"
    DBUS_SYSTEM_BUS_ADDRESS=unix:path=/run/dbus/system_bus_socket \
        QUILL_E2E_EXPORTS=/etc/exports QUILL_E2E_EXPORT=$export_dir QUILL_MOUNT=$adapter \
        QUILL_UMOUNT=/run/quill-nfs-umount PATH="$tools:$PATH" \
        bounded "${QUILL_E2E_HOOK_TIMEOUT:-120}" "$@" || fail "the hook failed with status $?"
fi

echo "QUILL-NFS-E2E: PASS"
