#!/usr/bin/env bash
# The Debian packages as an administrator installs them and as users use them (as root, on a machine that may be
# changed: CI's). Builds and lintians the packages, installs them with dpkg -i, checks exist, the probe, a walk and
# the PreferencesDirectory property as a member of lpadmin and as another user on their own session buses, builds
# against the .pc file, verifies the user unit, purges, and checks that nothing is left. Everything is undone on
# every way out.
set -euo pipefail
cd "$(dirname "$0")/../.."
root=$PWD

[ "$(id -u)" -eq 0 ] || { echo "installed_test: must run as root (it installs packages)" >&2; exit 2; }

folder=/var/lib/tzhelper/tazorex.printers.T48Q/
table=1.3.6.1.4.1.99991.1.1.1.1.6.13.1.1
member=tzhelper-test-adm
other=tzhelper-test-usr
packages=(tzhelper libtzhelper-client1 libtzhelper-client-dev)

work=$(mktemp -d /tmp/tzhelper-package.XXXXXX)
chmod 755 "$work"
had_group=no
getent group lpadmin >/dev/null && had_group=yes
failures=0 passes=0

cleanup() {
  set +e
  "$root/tests/fixtures/sample-printer" --stop "$work/printer"
  dpkg --purge "${packages[@]}" >/dev/null 2>&1
  for u in "$member" "$other"; do
    pkill -u "$u" 2>/dev/null
    id "$u" >/dev/null 2>&1 && userdel -r "$u" >/dev/null 2>&1
  done
  [ "$had_group" = no ] && getent group lpadmin >/dev/null && groupdel lpadmin
  rm -rf "$work"
}
trap cleanup EXIT

step() { printf '== %s\n' "$*"; }
check() {  # check NAME EXPECTED ACTUAL
  if [ "$2" = "$3" ]; then
    passes=$((passes + 1)); printf '   ok   %s\n' "$1"
  else
    failures=$((failures + 1)); printf '   FAIL %s: expected "%s", got "%s"\n' "$1" "$2" "$3"
  fi
}

step "build the packages"
mkdir "$work/src"
git ls-files -z --cached --others --exclude-standard | tar --null -cf - -T - | tar -xf - -C "$work/src"
(cd "$work/src" && DEB_BUILD_OPTIONS="nocheck parallel=$(nproc)" dpkg-buildpackage -us -uc -b) \
  >"$work/build.log" 2>&1 || { tail -40 "$work/build.log"; exit 1; }
debs=()
for p in "${packages[@]}"; do debs+=("$work/${p}_"*_"$(dpkg --print-architecture)".deb); done

step "lintian"
lintian --allow-root --fail-on error "$work"/*.changes | tee "$work/lintian.txt"
check "lintian reports no error" 0 "$(grep -c '^E:' "$work/lintian.txt" || true)"

step "install with dpkg -i"
dpkg -i "${debs[@]}" >"$work/dpkg.log" 2>&1 || { cat "$work/dpkg.log"; exit 1; }
check "folder mode, owner and group" "2775 root lpadmin" "$(stat -c '%a %U %G' "$folder")"

step "users: $member (lpadmin) and $other"
useradd --create-home --groups lpadmin "$member"
useradd --create-home "$other"

step "sample printer"
printer=$(tests/fixtures/sample-printer "$work/printer" 12)

# Runs the rest of the line as USER inside a session bus of its own.
as_user() {
  local user=$1; shift
  runuser -u "$user" -- env -i HOME="/home/$user" PATH=/usr/bin:/bin LANG=C.UTF-8 \
    dbus-run-session -- "$@"
}
session_checks='
  set -u; cd "$HOME"
  folder=$1 printer=$2 table=$3
  echo "exist=$(tzhelperctl exist /etc/passwd)"
  echo "admin=$(tzhelperctl is-admin "${folder}probe-$(id -un).plist")"
  echo "property=$(busctl --user get-property tazorex.printers.T48Q.Helper \
    /tazorex/printers/T48Q/Helper tazorex.printers.T48Q.Helper1 PreferencesDirectory)"
  echo "walk=$(tzhelperctl walk --model T48Q --user "$(id -un)" -- -v 1 -c public "$printer" "$table" \
    2>/dev/null | head -n 1)"
'

for user in "$member" "$other"; do
  step "as $user: exist, is-admin, PreferencesDirectory, walk"
  as_user "$user" bash -c "$session_checks" session "$folder" "$printer" "$table" \
    >"$work/$user.out" 2>"$work/$user.err" || true
  sed 's/^/   | /' "$work/$user.out"
  value() { sed -n "s/^$1=//p" "$work/$user.out"; }
  check "$user: exist" TRUE "$(value exist)"
  check "$user: PreferencesDirectory" "s \"$folder\"" "$(value property)"
  if [ "$user" = "$member" ]; then
    check "$user: is-admin" TRUE "$(value admin)"
    check "$user: walk" iRet=0 "$(value walk)"
    plist="$folder$user-T48Q-profile.plist"
    check "$user: profile plist owned by the user and lpadmin" "$user lpadmin" \
      "$(stat -c '%U %G' "$plist" 2>/dev/null)"
    check "$user: profile plist holds the printer's 12 profiles (RGB, SIM, DST)" "8 4 4" \
      "$(python3 -c 'import plistlib, sys
p = plistlib.load(open(sys.argv[1], "rb"))
print(*(p[c]["iNum"] for c in ("RGB", "SIM", "DST")))' \
        "$plist" 2>&1)"
  else
    check "$user: is-admin" FALSE "$(value admin)"
    check "$user: no profile plist" no "$(test -e "$folder$user-T48Q-profile.plist" && echo yes || echo no)"
  fi
done

step "a program built against the installed library"
cat >"$work/client.cc" <<'CC'
#include <tzhelper/helper_client.h>
#include <cstdio>
int main() {
    std::puts(tz::client::file_url("/tmp/a b").c_str());
    return 0;
}
CC
# shellcheck disable=SC2046
g++ -std=c++20 -o "$work/client" "$work/client.cc" $(pkg-config --cflags --libs tzhelper-client)
check "pkg-config build runs" "file:///tmp/a%20b" "$("$work/client")"

step "systemd-analyze verify"
check "the installed unit verifies" 0 \
  "$(systemd-analyze verify /usr/lib/systemd/user/tzhelperd.service >"$work/verify.txt" 2>&1; echo $?)"
sed 's/^/   | /' "$work/verify.txt"

step "purge"
dpkg --purge "${packages[@]}" >"$work/purge.log" 2>&1 || cat "$work/purge.log"
for u in "$member" "$other"; do userdel -r "$u" >/dev/null 2>&1 || true; done
[ "$had_group" = no ] && groupdel lpadmin
check "no file of the packages left" "" \
  "$(ls -d /var/lib/tzhelper /usr/libexec/tzhelperd /usr/bin/tzhelperctl \
      /usr/share/dbus-1/services/tazorex.printers.T48Q.Helper.service 2>/dev/null)"
check "lpadmin as before" "$had_group" "$(getent group lpadmin >/dev/null && echo yes || echo no)"

echo "installed: $passes passed, $failures failed"
[ "$failures" -eq 0 ]
