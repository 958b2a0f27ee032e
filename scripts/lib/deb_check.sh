# Sourced by scripts/test after the linux build: the Debian package as an
# administrator and a developer meet it. Makes zor_<version>_amd64.deb,
# checks it with lintian (no errors; every warning listed in docs/linux.md),
# installs it with dpkg -i on this machine, checks the unit with
# systemd-analyze, runs /usr/bin/zor the way the unit does (user zor, its
# two capabilities, /run/zor, a NOTIFY_SOCKET and a journal stream that this
# script reads), asks it for its status as a member of the group zor and as
# another user, builds the samples against the installed files with
# pkg-config and with find_package and runs them, then purges the package
# and looks for anything left behind. Needs root.
ZOR_DEB_USERS=(zortest-member zortest-other)

zor_deb_check() {  # build folder of the linux preset
  local build="$1" version deb tmp rc=0
  [ "$(id -u)" -eq 0 ] || { echo "deb: installing the package needs root"; return 1; }
  version="$(sed -n 's/^project(zor VERSION \([0-9.]*\).*/\1/p' "$ZOR_ROOT/CMakeLists.txt")"
  deb="$build/zor_${version}_amd64.deb"
  ( cd "$build" && cpack -G DEB >/dev/null 2>&1 ) || { echo "deb: cpack failed"; return 1; }
  zor_deb_lintian "$deb" || rc=1
  dpkg -s zor >/dev/null 2>&1 && dpkg -P zor >/dev/null
  dpkg -i "$deb" >/dev/null || { echo "deb: dpkg -i failed"; return 1; }
  tmp="$(mktemp -d /tmp/zor-deb.XXXXXX)"
  chmod 755 "$tmp"
  zor_deb_unit || rc=1
  zor_deb_service "$tmp" || rc=1
  zor_deb_purge || rc=1
  [ $rc -eq 0 ] && rm -rf "$tmp" || echo "deb: kept $tmp"
  return $rc
}

# Errors fail; a warning fails unless docs/linux.md lists its tag.
zor_deb_lintian() {  # package
  local out tag rc=0
  out="$(lintian "$1" 2>/dev/null)"
  while read -r kind _ tag _; do
    case "$kind" in
      E:) echo "deb: lintian error $tag"; rc=1 ;;
      W:) grep -q "\`$tag\`" "$ZOR_ROOT/docs/linux.md" || { echo "deb: lintian warning $tag is not in docs/linux.md"; rc=1; } ;;
    esac
  done <<<"$out"
  [ $rc -eq 0 ] && echo "deb: lintian: no errors, $(grep -c '^W:' <<<"$out") listed warnings"
  return $rc
}

zor_deb_unit() {
  local out
  out="$(systemd-analyze verify /usr/lib/systemd/system/zor.service 2>&1)"
  [ -z "$out" ] && return 0
  printf 'deb: systemd-analyze verify:\n%s\n' "$out"
  return 1
}

# /usr/bin/zor as the unit starts it; the checks run while it runs.
zor_deb_service() {  # scratch folder
  local tmp="$1" caps=() listener host rc=0 u
  for u in "${ZOR_DEB_USERS[@]}"; do userdel "$u" >/dev/null 2>&1; done
  useradd -M -N -g users -G zor zortest-member && useradd -M -N -g users zortest-other || return 1
  # What RuntimeDirectory= and LogsDirectory= make before the start.
  install -d -o zor -g zor -m 0750 /run/zor /var/log/zor
  # The unit's capabilities, where this machine can hand them on.
  setpriv --inh-caps=+sys_nice,+ipc_lock --ambient-caps=+sys_nice,+ipc_lock true 2>/dev/null &&
    caps=(--inh-caps=-all,+sys_nice,+ipc_lock --ambient-caps=-all,+sys_nice,+ipc_lock)
  socat -u "UNIX-RECV:$tmp/notify,mode=666" "OPEN:$tmp/notify.out,creat" & listener=$!
  for _ in $(seq 50); do [ -S "$tmp/notify" ] && break; sleep 0.1; done
  : >"$tmp/stderr"
  ( exec 2>"$tmp/stderr"
    exec setpriv --reuid=zor --regid=zor --init-groups "${caps[@]}" env -i PATH=/usr/bin:/bin \
      NOTIFY_SOCKET="$tmp/notify" WATCHDOG_USEC=400000 JOURNAL_STREAM="$(stat -c %d:%i "$tmp/stderr")" \
      ZOR_RUNTIME_DIR=/run/zor ZOR_LOG_FILE=/var/log/zor/zor.log /usr/bin/zor -hide ) & host=$!
  for _ in $(seq 50); do grep -q READY=1 "$tmp/notify.out" 2>/dev/null && break; sleep 0.1; done
  sleep 1
  zor_deb_notified "$tmp" || rc=1
  zor_deb_access || rc=1
  zor_deb_samples "$tmp" || rc=1
  kill "$host" 2>/dev/null; wait "$host" 2>/dev/null
  kill "$listener" 2>/dev/null; wait "$listener" 2>/dev/null
  zor_deb_journal "$tmp" || rc=1
  rm -rf /run/zor
  for u in "${ZOR_DEB_USERS[@]}"; do userdel "$u"; done
  return $rc
}

# READY=1 first, then pings; the datagrams arrive one after another.
zor_deb_notified() {  # scratch folder
  local got pings
  got="$(tr '\n' ' ' <"$1/notify.out")"
  pings="$(grep -o WATCHDOG=1 <<<"$got" | wc -l)"
  if [[ "$got" == READY=1* ]] && [ "$pings" -ge 2 ]; then
    echo "deb: the service manager got READY=1, then $pings watchdog pings"
    return 0
  fi
  echo "deb: notifications were: '$got'"
  return 1
}

# A member of the group finds the service's socket without any setting;
# another user does not get in.
zor_deb_access() {
  local out
  out="$(runuser -u zortest-member -- env -u ZOR_RUNTIME_DIR -u XDG_RUNTIME_DIR zorctl status 2>&1)" ||
    { printf 'deb: zorctl status as a member of zor failed:\n%s\n' "$out"; return 1; }
  if runuser -u zortest-other -- env -u ZOR_RUNTIME_DIR -u XDG_RUNTIME_DIR zorctl status >/dev/null 2>&1; then
    echo "deb: zorctl status answered a user outside the group zor"
    return 1
  fi
  echo "deb: zorctl status answers the group zor ($(head -1 <<<"$out")), not another user"
}

# The installed samples, built once with find_package(zor) and once with
# pkg-config; each module goes to the module directory, its client runs as
# a member of zor until it has seen events.
zor_deb_samples() {  # scratch folder
  local tmp="$1" s=/usr/share/doc/zor/samples rc=0 out
  if cmake -S "$s" -B "$tmp/cmake" -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null &&
     cmake --build "$tmp/cmake" >/dev/null; then
    cp "$tmp/cmake/latency_isr.so" /usr/lib/zor/
    out="$(runuser -u zortest-member -- "$tmp/cmake/latency_client" --seconds 1 2>&1)"
    grep -Eq 'summary events=[1-9]' <<<"$out" || { printf 'deb: find_package sample:\n%s\n' "$out"; rc=1; }
  else
    echo "deb: the samples do not build with find_package(zor)"; rc=1
  fi
  # The header-only part for the module, the library too for the client.
  if g++ -std=c++20 -O2 -shared -fPIC $(pkg-config --cflags zor) -I"$s" -I"$s/latency_isr/posix" \
       "$s/latency_isr/latency_isr.cpp" -o /usr/lib/zor/pc_latency_isr.so &&
     g++ -std=c++20 -O2 -DLATENCY_ISR_FILE='"pc_latency_isr.so"' -I"$s" "$s/latency_client/latency_client.cpp" \
       $(pkg-config --cflags --libs zor) -o "$tmp/pc_latency_client"; then
    out="$(runuser -u zortest-member -- "$tmp/pc_latency_client" --seconds 1 2>&1)"
    grep -Eq 'summary events=[1-9]' <<<"$out" || { printf 'deb: pkg-config sample:\n%s\n' "$out"; rc=1; }
  else
    echo "deb: the samples do not build with pkg-config"; rc=1
  fi
  rm -f /usr/lib/zor/latency_isr.so /usr/lib/zor/pc_latency_isr.so
  [ $rc -eq 0 ] && echo "deb: the samples build with find_package and with pkg-config, and run"
  return $rc
}

# Every line on the journal stream has its level; the configuration came
# from /etc/zor.
zor_deb_journal() {  # scratch folder
  local err="$1/stderr"
  if grep -q '^<5>SZINI: \\etc\\zor\\ZOR.INI' "$err" && ! grep -qv '^<[0-7]>' "$err"; then
    echo "deb: the journal got $(wc -l <"$err") lines with their levels; ZOR.INI from /etc/zor"
    return 0
  fi
  printf 'deb: journal stream:\n%s\n' "$(cat "$err")"
  return 1
}

# After the administrator's `systemctl enable`, purging leaves none of the
# package's files, its folders, logs or enablement; the user and group zor
# stay, as Debian keeps system accounts.
zor_deb_purge() {
  local files f left=()
  systemctl enable zor.service >/dev/null 2>&1
  files="$(dpkg -L zor)"
  dpkg -P zor >/dev/null || { echo "deb: dpkg -P failed"; return 1; }
  while read -r f; do
    if [ -d "$f" ]; then [[ "$(basename "$f")" == *zor* ]] && left+=("$f")
    elif [ -e "$f" ] || [ -L "$f" ]; then left+=("$f")
    fi
  done <<<"$files"
  for f in /etc/zor /var/log/zor /etc/systemd/system/multi-user.target.wants/zor.service; do
    { [ -e "$f" ] || [ -L "$f" ]; } && left+=("$f")
  done
  if [ ${#left[@]} -gt 0 ]; then
    echo "deb: dpkg -P left ${left[*]}"
    return 1
  fi
  echo "deb: dpkg -P left nothing but the user and group zor"
}
