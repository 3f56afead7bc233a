#!/bin/bash
# consumer.sh BUILD FOLDER: installs BUILD below FOLDER, and builds this project, and the examples as
# they are installed, against that: with CMake, with pkg-config, and from the service definitions in
# Python. No network, and no broker: it shows that what is installed suffices.
set -euo pipefail

build=$1 folder=$2
sources=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
tree=$(cd "$sources/../.." && pwd)
prefix=$folder/installed
launcher=${CONSUMER_COMPILER_LAUNCHER:-}
version=5.100

say() { printf '\n== %s\n' "$*"; }

# expect TEXT COMMAND...
expect() {
  local text=$1 answer
  shift
  answer=$("$@")
  if [[ $answer != "$text" ]]; then
    printf '%s\n  printed: %s\n  not:     %s\n' "$*" "$answer" "$text" >&2
    exit 1
  fi
  printf '%s: %s\n' "$1" "$answer"
}

install_tree() {
  rm -rf "$folder"
  mkdir -p "$folder"
  cmake --install "$build" --prefix "$prefix" >"$folder/install.log"
  local found
  found=$(find "$prefix" -name vokbroker.pc)
  [[ -n $found ]] || { echo "There is no vokbroker.pc" >&2; exit 1; }
  library_dir=$(dirname "$(dirname "$found")")
  export LD_LIBRARY_PATH=$library_dir PKG_CONFIG_PATH=$library_dir/pkgconfig
  local file
  while IFS= read -r -d '' file; do
    if sed "s,$prefix,,g" "$file" | grep -qF -e "$build" -e "$tree"; then
      echo "$file leads back to where it was built." >&2
      exit 1
    fi
  done < <(grep -rIZlF -e "$build" -e "$tree" "$prefix")
}

# quietly LOG COMMAND...: what it prints is shown when it fails.
quietly() {
  local log=$1
  shift
  if "$@" >>"$log" 2>&1; then return; fi
  cat "$log" >&2
  exit 1
}

# configure_and_build SOURCES BUILD
configure_and_build() {
  quietly "$2.log" cmake -S "$1" -B "$2" -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_CXX_FLAGS="-Wall -Wextra -Werror" -DCMAKE_CXX_COMPILER_LAUNCHER="$launcher"
  quietly "$2.log" cmake --build "$2" -j 2
}

# try_programs FOLDER EMP
try_programs() {
  expect "$version 0" "$1/plain"
  expect "$version $version 0" "$1/host"
  try_emp "$2"
}

# try_emp PROGRAM: started, asked from Python, and told to end by the end of its input.
try_emp() {
  local port output input emp_pid
  coproc emp { exec "$1"; }
  output=${emp[0]} input=${emp[1]}
  # shellcheck disable=SC2154  # coproc sets it
  emp_pid=$emp_PID
  read -r -t 30 port <&"$output"
  PYTHONPATH=$folder/py expect "hello $version" /usr/bin/python3 "$sources/client.py" "$port"
  exec {input}>&-
  wait "$emp_pid"
}

install_tree
idl=$(pkg-config --variable=idldir vokbroker)
expect "$version" pkg-config --modversion vokbroker

say "Python"
mkdir -p "$folder/py"
for definition in vok vok_admin; do
  thrift --gen py -out "$folder/py" "$idl/$definition.thrift"
done

say "CMake"
configure_and_build "$sources" "$folder/cmake"
try_programs "$folder/cmake" "$folder/cmake/emp/emp"

say "pkg-config"
mkdir -p "$folder/make"
quietly "$folder/make.log" make -C "$folder/make" -f "$sources/Makefile" SOURCES="$sources" \
  CXX="$launcher ${CXX:-c++}"
try_programs "$folder/make" "$folder/make/emp"

say "The examples"
configure_and_build "$prefix/share/doc/vok-broker-examples/examples" "$folder/examples"
for program in emp register-launcher grouping-emp client host; do
  # Without arguments each says how it is used, if nothing keeps it from running.
  "$folder/examples/example-$program" >"$folder/usage" 2>&1 && exit 1
  [[ -s $folder/usage ]]
done
echo "Everything was built from what is installed."
