# shellcheck shell=bash disable=SC2154  # $root comes from whoever sources this
# Reading by tools: format, clang-tidy, cppcheck, shellcheck. To be sourced; "$root" is the top of
# the tree.
#
# What is checked, and why some checks are not, stands in .clang-format, .clang-tidy and
# .cppcheck-suppressions.

# shellcheck disable=SC2034  # for scripts/test
packages_lint=(git clang-14 clang-format-14 clang-tidy-14 cppcheck shellcheck)

lint_product=(platform registry rpc broker open supervision ctl)

# run_lint short|long: clang-tidy reads the product; long: the tests, examples and bench as well.
run_lint() {
  local form=$1 step status=0
  if [[ $form == long ]]; then ensure_packages "${packages_bench[@]}"; fi
  for step in lint_format lint_scripts lint_cppcheck "lint_tidy $form"; do
    echo "${step#lint_}:"
    # Words: a step and its argument.
    (cd "$root" && $step) || status=1
  done
  return "$status"
}

lint_format() {
  git ls-files -z -- '*.cpp' '*.h' | xargs -0 clang-format-14 --dry-run --Werror
}

# Every script, by its first line or its name.
lint_scripts() {
  {
    git grep -lzE '^(#!/bin/(ba)?sh|# shellcheck shell=.*)$' -- .
    git ls-files -z -- 'scripts/lib/*.sh'
  } | sort -zu | xargs -0 shellcheck --external-sources
}

# The tests are held to what is wrong, not to style: a test repeats and spells out on purpose.
lint_cppcheck() {
  local run=(cppcheck --quiet --error-exitcode=1 --std=c++17 --language=c++ -I. -j "$(nproc)"
             --library=posix --library=googletest
             --suppressions-list=.cppcheck-suppressions --suppress=unmatchedSuppression
             '--template={file}:{line}: {severity} [{id}] {message}')
  "${run[@]}" --enable=warning,performance,portability,style "${lint_product[@]}" &&
    "${run[@]}" --enable=warning,performance,portability tests examples bench
}

# lint_tidy short|long: with the flags of a clang build, so that its thread-safety analysis, which
# .clang-tidy asks for, reads along.
lint_tidy() {
  local folders=${lint_product[*]} bench=OFF log=$root/build-clang/tidy.log status=0
  if [[ $1 == long ]]; then folders+=' tests examples bench' bench=ON; fi
  # What is generated has to be there to be included.
  {
    cmake --preset clang -DVOK_BUILD_BENCH="$bench" &&
      cmake --build --preset clang --target vok_idl vok_admin_idl
  } >"$root/build-clang.log" || return
  mv "$root/build-clang.log" "$root/build-clang/configure.log"
  run-clang-tidy-14 -quiet -p "$root/build-clang" "^$root/(${folders// /|})/" >"$log" 2>&1 ||
    status=$?
  # Only what it finds: it also names every file, and counts what it has suppressed.
  grep -vE '^(clang-tidy-14 |[0-9]+ warnings? |Suppressed |Use -header-filter)' "$log" || true
  return "$status"
}
