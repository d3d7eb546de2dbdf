#!/usr/bin/env bash
# install_test.sh consumer|package: checks an installation of the build in $OVF_BUILD_DIR (see CMakeLists.txt).
set -euo pipefail

fail() { echo "FAIL: $*" >&2; exit 1; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

runtime_files=("bin/cef" "bin/ovfeedback-receiver" "$OVF_LIBDIR/libovfeedback.so" "$OVF_LIBDIR/libsuitecommon.so")
if [ "${OVF_WITH_HOST:-0}" = 1 ]; then runtime_files+=("bin/ovfeedback-host"); fi
headers=(ApiExport.h IBencodeSettings.h IComponentStatus.h IPhoneHomePlugin.h IPhoneHomePluginCB.h Plugin.h
         PhoneHome/Bencode.h PhoneHome/BencodeSettings.h PhoneHome/PhoneHomePluginImp.h Utils/Utils.h
         DeviceInfo/DeviceInfo.h)

consumer() {
  local prefix="$work/prefix" inc="$work/prefix/$OVF_INCLUDEDIR"
  "$CMAKE" --install "$OVF_BUILD_DIR" --prefix "$prefix" >"$work/install.log" || { cat "$work/install.log"; fail "install"; }
  # A test build's prefix is no system directory, so nothing may land outside the prefix it is given.
  if grep -E '^-- (Installing|Up-to-date): ' "$work/install.log" | grep -vF -- "-- Installing: $prefix/" \
       | grep -vF -- "-- Up-to-date: $prefix/" | grep -q .; then
    cat "$work/install.log"; fail "installed outside $prefix"
  fi
  local unit=()
  if [ "${OVF_WITH_HOST:-0}" = 1 ]; then unit=("$OVF_UNITDIR/ovfeedback-host.service"); fi
  for f in "${runtime_files[@]}" "${unit[@]}" "$OVF_LIBDIR/pkgconfig/libovfeedback.pc" \
           "$OVF_LIBDIR/cmake/libovfeedback/libovfeedbackConfig.cmake" \
           "$OVF_LIBDIR/cmake/libovfeedback/libovfeedbackConfigVersion.cmake"; do
    [ -e "$prefix/$f" ] || fail "not installed: $f"
  done

  # Exactly the exported headers, and each one compiles with nothing but the installed tree.
  local found expected
  found=$(cd "$inc" && find . -type f | sed 's|^\./||' | sort)
  expected=$(printf '%s\n' "${headers[@]}" | sort)
  [ "$found" = "$expected" ] || fail "installed headers differ:"$'\n'"$(diff <(echo "$expected") <(echo "$found"))"
  for h in "${headers[@]}"; do
    echo "#include \"$h\"" | "$CXX" -std=c++17 -fsyntax-only -Wall -Werror -I"$inc" -x c++ - \
      || fail "$h does not compile on its own against the installed headers"
  done

  # Nothing installed looks into the build tree; the plug-in finds its runtime beside itself.
  for f in "${runtime_files[@]}"; do
    if readelf -d "$prefix/$f" | grep -E 'R(UN)?PATH' | grep -qF "$OVF_BUILD_DIR"; then fail "$f points into the build tree"; fi
  done
  readelf -d "$prefix/$OVF_LIBDIR/libovfeedback.so" | grep -E 'RUNPATH|RPATH' | grep -qF '[$ORIGIN]' \
    || fail "libovfeedback.so does not look for libsuitecommon.so beside itself"

  # The installed host finds the installed plug-in beside it (exit 4 would be a plug-in it cannot load).
  if [ "${OVF_WITH_HOST:-0}" = 1 ]; then
    "$prefix/bin/ovfeedback-host" --status 2>/dev/null | grep -qE ': (enabled|disabled)$' \
      || fail "the installed host does not answer --status"
  fi

  # The example module, built once through pkg-config and once through find_package.
  cp -r "$OVF_EXAMPLE_DIR" "$work/pc"
  PKG_CONFIG_PATH="$prefix/$OVF_LIBDIR/pkgconfig" make -s -C "$work/pc" >"$work/make.log" 2>&1 \
    || { cat "$work/make.log"; fail "pkg-config build of the example"; }
  "$CMAKE" -S "$OVF_EXAMPLE_DIR" -B "$work/cm" -G "$CMAKE_GENERATOR" -DCMAKE_CXX_COMPILER="$CXX" \
    -DCMAKE_PREFIX_PATH="$prefix" >"$work/cmake.log" 2>&1 || { cat "$work/cmake.log"; fail "find_package configure"; }
  "$CMAKE" --build "$work/cm" >"$work/build.log" 2>&1 || { cat "$work/build.log"; fail "find_package build"; }

  # A first run hands its data over; a second, while the service has not taken the file, keeps its count in the
  # side file; once the service has taken the file, the next run hands over both counts.
  local cef="$prefix/bin/cef" data="$work/moduledata/tunnel.cef"
  mkdir "$work/moduledata"
  "$work/pc/module-datafile" "$data" corp.example || fail "first run"
  "$cef" check "$data" >/dev/null || fail "the handed-over file does not load"
  "$cef" dump -c "$data" >"$work/dump1"
  grep -qF '"SessionsStarted":1' "$work/dump1" || fail "first file: $(cat "$work/dump1")"
  grep -qF '"DNSDomain":"corp.example"' "$work/dump1" || fail "first file: $(cat "$work/dump1")"
  [ "$("$cef" dump -c "$data.temp")" = "{}" ] || fail "side file after a hand-over: $("$cef" dump -c "$data.temp")"

  "$work/cm/module-datafile" "$data" corp.example || fail "second run"
  cmp -s <("$cef" dump -c "$data") "$work/dump1" || fail "a file not yet taken was changed"
  "$cef" dump -c "$data.temp" | grep -qF '"SessionsStarted":1' || fail "second run's count not kept aside"

  rm "$data"  # what the service does once it has the data
  "$work/cm/module-datafile" "$data" corp.example || fail "third run"
  "$cef" dump -c "$data" | grep -qF '"SessionsStarted":2' || fail "counts kept aside not handed over: $("$cef" dump -c "$data")"
  "$cef" check "$data" >/dev/null || fail "the third file does not load"

  # While the marker says the service is disabled, the module writes nothing at all.
  rm "$data" && : >"$work/moduledata/cefdisable"
  "$work/cm/module-datafile" "$data" corp.example >/dev/null || fail "run while disabled"
  [ ! -e "$data" ] || fail "a data file was written while the service is disabled"
}

package() {
  "$CPACK" -G DEB -B "$work" --config "$OVF_BUILD_DIR/CPackConfig.cmake" >"$work/cpack.log" 2>&1 \
    || { cat "$work/cpack.log"; fail "cpack"; }
  local deb
  deb=$(ls "$work"/libovfeedback_*.deb) || fail "no package in $(ls "$work")"
  dpkg-deb -c "$deb" | awk '{print $NF}' | sed 's|^\./|/|' >"$work/contents"
  local unitdir="$OVF_UNITDIR"
  case "$unitdir" in /*) ;; *) unitdir="$OVF_PREFIX/$unitdir" ;; esac
  local want=()
  for f in "${runtime_files[@]}" "$OVF_INCLUDEDIR/PhoneHome/Bencode.h" "$OVF_LIBDIR/pkgconfig/libovfeedback.pc"; do
    want+=("$OVF_PREFIX/$f")
  done
  if [ "${OVF_WITH_HOST:-0}" = 1 ]; then want+=("$unitdir/ovfeedback-host.service"); fi
  for f in "${want[@]}"; do
    grep -qxF "$f" "$work/contents" || fail "not in the package: $f"$'\n'"$(cat "$work/contents")"
  done

  # Dependencies computed from the binaries, and maintainer scripts that the shell accepts.
  dpkg-deb -f "$deb" Package | grep -qx libovfeedback || fail "package name"
  local depends
  depends=$(dpkg-deb -f "$deb" Depends)
  for lib in libc6 libcurl4 libssl3 libexpat1 zlib1g; do
    [[ "$depends" == *"$lib"* ]] || fail "Depends lacks $lib: $depends"
  done
  dpkg-deb -e "$deb" "$work/control"
  for script in postinst prerm postrm; do
    [ -x "$work/control/$script" ] || fail "no executable $script"
  done
  maintainer_scripts
}

# The maintainer scripts, with the install root moved into the scratch directory, run once on a system without
# systemctl and once with a systemctl that records each call and fails it: neither may fail an installation.
# Whether systemd runs is this machine's /run/systemd/system, which the scripts read; the expected calls follow it.
maintainer_scripts() {
  local ctl="$work/control" root="$work/root" bin="$work/bin"
  sed -i "s|^root=.*|root=\"$root\"|" "$ctl/postinst"
  mkdir -p "$bin"
  ln -s "$(command -v mkdir)" "$bin/mkdir"
  local steps=("postinst configure" "postinst configure 0.9.0" "prerm upgrade 1.0.0" "prerm remove" "postrm remove")
  for step in "${steps[@]}"; do
    PATH="$bin" "$ctl"/$step || fail "without systemctl: $step failed"
  done
  [ -d "$root/CustomerExperienceFeedback/moduledata" ] && [ -d "$root/CustomerExperienceFeedback/outbound" ] \
    || fail "postinst made no feedback tree"

  printf '#!/bin/sh\necho "$*" >>"%s"\nexit 1\n' "$work/calls" >"$bin/systemctl"
  chmod +x "$bin/systemctl"
  local running=0 expected
  if [ -d /run/systemd/system ]; then running=1; fi
  for step in "${steps[@]}"; do
    echo "# $step" >>"$work/calls"
    PATH="$bin" "$ctl"/$step || fail "with a failing systemctl: $step failed"
  done
  local unit=ovfeedback-host.service
  if [ "$running" = 1 ]; then
    expected="# postinst configure|daemon-reload|enable $unit|start $unit|# postinst configure 0.9.0|daemon-reload"
    expected+="|try-restart $unit|# prerm upgrade 1.0.0|# prerm remove|stop $unit|disable $unit|# postrm remove|daemon-reload"
  else
    expected="# postinst configure|enable $unit|# postinst configure 0.9.0|# prerm upgrade 1.0.0|# prerm remove"
    expected+="|disable $unit|# postrm remove"
  fi
  [ "$(paste -sd'|' "$work/calls")" = "$expected" ] || fail "systemctl calls:"$'\n'"$(cat "$work/calls")"
}

"$1"
