# shellcheck shell=bash disable=SC2154  # $root comes from whoever sources this
# The Debian packages: built, read by lintian, and installed, started, used, upgraded and purged in a
# Debian 12 of their own. To be sourced; "$root" is the top of the tree.
#
# That Debian is a debootstrap in a folder, entered with mounts, processes, network and host name of
# its own. In one of them nothing runs but what is started by hand; in the other, systemd is process 1.

# shellcheck source=scripts/lib/steps.sh
source "${BASH_SOURCE[0]%/*}/steps.sh"
# shellcheck source=scripts/lib/debian.sh
source "${BASH_SOURCE[0]%/*}/debian.sh"
# shellcheck source=scripts/lib/test-packages-systemd.sh
source "${BASH_SOURCE[0]%/*}/test-packages-systemd.sh"
# shellcheck source=scripts/lib/test-packages-arm.sh
source "${BASH_SOURCE[0]%/*}/test-packages-arm.sh"

# shellcheck disable=SC2034  # for scripts/test
packages_packages=(dpkg-dev file lintian debootstrap iproute2 util-linux squashfs-tools systemd
                   binutils mandoc man-db)

package_names=(vok-broker libvokbroker5 libvokbroker-dev vok-broker-examples)
package_ready_flag=/tmp/vok_ready
package_programs=/usr/libexec/vok-broker
package_example_client=$package_programs/examples/example-client
# Five attempts to mount an update of the plug-in set, and a busy machine.
package_start_seconds=45
package_stop_seconds=10 # what the unit gives to each step of a stop
# What starts the packages' programs, when this machine cannot.
package_runner=()
# Units to compare with: of the packages dbus, systemd and dbus-broker.
package_known_units=(dbus.service systemd-logind.service dbus-broker.service)

# run_packages short|long: the short form leaves out systemd, armhf and the compiler inside.
run_packages() {
  local form=$1
  package_folder=$root/build-release/packages
  trap 'debian_leave' EXIT

  packages_make || return
  packages_read
  packages_judge_unit
  if ! debian_is_possible; then
    note "Nothing is installed: $debian_why_not."
  else
    packages_try_by_hand
    if [[ $form == long ]]; then packages_try_under_systemd; fi
  fi
  if [[ $form == long ]]; then packages_try_for_arm; fi

  heading "$((steps_failed)) failed"
  ((steps_failed == 0))
}

# --- Making and reading them

# packages_make: two releases of the same sources, and the first one twice.
packages_make() {
  heading "Packages of release 1, again, and of release 2"
  rm -rf "$package_folder"
  packages_pack "$package_folder/2" 2 &&
    packages_pack "$package_folder/again" 1 && packages_pack "$package_folder/1" 1 || return
  local package
  for package in "$package_folder/1"/*.deb; do
    check "${package##*/} is the same, byte for byte, when it is made again" \
      cmp -s "$package" "$package_folder/again/${package##*/}"
  done
}

# packages_pack FOLDER RELEASE
packages_pack() {
  local log=$root/build-release/packages.log
  mkdir -p "${log%/*}"
  (
    cd "$root" && cmake --preset release -DVOK_PACKAGE_RELEASE="$2" &&
      cmake --build --preset release &&
      cpack --config build-release/CPackConfig.cmake -B "$1"
  ) >"$log" 2>&1 || {
    tail -n 40 "$log" >&2
    return 1
  }
  rm -rf "$1/_CPack_Packages"
}

packages_read() {
  heading "lintian"
  check "it has no error and no warning, besides what the overrides explain" \
    lintian --allow-root --tag-display-limit 0 --fail-on error,warning "$package_folder/1"/*.deb
  heading "What is in them"
  local name
  for name in "${package_names[@]}"; do
    check "there is $name" packages_has "$name"
  done
  check "an empty plug-in set that was there before the examples outlives them" \
    packages_plugin_set_stays before
  check "one that they have made goes with them" packages_plugin_set_stays after
  check "the host library shows nothing but vok_ functions and vok::CBroker" packages_exports
  check "who looks after a set finds INTEGRATION.md and VOKCTL.md" \
    packages_document vok-broker INTEGRATION.md VOKCTL.md
  check "who writes EMPs and launchers finds the guides" \
    packages_document libvokbroker-dev WRITING_AN_EMP.md WRITING_A_LAUNCHER.md
  check "the examples are for this very release of the broker" packages_examples_match
}

# The scripts of the examples' package, on a tree of their own: somebody's plug-in set stays.
packages_plugin_set_stays() {
  local tree=$package_folder/plugins made=$1 folder
  folder=$tree/opt/down/pepper/webapis
  rm -rf "$tree"
  mkdir -p "$tree"
  if [[ $made == before ]]; then mkdir -p "$folder"; fi
  DPKG_ROOT=$tree sh "$root/packaging/debian/examples/postinst" configure &&
    DPKG_ROOT=$tree sh "$root/packaging/debian/examples/postinst" configure &&
    [[ -d $folder ]] &&
    DPKG_ROOT=$tree sh "$root/packaging/debian/examples/postrm" remove &&
    DPKG_ROOT=$tree sh "$root/packaging/debian/examples/postrm" purge || return
  if [[ $made == before ]]; then [[ -d $folder ]]; else [[ ! -e $tree/opt/down ]]; fi
}

packages_has() { [[ -f $(echo "$package_folder/1/$1"_*.deb) ]]; }

# packages_document NAME FILE...: the package has these documents.
packages_document() {
  local package=$1 files file
  files=$(dpkg-deb -c "$package_folder/1/$package"_*.deb) || return
  shift
  for file in "$@"; do
    grep -q " \./usr/share/doc/$package/$file\$" <<<"$files" || return
  done
}

packages_examples_match() {
  local version
  version=$(dpkg-deb -f "$package_folder"/1/vok-broker_*.deb Version) || return
  dpkg-deb -f "$package_folder"/1/vok-broker-examples_*.deb Depends |
    grep -qF "vok-broker (= $version)"
}

packages_exports() {
  local tree=$package_folder/tree others
  rm -rf "$tree"
  dpkg-deb -x "$package_folder"/1/libvokbroker5_*.deb "$tree"
  others=$(nm -D --defined-only -C "$(find "$tree" -type f -name 'libvokbroker.so.*')" |
    sed -E 's/^[0-9a-f]+ . //' |
    grep -vE '^(vok_|vok::CBroker::|(vtable|typeinfo|typeinfo name) for vok::CBroker$|(non-virtual |virtual )?thunk to vok::CBroker::)')
  [[ -z $others ]] || { indent <<<"$others"; return 1; }
}

# --- The unit

packages_judge_unit() {
  heading "What systemd-analyze security thinks of the unit, and of those of well-known buses"
  local tree=$package_folder/unit unit file
  rm -rf "$tree"
  dpkg-deb -x "$package_folder"/1/vok-broker_*.deb "$tree"
  unit=$tree/usr/lib/systemd/system/vok-broker.service
  check "systemd understands the unit" packages_verify_unit "$unit"
  packages_score "$unit"
  for file in "${package_known_units[@]}"; do
    unit=$(packages_known_unit "$file") || { note "$file: not to be had here"; continue; }
    packages_score "$unit"
  done
}

# What it says of programs that are not installed here is not about the unit.
packages_verify_unit() {
  local complaints
  complaints=$(systemd-analyze verify --man=no "$1" 2>&1 | grep -v 'is not executable' || true)
  [[ -z $complaints ]] || { indent <<<"$complaints"; return 1; }
}

packages_score() {
  systemd-analyze security --offline=true --no-pager "$1" 2>&1 |
    sed -n 's/.*exposure level for \(.*\): \([0-9.]*\) \([A-Z]*\).*/   \1: \2 \3/p'
}

# packages_known_unit NAME: as it is installed here, or in its package.
packages_known_unit() {
  local found=/lib/systemd/system/$1 package=${1%.service} folder=$package_folder/known
  if [[ -e $found ]]; then
    echo "$found"
    return
  fi
  mkdir -p "$folder"
  (cd "$folder" && apt-get -q download "$package" && dpkg-deb -x "${package}"_*.deb .) \
    >/dev/null 2>&1 || return
  found=$folder/lib/systemd/system/$1
  [[ -e $found ]] && echo "$found"
}

# --- In a Debian without a service manager

packages_try_by_hand() {
  heading "A Debian 12 in which nothing runs"
  debian_make "$root/build-release/debian" || { failed "debootstrap"; return; }
  debian_enter by-hand || { failed "entering it: $debian_why_not"; return; }
  debian_list_files >"$package_folder/files.before"
  packages_install 1 || { debian_leave; return; }
  check "the unit is enabled" \
    inside test -L /etc/systemd/system/multi-user.target.wants/vok-broker.service
  check "the folders of downloaded EMPs are there" inside test -d /opt/down/emps
  check "the links of the guides lead somewhere" packages_links_lead_somewhere

  packages_use_by_hand
  packages_try_scripts
  packages_lay_out_own_emp
  heading "The upgrade"
  packages_install 2
  check "EMPs that are no part of it stay" inside test -x /usr/bin/emps/empOwn/empOwn
  packages_purge_by_hand
  debian_leave
}

# Within the guides that are installed; to a heading is to its file.
packages_links_lead_somewhere() {
  local guide link links=0 lost=0
  for guide in "$debian_root"/usr/share/doc/{vok-broker,libvokbroker-dev}/*.md; do
    while IFS= read -r link; do
      links=$((links + 1))
      [[ -e ${guide%/*}/$link ]] || { note "${guide##*/}: $link"; lost=$((lost + 1)); }
    done < <(sed 's/](/\n](/g' "$guide" | sed -n 's/^](\([^)#:]*\)\(#[^)]*\)\?).*/\1/p' | grep .)
  done
  note "$links links"
  ((links > 0 && lost == 0))
}

# packages_install RELEASE: with what they depend on, from the mirror.
packages_install() {
  local file files=()
  rm -rf "$debian_root/packages"
  cp -r "$package_folder/$1" "$debian_root/packages"
  for file in "$debian_root/packages"/*.deb; do files+=("/packages/${file##*/}"); done
  check "apt installs release $1" debian_apt install "${files[@]}"
  check "dpkg finds every file as it was packed" \
    debian_quietly inside dpkg --verify "${package_names[@]}"
  # shellcheck disable=SC2016  # dpkg's variables
  inside dpkg-query -W -f '${Package} ${Version} ${db:Status-Status}\n' "${package_names[@]}" |
    indent
}

packages_serves() { inside test -e "$package_ready_flag"; }

packages_use_by_hand() {
  heading "The daemon, started by hand"
  # As the unit starts it, but through a link, as /bin is one.
  inside ln -s bin /usr/link-to-bin
  check "it puts itself into the background, where launch finds it" \
    inside "$package_programs/launch" /usr/link-to-bin/vok-broker /run/vok-broker.pid
  inside rm /usr/link-to-bin
  check "it is awaited until it serves" \
    inside timeout "$package_start_seconds" "$package_programs/await-ready" /run/vok-broker.pid
  check "it serves" packages_serves
  packages_use
  check "the host library works, too: a second broker finds the port taken" \
    packages_host_is_refused
  local pid
  pid=$(pid_inside /usr/bin/vok-broker)
  check "launch has written which process it is" \
    test "$(inside cat /run/vok-broker.pid)" = "$pid"
  inside_kill TERM "$pid"
  check_soon 10 "it stops, and takes its flag along" packages_has_stopped "$pid"
}

# The unit's scripts beside a daemon that is told what to do: a shell.
packages_try_scripts() {
  heading "What the service manager runs, with a daemon that is none"
  packages_fake=/root/fake/vok-broker
  inside install -D /bin/dash "$packages_fake"
  inside mkfifo /root/fake/never
  check "launch that is told to end while the daemon forks finishes its job" \
    packages_launch_finishes
  check "a daemon that does not listen is ended" packages_deaf_daemon_is_ended
  check "launch fails with 2, for 1 is a success" \
    packages_fails_with_2 launch /bin/false /root/fake/pid
  check "and leaves no process id of another time" not inside test -e /root/fake/pid
  check "await-ready fails with 2" packages_fails_with_2 await-ready /root/fake/pid
  inside rm -r /root/fake
}

# Its parent tells launch to end; the daemon is deaf to that, and waits for nothing.
packages_launch_finishes() {
  # shellcheck disable=SC2016  # the shell inside expands it
  printf '%s\n' 'kill -TERM $PPID' 'trap "" TERM' 'read -r line </root/fake/never &' \
    >"$debian_root/root/fake/commands"
  inside sh -c "$package_programs/launch $packages_fake /root/fake/pid </root/fake/commands" &&
    [[ $(inside cat /root/fake/pid) == "$(pid_inside "$packages_fake")" ]]
}

packages_deaf_daemon_is_ended() {
  [[ -n $(pid_inside "$packages_fake") ]] &&
    inside timeout "$package_stop_seconds" "$package_programs/end-stray" "$packages_fake" &&
    [[ -z $(pid_inside "$packages_fake") ]]
}

# packages_fails_with_2 SCRIPT ARGUMENT...
packages_fails_with_2() {
  local status=0
  inside "$package_programs/$1" "${@:2}" >/dev/null 2>&1 || status=$?
  ((status == 2))
}

packages_has_stopped() {
  ! inside test -e "/proc/$1/exe" && ! packages_serves
}

packages_host_is_refused() {
  local answer
  answer=$(inside /usr/libexec/vok-broker/examples/example-host Example 2>&1) && return 1
  [[ $answer != *"error while loading"* ]]
}

# packaged PROGRAM ARGUMENT...: runs a program of the packages.
packaged() { inside "${package_runner[@]}" "$@"; }

# packages_use: the example EMP, by everything that can open it.
packages_use() {
  check "the example client opens the example EMP" packages_client_echoes
  check "vokctl calls it" \
    packages_answers hello packaged /usr/bin/vokctl call Example Echo hello
  check "vokctl tells the state" debian_quietly packaged /usr/bin/vokctl status
  check "vokctl knows where it is" debian_quietly packaged /usr/bin/vokctl where Example
}

# inside_kill SIGNAL PID: the shell's own; there is no such program in there.
# shellcheck disable=SC2016  # the shell inside expands them
inside_kill() { inside sh -c 'kill -s "$1" "$2"' sh "$1" "$2"; }

# pid_inside PROGRAM: of the process that runs it.
pid_inside() {
  # shellcheck disable=SC2012  # the names in /proc are numbers
  inside sh -c 'ls -l /proc/[0-9]*/exe 2>/dev/null' | sed -n "s,.*/proc/\([0-9]*\)/exe -> $1\$,\1,p"
}

# packages_answers TEXT COMMAND...
packages_answers() {
  local text=$1 answer
  shift
  answer=$("$@" 2>&1) || true
  [[ $answer == *"$text"* ]] || { indent <<<"$answer"; return 1; }
}

# packages_client_echoes [EMP]
packages_client_echoes() {
  packages_answers 'echo hello' packaged "$package_example_client" "${1:-Example}"
}

# Of somebody else: no package knows it.
packages_lay_out_own_emp() {
  inside install -D /usr/libexec/vok-broker/examples/example-emp /usr/bin/emps/empOwn/empOwn
}

# The EMP of vok-emp(7), as that page says, with the development package and nothing else of ours.
packages_build_inside() {
  local folder=/root/clock
  heading "A compiler in there, and the example of vok-emp(7)"
  check "apt installs a compiler" debian_apt install g++ make cmake pkg-config
  inside mkdir "$folder"
  sed -n '/^cmake_minimum_required/,/^\.Ed/{/^\.Ed/d;p}' "$root/docs/man/vok-emp.7" \
    >"$debian_root$folder/CMakeLists.txt"
  inside sh -c 'cp /usr/share/doc/vok-broker-examples/examples/emp* /root/clock'
  check "it is built" debian_quietly inside sh -c 'cd /root/clock && cmake -B build && cmake --build build'
  check "it is put where the broker looks" \
    inside install -D "$folder/build/empClock" /usr/bin/emps/empClock/empClock
}

packages_purge_by_hand() {
  heading "The purge"
  check "apt purges all of them, and what they needed" packages_purge
  check "an EMP of somebody else is still there" inside test -x /usr/bin/emps/empOwn/empOwn
  inside rm -r /usr/bin/emps
  rm -rf "$debian_root/packages"
  debian_list_files >"$package_folder/files.after"
  check "no file is left that was not there before" packages_left_nothing
}

packages_purge() {
  debian_apt purge --auto-remove "${package_names[@]}"
}

# Besides what dpkg, apt and systemd's helper note about every package that has come and gone.
packages_left_nothing() {
  local left
  left=$(diff "$package_folder/files.before" "$package_folder/files.after" | grep '^[<>]' |
    grep -vE ' \./(var/(lib|cache|log)/|etc/(ld\.so\.cache|alternatives)|usr/share/info/)' || true)
  [[ -z $left ]] || { indent <<<"$left"; return 1; }
}
