#!/usr/bin/env bash
# A latency plot of a short run, as a user makes one: the host with the timer
# driver and the sample ISR, `zorctl plot` over a few seconds, rendered to PNG.
# Runs in the shared Wine prefix (setup.sh) after the tests.
#
#   tests/e2e/plot.sh [windows build dir] [seconds]  ->  <build>/artifacts/zor_plot.{svg,png}
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)"
source "$root/scripts/lib/setup.sh"
build="$(cd "${1:-$root/build/windows}" && pwd)"
seconds="${2:-3}"
out="$build/artifacts"
run="$build/plot-run"
mkdir -p "$out"
rm -rf "$run"
mkdir -p "$run"
cp "$build/bin/zor.exe" "$build/bin/timer.irq" "$build/bin/latency_isr.dll" "$build/bin/zorctl.exe" "$run/"
printf '[INIT]\r\nLASTIRQ=timer.irq\r\n' > "$run/ZOR.INI"
cd "$run"
ctl() { timeout 60 wine ./zorctl.exe "$@" </dev/null; }

# Other hosts may share the Wine session: find the one started here.
before="$(ctl hosts 2>/dev/null | tr -d '\r' | sort || true)"
ZOR_LOG_FILE="" timeout $((seconds + 90)) wine ./zor.exe -hide </dev/null >/dev/null 2>&1 &
host_job=$!
pid=""
for _ in $(seq 1 100); do
  now="$(ctl hosts 2>/dev/null | tr -d '\r' | sort || true)"
  pid="$(comm -13 <(printf '%s\n' "$before") <(printf '%s\n' "$now") | grep -m1 . || true)"
  [ -n "$pid" ] && break
  sleep 0.3
done
[ -n "$pid" ] || { echo "plot: the host did not start" >&2; exit 1; }
ctl --pid "$pid" register latency_isr.dll --shm 65536 >/dev/null
ctl --pid "$pid" plot --svg "plot.svg" --seconds "$seconds" >/dev/null
ctl --pid "$pid" quit >/dev/null || true
wait "$host_job" || true
cp plot.svg "$out/zor_plot.svg"
rsvg-convert -o "$out/zor_plot.png" "$out/zor_plot.svg"
echo "$out/zor_plot.png"
