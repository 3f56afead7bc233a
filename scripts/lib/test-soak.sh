# shellcheck shell=bash disable=SC2154  # $root comes from whoever sources this
# Very many opens, closes and starts, and what is left of them. To be sourced; "$root" is the top
# of the tree.

# run_soak short|long: 5,000 (long: 200,000) opens of EMPs that run and 75 (3,000) starts.
run_soak() {
  local form=$1 build=$root/build status=0
  (
    cd "$root" || exit
    cmake --preset ci && cmake --build --preset ci --target vok_soak_tests
  ) || return

  VOK_FORM=$form VOK_BROKER_UNDER_TEST=$build/bin/vok-broker "$build/bin/vok_soak_tests" ||
    status=$?
  if ((status == 77)); then
    echo "The soak is skipped: no private world can be made here."
    return 0
  fi
  return "$status"
}
