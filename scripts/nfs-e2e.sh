#!/usr/bin/env bash
# A real NFS round trip through QuillCore's mount adapter, in a QEMU guest
# (this machine's kernel has no NFS; the guest runs Debian's own kernel).
#
#   scripts/nfs-e2e.sh [BUILD_DIR] [-- GUEST_HOOK...]
#
# BUILD_DIR (default build/dev) holds the built tools (quill-nfs-mount,
# quill-exports-watch, quillctl). The guest boots from the packaged kernel and
# a small busybox initramfs made here, mounts this machine's root file system
# read-only over virtio-9p and runs scripts/nfs-e2e-guest.sh from it, with
# tmpfs on /tmp, /run and /var/lib/nfs. The guest script prints one line
# "QUILL-NFS-E2E: PASS" or "QUILL-NFS-E2E: FAIL <why>" on the serial console;
# this script exits 0 only on PASS. Everything the guest says is kept in
# BUILD_DIR/nfs-e2e/console.log.
#
# GUEST_HOOK: a command (and its arguments) that the guest runs after the
# adapter round trip, with the NFS server up and the environment described
# in nfs-e2e-guest.sh; its failure fails the test. It runs in the source
# directory, so that a relative path names a script of this tree (for
# QuillCore's own round trip: -- bash scripts/nfs-e2e-quillcore.sh).
#
# Needs root (to install packages and read the kernel), no KVM (-accel tcg).
# Installs what it needs when missing: qemu-system-x86, linux-image-amd64,
# busybox-static, nfs-kernel-server. Bounded: the guest is killed after
# QUILL_NFS_E2E_TIMEOUT seconds (default 240).
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/.." && pwd)
build="$root/build/dev"
if [[ $# -gt 0 && $1 != "--" ]]; then
    build=$(cd "$1" && pwd)
    shift
fi
hook=()
if [[ $# -gt 0 && $1 == "--" ]]; then
    shift
    hook=("$@")
fi
timeout_s=${QUILL_NFS_E2E_TIMEOUT:-240}

fail() {
    echo "nfs-e2e: $*" >&2
    exit 1
}

# ------------------------------------------------------------ packages
packages=(qemu-system-x86 linux-image-amd64 busybox-static nfs-kernel-server cpio)
missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [[ ${#missing[@]} -gt 0 ]]; then
    [[ $(id -u) -eq 0 ]] || fail "missing packages ${missing[*]}; run as root to install them"
    apt-get update -qq
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

for tool in tools/quill-nfs-mount tools/quill-exports-watch; do
    [[ -x $build/$tool ]] || fail "$build/$tool is not built"
done

# The newest packaged kernel that has its modules.
kernel=""
for k in $(ls -1 /boot/vmlinuz-*-amd64 2>/dev/null | sort -V -r); do
    version=${k#/boot/vmlinuz-}
    if [[ -d /lib/modules/$version/kernel/fs/nfsd ]]; then
        kernel=$k
        break
    fi
done
[[ -n $kernel ]] || fail "no packaged amd64 kernel with NFS modules in /boot"
version=${kernel#/boot/vmlinuz-}

# ------------------------------------------------------------ initramfs
work="$build/nfs-e2e"
# The guest has fresh tmpfs on /tmp, /run and /var/lib/nfs. A source or build
# tree below the host's /tmp (a CI clone, say) is bound back in place there;
# below /run or /var/lib/nfs it cannot be.
keep=()
for dir in "$root" "$build"; do
    case $dir/ in
        *[[:space:],]*) fail "$dir: a path with white space or a comma cannot be handed to the guest" ;;
        /tmp/*)
            rest=${dir#/tmp/}
            top=/tmp/${rest%%/*}
            [[ " ${keep[*]} " == *" $top "* ]] || keep+=("$top")
            ;;
        /run/* | /var/lib/nfs/*) fail "$dir is hidden in the guest (tmpfs there); use a directory elsewhere" ;;
    esac
done
keep_list=$(IFS=,; echo "${keep[*]}")
rm -rf "$work"
mkdir -p "$work/initramfs/bin" "$work/initramfs/modules"
cp /bin/busybox "$work/initramfs/bin/busybox"
# The 9p transport over virtio, in load order.
chain=(virtio_ring virtio virtio_pci_legacy_dev virtio_pci_modern_dev virtio_pci 9pnet 9pnet_virtio netfs fscache 9p)
for m in "${chain[@]}"; do
    f=$(modinfo -k "$version" -n "$m" 2>/dev/null) || continue  # built into the kernel
    [[ $f == /* ]] || continue
    case $f in
        *.ko) cp "$f" "$work/initramfs/modules/$m.ko" ;;
        *.ko.xz) xz -dc "$f" >"$work/initramfs/modules/$m.ko" ;;
        *.ko.zst) zstd -qdc "$f" >"$work/initramfs/modules/$m.ko" ;;
        *) fail "unexpected module file $f" ;;
    esac
    echo "$m" >>"$work/initramfs/modules/order"
done
cat >"$work/initramfs/init" <<'INIT'
#!/bin/busybox sh
/bin/busybox --install -s /bin
export PATH=/bin
mount -t proc proc /proc
mount -t sysfs sysfs /sys
mount -t devtmpfs devtmpfs /dev
say() { echo "$@" >/dev/console; }
for m in $(cat /modules/order); do insmod /modules/$m.ko || say "init: insmod $m failed"; done
mkdir -p /host
if ! mount -t 9p -o trans=virtio,version=9p2000.L,ro hostroot /host; then
    say "QUILL-NFS-E2E: FAIL the guest could not mount the host over 9p"
    reboot -f
fi
keep=$(sed -n 's/.*quill.keep=\([^ ]*\).*/\1/p' /proc/cmdline)
mkdir -p /hosttmp
[ -n "$keep" ] && mount --bind /host/tmp /hosttmp
for d in tmp run var/lib/nfs; do mount -t tmpfs -o mode=0755 tmpfs /host/$d; done
chmod 1777 /host/tmp
for k in $(echo "$keep" | tr ',' ' '); do
    mkdir -p "/host$k" && mount --bind "/hosttmp/${k#/tmp/}" "/host$k" || say "init: can't keep $k"
done
mount --rbind /proc /host/proc
mount --rbind /sys /host/sys
mount --rbind /dev /host/dev
job=$(sed -n 's/.*quill.job=\([^ ]*\).*/\1/p' /proc/cmdline)
chroot /host /bin/bash "$job/run" >/dev/console 2>&1 || say "QUILL-NFS-E2E: FAIL the guest script ended with status $?"
sync
reboot -f
INIT
chmod 755 "$work/initramfs/init"
mkdir -p "$work/initramfs/proc" "$work/initramfs/sys" "$work/initramfs/dev" "$work/initramfs/tmp"
(cd "$work/initramfs" && find . | cpio -o -H newc --quiet) | gzip -1 >"$work/initramfs.gz"

# ------------------------------------------------------------ the job
# What the guest runs, read through the 9p share.
{
    echo "#!/bin/bash"
    printf 'export QUILL_BUILD_DIR=%q QUILL_SOURCE_DIR=%q\n' "$build" "$root"
    printf 'cd %q\n' "$root"
    printf 'exec /bin/bash %q' "$here/nfs-e2e-guest.sh"
    for arg in "${hook[@]}"; do printf ' %q' "$arg"; done
    echo
} >"$work/run"

# ------------------------------------------------------------ boot
console="$work/console.log"
start=$(date +%s)
set +e
timeout --kill-after=10 "$timeout_s" qemu-system-x86_64 \
    -accel tcg -m 1024 -smp 1 -nodefaults -no-reboot -display none \
    -kernel "$kernel" -initrd "$work/initramfs.gz" \
    -append "console=ttyS0 panic=-1 quiet loglevel=3 quill.job=$work${keep_list:+ quill.keep=$keep_list}" \
    -virtfs "local,path=/,mount_tag=hostroot,security_model=none,readonly=on,multidevs=remap" \
    -serial "file:$console" -monitor none
status=$?
set -e
elapsed=$(($(date +%s) - start))

result=$(grep -a -o 'QUILL-NFS-E2E: [A-Z].*' "$console" | head -n 1 | tr -d '\r' || true)
if [[ $status -eq 124 || $status -eq 137 ]]; then
    tail -n 40 "$console" >&2 || true
    fail "the guest did not finish within ${timeout_s} s"
fi
if [[ $result == "QUILL-NFS-E2E: PASS" ]]; then
    echo "nfs-e2e: PASS (${elapsed} s)"
    exit 0
fi
tail -n 60 "$console" >&2 || true
fail "${result:-no result from the guest (qemu status $status)}"
