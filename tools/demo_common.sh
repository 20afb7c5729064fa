# Sourced by the demo scripts: messages, what /proc tells of a process, and commands that are shown before they run.
# shellcheck shell=bash

bold='' plain=''
if [ -t 1 ] && [ -z "${NO_COLOR-}" ] && [ "${TERM-dumb}" != dumb ]; then bold=$'\e[1m' plain=$'\e[0m'; fi
surprises=0

say() { printf '%s\n' "$*"; }
die() {
  printf 'demo: %s\n' "$*" >&2
  exit 1
}

# stat_field PID N: field N of /proc/PID/stat, counted from the state (3), behind the name in parentheses.
stat_field() {
  local line fields
  { IFS= read -r line <"/proc/$1/stat"; } 2>/dev/null || return 1
  read -ra fields <<<"${line##*) }"
  printf '%s\n' "${fields[$(($2 - 3))]}"
}
start_time_of() { stat_field "$1" 22; }

quoted() {
  local word
  for word in "$@"; do
    case $word in *[!A-Za-z0-9._@/:=,+-]*) word="'$word'" ;; esac
    printf ' %s' "$word"
  done
}

# ask STATUS INPUT COMMAND...: shows a command line, runs it, and shows the status when it is not 0.
ask() {
  local expected=$1 input=$2 status
  shift 2
  if [ -n "$input" ]; then
    printf '%s$ echo %s |%s%s\n' "$bold" "'$input'" "$(quoted "$@")" "$plain"
    "$@" <<<"$input"
  else
    printf '%s$%s%s\n' "$bold" "$(quoted "$@")" "$plain"
    "$@" </dev/null
  fi
  status=$?
  [ $status -eq 0 ] || say "(status $status)"
  if [ $status -ne "$expected" ]; then
    say "demo: expected status $expected"
    surprises=$((surprises + 1))
  fi
  say ""
}
