# scripts/demo --linux: the same tour with the Linux host, natively. Sourced
# by scripts/demo after setup.sh; ZOR_DEMO_SECONDS as there.
demo_linux() {
  local seconds="${ZOR_DEMO_SECONDS:-10}" dir="$ZOR_ROOT/build/demo-linux" bin="$ZOR_ROOT/build/linux/bin"
  local targets=(zor timer zorctl latency_isr latency_client)
  zor_log "building ${targets[*]} (preset linux)"
  cmake --preset linux >/dev/null || die "configure failed"
  cmake --build --preset linux --target "${targets[@]}" || die "build failed"
  for f in zor timer.irq zorctl latency_isr.so latency_client ZOR.INI; do
    [ -f "$bin/$f" ] || die "$bin/$f is missing after the build"
  done
  mkdir -p "$dir"
  # The demo's own socket folder, per-user folders and log: nothing of the
  # user's is touched, and a host of an earlier run is easy to find.
  export ZOR_RUNTIME_DIR="$dir/run" XDG_CONFIG_HOME="$dir/config" XDG_STATE_HOME="$dir/state"
  local log_file="$dir/zor.log"
  for s in "$ZOR_RUNTIME_DIR"/zor-*.sock; do
    [ -S "$s" ] || continue
    local old="${s##*/zor-}"; old="${old%.sock}"
    kill -0 "$old" 2>/dev/null && { zor_log "ending the host of an earlier demo run (pid $old)"; "$bin/zorctl" --pid "$old" quit >/dev/null 2>&1; sleep 1; }
  done
  rm -f "$log_file"
  zor_log "starting zor -hide (log: $log_file)"
  ZOR_LOG_FILE="$log_file" "$bin/zor" -hide >"$dir/host.out" 2>&1 &
  local host_pid=$!
  trap '"$bin/zorctl" --pid '"$host_pid"' quit >/dev/null 2>&1; sleep 1; kill '"$host_pid"' 2>/dev/null' EXIT
  for _ in $(seq 1 100); do
    [ -S "$ZOR_RUNTIME_DIR/zor-$host_pid.sock" ] && break
    kill -0 "$host_pid" 2>/dev/null || { cat "$dir/host.out" >&2; die "zor ended at start-up"; }
    sleep 0.1
  done
  [ -S "$ZOR_RUNTIME_DIR/zor-$host_pid.sock" ] || die "the host's socket did not appear within 10 s"
  zor_log "host is up (pid $host_pid)"
  "$bin/zorctl" --pid "$host_pid" status

  "$bin/zorctl" --pid "$host_pid" watch --seconds "$seconds" >"$dir/watch.log" 2>&1 &
  local watch_job=$!
  zor_log "running latency_client for $seconds s"
  "$bin/latency_client" --pid "$host_pid" --seconds "$seconds" &
  local client_job=$!
  sleep 1
  "$bin/zorctl" --pid "$host_pid" plot --svg "$dir/zor_plot.svg" --seconds $(( seconds > 4 ? seconds - 3 : 1 )) >/dev/null
  "$bin/zorctl" --pid "$host_pid" stats >"$dir/stats.txt" 2>&1
  "$bin/zorctl" --pid "$host_pid" trace --seconds 2 -o "$dir/zor_trace.json" --svg >"$dir/trace.txt" 2>&1
  wait "$client_job"
  local client_rc=$?
  zor_log "ending the host (command 4)"
  "$bin/zorctl" --pid "$host_pid" quit || echo "(the host had already ended)"
  wait "$host_pid" 2>/dev/null
  wait "$watch_job" 2>/dev/null
  trap - EXIT
  echo "the live table of zorctl watch, once a second: $dir/watch.log"
  zor_log "host log: $log_file"
  grep -E "memory (not )?locked|priority stage" "$log_file" | tr -d '\r' | sed 's/^\[[^]]*\] //'
  demo_last_table "$log_file"
  zor_log "zorctl stats, near the end of the run"
  cat "$dir/stats.txt"
  zor_log "the slowest event of two seconds, from the flight recorder"
  cat "$dir/trace.txt"
  command -v rsvg-convert >/dev/null && rsvg-convert -o "$dir/zor_trace.png" "$dir/zor_trace.svg" 2>/dev/null
  zor_log "latency plot of the run (open it in a browser): $dir/zor_plot.svg"
  echo "its trace: $dir/zor_trace.json (ui.perfetto.dev opens it), timeline $dir/zor_trace.svg"
  exit $client_rc
}
