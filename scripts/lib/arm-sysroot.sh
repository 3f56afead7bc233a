# shellcheck shell=bash
# Debian's armhf packages, unpacked into a folder to build and run against. To be sourced.
#
# apt works on lists, a cache and a (void) record of installed packages below that folder: the
# machine learns of no second architecture, and nothing is installed.

# What the build links; apt adds what these need. Keep in step with packages_build.
packages_sysroot=(
  libc6-dev libstdc++-12-dev
  libthrift-dev libboost-dev libmount-dev libpugixml-dev libcli11-dev nlohmann-json3-dev
  libgtest-dev libgmock-dev
)
# The suite that the cross compiler's run-time packages are of.
sysroot_suite=bookworm
sysroot_mirror=http://deb.debian.org/debian
sysroot_keyring=/usr/share/keyrings/debian-archive-keyring.gpg

# make_sysroot FOLDER: does nothing when FOLDER holds just that already.
make_sysroot() {
  local folder=$1 stamp content
  stamp=$folder/.packages
  content="$sysroot_mirror $sysroot_suite ${packages_sysroot[*]}"
  if [[ -f $stamp && $(head -n 1 "$stamp") == "$content" ]]; then return; fi

  local apt=$folder.apt
  rm -rf "$folder" "$folder.new" "$apt"
  configure_apt "$apt" && fetch_packages "$apt" &&
    unpack_packages "$apt/cache/archives" "$folder.new" || return
  {
    echo "$content"
    find "$apt/cache/archives" -name '*.deb' -printf '%f\n' | sort
  } >"$folder.new/.packages"
  rm -rf "$apt"
  mv "$folder.new" "$folder"  # complete or not there
}

configure_apt() {
  local apt=$1
  mkdir -p "$apt"/{state/lists/partial,cache/archives/partial}
  : >"$apt/state/status"
  echo "deb [signed-by=$sysroot_keyring] $sysroot_mirror $sysroot_suite main" >"$apt/sources.list"
  # Of the machine's own settings, only the proxies: its hooks would work on its own cache.
  apt-config dump | grep -E '^Acquire::https?::Proxy' >"$apt/apt.conf" || true
  cat >>"$apt/apt.conf" <<TEXT
Dir::State "$apt/state";
Dir::State::status "$apt/state/status";
Dir::Cache "$apt/cache";
Dir::Etc::Main "/dev/null";
Dir::Etc::Parts "/dev/null";
Dir::Etc::SourceList "$apt/sources.list";
Dir::Etc::SourceParts "/dev/null";
Dir::Etc::Preferences "/dev/null";
Dir::Etc::PreferencesParts "/dev/null";
APT::Architecture "armhf";
APT::Architectures { "armhf"; };
APT::Install-Recommends "false";
APT::Sandbox::User "$(id -un)";
Acquire::Languages "none";
Acquire::AllowInsecureRepositories "false";
Debug::NoLocking "true";
TEXT
}

# Signatures are checked against Debian's keyring, as ever; what is not signed is refused.
fetch_packages() {
  local apt=(env "APT_CONFIG=$1/apt.conf" apt-get -q)
  "${apt[@]}" update && "${apt[@]}" -y --download-only install "${packages_sysroot[@]}"
}

# unpack_packages ARCHIVES FOLDER: headers and libraries only. qemu looks up every path of a program
# in there first, so nothing may lie there that a program would rather find on the machine.
unpack_packages() {
  local archives=$1 folder=$2 package
  mkdir -p "$folder"
  for package in "$archives"/*.deb; do
    dpkg-deb --fsys-tarfile "$package" |
      tar -x -C "$folder" --no-same-owner \
        --exclude=./etc --exclude=./var --exclude=./bin --exclude=./sbin --exclude=./usr/bin \
        --exclude=./usr/sbin --exclude=./usr/libexec --exclude=./usr/share --exclude=./usr/src ||
      return
  done
  relink "$folder"
}

# make_sysroot_database FOLDER: what dpkg-shlibdeps wants to know about the packages in FOLDER, in
# FOLDER.dpkg, for DPKG_ADMINDIR. Does nothing when it is of just these packages.
make_sysroot_database() {
  local folder=$1 database=$1.dpkg work=$1.apt package
  if cmp -s "$folder/.packages" "$database/packages"; then return; fi

  rm -rf "$database" "$database.new" "$work"
  configure_apt "$work" && fetch_packages "$work" || return
  mkdir -p "$database.new/info" "$database.new/updates" "$database.new/triggers"
  echo armhf >"$database.new/arch"
  echo 1 >"$database.new/info/format" # files are named PACKAGE:ARCHITECTURE
  : >"$database.new/status"
  for package in "$work/cache/archives"/*.deb; do
    record_package "$package" "$folder" "$database.new" || return
  done
  rm -rf "$work"
  cp "$folder/.packages" "$database.new/packages"
  mv "$database.new" "$database"
}

# record_package PACKAGE FOLDER DATABASE: as if it were installed, with its files in FOLDER.
record_package() {
  local package=$1 folder=$2 database=$3 name information
  name=$(dpkg-deb -f "$package" Package):$(dpkg-deb -f "$package" Architecture)
  # Of packages that may be installed once only, dpkg knows the files without the architecture.
  if [[ $(dpkg-deb -f "$package" Multi-Arch) != same ]]; then name=${name%:*}; fi
  information=$database/info/$name
  {
    dpkg-deb -f "$package"
    printf 'Status: install ok installed\n\n'
  } >>"$database/status"
  dpkg-deb --ctrl-tarfile "$package" | tar -x -O ./symbols >"$information.symbols" 2>/dev/null ||
    rm "$information.symbols"
  dpkg-deb --ctrl-tarfile "$package" | tar -x -O ./shlibs >"$information.shlibs" 2>/dev/null ||
    rm "$information.shlibs"
  # /lib is a link to usr/lib in the finished Debian; what is looked for is named as it was found.
  dpkg-deb --fsys-tarfile "$package" | tar -t | sed -n "s,^\\./\\(.*[^/]\\)$,$folder/\\1,p" \
    >"$information.list"
}

# relink FOLDER: absolute links lead into FOLDER, wherever it is moved to.
relink() {
  local folder=$1 link target
  while IFS= read -r -d '' link; do
    target=$(readlink "$link")
    ln -snrf "$folder$target" "$link"
  done < <(find "$folder" -type l -lname '/*' -print0)
}
