#!/bin/bash
# demo.sh start|stop: the real daemon with the example directory, a few questions to it, and its end. What the
# Makefile's targets demo and demo-stop run; the programs must have been built into build/bin.
set -u
umask 022
cd "$(dirname "${BASH_SOURCE[0]}")/.." || exit 1
# shellcheck source=tools/demo_common.sh
. tools/demo_common.sh
root=$(pwd -P)
program=$root/build/bin/AuthDaemon
state=$root/build/demo/daemon # "<pid> <start time> <working directory>" of the daemon that was started here
log_folder=/var/brel/log
pid_folder=/etc/quarn/pids
port=1100
patience=30 # seconds for the start and for the end

# Started by root the daemon changes to its own account, which needs a folder that it can reach.
if [ "$(id -u)" -eq 0 ] && id quarn >/dev/null 2>&1; then
  account=quarn
  workdir=/var/brel/demo
else
  account=$(id -u)
  workdir=$root/build/demo/workdir
fi
group=$(id -g "$account" 2>/dev/null) || group=$(id -g)

# --- processes -------------------------------------------------------------------------------------------

session_of() { stat_field "$1" 6; }

# Whether PID runs our program on a demo folder. The link to the program cannot be read in every container;
# the command line always can.
is_ours() {
  local argv executable
  { mapfile -d '' -t argv <"/proc/$1/cmdline"; } 2>/dev/null || return 1
  [ "${argv[0]-}" = "$program" ] && [ "${argv[1]-}" = --workdir ] || return 1
  case ${argv[2]-} in /var/brel/demo | "$root/build/demo/workdir") ;; *) return 1 ;; esac
  executable=$(readlink "/proc/$1/exe" 2>/dev/null) || return 0
  [ "${executable% (deleted)}" = "$program" ]
}

all_pids() {
  local entry
  for entry in /proc/[0-9]*; do printf '%s\n' "${entry#/proc/}"; done
}

# All processes of ours, or those of one session.
our_pids() {
  local pid
  for pid in $(all_pids); do
    if is_ours "$pid" && { [ $# -eq 0 ] || [ "$(session_of "$pid")" = "$1" ]; }; then say "$pid"; fi
  done
}

# The recorded daemon, if it still runs. The start time tells it from a later process with the same number.
recorded_daemon() {
  local pid started
  read -r pid started _ 2>/dev/null <"$state" || return 1
  [ -n "$pid" ] && [ "$(start_time_of "$pid")" = "$started" ] && is_ours "$pid" && say "$pid"
}

# The processes of the recorded daemon's session, which may have outlived it. A session's number is not given
# away again while one of them is there.
recorded_session() {
  local pid
  read -r pid _ 2>/dev/null <"$state" && [ -n "$pid" ] && our_pids "$pid"
}

# A zombie counts as gone: its parent may be a container's first process that reaps nobody. Not while another of its
# threads lives, which keeps the port.
still_there() {
  local process pid started
  for process in "$@"; do
    pid=${process%:*} started=${process#*:}
    [ "$(start_time_of "$pid")" = "$started" ] || continue
    if grep -qs '^State:.[^Z]' "/proc/$pid/task/"*/status; then say "$pid"; fi
  done
}

# --- the port --------------------------------------------------------------------------------------------

# The inodes of the sockets that listen on the port (state 0A), for IPv4 and IPv6.
listening_inodes() {
  awk -v port="$(printf ':%04X$' "$port")" '$4 == "0A" && $2 ~ port { print $10 }' /proc/net/tcp /proc/net/tcp6 2>/dev/null
}

describe_owner() {
  local link inode
  for inode in $(listening_inodes); do
    for link in /proc/[0-9]*/fd/*; do
      if [ "$(readlink "$link" 2>/dev/null)" = "socket:[$inode]" ]; then
        link=${link#/proc/}
        say "by process ${link%%/*} ($(cat "/proc/${link%%/*}/comm" 2>/dev/null))"
        return
      fi
    done
  done
  say "by a process that this account may not see"
}

# --- folders and files -----------------------------------------------------------------------------------

as_account() {
  if [ "$account" = quarn ]; then
    setpriv --reuid quarn --regid "$group" --clear-groups -- "$@"
  else
    "$@"
  fi
}

# Makes a folder for the daemon's account outside the checkout, as root or through sudo.
make_folder() {
  [ -d "$1" ] && return
  local command=(install -d -m 755 -o "$account" -g "$group" "$1")
  if [ "$(id -u)" -eq 0 ]; then
    "${command[@]}"
  elif command -v sudo >/dev/null && { sudo -n true 2>/dev/null || [ -t 0 ]; }; then
    say "sudo makes $1, where the daemon writes."
    sudo -- "${command[@]}"
  fi
}

# need_folder FOLDER FILE LOSS: says so when the daemon will not be able to write the file; it would not.
need_folder() {
  make_folder "$1"
  if [ ! -d "$1" ]; then
    say "Note: there is no $1, and neither root nor sudo to make it: $3"
  elif ! as_account test -w "$1" || { [ -e "$1/$2" ] && ! as_account test -w "$1/$2"; }; then
    say "Note: account $(id -un "$account" 2>/dev/null || id -u) may not write $1/$2: $3"
  fi
}

# Brings the examples into the working directory. A file that was changed there since it was copied stays.
prepare_workdir() {
  local file source target sums=$workdir/.copied new
  mkdir -p "$workdir/log" || die "cannot make $workdir"
  new=$(mktemp) || die "cannot make a temporary file"
  for source in examples/workdir/*; do
    [ -f "$source" ] || continue
    file=${source##*/} target=$workdir/$file
    if [ ! -e "$target" ] || (cd "$workdir" && grep -F "  $file" .copied | sha256sum -c --status) 2>/dev/null; then
      # Root writes into a folder of another account here, so links are replaced, not followed.
      cp --remove-destination "$source" "$target" || die "cannot copy $source to $workdir"
      if [ "$file" = directory.ldif ]; then chmod 640 "$target"; fi # it holds password hashes
    elif ! cmp -s "$source" "$target"; then
      say "Kept $target, which differs from the example."
      continue
    fi
    (cd examples/workdir && sha256sum "$file") >>"$new"
  done
  cp --remove-destination "$new" "$sums"
  rm -f "$new"
  if [ "$account" = quarn ]; then chown -R "quarn:$group" "$workdir"; fi
}

newest_log() {
  local file newest=
  for file in "$log_folder"/AuthDaemon.log.*; do [ -f "$file" ] && newest=$file; done
  [ -n "$newest" ] && say "$newest"
}

# --- start -----------------------------------------------------------------------------------------------

how_to_go_on() {
  say "Ask it:   build/bin/authctl user-search NAME      (build/bin/authctl --help lists all questions)"
  say "Change:   $workdir/directory.ldif, then $workdir/LdapSyncTool.sh verbose"
  say "Stop it:  make demo-stop"
}

# Explains a start that failed: detached as it is, the daemon can only have left a reason in its log.
explain_failure() {
  local log lines
  say "demo: $1" >&2
  log=$(newest_log)
  if [ -z "$log" ] || [ ! -r "$log" ]; then
    say "There is no log in $log_folder that this account can read." >&2
  else
    lines=$(tail -n +"$((log_lines + 1))" "$log" | tail -n 15)
    if [ -n "$lines" ]; then
      printf 'The end of %s:\n%s\n' "$log" "$lines" >&2
    else
      say "It wrote nothing to $log." >&2
    fi
  fi
  say "To watch its start: strace -f $program --workdir $workdir" >&2
  exit 1
}

start_daemon() {
  local deadline pid log status
  log=$(newest_log) && log_lines=$(wc -l <"$log" 2>/dev/null) || log_lines=0
  "$program" --workdir "$workdir"
  status=$?
  [ $status -eq 0 ] || explain_failure "the daemon ended at once with status $status."
  deadline=$((SECONDS + patience))
  daemon=
  while :; do
    if [ -z "$daemon" ]; then
      # The daemon leads a session of its own; its workers belong to it.
      for pid in $(our_pids); do
        if [ "$(session_of "$pid")" = "$pid" ]; then daemon=$pid; fi
      done
      if [ -n "$daemon" ]; then say "$daemon $(start_time_of "$daemon") $workdir" >"$state"; fi
    fi
    [ -n "$(our_pids)" ] || explain_failure "the daemon ended while it started."
    # The port is open before the directory is loaded, so only an answer tells that it is ready.
    if [ -n "$daemon" ] && [ -n "$(listening_inodes)" ] &&
      build/bin/authctl --timeout 2 user-search --full daemon-ready >/dev/null 2>&1; then
      return
    fi
    [ $SECONDS -lt $deadline ] || explain_failure "no answer on port $port after $patience seconds."
    sleep 0.1
  done
}

ask_questions() {
  local authctl=build/bin/authctl
  say ""
  say "Who has an umlaut in the name? Letter case does not matter, in no script."
  ask 0 "" $authctl user-search müll
  say "Whose common name begins with \"ad\"?"
  ask 0 "" $authctl user-search ^ad
  say "Everything about one user, named as Windows does:"
  ask 0 "" $authctl user-info 'EXAMPLE\jmueller'
  say "Which groups count, inherited ones included? (A user of the other domain, in a group of this one.)"
  ask 0 "" $authctl user-groups eharris@lab.example.net
  say "Which groups lie inside Project Aurora? They form a circle."
  ask 0 "" $authctl group-groups --full "Project Aurora"
  say "Who is in these groups, members of nested groups included?"
  ask 0 "" $authctl all-users "Release Board" research
  say "Is the password right? It comes from a prompt or standard input: a right one, a wrong one, and the right"
  say "one of a disabled account."
  ask 0 Trial.jmueller $authctl validate jmueller@corp.example.com
  ask 1 guessed $authctl validate jmueller@corp.example.com
  ask 1 Trial.dbauer $authctl validate dbauer@corp.example.com
  say "Who sits behind an address?"
  ask 0 "" $authctl bind 192.0.2.11 jmueller@corp.example.com
  ask 0 "" $authctl ip-query 192.0.2.11
  ask 0 "" $authctl export "$workdir/bindings.csv"
  ask 0 "" cat "$workdir/bindings.csv"
}

start() {
  local log running
  if ! [ -x "$program" ] || ! [ -x build/bin/authctl ]; then
    die "build/bin has no AuthDaemon and authctl; run: make build"
  fi
  if running=$(recorded_daemon); then
    read -r _ _ workdir <"$state"
    say "The demo is running already, as process $running."
    how_to_go_on
    return
  fi
  if [ -n "$(recorded_session)" ]; then
    die "the demo's parent process has died and left its workers behind; end them with: make demo-stop"
  fi
  if [ -n "$(listening_inodes)" ]; then
    die "port $port is taken $(describe_owner). The daemon has no other port; stop that process first."
  fi
  mkdir -p "$root/build/demo" || die "cannot make $root/build/demo"
  need_folder "$log_folder" "AuthDaemon.log.$(date +%Y%m%d).0001" "the daemon will run without a log."
  need_folder "$pid_folder" auth_daemon.pid "the daemon will run without a pid file, and LdapSyncTool.sh cannot find it."
  if [ "$(id -u)" -eq 0 ] && [ "$account" != quarn ]; then
    say "Note: there is no account quarn to change to; the daemon stays root."
  fi
  prepare_workdir
  say "Starting $program --workdir $workdir"
  start_daemon
  ask_questions
  say "The daemon keeps running, a parent and its workers:"
  ps -o pid,ppid,user,nlwp,args -p "$(our_pids "$daemon" | paste -sd, -)"
  say ""
  if log=$(newest_log); then say "Log:      $log"; else say "Log:      none"; fi
  how_to_go_on
  if [ "$surprises" -gt 0 ]; then die "$surprises answers were not as expected."; fi
}

# --- stop ------------------------------------------------------------------------------------------------

stop() {
  local daemon pid first deadline left processes=() reminded=
  read -r _ _ workdir 2>/dev/null <"$state"
  # Remembered with their start times before any of them ends.
  for pid in $(recorded_session); do processes+=("$pid:$(start_time_of "$pid")"); done
  if [ ${#processes[@]} -eq 0 ]; then
    rm -f "$state"
    say "The demo is not running."
    return
  fi
  # The parent ends its workers itself; without it they are told one by one.
  if daemon=$(recorded_daemon); then first=$daemon; else first=$(still_there "${processes[@]}"); fi
  for pid in $first; do
    kill -TERM "$pid" 2>/dev/null || die "process $pid belongs to another account; run this as root or as that account."
  done
  deadline=$((SECONDS + patience))
  while left=$(still_there "${processes[@]}"); [ -n "$left" ]; do
    if [ -z "$reminded" ] && [ $SECONDS -ge $((deadline - patience + 5)) ]; then
      # What outlives the parent by seconds: a synchronisation that has not begun yet, a worker forked just now.
      reminded=yes
      for pid in $left; do kill -TERM "$pid" 2>/dev/null; done
    fi
    [ $SECONDS -lt $deadline ] || die "still running after $patience seconds: $(paste -sd' ' - <<<"$left")"
    sleep 0.1
  done
  rm -f "$state"
  if [ -n "$daemon" ]; then
    say "The daemon (process $daemon) and its workers have ended. Its files are kept in $workdir."
  else
    say "The workers that a dead daemon had left behind have ended."
  fi
}

case ${1-} in
  start) start ;;
  stop)
    bash tools/demo_proxy.sh stop
    stop
    ;;
  *) die "usage: demo.sh start|stop" ;;
esac
