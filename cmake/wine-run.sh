#!/usr/bin/env bash
# Runs a Windows program under Wine in the build's private prefix: headless
# (null graphics driver, set up by scripts/lib/wine.sh), no debugger on a crash,
# and never longer than ZOR_WINE_TIMEOUT seconds.
here="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
export WINEPREFIX="${WINEPREFIX:-$here/build/wineprefix}"
export WINEDEBUG="${WINEDEBUG:--all}"
export WINEDLLOVERRIDES="${WINEDLLOVERRIDES:-winedbg.exe=d;mscoree=d;mshtml=d}"
exec timeout -k 5 "${ZOR_WINE_TIMEOUT:-300}" wine "$@"
