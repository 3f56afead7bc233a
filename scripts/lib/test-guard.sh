# shellcheck shell=bash disable=SC2154  # $root comes from whoever sources this
# What operations cost in instructions, as callgrind counts them, and the ceilings for it. No time is
# measured: the counts are the same on a busy machine. To be sourced; "$root" is the top of the tree.

# shellcheck disable=SC2034  # for scripts/test
packages_guard=(valgrind libdbus-1-dev libbenchmark-dev)

guard_margin=3         # per cent that an operation may cost more than when its ceiling was written
guard_spread_permille=5 # that runs may differ by

# guard_count BUILD FOLDER: "INSTRUCTIONS OPERATION" of each operation, for one run of it.
guard_count() {
  local build=$1 folder=$2 runs status=0
  rm -rf "$folder"
  mkdir -p "$folder"
  (
    cd "$folder" || exit
    valgrind --quiet --vgdb=no --tool=callgrind --collect-atstart=no --instr-atstart=no \
      --callgrind-out-file=counts.%p "$build/bin/vok-guard"
  ) || status=$?
  if ((status != 0)); then return "$status"; fi
  runs=$("$build/bin/vok-guard" --runs) || return
  awk -v runs="$runs" '
    FNR == 1 { operation = "" }
    sub(/^desc: Trigger: Client Request: /, "") { operation = $0 }
    /^totals: / && operation != "" { printf "%.0f %s\n", $2 / runs, operation }' \
    "$folder"/counts.*.[0-9]*
}

# guard_spread FILE...: the most that an operation's counts differ by, shown; false when it is too
# much.
guard_spread() {
  awk -v most="$guard_spread_permille" '
    { count = $1; sub(/^[0-9]+ /, "") }
    !($0 in low) || count < low[$0] { low[$0] = count }
    count > high[$0] { high[$0] = count }
    END {
      for (operation in low) {
        spread = (high[operation] - low[operation]) * 1000 / low[operation]
        printf "  %-26s %d to %d, spread %.2f %%\n", operation, low[operation], high[operation],
               spread / 10
        if (spread >= most) failed = 1
      }
      if (failed) print "The counts cannot be relied upon." > "/dev/stderr"
      exit failed
    }' "$@"
}

# guard_write BUILT COUNTS CEILINGS
guard_write() {
  {
    sed '/^built with/,$d' "$3"
    echo "built with: $1"
    awk -v margin="$guard_margin" '
      { count = $1; sub(/^[0-9]+ /, "")
        printf "%7d %7d  %s\n", int(count * (100 + margin) / 100), count, $0 }' "$2"
  } >"$3.new" && mv "$3.new" "$3"
}

# guard_judge COUNTS CEILINGS: false when an operation costs too much, or is in one of them only.
guard_judge() {
  awk '
    FNR == NR && /^ *[0-9]+ +[0-9]+ / {
      ceiling = $1; before = $2; sub(/^ *[0-9]+ +[0-9]+ +/, "")
      ceilings[$0] = ceiling; measured[$0] = before
    }
    FNR == NR { next }
    { count = $1; sub(/^[0-9]+ /, ""); seen[$0] = 1 }
    !($0 in ceilings) { printf "  %-26s %7d, and no ceiling\n", $0, count; failed = 1; next }
    {
      verdict = count > ceilings[$0] ? "TOO MUCH" : "ok"
      if (count > ceilings[$0]) failed = 1
      printf "  %-26s %7d, %+.1f %%, ceiling %7d: %s\n", $0, count,
             (count - measured[$0]) * 100 / measured[$0], ceilings[$0], verdict
    }
    END {
      for (operation in ceilings)
        if (!(operation in seen)) { printf "  %-26s was not counted\n", operation; failed = 1 }
      exit failed
    }' "$2" "$1"
}

# run_guard short|long|update: the long form counts five times, and the counts have to agree.
run_guard() {
  local form=$1 build=$root/build-bench ceilings=$root/bench/guard/ceilings.txt
  local folder=$root/build-bench/guard built rounds=1 round status=0
  local -a counts=()
  if [[ $form != short ]]; then rounds=5; fi
  (
    cd "$root" || exit
    cmake --preset bench && cmake --build --preset bench --target vok-guard
  ) || return
  built=$("$build/bin/vok-guard" --build) || return

  mkdir -p "$folder"
  for ((round = 1; round <= rounds; ++round)); do
    counts+=("$folder/counts-$round.txt")
    guard_count "$build" "$folder/run-$round" >"${counts[-1]}" || status=$?
    if ((status == 77)); then
      echo "Nothing is counted: no private world can be made here."
      return 0
    fi
    if ((status != 0)); then return "$status"; fi
  done

  echo
  echo "Instructions of one operation ($built):"
  if ((rounds > 1)); then guard_spread "${counts[@]}" || return; fi
  if [[ $form == update ]]; then
    guard_write "$built" "${counts[0]}" "$ceilings" || return
    cat "$ceilings"
    return
  fi
  if ! grep -Fqx "built with: $built" "$ceilings"; then
    sed 's/^/  /' "${counts[0]}"
    echo "The ceilings are for another build, and judge nothing here:" >&2
    grep '^built with: ' "$ceilings" >&2
    echo "When it is the one to come: scripts/test guard --update" >&2
    return 1
  fi
  guard_judge "${counts[0]}" "$ceilings" && return
  echo "An operation costs more than its ceiling in bench/guard/ceilings.txt allows. Where it goes:" >&2
  echo "  callgrind_annotate --inclusive=yes $folder/run-1/counts.*.<number of the operation>" >&2
  echo 'When it has to: scripts/test guard --update' >&2
  return 1
}
