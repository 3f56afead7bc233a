# shellcheck shell=bash disable=SC2034  # the lists are for those who source this
# Debian packages that the scripts need, and their installation. To be sourced.

# To configure and build any preset; the tests are part of them.
packages_build=(
  g++ cmake ninja-build pkg-config
  libthrift-dev thrift-compiler libboost-dev
  libmount-dev libpugixml-dev libcli11-dev nlohmann-json3-dev
  libgtest-dev libgmock-dev
)
# To run the demo. python3-thrift needs python3-six, and does not say so.
packages_demo=(
  python3 python3-thrift python3-six squashfs-tools
  iproute2 mount util-linux
)
# To run the tests: images to mount, a private world to do it in, and what readers of the guides have.
packages_test=(
  python3 python3-thrift python3-six squashfs-tools erofs-utils e2fsprogs
  iproute2 mount util-linux procps net-tools spin make man-db mandoc zsh
)
# To build and run the bench, besides those of the tests: what it writes, and what is measured beside
# the broker.
packages_bench=(libdbus-1-dev libbenchmark-dev dbus-daemon xinetd)

package_is_installed() {
  [[ $(LC_ALL=C dpkg-query -W -f '${db:Status-Status}' "$1" 2>/dev/null) == installed ]]
}

as_root() {
  if ((EUID == 0)); then
    "$@"
  else
    sudo "$@"
  fi
}

# ensure_packages NAME...: installs those that are missing, and only those.
ensure_packages() {
  local package missing=()
  if ! command -v dpkg-query >/dev/null; then
    echo "This is no Debian: taking for granted that these are installed: $*" >&2
    return
  fi
  for package in "$@"; do
    package_is_installed "$package" || missing+=("$package")
  done
  ((${#missing[@]} > 0)) || return 0

  if ((EUID != 0)) && ! command -v sudo >/dev/null; then
    echo "These packages are missing, and installing them takes root or sudo:" >&2
    echo "  apt-get install ${missing[*]}" >&2
    return 1
  fi
  echo "Installing: ${missing[*]}"
  as_root apt-get -q update
  as_root env DEBIAN_FRONTEND=noninteractive \
    apt-get -q -y --no-install-recommends install "${missing[@]}"
}
