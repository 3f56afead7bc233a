# shellcheck shell=bash disable=SC1090,SC2034  # the completion is sourced, and reads these
# offers.bash SCRIPT: what bash offers, with this completion of vokctl, at the end of each line of the
# input; a line for each, sorted, with a blank after each offer.
source "$1"

while IFS= read -r line; do
  read -ra COMP_WORDS <<<"$line"
  if [[ $line == *' ' ]]; then COMP_WORDS+=(''); fi
  COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
  _vokctl
  printf '%s\n' "${COMPREPLY[@]}" | sort | tr '\n' ' ' | sed 's/^ *//'
  echo
done
