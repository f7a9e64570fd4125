#!/bin/bash
# The shared-storage round trip through QuillCore, as a hook of
# scripts/nfs-e2e.sh (run in the QEMU guest, as root, with the kernel NFS
# server, quill-exports-watch and the system bus up):
#
#   scripts/nfs-e2e.sh BUILD_DIR -- bash scripts/nfs-e2e-quillcore.sh
#
# Starts `quillctl storage serve` over the guest's exports file and the mount
# adapter; has clients (one as root, one as nobody, on the system bus)
# publish a tmpfs directory (the export line appears and
# exportfs puts it in force), subscribe it over 127.0.0.1 (an NFS mount
# through the adapter), write through the mount, subscribe it a second time
# (the mount is shared), unsubscribe twice (the last one unmounts) and
# unpublish twice (the last one removes the line and the export); then stops
# the server with SIGTERM. Every wait is bounded. Exits non-zero, saying why,
# at the first thing that is not as it should be.
#
# Environment (set by nfs-e2e-guest.sh): QUILL_E2E_EXPORTS, QUILL_MOUNT,
# QUILL_UMOUNT, DBUS_SYSTEM_BUS_ADDRESS, PATH with the build's tools.
set -uo pipefail

say() { echo "nfs-e2e-quillcore: $*"; }
fail() {
    say "FAIL $*"
    [[ -f ${serve_log:-} ]] && say "server output: $(tr '\n' ' ' <"$serve_log")"
    exit 1
}
# shellcheck source=scripts/e2e-waits.sh
source "$(dirname "${BASH_SOURCE[0]}")/e2e-waits.sh"

: "${QUILL_E2E_EXPORTS:?}" "${QUILL_MOUNT:?}" "${QUILL_UMOUNT:?}" "${DBUS_SYSTEM_BUS_ADDRESS:?}"
command -v quillctl >/dev/null || fail "no quillctl on PATH"

# The serving process's settings: the exports file that the watcher puts in
# force, and export options with an fsid (a tmpfs directory has no device
# number that NFS could name it by; fsid=1 is the guest script's own export).
export QUILL_EXPORTS_FILE=$QUILL_E2E_EXPORTS
export QUILL_EXPORT_OPTIONS='127.0.0.1(rw,insecure,no_subtree_check,no_root_squash,fsid=2)'
export HOME=/tmp/quill-e2e-home
mkdir -p "$HOME"

shared=/tmp/quill-shared
mnt=/tmp/quill-subscribed
serve_log=/run/quill-serve.log
mkdir -p "$shared" "$mnt"
chmod 0777 "$shared"

# ------------------------------------------------------------ the server
quillctl storage serve >"$serve_log" 2>&1 &
server=$!
cleanup() {
    kill -TERM "$server" 2>/dev/null
    grep -q " $mnt nfs " /proc/mounts && umount -f "$mnt" 2>/dev/null
}
trap cleanup EXIT
serving() { grep -q '^serving$' "$serve_log"; }
wait_for 30 serving || fail "the server did not start"
# Observing is in force once a request is answered.
answers() { bounded 10 quillctl storage port --timeout 2 >/dev/null 2>&1; }
wait_for 30 answers || fail "the server never answered on the system bus"
say "the server answers"

# Every client request, bounded twice: by its own reply time-out and by ours.
# The second holder is an ordinary user's program, as clients are.
client() { bounded 90 quillctl storage "$@" --timeout 70; }
client_nobody() {
    bounded 90 setpriv --reuid=nobody --regid=nogroup --clear-groups quillctl storage "$@" --timeout 70
}
line_present() { grep -q "^$shared " "$QUILL_EXPORTS_FILE"; }
exported() { exportfs -s 2>/dev/null | grep -q "^$shared "; }
mounts_at() { grep -c " $mnt nfs " /proc/mounts; }

# ------------------------------------------------------------ publish
client publish "$shared" --client E2E-A --pid $$ || fail "publish failed"
client_nobody publish "$shared" --client E2E-B --pid $$ || fail "the second publish (as nobody) failed"
line_present || fail "no export line for $shared: $(tr '\n' '|' <"$QUILL_EXPORTS_FILE")"
wait_for 5 exported || fail "$shared is not exported: $(exportfs -s | tr '\n' '|')"
say "published: $(grep "^$shared " "$QUILL_EXPORTS_FILE")"

# ------------------------------------------------------------ subscribe
point=$(client subscribe "127.0.0.1:$shared" "$mnt" --client E2E-A --pid $$) || fail "subscribe failed"
[[ $point == "$mnt" ]] || fail "subscribe printed '$point', not $mnt"
[[ $(mounts_at) -eq 1 ]] || fail "no NFS mount at $mnt: $(grep " $mnt " /proc/mounts)"
say "mounted: $(grep " $mnt " /proc/mounts)"
grep -q "^127.0.0.1:$shared $mnt nfs " /proc/mounts || fail "the mount at $mnt is not of 127.0.0.1:$shared"

echo "through QuillCore $$" >"$mnt/hello.txt" || fail "can't write through the mount"
sync
[[ $(cat "$shared/hello.txt" 2>/dev/null) == "through QuillCore $$" ]] ||
    fail "the file written through the mount is not in the exported directory"

client_nobody subscribe "127.0.0.1:$shared" "$mnt" --client E2E-B --pid $$ >/dev/null ||
    fail "the second subscribe (as nobody) failed"
[[ $(mounts_at) -eq 1 ]] || fail "the second subscribe did not share the mount: $(grep " $mnt " /proc/mounts)"
listed=$(client list) || fail "list failed"
say "held: $(echo "$listed" | tr '\n' '|')"
grep -q "^subscribed	$mnt	nfs://127.0.0.1$shared	2	" <<<"$listed" || fail "the mount is not held twice"
grep -q "^published	$shared	2	" <<<"$listed" || fail "the export is not held twice"

# ------------------------------------------------------------ unsubscribe
client unsubscribe "127.0.0.1:$shared" "$mnt" --client E2E-A --pid $$ || fail "unsubscribe failed"
[[ $(mounts_at) -eq 1 ]] || fail "the first unsubscribe unmounted what another still holds"
[[ -f $mnt/hello.txt ]] || fail "the mount no longer shows the file"
client_nobody unsubscribe "127.0.0.1:$shared" "$mnt" --client E2E-B --pid $$ || fail "the last unsubscribe failed"
[[ $(mounts_at) -eq 0 ]] || fail "the last unsubscribe left $mnt mounted"
say "the last unsubscribe unmounted"

# ------------------------------------------------------------ unpublish
client unpublish "$shared" --client E2E-A --pid $$ || fail "unpublish failed"
line_present || fail "the first unpublish removed the line that another still holds"
exported || fail "the first unpublish withdrew the export that another still holds"
client_nobody unpublish "$shared" --client E2E-B --pid $$ || fail "the last unpublish failed"
line_present && fail "the last unpublish left the export line"
gone() { ! exported; }
wait_for 5 gone || fail "$shared is still exported: $(exportfs -s | tr '\n' '|')"
[[ -n $(client list) ]] && fail "the server still holds something: $(client list | tr '\n' '|')"
say "the last unpublish removed the line and the export"

# ------------------------------------------------------------ stop
kill -TERM "$server"
ended() { ! kill -0 "$server" 2>/dev/null; }
wait_for 20 ended || fail "the server did not stop on SIGTERM"
wait "$server"
status=$?
[[ $status -eq 0 ]] || fail "the server ended with status $status"
trap - EXIT
say "the server stopped cleanly"
say "PASS"
