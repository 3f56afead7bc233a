# shellcheck shell=bash disable=SC2154  # root
# Builds everything for 32-bit ARM and runs the tests under qemu. To be sourced; $root is the source
# folder, and scripts/lib/packages.sh has been sourced.
#
# The unit and world tests are ARM programs themselves. The system tests are programs of this
# machine, with EMPs, launchers and clients of this machine, around an ARM daemon: on the set, too,
# peers are known by what they send only, and qemu's shortcomings are then in one process instead of
# all of them.

# shellcheck source=scripts/lib/arm-sysroot.sh
source "${BASH_SOURCE[0]%/*}/arm-sysroot.sh"

# shellcheck disable=SC2034  # for scripts/test
packages_arm=(g++-12-arm-linux-gnueabihf qemu-user-static)

arm_qemu=/usr/bin/qemu-arm-static
arm_guest_base=0x100000000
# What the system tests are made of, on this machine.
arm_host_targets=(vok_daemon_tests fake-emp fake-launcher example-emp example-register-launcher
                  example-grouping-emp example-client example-host vok_py)
# What the short form leaves out, besides what is slow anyway: hundreds of starts, each with qemu's.
arm_long_only='^daemon\.Life\.EndsOrderlyWh'

# run_arm short|long: true when every test has passed, or is skipped for a reason.
run_arm() {
  local form=$1 build=$root/build-arm status=0
  local programs=$build/system

  arm_build "$build" || return
  arm_lay_out "$build" "$programs" || return
  arm_register_tests "$build" "$programs" || return
  arm_show_skips

  local -a arm_unit=("$arm_qemu" -L "$build/sysroot" "$build/bin/vok_unit_tests")
  arm_unit_tests "$form" || status=1
  local run=(ctest --test-dir "$build/qemu-tests" -j 4 --output-on-failure -LE skipped)
  echo
  if [[ $form == short ]]; then
    "${run[@]}" -L quick -E "$arm_long_only" || status=1
  else
    "${run[@]}" || status=1
    arm_try_skips
  fi
  arm_figures || status=1
  return "$status"
}

arm_build() {
  local build=$1
  mkdir -p "$build"
  make_sysroot "$build/sysroot" || return
  (
    cd "$root" || exit
    cmake --preset arm && cmake --build --preset arm &&
      cmake --preset ci && cmake --build --preset ci --target "${arm_host_targets[@]}"
  )
}

# arm_lay_out BUILD PROGRAMS: PROGRAMS/bin is what the build of this machine has made, but for the
# daemon and the host, in whose places programs start the ARM ones.
arm_lay_out() {
  local build=$1 programs=$2 wrapper=$2/under-qemu name
  rm -rf "$programs"
  mkdir -p "$programs/bin"
  c++ -O2 -Wall -Wextra -Werror -o "$wrapper" \
    -DVOK_QEMU="\"$arm_qemu\"" -DVOK_GUEST_BASE="\"$arm_guest_base\"" \
    -DVOK_ARM_SYSROOT="\"$build/sysroot\"" -DVOK_ARM_PROGRAMS="\"$build/bin\"" \
    "$root/tests/arm/under_qemu.cpp" || return
  # Copies: a program looks for its neighbours where it lies itself, not where a link to it does.
  for name in "$root"/build/bin/*; do
    case ${name##*/} in
      vok-broker | example-host | vok_unit_tests | vok_world_tests) ;;
      *) cp --reflink=auto "$name" "$programs/bin" || return ;;
    esac
  done
  for name in vok-broker example-host; do cp "$wrapper" "$programs/bin/$name" || return; done
  cp -r --reflink=auto "$root/build/lib" "$root/build/gen-py" "$programs"
}

# arm_unit_tests short|long: all in one process, for qemu takes half a second to start one.
arm_unit_tests() {
  local form=$1 filter log=$root/build-arm/unit.log status=0
  filter=-$(arm_unit_skips)
  if [[ $form == short ]]; then filter+=":Slow*:*/Slow*"; fi
  echo
  echo "Unit tests:"
  "${arm_unit[@]}" --gtest_filter="$filter" >"$log" 2>&1 || status=$?
  # What has failed or skipped itself, and the summary.
  sed -E '/^\[ (RUN|      OK) |^\[-|^Thrift: |^$/d' "$log"
  return "$status"
}

# The patterns for the unit tests, as gtest wants them.
arm_unit_skips() {
  local patterns=("${arm_skips[@]}") IFS=:
  patterns=("${patterns[@]/#world.*/}")
  patterns=("${patterns[@]/#daemon.*/}")
  echo "${patterns[*]#unit.}"
}

# arm_register_tests BUILD PROGRAMS: the world and system tests for ctest, as KIND.SUITE.TEST.
arm_register_tests() {
  local build=$1 programs=$2 folder=$1/qemu-tests
  rm -rf "$folder"
  mkdir -p "$folder"
  arm_read_skips
  {
    arm_entries world "$arm_qemu" -L "$build/sysroot" "$build/bin/vok_world_tests" &&
      arm_entries daemon "$programs/bin/vok_daemon_tests"
  } >"$folder/CTestTestfile.cmake"
}

# arm_entries KIND COMMAND...: each in a process of its own, as tests/CMakeLists.txt has it.
arm_entries() {
  local kind=$1 list name test label command properties
  shift
  list=$("$@" --gtest_list_tests) || return
  command=$(printf ' "%s"' "$@")
  properties=$(arm_properties)
  while IFS= read -r test; do
    name=$kind.$test label=quick
    if [[ $test == Slow* || $test == */Slow* ]]; then label=slow; fi
    if arm_is_skipped "$name"; then label=skipped; fi
    printf 'add_test([==[%s]==]%s "--gtest_filter=%s")\n' "$name" "$command" "$test"
    printf 'set_tests_properties([==[%s]==] PROPERTIES LABELS %s TIMEOUT 300 %s)\n' \
      "$name" "$label" "$properties"
  done < <(arm_test_names <<<"$list")
}

# What all have in common.
arm_properties() {
  printf 'SKIP_RETURN_CODE 77 SKIP_REGULAR_EXPRESSION [==[\[  SKIPPED \]]==] '
  printf 'WORKING_DIRECTORY "%s" ENVIRONMENT "%s;%s"' "$root/build-arm" \
    "VOK_BROKER_UNDER_TEST=$root/build-arm/system/bin/vok-broker" "VOK_GUEST_BASE=$arm_guest_base"
}

# The names in what --gtest_list_tests writes.
arm_test_names() {
  awk '/^[^ ]+\.( |$)/ { suite = $1; next }
       /^  / && (suite $1) !~ /DISABLED_/ { print suite $1 }'
}

# tests/arm/skips.txt: "NAME reason", NAME being a pattern of the shell; # begins a comment.
arm_read_skips() {
  local name reason
  arm_skips=()
  arm_reasons=()
  while read -r name reason; do
    if [[ -z $name || $name == '#'* ]]; then continue; fi
    arm_skips+=("$name")
    arm_reasons+=("$reason")
  done <"$root/tests/arm/skips.txt"
}

arm_is_skipped() {
  local pattern
  for pattern in "${arm_skips[@]}"; do
    # shellcheck disable=SC2053  # a pattern
    if [[ $1 == $pattern ]]; then return 0; fi
  done
  return 1
}

arm_show_skips() {
  local i
  echo "Skipped, because qemu cannot run them:"
  for i in "${!arm_skips[@]}"; do echo "  ${arm_skips[i]}: ${arm_reasons[i]}"; done
}

# Those that are skipped are tried, and those that pass are named. It is no failure: what fails for
# a race only may pass now and then.
arm_try_skips() {
  local log=$root/build-arm/skipped.log passing test
  echo
  echo "Trying the skipped ones; a failure is what is expected:"
  {
    "${arm_unit[@]}" --gtest_filter="$(arm_unit_skips)" || true
    ctest --test-dir "$root/build-arm/qemu-tests" -j 4 -L skipped --timeout 60 || true
  } >"$log" 2>&1
  passing=$(sed -nE -e 's/^ *[0-9]+\/[0-9]+ Test +#[0-9]+: ([^ ]+) \.* +Passed .*/\1/p' \
    -e 's/^\[       OK \] ([^ ]+) \(.*/unit.\1/p' "$log")
  if [[ -z $passing ]]; then
    echo "  every skip is still needed"
  else
    while IFS= read -r test; do echo "  passes now, is the skip still needed? $test"; done \
      <<<"$passing"
  fi
}

# arm_figures: sizes, and memory as the Memory test sees it.
arm_figures() {
  local stripped=$root/build-arm/vok-broker.stripped
  echo
  arm-linux-gnueabihf-strip -o "$stripped" "$root/build-arm/bin/vok-broker" || return
  echo "Stripped ARM daemon (MinSizeRel): $(stat -c %s "$stripped") bytes;" \
    "its text, data, bss: $(arm-linux-gnueabihf-size "$stripped" | awk 'NR == 2 { print $1, $2, $3 }')"
  ctest --test-dir "$root/build-arm/qemu-tests" -V -R '^daemon\.Memory\.' |
    sed -n 's/^[0-9]*: MEMORY /ARM daemon under qemu, /p'
  [[ ${PIPESTATUS[0]} == 0 ]]
}
