# Shared by the scripts: usage, failures, steps that are silent unless they fail, and a private
# PostgreSQL with the daemon's INI files. Sourced before anything else, since "$0" may be relative to the
# caller's folder; answers --help with the comment at the head of the script.
# shellcheck shell=bash

kScript=$(realpath "$0")
kProject=$(dirname "$(dirname "$(realpath "${BASH_SOURCE[0]}")")")
kName=${kScript#"$kProject/"}
readonly kScript kProject kName

# Usage and failures ------------------------------------------------------------------------------

# Ends the script after wrong arguments. The usage is the lines of its head that begin with its name.
usage() {
  sed -n "1d; /^#/!q; s|^#   \($kName\)|usage: \1|p" "$kScript" >&2
  exit 1
}

# Ends the script unless $1 is a whole number of at least $2 (1 by default), short enough to count with.
expect_number() {
  if [[ ! $1 =~ ^[1-9][0-9]{0,8}$ ]] || (($1 < ${2:-1})); then
    usage
  fi
}

fail() { printf '%s: %s\n' "$kName" "$*" >&2; exit 1; }

case ${1-} in
  -h | --help)
    sed -n '1d; /^#/!q; s/^# \{0,1\}//p' "$kScript"
    exit 0
    ;;
esac

# A folder for one run -----------------------------------------------------------------------------

# Makes the folder that the script keeps everything in.
use_home() {  # $1: its name, below build/
  readonly kHome=$kProject/build/$1 kCluster=$kProject/build/$1/postgres
  mkdir -p "$kHome"
}

# For this run alone. A process in the background that must not hold the lock is started with {lock}>&-.
lock_home() {
  exec {lock}>"$kHome/.lock"
  flock -n "$lock" || fail "another run is using $kHome"
}

# Runs a step silently; prints the end of its output if it fails.
quietly() {  # $1: the step's name, whose log is kept
  local log=$kHome/$1.log
  shift
  "$@" >"$log" 2>&1 </dev/null || {
    tail -n 30 "$log" >&2
    fail "failed: $*"
  }
}

build_quietly() {  # $1: preset; $2...: targets
  quietly configure cmake --preset "$1"
  quietly build cmake --build --preset "$1" --parallel "$(nproc)" --target "${@:2}"
}

# A private cluster and the daemon's INI files -----------------------------------------------------

on_database() { scripts/cluster psql "$kCluster" -X -q -v ON_ERROR_STOP=1 "$@"; }

port_of_cluster() { sed 's/.* port=\([0-9]*\) .*/\1/' "$kCluster/conninfo"; }

# Both files contain or lead to a password: readable by this user only.
write_configuration() {  # $1: workers; $2: password
  local previous
  previous=$(umask)
  umask 077
  cat >"$kHome/cron.conf" <<END
[LOG]
log_file=$kHome/koducron.log
log_path_task=$kHome/output
[CRON]
thread_number=$1
kodu_conf_file=$kHome/database.conf
END
  cat >"$kHome/database.conf" <<END
[POSTGRESQL]
PGSQL_host=127.0.0.1
PGSQL_port=$(port_of_cluster)
PGSQL_db=kodu
PGSQL_username=kodu
PGSQL_pwd=$2
END
  umask "$previous"
}

# For supervise --before: reports the runs that the daemon left unfinished when it ended as failed.
repair_command() {
  printf '%q ' scripts/cluster psql "$kCluster" -X -q -d kodu -f sql/repair.sql
}

# Loads the files into an empty database; upgrades a database of an earlier release.
load_schema() {  # $1...: files
  local file files=()
  for file; do files+=(-f "$file"); done
  if [[ $(on_database -d kodu -At -c "SELECT to_regclass('kodu_cron_plugin')") ]]; then
    PGPASSWORD=$(cat "$kCluster/password") quietly upgrade build/koductl schema upgrade \
      --connect "host=127.0.0.1 port=$(port_of_cluster) user=postgres dbname=kodu"
  else
    quietly schema on_database -d kodu "${files[@]}"
  fi
}

# A running cluster with these SQL files loaded, and INI files that lead to it.
prepare_database() {  # $1: workers; $2...: files
  local password
  quietly cluster scripts/cluster start "$kCluster"
  [[ $(on_database -d postgres -At -c "SELECT 1 FROM pg_database WHERE datname = 'kodu'") ]] ||
    on_database -d postgres -c 'CREATE DATABASE kodu'
  load_schema "${@:2}"
  password=$(od -An -v -N24 -tx1 /dev/urandom | tr -d ' \n')
  on_database -d kodu <<<"ALTER ROLE kodu PASSWORD '$password'"  # arguments would show in ps
  write_configuration "$1" "$password"
}

forget_earlier_runs() {
  scripts/cluster destroy "$kCluster"
  rm -rf "$kHome"/output "$kHome"/*.log "$kHome"/*.conf
}
