# shellcheck shell=bash disable=SC2154  # $root comes from whoever sources this
# How much of the broker the tests run. To be sourced; "$root" is the top of the tree.

# shellcheck disable=SC2034  # for scripts/test
packages_coverage=(gcovr)

# What has to be reached, in percent.
coverage_lines=95
coverage_branches=85

# coverage_reset BUILD: nothing has been counted. Some tests run the broker as another user, who
# counts into the same files, and an empty one is as good as none.
coverage_reset() {
  local file
  while IFS= read -r -d '' file; do
    : >"${file%.gcno}.gcda"
    chmod a+rw "${file%.gcno}.gcda"
  done < <(find "$1" -name '*.gcno' -print0)
}

# run_coverage short|long: the ordinary tests and some faults; long: the slow ones and all faults.
run_coverage() {
  local build=$root/build-coverage status=0 tests=()
  if [[ $1 == short ]]; then tests=(-L '^(quick|faults-short)$'); fi
  (cd "$root" && cmake --preset coverage && cmake --build --preset coverage) || return
  coverage_reset "$build"
  ctest --test-dir "$build" -j 8 --output-on-failure "${tests[@]}" || return

  # A branch that only an exception of a callee takes is the compiler's: it multiplies every call
  # by two, and what is thrown is tried by making every allocation fail.
  gcovr --root "$root" --object-directory "$build" "$build" -j "$(nproc)" \
    --filter '(broker|open|supervision|registry|rpc)/' \
    --exclude-throw-branches --exclude-unreachable-branches \
    --json "$build/coverage.json" --html-details "$build/coverage.html" --txt \
    --fail-under-line "$coverage_lines" --fail-under-branch "$coverage_branches" \
    --print-summary >"$build/coverage.txt" || status=$?
  cat "$build/coverage.txt"
  echo "Line by line: $build/coverage.html"
  "$root/tests/coverage/check_uncovered.py" "$build/coverage.json" \
    "$root/tests/coverage/out_of_reach.txt" || status=1
  return "$status"
}
