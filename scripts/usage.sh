# What a script says of its use: the comment at its head, where the lines that begin with scripts/ are the
# usage. Sourced before anything else, since "$0" may be relative to the caller's folder; answers --help.
# shellcheck shell=bash

kScript=$(realpath "$0")

# Ends the script, which was called wrongly.
usage() {
  sed -n '1d; /^#/!q; s/^#   \(scripts\/\)/usage: \1/p' "$kScript" >&2
  exit 1
}

# Ends the script unless $1 is a whole number of at least $2 (1 by default), short enough to count with.
expect_number() {
  if [[ ! $1 =~ ^[1-9][0-9]{0,8}$ ]] || (($1 < ${2:-1})); then
    usage
  fi
}

case ${1-} in
  -h | --help)
    sed -n '1d; /^#/!q; s/^# \{0,1\}//p' "$kScript"
    exit 0
    ;;
esac
