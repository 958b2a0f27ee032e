#!/usr/bin/env bash
# The hardware rig: Debian's stock kernel under QEMU with QEMU's edu PCI card
# bound to uio_pci_generic, the Linux host's binaries inside, init.sh's
# checks. Usage: tests/hw/run.sh [BIN [N]]
#   BIN  the linux preset's product folder (default build/linux/bin)
#   N    interrupts per long run (default 1200: the host checks the
#        sequence for gaps after its first 1000 events)
# Prints the guest's "HW:" lines; exits 0 when every check passed. The kernel
# image and busybox-static come from apt-get download, unpacked and cached in
# build/hw/. KVM is tried first and TCG used when KVM does not boot.
set -uo pipefail
ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)"
BIN="$(cd "${1:-$ROOT/build/linux/bin}" && pwd)" || { echo "hw: no product folder ${1:-build/linux/bin}"; exit 1; }
N="${2:-1200}"
WORK="$ROOT/build/hw"
HERE="$ROOT/tests/hw"
die() { echo "hw: $*"; exit 1; }

# Downloads a package's .deb once into build/hw/deb and unpacks it once.
fetch() {  # package, folder to unpack into
  local deb
  mkdir -p "$WORK/deb"
  deb=$(ls "$WORK/deb/$1"_*.deb 2>/dev/null | head -1)
  if [ -z "$deb" ]; then
    (cd "$WORK/deb" && apt-get download "$1" >/dev/null 2>&1) \
      || (apt-get update -qq >/dev/null 2>&1 && cd "$WORK/deb" && apt-get download "$1" >/dev/null 2>&1) \
      || die "apt-get download $1 failed: the rig cannot run without it"
    deb=$(ls "$WORK/deb/$1"_*.deb | head -1)
  fi
  if [ ! -f "$2/.from" ] || [ "$(cat "$2/.from")" != "$deb" ]; then
    rm -rf "$2" && mkdir -p "$2" && dpkg-deb -x "$deb" "$2" || die "cannot unpack $deb"
    echo "$deb" >"$2/.from"
  fi
}

command -v qemu-system-x86_64 >/dev/null || die "qemu-system-x86_64 is missing (package qemu-system-x86)"
for f in zor zorctl event.irq uio_pci_isr.so libzorclient.a; do
  [ -f "$BIN/$f" ] || die "$BIN/$f is missing: build the linux preset first"
done
KPKG=$(apt-cache depends linux-image-amd64 2>/dev/null | awk '/Depends: linux-image-[0-9]/ {print $2; exit}')
if [ -z "$KPKG" ]; then
  apt-get update -qq >/dev/null 2>&1
  KPKG=$(apt-cache depends linux-image-amd64 2>/dev/null | awk '/Depends: linux-image-[0-9]/ {print $2; exit}')
fi
[ -n "$KPKG" ] || die "apt-cache names no kernel for linux-image-amd64"
fetch "$KPKG" "$WORK/kernel"
fetch busybox-static "$WORK/busybox"
KERNEL=$(ls "$WORK"/kernel/boot/vmlinuz-* | head -1)
MODS=$(ls -d "$WORK"/kernel/lib/modules/*/kernel/drivers/uio)

# The generator, against the product's client library.
g++ -O2 -std=c++20 -I"$ROOT/include" -I"$BIN/../include" -I"$ROOT/samples" "$HERE/hw_gen.cpp" \
  "$BIN/libzorclient.a" -lpthread -o "$WORK/hw_gen" || die "hw_gen does not build"

# The initramfs: busybox, init.sh, the host's files, the two modules and
# every library the programs load.
STAGE="$WORK/initramfs"
rm -rf "$STAGE" && mkdir -p "$STAGE"/{bin,zor,lib/modules,proc,sys,dev}
cp "$WORK/busybox/bin/busybox" "$STAGE/bin/"
cp "$HERE/init.sh" "$STAGE/init" && chmod +x "$STAGE/init"
cp "$BIN"/{zor,zorctl,event.irq,uio_pci_isr.so} "$WORK/hw_gen" "$STAGE/zor/"
cp "$MODS/uio.ko" "$MODS/uio_pci_generic.ko" "$STAGE/lib/modules/"
for lib in $(ldd "$STAGE"/zor/* 2>/dev/null | grep -o '/[^ :]*\.so[^ :]*' | grep -v "^$STAGE" | sort -u); do
  cp -L --parents "$lib" "$STAGE" || die "cannot copy $lib"
done
(cd "$STAGE" && find . | "$WORK/busybox/bin/busybox" cpio -o -H newc 2>/dev/null | gzip -1 >"$WORK/initramfs.gz") \
  || die "cannot pack the initramfs"

QEMU=(qemu-system-x86_64 -m 512 -smp 1 -nographic -no-reboot -kernel "$KERNEL" -initrd "$WORK/initramfs.gz"
      -device edu,addr=04.0 -append "console=ttyS0 quiet panic=-1 edd=off hw_n=$N")
OUT="$WORK/guest.log"
# Boots with the given accelerator flags; gives up when the guest's init has
# not spoken within $1 seconds, or has not finished within $2.
boot() {  # seconds to "HW: up", seconds in all, qemu flags...
  local up=$1 all=$2 pid waited=0
  shift 2
  "${QEMU[@]}" "$@" </dev/null >"$OUT" 2>&1 &
  pid=$!
  while kill -0 $pid 2>/dev/null; do
    grep -q "HW-RESULT:" "$OUT" && break
    if [ $waited -ge $all ] || { [ $waited -ge $up ] && ! grep -q "HW: up" "$OUT"; }; then
      kill $pid 2>/dev/null; wait $pid 2>/dev/null
      return 1
    fi
    sleep 1; waited=$((waited + 1))
  done
  wait $pid 2>/dev/null
  grep -q "HW-RESULT:" "$OUT"
}
start=$(date +%s)
if [ -w /dev/kvm ] && boot 20 150 -accel kvm -cpu max; then
  ACCEL=kvm
else
  [ -w /dev/kvm ] && echo "hw: the KVM guest did not boot; using TCG"
  ACCEL=tcg
  boot 60 170 -accel tcg -cpu max || { tr -d '\r' <"$OUT" | tail -40; die "the guest did not finish (TCG)"; }
fi
tr -d '\r' <"$OUT" | grep -aoE "HW(:|-RESULT:) .*" | sed "s/^/[$ACCEL] /"  # after the firmware's escapes
echo "hw: $ACCEL guest, $(( $(date +%s) - start )) s"
grep -q "HW-RESULT: PASS" "$OUT"
