# shellcheck shell=bash disable=SC2154  # $root comes from whoever sources this
# What the documents tell a reader to do, done in a fresh Debian 12: the guides, the two commands of the
# README, and how the packages are made. To be sourced; "$root" is the top of the tree.

# shellcheck source=scripts/lib/test-packages.sh
source "${BASH_SOURCE[0]%/*}/test-packages.sh"

# shellcheck disable=SC2034  # for scripts/test
packages_fresh=(dpkg-dev file debootstrap iproute2 util-linux python3 squashfs-tools)

# Where the packages and the tree are in there. Every user may look into the tree: some tests are other
# users.
fresh_packages=/packages
fresh_tree=/srv/vok-broker

# run_fresh short|long: the short form follows the guides alone.
run_fresh() {
  local form=$1 guide
  package_folder=$root/build-release/packages
  if ! debian_is_possible; then
    note "Left out: no fresh Debian 12 can be had here: $debian_why_not."
    return
  fi
  trap 'debian_leave' EXIT

  heading "The packages"
  rm -rf "$package_folder/fresh"
  packages_pack "$package_folder/fresh" 1 || return
  for guide in WRITING_AN_EMP WRITING_A_LAUNCHER; do
    fresh_follow_guide "$guide" "$fresh_packages"
  done
  if [[ $form == long ]]; then
    fresh_follow_guide INTEGRATION "$fresh_tree"
    fresh_run_command scripts/demo 'All went as expected.'
    fresh_run_command scripts/test '100% tests passed'
  fi

  heading "$((steps_failed)) failed"
  ((steps_failed == 0))
}

# fresh_enter: a Debian in which nothing has been installed, with the packages and the tree.
fresh_enter() {
  debian_make "$root/build-release/debian" || { failed "debootstrap"; return 1; }
  # A reader says yes when apt asks. What it has fetched is kept for the next one.
  cat >"$debian_root/etc/apt/apt.conf.d/91reader" <<'TEXT'
APT::Get::Assume-Yes "true";
Binary::apt::APT::Keep-Downloaded-Packages "true";
TEXT
  cp -r "$package_folder/fresh" "$debian_root$fresh_packages"
  fresh_copy_tree
  debian_enter by-hand || { failed "entering it: $debian_why_not"; return 1; }
}

# The tree as it is, with what has not been committed yet.
fresh_copy_tree() {
  mkdir -p "$debian_root$fresh_tree"
  git -C "$root" ls-files -z --cached --others --exclude-standard |
    tar -C "$root" -c --null --ignore-failed-read -T - |
    tar -C "$debian_root$fresh_tree" -x --no-same-owner
}

# fresh_follow_guide NAME FOLDER: in FOLDER, without the machine's network.
fresh_follow_guide() {
  local guide=$root/docs/$1.md folder=$2 log=$package_folder/$1.log without=()
  heading "$1.md in a fresh Debian 12"
  fresh_enter || return
  check "what it installs is to be had" fresh_fetch "$guide" "$folder"
  images_work_inside || without=(--without images)
  if python3 -B "$root/tests/guides/guide.py" --in-world-of "$debian_init" --from "$folder" \
    "${without[@]}" "$guide" >"$log" 2>&1; then
    passed "it is right, word for word"
  else
    failed "it is wrong"
    tail -n 40 "$log" | indent
  fi
  debian_leave
}

# fresh_fetch GUIDE FOLDER: what its apt line installs, into apt's cache.
fresh_fetch() {
  local line
  line=$(sed -n '/^apt install/{:next;/\\$/{N;b next;};p;}' "$1" | tr -d '\\\n')
  [[ -n $line ]] && debian_run_apt update &&
    debian_quietly debian_with_network sh -c "cd $2 && $line --download-only"
}

# fresh_run_command COMMAND TEXT: one of the README's; TEXT is in what it prints when all is well.
fresh_run_command() {
  local command=$1 text=$2 log=$package_folder/${1##*/}.log
  heading "$command in a fresh Debian 12"
  check "the README says so" grep -qE "^ {4}$command( |\$)" "$root/README.md"
  fresh_enter || return
  if fresh_with_network "$command" >"$log" 2>&1 && grep -qF "$text" "$log"; then
    passed "it does what it says"
    grep -F "$text" "$log" | tail -n 1 | indent
  else
    failed "it fails"
    tail -n 40 "$log" | indent
  fi
  debian_leave
}

fresh_with_network() { debian_with_network sh -c "cd $fresh_tree && $1"; }
