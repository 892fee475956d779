#!/bin/bash
# completion.sh COMPLETION_SCRIPT TOOL_DIR: the bash completion of tzcf
# offers commands, options, and the stream names of the file on the line.
set -eu
source "$1"
PATH=$2:$PATH
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cd "$scratch"
mkdir in && echo x > in/first.txt && echo y > in/second.txt
tzcf pack -q in a.tzcf
complete_line() {
  COMP_WORDS=("$@")
  COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
  COMPREPLY=()
  _tzcf
  echo "${COMPREPLY[*]}"
}
test "$(complete_line tzcf unp)" = "unpack"
test "$(complete_line tzcf ls --js)" = "--json"
test "$(complete_line tzcf cat a.tzcf s)" = "second.txt"
test "$(complete_line tzcf rm --password-file pw a.tzcf f)" = "first.txt"
echo "completion: ok"
