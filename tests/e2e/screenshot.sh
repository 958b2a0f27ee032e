#!/usr/bin/env bash
# A picture of the visible control dialog, drawn by Wine's X11 driver on a
# virtual screen (Xvfb). Uses a Wine prefix of its own inside the build
# directory (the shared one draws nothing: it has the null driver), so it
# never disturbs tests running at the same time.
#
#   tests/e2e/screenshot.sh [windows build dir]   ->  <build>/artifacts/zor_dialog.png
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)"
build="$(cd "${1:-$root/build/windows}" && pwd)"
out="$build/artifacts"
run="$build/screenshot-run"
mkdir -p "$out"
rm -rf "$run"
mkdir -p "$run"
cp "$build/bin/zor.exe" "$build/bin/timer.irq" "$build/tests/bin/dialog_click.exe" "$run/"
printf '[INIT]\r\nLASTIRQ=timer.irq\r\nIRQPRIO=1\r\n' > "$run/ZOR.INI"

export WINEPREFIX="$build/screenshot-prefix"
export WINEDEBUG=-all
export WINEDLLOVERRIDES="winedbg.exe=d;mscoree=d;mshtml=d"
export ZOR_LOG_FILE=""
export RUN="$run" OUT="$out"

xvfb-run -a -s "-screen 0 480x300x24" bash -euo pipefail -c '
  if [ ! -f "$WINEPREFIX/.zor-screenshot-ready" ]; then
    timeout 300 wineboot -i </dev/null >/dev/null 2>&1 || true
    # No window manager on the virtual screen: Wine draws frames and captions.
    timeout 60 wine reg add "HKCU\\Software\\Wine\\X11 Driver" /v Managed /t REG_SZ /d N /f \
      </dev/null >/dev/null 2>&1
    timeout 60 wineserver -w
    touch "$WINEPREFIX/.zor-screenshot-ready"
  fi
  cd "$RUN"
  timeout 120 wine ./zor.exe </dev/null >/dev/null 2>&1 &
  host=$!
  sleep 5                                                                  # the timer runs
  pid=0   # the only host in this prefix: the client takes the first window
  timeout 30 wine ./dialog_click.exe $pid 1003 </dev/null               # Stats
  sleep 1
  import -window root "$OUT/zor_dialog.png"
  timeout 30 wine ./dialog_click.exe $pid 2 </dev/null || true   # Cancel: no clients, ends
  wait $host || true
  timeout 60 wineserver -w || true
'
echo "$out/zor_dialog.png"
