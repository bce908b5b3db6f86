#!/usr/bin/env bash
# The Debian packages as an administrator installs them and as users use them (as root, on a machine that may be
# changed: CI's). Builds and lintians the packages, installs them with dpkg -i, checks the probe, a walk and
# the PreferencesDirectory property as a member of lpadmin and as another user on their own session buses, lets a
# second member of lpadmin attack the first's files, builds against the .pc file, verifies the user unit, purges,
# and checks that nothing is left. Everything is undone on every way out.
set -euo pipefail
cd "$(dirname "$0")/../.."
root=$PWD

[ "$(id -u)" -eq 0 ] || { echo "installed_test: must run as root (it installs packages)" >&2; exit 2; }

folder=/var/lib/tzhelper/tazorex.printers.T48Q/
table=1.3.6.1.4.1.99991.1.1.1.1.6.13.1.1
member=tzhelper-test-adm
other=tzhelper-test-usr
attacker=tzhelper-test-atk
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
  for u in "$member" "$other" "$attacker"; do
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
check "folder mode, owner and group" "1775 root lpadmin" "$(stat -c '%a %U %G' "$folder")"

step "users: $member and $attacker (lpadmin) and $other"
useradd --create-home --groups lpadmin "$member"
useradd --create-home --groups lpadmin "$attacker"
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
  echo "admin=$(tzhelperctl is-admin "${folder}$(id -un)/probe.plist")"
  echo "property=$(busctl --user get-property tazorex.printers.T48Q.Helper \
    /tazorex/printers/T48Q/Helper tazorex.printers.T48Q.Helper1 PreferencesDirectory)"
  echo "walk=$(tzhelperctl walk --model T48Q --user "$(id -un)" -- -v 1 -c public "$printer" "$table" \
    2>/dev/null | head -n 1)"
'

# Runs the rest of the line as the attacker, without a bus.
as_attacker() { runuser -u "$attacker" -- "$@"; }
walk_as_member='timeout 60 tzhelperctl walk --model T48Q --user "$(id -un)" -- -v 1 -c public "$1" "$2" 2>/dev/null |
  head -n 1'

step "$attacker squats $member's folder name before $member's first walk"
for squat in "mkdir -m 777 $folder$member" "ln -s /home/$member $folder$member" "mkfifo -m 666 $folder$member"; do
  as_attacker sh -c "$squat"
  check "$squat: no walk" iRet=1 "$(as_user "$member" bash -c "$walk_as_member" walk "$printer" "$table")"
  check "$squat: nothing written" "" "$(find "$folder$member/" "/home/$member" -name '*-profile*' 2>/dev/null)"
  as_attacker rm -rf "$folder$member"
done

for user in "$member" "$other"; do
  step "as $user: is-admin, PreferencesDirectory, walk"
  as_user "$user" bash -c "$session_checks" session "$folder" "$printer" "$table" \
    >"$work/$user.out" 2>"$work/$user.err" || true
  sed 's/^/   | /' "$work/$user.out"
  value() { sed -n "s/^$1=//p" "$work/$user.out"; }
  check "$user: PreferencesDirectory" "s \"$folder$user/\"" "$(value property)"
  if [ "$user" = "$member" ]; then
    check "$user: is-admin" TRUE "$(value admin)"
    check "$user: walk" iRet=0 "$(value walk)"
    plist="$folder$user/$user-T48Q-profile.plist"
    check "$user: own folder 0700, profile plist the user's" "700 $user $user" \
      "$(stat -c '%a %U' "$folder$user") $(stat -c '%U' "$plist" 2>/dev/null)"
  else
    check "$user: is-admin" FALSE "$(value admin)"
    check "$user: no folder of its own" no "$(test -e "$folder$user" && echo yes || echo no)"
  fi
done

step "$attacker plants links, FIFOs and big files where $member's service works; $member calls"
mine=$folder$member/ flat=$folder$member-T48Q-profile
runuser -u "$member" -- sh -c 'cd; mkdir -p -m 700 .ssh; echo member-secret-notes >notes.txt
  echo member-secret-key >.ssh/id_ed25519; chmod 600 notes.txt .ssh/id_ed25519'
secrets() { cat "/home/$member/notes.txt" "/home/$member/.ssh/id_ed25519" "/home/$member/.bashrc" | sha256sum; }
before=$(secrets)
# 1-6 inside the member's own folder: each is refused by the kernel.
planted=0
for plant in "ln -s /home/$member/notes.txt ${mine}$member-T48Q-profile.plist" "mkfifo ${mine}x.plist" \
  "truncate -s 2G ${mine}x.plist.dummy" "rm -f ${mine}$member-T48Q-profile.plist" "mv $mine ${folder}stolen"; do
  as_attacker sh -c "$plant" 2>/dev/null && planted=$((planted + 1))
done
check "$attacker can plant, remove or move nothing in $member's folder" 0 "$planted"
# 1-5 at the names of the old shared layout, which a caller may still name.
as_attacker sh -c "ln -s /home/$member/notes.txt $flat.plist; ln -s /home/$member/.ssh/id_ed25519 $flat.key.plist
  mkfifo -m 666 $flat.fifo.plist $flat.fifo.plist.dummy; truncate -s 2G $flat.big.plist.dummy"
touch "$work/racing"
as_attacker sh -c "while [ -e $work/racing ]; do ln -sf /home/$member/.bashrc $flat.race.plist; done" & racer=$!
member_calls='
  set -u; cd "$HOME"; mine=$1 flat=$2; t="timeout 20 tzhelperctl"
  current=$mine$(id -un)-T48Q-profile.plist
  echo "fifo=$($t exist "$flat.fifo.plist") $($t is-admin "$flat.fifo.plist") $($t write-piece "$flat.fifo.plist" x)" \
    "$($t show "$flat.fifo.plist" 2>/dev/null; echo $?)"
  echo "leak=$($t swap 2 "$flat.key.plist" "$flat.copy.plist") $($t write-piece "$flat.big.plist" x)"
  for i in $(seq 200); do $t swap 2 "$current" "$flat.race.plist" >/dev/null || echo "race=timeout"; done
'
as_user "$member" bash -c "$member_calls" calls "$mine" "$flat" >"$work/attack.out" 2>&1 || true
rm "$work/racing"; wait "$racer" || true
sed 's/^/   | /' "$work/attack.out"
value() { sed -n "s/^$1=//p" "$work/attack.out"; }
check "$member: a FIFO answers at once (exist, is-admin, piece, show)" "FALSE FALSE FALSE 1" "$(value fifo)"
check "$member: a planted link is not copied, a planted .dummy not written" "TRUE FALSE" "$(value leak)"
check "$member: every swap in the race answered in time" "" "$(value race)"
check "$member's private files unchanged" "$before" "$(secrets)"
check "no file $attacker can read holds $member's secrets" "" \
  "$(as_attacker grep -rlF -e member-secret -e "$(head -c 20 "/home/$member/.bashrc")" "$folder" 2>/dev/null)"
check "nothing in the folder grew past 64 MiB" "2147483648" \
  "$(find "$folder" -size +65M -printf '%s\n' 2>/dev/null)"

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
for u in "$member" "$other" "$attacker"; do userdel -r "$u" >/dev/null 2>&1 || true; done
[ "$had_group" = no ] && groupdel lpadmin
check "no file of the packages left" "" \
  "$(ls -d /var/lib/tzhelper /usr/libexec/tzhelperd /usr/bin/tzhelperctl \
      /usr/share/dbus-1/services/tazorex.printers.T48Q.Helper.service 2>/dev/null)"
check "lpadmin as before" "$had_group" "$(getent group lpadmin >/dev/null && echo yes || echo no)"

echo "installed: $passes passed, $failures failed"
[ "$failures" -eq 0 ]
