# A daemon's surroundings for demo, soak and bench: a private cluster and its INI files. Sourced with
# $kHome set: the folder that all of it is kept in.
# shellcheck shell=bash

kCluster=${kHome:?}/postgres

fail() { printf '%s: %s\n' "$0" "$*" >&2; exit 1; }

# Runs a step that is silent when it works; tells what it printed when it does not.
quietly() {  # $1: the step's name, whose log is kept
  local log=$kHome/$1.log
  shift
  "$@" >"$log" 2>&1 </dev/null || {
    tail -n 30 "$log" >&2
    fail "failed: $*"
  }
}

on_database() { scripts/cluster psql "$kCluster" -X -q -v ON_ERROR_STOP=1 "$@"; }

# For this run alone; also told to those who are waited for.
lock_home() {
  mkdir -p "$kHome"
  exec {lock}>"$kHome/.lock"
  flock -n "$lock" || fail "another run works in $kHome"
}

build_daemon() {  # $1: preset; $2...: what else to build
  quietly configure cmake --preset "$1"
  quietly build cmake --build --preset "$1" --target koducron "${@:2}" --parallel "$(nproc)"
}

port_of_cluster() { sed 's/.* port=\([0-9]*\) .*/\1/' "$kCluster/conninfo"; }

# Both files hold or lead to a password: for this user's eyes only.
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

# For supervise --before: runs that a former life of the daemon left unfinished are told as failed.
repair_command() {
  printf '%q ' scripts/cluster psql "$kCluster" -X -q -d kodu -f sql/repair.sql
}

# The schema and the functions of today, also in a database that an earlier release left.
load_schema() {
  if [[ -x build/koductl && $(on_database -d kodu -At -c "SELECT to_regclass('kodu_cron_plugin')") ]]; then
    PGPASSWORD=$(cat "$kCluster/password") quietly upgrade build/koductl schema upgrade \
      --connect "host=127.0.0.1 port=$(port_of_cluster) user=postgres dbname=kodu"
  else
    quietly schema on_database -d kodu -f sql/schema.sql -f sql/functions.sql
  fi
}

# A running cluster with the schema and the functions loaded, and INI files that lead to it.
prepare_database() {  # $1: workers
  local password
  quietly cluster scripts/cluster start "$kCluster"
  [[ $(on_database -d postgres -At -c "SELECT 1 FROM pg_database WHERE datname = 'kodu'") ]] ||
    on_database -d postgres -c 'CREATE DATABASE kodu'
  load_schema
  password=$(od -An -v -N24 -tx1 /dev/urandom | tr -d ' \n')
  on_database -d kodu <<<"ALTER ROLE kodu PASSWORD '$password'"  # arguments would show in ps
  write_configuration "$1" "$password"
}

forget_earlier_runs() {
  scripts/cluster destroy "$kCluster"
  rm -rf "$kHome"/output "$kHome"/*.log "$kHome"/*.conf
}
