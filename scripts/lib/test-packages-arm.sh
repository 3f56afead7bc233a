# shellcheck shell=bash disable=SC2154  # from test-packages.sh, which sources this
# The packages for 32-bit ARM: made, read, and installed, started, used, upgraded and purged under qemu.
#
# The Debian that they are installed in is this machine's with a second architecture, so that qemu runs
# nothing but what is ours. The kernel starts no ARM program by itself: that would be for all that runs
# on it.

# shellcheck source=scripts/lib/arm-sysroot.sh
source "${BASH_SOURCE[0]%/*}/arm-sysroot.sh"

packages_try_for_arm() {
  heading "Packages for 32-bit ARM"
  # Not for the short form, so not among packages_packages.
  ensure_packages g++ g++-12-arm-linux-gnueabihf qemu-user-static || {
    failed "installing the cross compiler, and qemu"
    return
  }
  packages_make_for_arm || {
    failed "making them"
    return
  }
  packages_read_for_arm "$package_folder/armhf/1"
  if debian_is_possible; then packages_install_for_arm; fi
}

# Two releases; the first one last, for it is what the build folder then makes.
packages_make_for_arm() {
  local build=$root/build-arm log=$root/build-arm/packages.log
  mkdir -p "$build"
  if ! (
    make_sysroot "$build/sysroot" && make_sysroot_database "$build/sysroot" &&
      packages_pack_for_arm 2 && packages_pack_for_arm 1
  ) >"$log" 2>&1; then
    tail -n 40 "$log" >&2
    return 1
  fi
}

# packages_pack_for_arm RELEASE
packages_pack_for_arm() {
  local folder=$package_folder/armhf/$1
  (
    cd "$root" && cmake --preset arm -DVOK_PACKAGE_RELEASE="$1" &&
      cmake --build --preset arm --target vok_installed &&
      DEB_HOST_ARCH=armhf DPKG_ADMINDIR=$root/build-arm/sysroot.dpkg \
        cpack --config build-arm/CPackConfig.cmake -B "$folder"
  ) && rm -rf "$folder/_CPack_Packages"
}

# packages_read_for_arm FOLDER
packages_read_for_arm() {
  local package
  for package in "$1"/*.deb; do
    check "${package##*/} is for armhf, and so is what is in it" packages_is_arm "$package"
  done
  check "lintian has no error and no warning" \
    lintian --allow-root --tag-display-limit 0 --fail-on error,warning "$1"/*.deb
  check "both architectures have the same files" packages_same_files "$1"
}

packages_is_arm() {
  local tree=$package_folder/tree file what
  [[ $(dpkg-deb -f "$1" Architecture) == armhf ]] || return
  rm -rf "$tree"
  dpkg-deb -x "$1" "$tree"
  while IFS= read -r -d '' file; do
    what=$(file -b "$file")
    if [[ $what == ELF* && $what != *"32-bit LSB"*ARM* ]]; then
      note "$file: $what"
      return 1
    fi
  done < <(find "$tree" -type f -print0)
  note "$(dpkg-deb -f "$1" Depends)"
}

packages_same_files() {
  local name files
  for name in "${package_names[@]}"; do
    files=$(diff <(packages_files "$package_folder/1/$name"_*.deb) \
      <(packages_files "$1/$name"_*.deb)) || { indent <<<"$files"; return 1; }
  done
}

packages_files() {
  dpkg-deb --fsys-tarfile "$1" | tar -t | sed 's/x86_64-linux-gnu\|arm-linux-gnueabihf/TRIPLET/'
}

packages_install_for_arm() {
  heading "A Debian 12 with programs for 32-bit ARM"
  debian_make "$root/build-release/debian" || { failed "debootstrap"; return; }
  debian_enter by-hand || { failed "entering it: $debian_why_not"; return; }
  inside dpkg --add-architecture armhf
  # What belongs to every Debian; no purge of ours takes it away again.
  check "apt installs their C library" debian_apt install libc6:armhf libcrypt1:armhf
  debian_list_files >"$package_folder/files.before"
  packages_install armhf/1 || { debian_leave; return; }
  packages_lend_qemu || { failed "lending it qemu"; debian_leave; return; }
  packages_use_for_arm
  packages_lay_out_own_emp
  heading "The upgrade"
  packages_install armhf/2
  rm -r "$debian_root$arm_folder"
  packages_purge_by_hand
  debian_leave
}

# qemu for what is started by hand. The example EMP, which the broker starts, is replaced by a program
# that starts it under qemu.
packages_lend_qemu() {
  arm_folder=/root/arm
  local emp=/usr/bin/emps/empExample/empExample qemu=$arm_folder/qemu-arm-static
  inside mkdir "$arm_folder"
  cp /usr/bin/qemu-arm-static "$debian_root$qemu"
  package_runner=("$qemu")
  inside mv "$emp" "$arm_folder/Example" # as the broker calls it
  c++ -O2 -o "$debian_root$emp" -DVOK_QEMU="\"$qemu\"" -DVOK_GUEST_BASE='"0x100000000"' \
    -DVOK_ARM_SYSROOT='"/"' -DVOK_ARM_PROGRAMS="\"$arm_folder\"" "$root/tests/arm/under_qemu.cpp"
}

packages_use_for_arm() {
  local pid
  check "the daemon puts itself into the background" packaged /usr/bin/vok-broker
  check_soon "$package_start_seconds" "it serves" packages_serves
  packages_use
  pid=$(packaged /usr/bin/vokctl status | sed -n 's/.*, process \([0-9]*\), up .*/\1/p')
  inside_kill TERM "$pid"
  check_soon 10 "it stops, and takes its flag along" packages_has_stopped "$pid"
  # shellcheck disable=SC2034  # for packaged
  package_runner=()
}
