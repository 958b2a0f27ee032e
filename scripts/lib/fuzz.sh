# Runs every libFuzzer entry of the fuzz build (tests/fuzz/*_fuzz.cpp) for a
# number of seconds each, from its seed corpus (tests/fuzz/corpus/<entry>/)
# and dictionary (tests/fuzz/<entry>.dict) if any. New inputs go to
# build/fuzz/corpus/<entry>/, crashes to build/fuzz/artifacts/. Fails when an
# entry reports a crash, a leak, a time-out or a sanitizer finding.
zor_fuzz_all() {  # seconds per entry
  local status=0 bin="$ZOR_ROOT/build/fuzz/tests/bin" src name work dict
  mkdir -p "$ZOR_ROOT/build/fuzz/artifacts"
  for src in "$ZOR_ROOT"/tests/fuzz/*_fuzz.cpp; do
    name=$(basename "$src" .cpp)
    work="$ZOR_ROOT/build/fuzz/corpus/$name"
    mkdir -p "$work" "$ZOR_ROOT/tests/fuzz/corpus/$name"
    dict=()
    [ -f "$ZOR_ROOT/tests/fuzz/$name.dict" ] && dict=("-dict=$ZOR_ROOT/tests/fuzz/$name.dict")
    zor_log "fuzzing $name for $1 s"
    # The entries load test modules by file name from their own folder.
    (cd "$bin" && ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 "./$name" -max_total_time="$1" \
        -timeout=20 -rss_limit_mb=2048 -print_final_stats=1 "${dict[@]}" \
        -artifact_prefix="$ZOR_ROOT/build/fuzz/artifacts/$name-" \
        "$work" "$ZOR_ROOT/tests/fuzz/corpus/$name" 2>&1 | grep -E "^(#[0-9]+[[:space:]]+DONE|stat::|==[0-9]+==|SUMMARY|Done|INFO: seed|.*ERROR)" ; exit "${PIPESTATUS[0]}") \
      || { zor_log "$name FAILED"; status=1; }
  done
  return $status
}
