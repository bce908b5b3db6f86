#!/usr/bin/env bash
# The Debian packages as installed and used, as root on a machine that may be changed (CI's): built, installed, used
# by a member of lpadmin and another user, the first's files attacked by a second member, purged; all undone on exit.
set -euo pipefail
cd "$(dirname "$0")/../.."
[ "$(id -u)" -eq 0 ] || { echo "installed_test: must run as root (it installs packages)" >&2; exit 2; }

folder=/var/lib/tzhelper/tazorex.printers.T48Q/
table=1.3.6.1.4.1.99991.1.1.1.1.6.13.1.1
member=tzhelper-test-adm other=tzhelper-test-usr attacker=tzhelper-test-atk
packages=(tzhelper libtzhelper-client1 libtzhelper-client-dev)
work=$(mktemp -d /tmp/tzhelper-package.XXXXXX)
chmod 755 "$work"
had_group=$(getent group lpadmin >/dev/null && echo yes || echo no)
failures=0 passes=0

# Purges the packages, removes the test users and the group lpadmin if this test brought it; fails if groupdel does.
undo() (
  set +e
  dpkg --purge "${packages[@]}" >"$work/purge.log" 2>&1 || cat "$work/purge.log"
  for u in "$member" "$other" "$attacker"; do pkill -u "$u" 2>/dev/null; userdel -r "$u" >/dev/null 2>&1; done
  if [ "$had_group" = no ] && getent group lpadmin >/dev/null; then groupdel lpadmin; fi
)
trap 'tests/fixtures/sample-printer --stop "$work/printer"; undo; rm -rf "$work"' EXIT

step() { printf '== %s\n' "$*"; }
check() {  # check NAME EXPECTED ACTUAL: counts and prints a pass or a failure
  if [ "$2" = "$3" ]; then passes=$((passes + 1)); printf '   ok   %s\n' "$1"
  else failures=$((failures + 1)); printf '   FAIL %s: expected "%s", got "%s"\n' "$1" "$2" "$3"; fi
}
value() { sed -n "s/^$2=//p" "$work/$1.out"; }  # value NAME KEY: KEY's value in what as_user printed for NAME
# Runs SCRIPT as USER in bash on a session bus of its own; SCRIPT may use me, folder, printer, table and walk.
as_user() {  # as_user USER SCRIPT
  runuser -u "$1" -- env -i HOME="/home/$1" PATH=/usr/bin:/bin LANG=C.UTF-8 me="$1" folder="$folder" \
    printer="$printer" table="$table" dbus-run-session -- bash -c 'set -u; cd
    walk() { timeout 60 tzhelperctl walk --model T48Q --user "$me" -- -v 1 -c public "$printer" "$table" | head -n 1; }
    '"$2"
}
as_attacker() { runuser -u "$attacker" -- "$@"; }  # runs the rest of the line as the attacker, without a bus

step "build the packages"
mkdir "$work/src"
git ls-files -z --cached --others --exclude-standard | tar --null -cf - -T - | tar -xf - -C "$work/src"
(cd "$work/src" && DEB_BUILD_OPTIONS="nocheck parallel=$(nproc)" dpkg-buildpackage -us -uc -b) \
  >"$work/build.log" 2>&1 || { tail -40 "$work/build.log"; exit 1; }
for p in "${packages[@]}"; do debs+=("$work/${p}_"*_"$(dpkg --print-architecture)".deb); done

step "lintian"
check "lintian reports no error" 0 "$(lintian --allow-root --fail-on error "$work"/*.changes >&2; echo $?)"

step "install with dpkg -i"
dpkg -i "${debs[@]}" >"$work/dpkg.log" 2>&1 || { cat "$work/dpkg.log"; exit 1; }
check "folder mode, owner and group" "1775 root lpadmin" "$(stat -c '%a %U %G' "$folder")"

step "users: $member and $attacker (lpadmin) and $other; a sample printer"
for u in "$member" "$attacker"; do useradd --create-home --groups lpadmin "$u"; done
useradd --create-home "$other"
printer=$(tests/fixtures/sample-printer "$work/printer" 12)

step "$attacker squats $member's folder name before $member's first walk"
for squat in "mkdir -m 777 $folder$member" "ln -s /home/$member $folder$member" "mkfifo -m 666 $folder$member"; do
  as_attacker sh -c "$squat"
  check "$squat: no walk" iRet=1 "$(as_user "$member" walk)"
  check "$squat: nothing written" "" "$(find "$folder$member/" "/home/$member" -name '*-profile*' 2>/dev/null)"
  as_attacker rm -rf "$folder$member"
done

for user in "$member" "$other"; do
  step "as $user: is-admin, PreferencesDirectory, walk"
  as_user "$user" 'echo "admin=$(tzhelperctl is-admin "$folder$me/probe.plist")"
    echo "property=$(busctl --user get-property tazorex.printers.T48Q.Helper /tazorex/printers/T48Q/Helper \
      tazorex.printers.T48Q.Helper1 PreferencesDirectory)"
    echo "walk=$(walk)"' 2>&1 | tee "$work/$user.out" | sed 's/^/   | /' || true
  check "$user: PreferencesDirectory" "s \"$folder$user/\"" "$(value "$user" property)"
done
check "is-admin: $member (lpadmin), $other" "TRUE FALSE" "$(value "$member" admin) $(value "$other" admin)"
check "$member: walk" iRet=0 "$(value "$member" walk)"
check "$member: own folder 0700, profile plist the user's" "700 $member $member" \
  "$(stat -c '%a %U' "$folder$member") $(stat -c '%U' "$folder$member/$member-T48Q-profile.plist" 2>/dev/null)"
check "$other: no folder of its own" no "$(test -e "$folder$other" && echo yes || echo no)"

step "$attacker plants links, FIFOs and big files at the names of the old shared layout; $member calls"
flat=$folder$member-T48Q-profile
runuser -u "$member" -- sh -c 'cd; mkdir -p -m 700 .ssh; echo member-secret-notes >notes.txt
  echo member-secret-key >.ssh/id_ed25519; chmod 600 notes.txt .ssh/id_ed25519'
secrets() { cat "/home/$member/notes.txt" "/home/$member/.ssh/id_ed25519" "/home/$member/.bashrc" | sha256sum; }
before=$(secrets)
# A caller may still name these; the plants land.
as_attacker sh -c "ln -s /home/$member/notes.txt $flat.plist; ln -s /home/$member/.ssh/id_ed25519 $flat.key.plist
  mkfifo -m 666 $flat.fifo.plist $flat.fifo.plist.dummy; truncate -s 2G $flat.big.plist.dummy"
as_user "$member" 't="timeout 20 tzhelperctl" flat=$folder$me-T48Q-profile
  echo "fifo=$($t exist "$flat.fifo.plist") $($t is-admin "$flat.fifo.plist") $($t write-piece "$flat.fifo.plist" x)" \
    "$($t show "$flat.fifo.plist" 2>/dev/null; echo $?)"
  echo "leak=$($t swap 2 "$flat.key.plist" "$flat.copy.plist") $($t write-piece "$flat.big.plist" x)"' \
  2>&1 | tee "$work/attack.out" | sed 's/^/   | /' || true
check "$member: a FIFO answers at once (exist, is-admin, piece, show)" "FALSE FALSE FALSE 1" "$(value attack fifo)"
check "$member: a planted link is not copied, a planted .dummy not written" "TRUE FALSE" "$(value attack leak)"
check "$member's private files unchanged" "$before" "$(secrets)"
check "no file $attacker can read holds $member's secrets" "" \
  "$(as_attacker grep -rlF -e member-secret -e "$(head -c 20 "/home/$member/.bashrc")" "$folder" 2>/dev/null)"
check "nothing in the folder grew past 64 MiB" 2147483648 "$(find "$folder" -size +65M -printf '%s\n' 2>/dev/null)"

step "a program built against the installed library"
# shellcheck disable=SC2046
g++ -std=c++20 -o "$work/client" -x c++ - $(pkg-config --cflags --libs tzhelper-client) <<'CC'
#include <tzhelper/helper_client.h>
#include <cstdio>
int main() { std::puts(tz::client::file_url("/tmp/a b").c_str()); }
CC
check "pkg-config build runs" "file:///tmp/a%20b" "$("$work/client")"

step "systemd-analyze verify"
check "the installed unit verifies" 0 "$(systemd-analyze verify /usr/lib/systemd/user/tzhelperd.service 2>&1 |
  sed 's/^/   | /' >&2; echo "${PIPESTATUS[0]}")"

step "purge"
undo
check "no file of the packages left" "" "$(ls -d /var/lib/tzhelper /usr/libexec/tzhelperd /usr/bin/tzhelperctl \
  /usr/share/dbus-1/services/tazorex.printers.T48Q.Helper.service 2>/dev/null)"
check "lpadmin as before" "$had_group" "$(getent group lpadmin >/dev/null && echo yes || echo no)"

echo "installed: $passes passed, $failures failed"
[ "$failures" -eq 0 ]
