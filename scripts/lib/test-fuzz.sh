# shellcheck shell=bash disable=SC2154  # $root comes from whoever sources this
# libFuzzer on everything that the broker reads. To be sourced; "$root" is the top of the tree.
#
# What a run finds out stays in build-fuzz/fuzz/TARGET: corpus/, findings/ and the log. The next run
# goes on from there.

# shellcheck disable=SC2034  # for scripts/test
packages_fuzz=(clang-14 libclang-rt-14-dev)

# In bytes of input, MiB of memory, seconds.
readonly fuzz_length=4096 fuzz_memory=1024 fuzz_allocation=256 fuzz_hang=20
# How many inputs of a target the tree gets besides its seeds, and how long they are at most.
readonly fuzz_kept=120 fuzz_kept_length=600

fuzz_targets() {
  local source
  for source in "$root"/tests/fuzz/*.cpp; do basename "$source" .cpp; done
}

fuzz_build() {
  (
    cd "$root" || exit
    cmake --preset fuzz && cmake --build --preset fuzz --target fuzz-targets
  )
}

fuzz_dictionary() {
  case $1 in
    emp_config | policy) echo "$root/tests/fuzz/xml.dict" ;;
    wire | calls | execute | report) echo "$root/tests/fuzz/broker.dict" ;;
  esac
}

# fuzz_program TARGET ARGUMENT...: libFuzzer with the limits that hold for all.
fuzz_program() {
  local target=$1
  shift
  ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
    "$root/build-fuzz/bin/fuzz-$target" -timeout=$fuzz_hang -rss_limit_mb=$fuzz_memory \
    -malloc_limit_mb=$fuzz_allocation "$@"
}

# fuzz_one TARGET SECONDS: one target; its status is in the file "status" then.
fuzz_one() {
  local target=$1 seconds=$2 folder=$root/build-fuzz/fuzz/$1 dictionary status=0
  local arguments=(-max_total_time="$seconds" -max_len="$fuzz_length" -print_final_stats=1)
  dictionary=$(fuzz_dictionary "$target")
  if [[ -n $dictionary ]]; then arguments+=(-dict="$dictionary"); fi
  mkdir -p "$folder/corpus" "$folder/findings"

  fuzz_program "$target" "${arguments[@]}" -artifact_prefix="$folder/findings/" \
    "$folder/corpus" "$root/tests/fuzz/corpus/$target" >"$folder/log" 2>&1 || status=$?
  echo "$status" >"$folder/status"
}

# fuzz_stat LOG NAME: a figure of libFuzzer's last words; a dash when there is none.
fuzz_stat() {
  local value
  value=$(sed -n "s/^stat::$2: *//p" "$1")
  echo "${value:--}"
}

# fuzz_row TARGET: what came of it, as a row of a table; non-zero when something was found.
fuzz_row() {
  local target=$1 folder=$root/build-fuzz/fuzz/$1 last found=none
  last=$(grep -E '^#[0-9]+.* cov: ' "$folder/log" | tail -n 1)
  if [[ $(<"$folder/status") != 0 ]]; then
    found=$(sed -n 's/.*Test unit written to //p' "$folder/log" | tail -n 1)
    found=${found:-see $folder/log}
  fi
  printf '| %s | %s | %s | %s | %s | %s | %s |\n' "$target" \
    "$(fuzz_stat "$folder/log" number_of_executed_units)" \
    "$(fuzz_stat "$folder/log" average_exec_per_sec)" \
    "$(sed -n 's/.* cov: \([0-9]*\).*/\1/p' <<<"$last")" \
    "$(sed -n 's/.* ft: \([0-9]*\).*/\1/p' <<<"$last")" \
    "$(sed -n 's/.* corp: \([0-9]*\).*/\1/p' <<<"$last")" "$found"
  [[ $found == none ]]
}

# Prints a row for each target; non-zero when something was found.
fuzz_table() {
  local target status=0
  echo '| Target | Executions | per second | Coverage | Features | Corpus | Findings |'
  echo '|---|---:|---:|---:|---:|---:|---|'
  while read -r target; do fuzz_row "$target" || status=1; done < <(fuzz_targets)
  return "$status"
}

# The smallest of the inputs found so far that reach what the seeds do not go into the tree.
fuzz_merge() {
  local target corpus folder merged
  while read -r target; do
    corpus=$root/tests/fuzz/corpus/$target folder=$root/build-fuzz/fuzz/$target
    merged=$folder/merged
    rm -rf "$merged"
    mkdir -p "$merged"
    cp "$corpus"/seed-* "$merged"
    fuzz_program "$target" -merge=1 -max_len=$fuzz_kept_length "$merged" "$corpus" \
      "$folder/corpus" >"$folder/merge.log" 2>&1 || return
    find "$corpus" -type f ! -name 'seed-*' -delete
    find "$merged" -type f ! -name 'seed-*' -printf '%s\t%p\n' | sort -n | head -n $fuzz_kept |
      cut -f 2 | xargs -r cp -t "$corpus"
    echo "$target: $(find "$corpus" -type f | wc -l) inputs, $(du -sb "$corpus" | cut -f 1) bytes"
  done < <(fuzz_targets)
}

# run_fuzz short|long|merge: each target 8 s (long: ten minutes), two at once; merge: what has been
# found so far goes into the corpora.
run_fuzz() {
  local form=$1 seconds=8 target targets running=0
  if [[ $form == long ]]; then seconds=${VOK_FUZZ_SECONDS:-600}; fi
  fuzz_build || return
  if [[ $form == merge ]]; then
    fuzz_merge
    return
  fi

  mapfile -t targets < <(fuzz_targets)
  for target in "${targets[@]}"; do
    if ((running == 2)); then
      wait -n
      running=$((running - 1))
    fi
    fuzz_one "$target" "$seconds" &
    running=$((running + 1))
  done
  wait
  fuzz_table
}
