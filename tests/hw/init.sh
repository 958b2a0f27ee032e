#!/bin/busybox sh
# The guest's init: Debian's stock kernel, QEMU's edu card bound to
# uio_pci_generic, and the Linux host with event.irq and uio_pci_isr
# serving it. Every check prints "HW: ok ..." or "HW: FAIL ..."; the last
# line is "HW-RESULT: PASS" or "HW-RESULT: FAIL", then the guest powers off.
# hw_n (from the kernel command line) is how many interrupts the first run
# raises; the host checks the sequence for gaps once it has seen 1000.
/bin/busybox --install -s /bin
export PATH=/bin:/zor HOME=/root
mount -t proc proc /proc
mount -t sysfs sys /sys
mount -t devtmpfs dev /dev
mkdir -p /dev/shm /tmp /root && mount -t tmpfs shm /dev/shm && mount -t tmpfs tmp /tmp
export ZOR_RUNTIME_DIR=/tmp/run ZOR_LOG_FILE=/tmp/zor.log XDG_CONFIG_HOME=/tmp/config XDG_STATE_HOME=/tmp/state
N=${hw_n:-1200}
DRV=/sys/bus/pci/drivers/uio_pci_generic
FAILED=0

say() { echo "HW: $*"; }
check() {  # description, then a command that must succeed
  what=$1; shift
  if "$@"; then say "ok $what"; else say "FAIL $what"; FAILED=1; fi
}
finish() {
  [ "$FAILED" = 0 ] || { say "host log:"; sed 's/^/HW:   /' /tmp/zor.log 2>/dev/null | tr -d '\r'; }
  [ "$FAILED" = 0 ] && echo "HW-RESULT: PASS" || echo "HW-RESULT: FAIL"
  sync
  poweroff -f
}
# Waits up to $2 seconds (default 5) for the host's log to hold $1.
log_has() {
  i=0
  while [ $i -lt $(( ${2:-5} * 10 )) ]; do
    grep -q "$1" /tmp/zor.log 2>/dev/null && return 0
    sleep 0.1; i=$((i + 1))
  done
  return 1
}
field() { echo "$2" | tr ' ' '\n' | sed -n "s/^$1=//p"; }  # name, "a=1 b=2" line
state() { hw_gen state; }

start_host() {  # DEVICE, REENABLE
  printf '[INIT]\r\nLASTIRQ=event.irq\r\n[EVENTIRQ]\r\nDEVICE=%s\r\nREENABLE=%s\r\n' "$1" "$2" >/zor/ZOR.INI
  rm -f /tmp/zor.log
  zor -hide >/tmp/zor.out 2>&1 &
  HOST=$!
  i=0
  until zorctl --pid $HOST status >/dev/null 2>&1; do
    i=$((i + 1)); [ $i -lt 100 ] || { say "FAIL the host did not come up"; cat /tmp/zor.out; FAILED=1; finish; }
    sleep 0.1
  done
  zorctl --pid $HOST register uio_pci_isr.so --shm 4096 >/dev/null || { say "FAIL register"; FAILED=1; finish; }
}
stop_host() { zorctl --pid $HOST quit >/dev/null 2>&1; wait $HOST 2>/dev/null; }

say "up: $(uname -r), clock source $(cat /sys/devices/system/clocksource/clocksource0/current_clocksource)"
insmod /lib/modules/uio.ko && insmod /lib/modules/uio_pci_generic.ko || { say "FAIL insmod"; FAILED=1; finish; }
echo "1234 11e8" >$DRV/new_id
i=0; while [ ! -e /sys/class/uio/uio0 ] && [ $i -lt 50 ]; do sleep 0.1; i=$((i + 1)); done
ADDR=$(basename "$(readlink /sys/class/uio/uio0/device)")
say "edu card $ADDR is /dev/uio0 ($(cat /sys/class/uio/uio0/name)), line $(cat /sys/class/uio/uio0/device/irq)"

# The baseline: our own bare reader, no host.
BARE=$(hw_gen bare "$N") || { say "FAIL bare reader: $BARE"; FAILED=1; }
say "$BARE"

# The host as a user sets it up: the card by its PCI address, REENABLE=auto.
start_host "uio:pci:$ADDR" auto
ISR=$(hw_gen isr "$N")
check "$N interrupts, one at a time: $ISR" [ $? = 0 ]
check "no failure logged" [ "$(grep -c 'failed with error' /tmp/zor.log)" = 0 ]

# A burst while paused: the dropped event's line stays masked (no storm),
# and on resuming the burst arrives as one event after a gap.
BEFORE=$(state)
zorctl --pid $HOST irq-control 0 >/dev/null
hw_gen raise 50
sleep 0.5
HELD=$(state)
check "paused: the burst of 50 took 1 kernel interrupt and left the line masked ($HELD)" \
  [ "$(field kernel "$HELD")" = $(( $(field kernel "$BEFORE") + 1 )) -a "$(field masked "$HELD")" = 1 ]
zorctl --pid $HOST irq-control 1 >/dev/null
check "resumed: the held event shows as a gap in the host's log" log_has "ZOR: Time discontinuous!"
AFTER=$(state)
check "resumed: the ISR acknowledged the burst once, after a gap ($AFTER)" \
  [ "$(field calls "$AFTER")" = $(( $(field calls "$BEFORE") + 1 )) -a \
    "$(field gaps "$AFTER")" = $(( $(field gaps "$BEFORE") + 1 )) ]
R=$(hw_gen isr 20)
check "resumed: events flow again: $R" [ $? = 0 ]

# The driver unbound mid-run and bound again.
echo "$ADDR" >$DRV/unbind
check "unbinding is logged" log_has "ZOR: event.irq: device 'uio:pci:$ADDR' failed with error"
Q=$(zorctl --pid $HOST irq-query)
sleep 2.5
check "logged once while away" [ "$(grep -c 'failed with error' /tmp/zor.log)" = 1 ]
echo "$ADDR" >$DRV/bind
check "rebinding is logged" log_has "ZOR: event.irq: device 'uio:pci:$ADDR' open again" 4
check "command 6 shows the failure bit ($Q)" [ $(( Q & 0x80000000 )) != 0 ]
R=$(hw_gen isr 20 1)  # the new device counts from 1: one gap
check "events resume after rebinding: $R" [ $? = 0 ]
stop_host

# Today's documented setting on a driver without irqcontrol.
start_host "uio:uio_pci_generic" 1
R=$(hw_gen isr 20)
check "REENABLE=1 without irqcontrol: $R" [ $? = 0 ]
check "REENABLE=1 logs its switch" log_has "has no irqcontrol (error 38): unmasking its interrupt through PCI config space"
stop_host
finish
