# Shared by scripts/test and scripts/demo: installs what is missing from
# Debian's packages and prepares the private Wine prefix. Idempotent.
ZOR_ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)"
ZOR_PACKAGES=(g++-mingw-w64-x86-64-posix wine64 wine xvfb cmake ninja-build googletest
              g++ clang libclang-rt-14-dev imagemagick x11-apps procps
              librsvg2-bin qemu-system-x86
              lintian dpkg-dev file pkg-config systemd socat adduser)
# The hardware rig (tests/hw) also takes Debian's kernel image and
# busybox-static, with apt-get download into build/hw/ (tests/hw/run.sh).
export WINEPREFIX="$ZOR_ROOT/build/wineprefix"
export WINEDEBUG=-all
export WINEDLLOVERRIDES="winedbg.exe=d;mscoree=d;mshtml=d"

zor_log() { printf '\n==> %s\n' "$*"; }

zor_install() {
  local missing=()
  for p in "${ZOR_PACKAGES[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "ok installed" || missing+=("$p")
  done
  if [ ${#missing[@]} -gt 0 ]; then
    zor_log "installing ${missing[*]}"
    local sudo=""; [ "$(id -u)" -ne 0 ] && sudo=sudo
    $sudo apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
  fi
}

# The prefix is created once under build/ and reused; Wine's null graphics
# driver makes dialogs work without a display.
zor_wine_prefix() {
  mkdir -p "$ZOR_ROOT/build"
  if [ ! -f "$WINEPREFIX/.zor-ready" ]; then
    zor_log "creating Wine prefix $WINEPREFIX"
    timeout 300 wineboot -i </dev/null >/dev/null 2>&1 || true
    timeout 60 wine reg add 'HKCU\Software\Wine\Drivers' /v Graphics /t REG_SZ /d null /f </dev/null >/dev/null 2>&1
    timeout 60 wine reg add 'HKLM\Software\Microsoft\Windows NT\CurrentVersion\AeDebug' /v Debugger /t REG_SZ /d 'none.exe' /f </dev/null >/dev/null 2>&1
    timeout 60 wine reg add 'HKLM\Software\Microsoft\Windows NT\CurrentVersion\AeDebug' /v Auto /t REG_SZ /d 1 /f </dev/null >/dev/null 2>&1
    timeout 60 wineserver -w
    touch "$WINEPREFIX/.zor-ready"
  fi
}

# A running Wine server with its output detached, so that CTest's pipes are
# not held open by Wine's background services.
zor_wine_start() {
  wineserver -p </dev/null >/dev/null 2>&1
  timeout 120 wine wineboot </dev/null >/dev/null 2>&1 || true
}

zor_wine_stop() { timeout 30 wineserver -k </dev/null >/dev/null 2>&1 || true; }

zor_build() {  # preset
  zor_log "configuring and building preset $1"
  cmake --preset "$1" >/dev/null && cmake --build --preset "$1" -- -k 0
}
