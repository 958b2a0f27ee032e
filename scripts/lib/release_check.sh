# Sourced by scripts/test after the Windows build: uses the release archive
# the way a module writer does. Makes zor-<version>-win64.zip, unpacks it
# into a temporary folder, compiles the public headers as C for an MSVC
# target, builds the samples out of tree against the archive exactly as
# README.md says (nothing of this repository), and runs the sample module in
# the unpacked zor.exe under Wine until the sample client has seen it
# dispatched.
zor_release_check() {  # build folder of the windows preset
  local build="$1" tmp version pkg rc=0
  version="$(sed -n 's/^project(zor VERSION \([0-9.]*\).*/\1/p' "$ZOR_ROOT/CMakeLists.txt")"
  tmp="$(mktemp -d /tmp/zor-release.XXXXXX)"
  ( cd "$build" && cpack -G ZIP >/dev/null ) || { echo "release: cpack failed"; return 1; }
  ( cd "$tmp" && cmake -E tar xf "$build/zor-$version-win64.zip" ) || { echo "release: unpacking failed"; return 1; }
  pkg="$tmp/zor-$version-win64"
  for h in zor_module.h zor_client.h zor_stats.h; do
    echo "#include <zor/$h>" | clang --target=x86_64-pc-windows-msvc -fsyntax-only -x c -std=c11 \
      -Wall -Wextra -Werror -I"$pkg/include" - || { echo "release: $h is not C for MSVC"; rc=1; }
  done
  zor_release_samples "$pkg" "$tmp" || rc=1
  [ $rc -eq 0 ] && rm -rf "$tmp" || echo "release: kept $tmp"
  return $rc
}

# The unpacked host with its shipped ZOR.INI (timer.irq), the sample client
# against it; the client's summary must count events.
zor_release_run() {  # bin folder, scratch folder
  local bin="$1" tmp="$2" host="" before now out job
  local run="$ZOR_ROOT/cmake/wine-run.sh"
  before="$(ZOR_WINE_TIMEOUT=60 "$run" "$bin/zorctl.exe" hosts 2>/dev/null | tr -d '\r' | sort)"
  ( cd "$bin" && ZOR_LOG_FILE="Z:${tmp//\//\\}\\zor.log" ZOR_WINE_TIMEOUT=120 exec "$run" "$bin/zor.exe" -hide ) \
    >"$tmp/host.out" 2>&1 &
  job=$!
  for _ in $(seq 1 150); do
    now="$(ZOR_WINE_TIMEOUT=60 "$run" "$bin/zorctl.exe" hosts 2>/dev/null | tr -d '\r' | sort)"
    host="$(comm -13 <(printf '%s\n' "$before") <(printf '%s\n' "$now") | grep -m1 . || true)"
    [ -n "$host" ] && break
    sleep 0.2
  done
  [ -n "$host" ] || { echo "release: the unpacked zor.exe showed no window"; kill "$job" 2>/dev/null; return 1; }
  out="$(ZOR_WINE_TIMEOUT=60 "$run" "$bin/latency_client.exe" --pid "$host" --seconds 2 2>&1)"
  ZOR_WINE_TIMEOUT=60 "$run" "$bin/zorctl.exe" --pid "$host" quit >/dev/null 2>&1
  wait "$job" 2>/dev/null
  if ! grep -Eq 'summary events=[1-9]' <<<"$out"; then
    printf 'release: the sample module was not dispatched:\n%s\n' "$out"
    return 1
  fi
  echo "release: $(basename "$(dirname "$bin")") builds modules and runs them: $(grep -m1 summary <<<"$out")"
}

# The archive's own toolchain file and package, no repository file: the
# samples build with zor_DIR and with CMAKE_PREFIX_PATH, import no mingw
# runtime DLL, and a Linux target is refused with the package's reason.
zor_release_samples() {  # unpacked archive, scratch folder
  local pkg="$1" tmp="$2" tc="$1/lib/cmake/zor/mingw-w64-x86_64.cmake" out
  out="$(cmake -S "$pkg/samples" -B "$tmp/linux" -G Ninja -Dzor_DIR="$pkg/lib/cmake/zor" 2>&1)"
  if [ $? -eq 0 ] || ! grep -q "holds Windows x64 binaries" <<<"$out"; then
    printf 'release: a Linux build against the archive was not refused:\n%s\n' "$out"; return 1
  fi
  cmake -S "$pkg/samples" -B "$tmp/prefix" -G Ninja --toolchain "$tc" -DCMAKE_PREFIX_PATH="$pkg" >/dev/null \
    || { echo "release: CMAKE_PREFIX_PATH=<unpacked> finds no package"; return 1; }
  cmake -S "$pkg/samples" -B "$tmp/samples" -G Ninja --toolchain "$tc" -DCMAKE_BUILD_TYPE=Release \
      -Dzor_DIR="$pkg/lib/cmake/zor" >/dev/null && cmake --build "$tmp/samples" >/dev/null \
    || { echo "release: the samples do not build against the archive"; return 1; }
  if x86_64-w64-mingw32-objdump -p "$tmp/samples/latency_isr.dll" "$tmp/samples/latency_client.exe" \
       | grep -Ei 'DLL Name: (libstdc|libgcc|libwinpthread)'; then
    echo "release: the samples need the toolchain's DLLs"; return 1
  fi
  cp "$tmp/samples/latency_isr.dll" "$tmp/samples/latency_client.exe" "$pkg/bin/"
  zor_release_run "$pkg/bin" "$tmp"
}
