#!/bin/sh
# Brings the directory of the running authentication daemon up to date: ldap_sync fills the snapshot of this
# folder from its source, then the worker processes are told to use it. The daemon runs this script when the
# interval of LdapSetting.ini has passed; an administrator may run it at any time, as root or as the daemon's
# account.
#
#   LdapSyncTool.sh [verbose | --help]
#
# ldap_sync is looked for in the folder that AUTH_PROGRAM_DIR names, beside this script, in PATH, and beside the
# program of the running daemon. Without it an ldif source is still served: the workers read the file themselves
# when they are told.
#
# Status 0 when the workers were told, 1 when not; then the snapshot in use is as it was, or (when only the
# telling failed) a newer one that the workers take at their next start. Messages go to standard output,
# failures too: that is what the daemon appends to log/LdapSync.log.<date>, while it drops standard error.

set -u
umask 022 # whoever starts it
export LC_ALL=C

folder=$(cd -- "$(dirname -- "$0")" && pwd) || exit 1
pid_file=${AUTH_PID_FILE:-/etc/quarn/pids/auth_daemon.pid}
verbose=${1:-}

say() {
  printf '%s %s\n' "$(date '+%Y-%m-%d %H:%M:%S')" "$*"
}

tell() {
  if [ "$verbose" = verbose ]; then say "$@"; fi
}

fail() {
  say "LdapSyncTool.sh: $*"
  exit 1
}

# The source that the settings name, by the daemon's own rule: ldap when there is a Domain section and no key.
configured_source() {
  [ -r "$folder/LdapSetting.ini" ] || { echo ldif; return; }
  awk '
    NR == 1 { sub(/^\357\273\277/, "") } # the mark of a byte order
    { sub(/\r$/, ""); sub(/^[ \t]+/, "") }
    /^\[/ { section = substr($0, 2); sub(/[] \t=].*/, "", section); if (section ~ /^Domain_/) domain = 1; next }
    section == "LDAP_Setting" && /^Source[ \t]*=/ { sub(/^Source[ \t]*=[ \t]*/, ""); sub(/[ \t]+$/, ""); source = tolower($0) }
    END { print source != "" ? source : domain ? "ldap" : "ldif" }
  ' "$folder/LdapSetting.ini"
}

# The folder of the running daemon's program. Not that of anybody's process that has the name: only root and the owner
# of this folder may say what is run here.
daemon_folder() {
  pid=$(cat "$pid_file" 2>/dev/null)
  program=$(readlink "/proc/$pid/exe") && is_daemon "$pid" || return
  case $(sed -n 's/^Uid:[^0-9]*\([0-9]*\).*/\1/p' "/proc/$pid/status") in
    0 | "$(stat -c %u "$folder")") printf '%s\n' "${program%/*}" ;;
  esac
}

find_ldap_sync() {
  for place in "${AUTH_PROGRAM_DIR:-$folder}" "$folder"; do
    if [ -f "$place/ldap_sync" ] && [ -x "$place/ldap_sync" ]; then
      printf '%s\n' "$place/ldap_sync"
      return
    fi
  done
  command -v ldap_sync && return
  # A daemon that was built and not installed has it in its own folder, which it tells the script that it runs.
  place=${AUTH_DAEMON_DIR:-$(daemon_folder)}
  if [ -n "$place" ] && [ -x "$place/ldap_sync" ]; then printf '%s\n' "$place/ldap_sync"; fi
}

# As the account that owns the folder: what root left there the daemon could neither read nor replace.
as_owner() {
  owner=$(stat -c %u "$folder")
  if [ "$(id -u)" = 0 ] && [ "$owner" != 0 ]; then
    # With all groups of the account, as the daemon has them, if it is one.
    if getent passwd "$owner" >/dev/null; then groups=--init-groups; else groups=--clear-groups; fi
    setpriv --reuid "$owner" --regid "$(stat -c %g "$folder")" "$groups" -- "$@"
  else
    "$@"
  fi
}

synchronise() {
  program=$(find_ldap_sync)
  if [ -z "$program" ]; then
    [ "$source" = ldif ] || fail "the source \"$source\" needs ldap_sync: not in AUTH_PROGRAM_DIR, $folder or PATH, nor beside the daemon"
    tell "without ldap_sync: the workers read the file themselves"
    return
  fi
  tell "running $program"
  as_owner "$program" --workdir "$folder" ${verbose:+--verbose} 2>&1 ||
    fail "ldap_sync ended with status $?, the directory stays as it was"
}

is_daemon() {
  [ "$(cat "/proc/$1/comm" 2>/dev/null)" = AuthDaemon ]
}

# The parent of a process: the second field behind its name, which stands in parentheses.
parent_of() {
  sed 's/.*) [A-Za-z] \([0-9]*\) .*/\1/' "/proc/$1/stat" 2>/dev/null
}

# One pid a line: the children of the daemon `$1`. The one that runs this script is none of the workers.
workers_of() {
  own=" "
  pid=$$
  while [ -n "$pid" ] && [ "$pid" -gt 1 ]; do
    own="$own$pid "
    pid=$(parent_of "$pid")
  done
  for process in /proc/[0-9]*; do
    pid=${process#/proc/}
    case $own in *" $pid "*) continue ;; esac
    if [ "$(parent_of "$pid")" = "$1" ] && is_daemon "$pid"; then echo "$pid"; fi
  done
}

# Complete before it replaces the old file: the daemon may read it at any moment. As the owner of the folder, who
# could put a link in the way of what root writes there.
record_time() {
  # shellcheck disable=SC2016 # for the other shell
  as_owner sh -c '
    new=$(mktemp "$1/.LastSyncTime.ini.XXXXXX") || exit 1
    printf "[LdapSync]\nLastSyncTime=%s\n" "$(date +%s)" >"$new" && chmod 644 "$new" &&
      mv -f "$new" "$1/.LastSyncTime.ini" && exit
    rm -f "$new"
    exit 1
  ' sh "$folder" 2>&1 || fail "cannot write $folder/.LastSyncTime.ini"
}

case $verbose in
  "" | verbose) ;;
  -h | --help)
    echo "usage: LdapSyncTool.sh [verbose]   brings the directory in $folder up to date and tells the daemon"
    exit
    ;;
  *) fail "usage: LdapSyncTool.sh [verbose]" ;;
esac
source=$(configured_source)
tell "working directory $folder, source $source"
synchronise

daemon=$(cat "$pid_file" 2>/dev/null)
case $daemon in
  "") fail "no pid in $pid_file: the daemon is not running, or could not write the file" ;;
  *[!0-9]*) fail "$pid_file holds no process id" ;;
esac
is_daemon "$daemon" || fail "process $daemon of $pid_file is not the daemon: it has ended without removing the file"

workers=$(workers_of "$daemon")
tell "daemon $daemon"
told=0
for worker in $workers; do
  # A signal to the parent would change nothing: only workers hold the directory.
  if kill -USR1 "$worker" 2>/dev/null; then
    told=$((told + 1))
    tell "told worker $worker to reload"
  else
    say "LdapSyncTool.sh: cannot signal worker $worker"
  fi
done
[ "$told" -gt 0 ] || fail "no worker of daemon $daemon could be told to reload"
record_time
tell "wrote $folder/.LastSyncTime.ini"
say "told $told worker processes to reload"
exit 0 # also where nobody could be told so
