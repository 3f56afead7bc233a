# shellcheck shell=bash disable=SC2154  # $root comes from whoever sources this
# Faults at every step of an open and of a close, and the table of what comes of them. To be
# sourced; "$root" is the top of the tree.

readonly faults_begin='<!-- fault table: begin -->'
readonly faults_end='<!-- fault table: end -->'

# The rows that the tests have left in the folder, in order, below their heading.
faults_observed() {
  echo '| Operation | EMP | Step | Fault | Answer | When | Tables | More than before, at the answer | After the peer |'
  echo '|---|---|---|---|---|---|---|---|---|'
  find "$1" -name '*.md' -print0 | sort -z | xargs -0 -r cat
}

# The table in the note.
faults_documented() {
  sed -n "/^$faults_begin\$/,/^$faults_end\$/p" "$1" | sed '1d;$d' | sed '/^$/d'
}

# Puts the observed table in the place of the documented one.
faults_update() {
  local note=$1 observed=$2 updated
  updated=$(mktemp "$note.XXXXXX")
  {
    sed "/^$faults_begin\$/q" "$note"
    echo
    cat "$observed"
    echo
    sed -n "/^$faults_end\$/,\$p" "$note"
  } >"$updated"
  cat "$updated" >"$note"
  rm -f "$updated"
}

# faults_compare FORM OBSERVED NOTE: the short form has some of the rows only.
faults_compare() {
  local form=$1 observed=$2 note=$3
  if [[ $form == long ]]; then
    diff -u --label "$note" --label observed <(faults_documented "$note") <(sed '/^$/d' "$observed")
  else
    ! sed '/^$/d' "$observed" | grep -Fxv -f <(faults_documented "$note")
  fi && return 0
  echo "This is not what the table in $note says. When the change is meant:" >&2
  echo '  scripts/test faults --update' >&2
  return 1
}

# run_faults short|long|update: `update` runs the long form and writes the table.
run_faults() {
  local form=$1 build=$root/build note=$root/docs/RELIABILITY.md
  local labels='^faults-(short|long)$' rows=$build/tests/faults/rows
  local observed=$build/tests/faults/table.md cases
  if [[ $form == short ]]; then labels='^faults-short$'; fi

  (
    cd "$root" || exit
    cmake --preset ci && cmake --build --preset ci --target vok_fault_tests
  ) || return
  rm -rf "$rows"
  mkdir -p "$rows"
  # Nearly all of the time is spent waiting for what does not come.
  VOK_FAULT_ROWS=$rows ctest --test-dir "$build" -L "$labels" -j 8 --output-on-failure \
    --no-tests=error || return

  faults_observed "$rows" >"$observed"
  cases=$(find "$rows" -name '*.md' ! -name 999.md | wc -l)
  if ((cases == 0)); then
    echo 'No fault was tried: images cannot be mounted here. Nothing is compared.' >&2
    return 0
  fi
  if [[ $form == update ]]; then
    faults_update "$note" "$observed" || return
  else
    faults_compare "$form" "$observed" "$note" || return
  fi
  echo "$cases faults came to what the table in docs/RELIABILITY.md says."
}
