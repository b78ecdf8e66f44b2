# bash completion of koductl. To be sourced, or put into /usr/share/bash-completion/completions/koductl.

# The ids of the tasks, when the database answers with the configuration of the present line.
_koductl_ids() {
  local i config=()
  for ((i = 1; i < ${#COMP_WORDS[@]} - 1; i++)); do
    [[ ${COMP_WORDS[i]} != -f && ${COMP_WORDS[i]} != --config ]] || config=(-f "${COMP_WORDS[i + 1]}")
  done
  "${COMP_WORDS[0]}" "${config[@]}" status 2>/dev/null | awk '$1 ~ /^[0-9]+$/ && $2 !~ /^tasks?:$/ { print $1 }'
}

_koductl() {
  local word=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} i command=''
  local common='-f --config --user --lock-timeout --statement-timeout --json --help'
  local commands='status show explain history output rerun check add set pause resume run delete
    forecast stagger prune schema'
  COMPREPLY=()
  for ((i = 1; i < COMP_CWORD; i++)); do
    [[ ${COMP_WORDS[i]} != -- ]] || return 0  # the rest is the plugin's
  done
  for ((i = 1; i < COMP_CWORD; i++)); do
    case ${COMP_WORDS[i]} in
      -f | --config | --user | --lock-timeout | --statement-timeout) ((++i)) ;;
      -*) ;;
      *)
        command=${COMP_WORDS[i]}
        break
        ;;
    esac
  done
  case $previous in
    -f | --config)
      mapfile -t COMPREPLY < <(compgen -f -- "$word")
      return
      ;;
    --user | --lock-timeout | --statement-timeout | --name | --every | --retries | --retry-after | --file | --first | --next | --timeout | \
      --reason | --older-than | --longest | --run-seconds | --took | -n | --count | --wait | --connect) return ;;
  esac
  local definition='--name --every --retries --retry-after --file'
  local words=$common
  case $command in
    '') words="$commands $common --version" ;;
    status) words+=' --failed --late --output --watch' ;;
    history) words+=' --count' ;;
    check) words+=' --quick' ;;
    output) words+=' --follow' ;;
    add) words+=" $definition --first --timeout --" ;;
    set) words+=" $definition --plugin --next --" ;;
    pause) words+=' --reason' ;;
    delete) words+=' --yes' ;;
    forecast) words+=' --run-seconds --took' ;;
    stagger) words+=' --apply --longest' ;;
    prune) words+=' --older-than' ;;
    schema) words+=' upgrade --dry-run --wait --connect' ;;
  esac
  case $command in
    show | explain | history | output | rerun | set | pause | resume | run | delete)
      ((i + 1 != COMP_CWORD)) || words="$(_koductl_ids) $words"
      ;;
    add)
      ((i + 1 != COMP_CWORD)) || mapfile -t COMPREPLY < <(compgen -f -- "$word")
      ;;
  esac
  mapfile -t -O "${#COMPREPLY[@]}" COMPREPLY < <(compgen -W "$words" -- "$word")
}

complete -o filenames -F _koductl koductl
