#!/bin/sh
# Brings the directory of the running authentication daemon up to date: the worker processes read the LDIF
# file of this folder again. The daemon runs this script when the interval of LdapSetting.ini has passed; an
# administrator may run it at any time, as root or as the daemon's account.
#
#   LdapSyncTool.sh [verbose]
#
# Status 0 when the workers were told, 1 when not. Messages go to standard output, failures too: that is what
# the daemon appends to log/LdapSync.log.<date>, while it drops standard error.

set -u
umask 022 # the daemon's is 0
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
    { sub(/\r$/, ""); sub(/^[ \t]+/, "") }
    /^\[/ { section = substr($0, 2); sub(/[] \t=].*/, "", section); if (section ~ /^Domain_/) domain = 1; next }
    section == "LDAP_Setting" && /^Source[ \t]*=/ { sub(/^Source[ \t]*=[ \t]*/, ""); sub(/[ \t]+$/, ""); source = tolower($0) }
    END { print source != "" ? source : domain ? "ldap" : "ldif" }
  ' "$folder/LdapSetting.ini"
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

# Complete before it replaces the old file: the daemon may read it at any moment. mktemp, since root may run
# this in a folder of the daemon's account.
record_time() {
  new=$(mktemp "$folder/.LastSyncTime.ini.XXXXXX") || fail "cannot write to $folder"
  if printf '[LdapSync]\nLastSyncTime=%s\n' "$(date +%s)" >"$new" && chmod 644 "$new" &&
    mv -f "$new" "$folder/.LastSyncTime.ini"; then
    return
  fi
  rm -f "$new"
  fail "cannot write $folder/.LastSyncTime.ini"
}

case $verbose in
  "" | verbose) ;;
  *) fail "usage: LdapSyncTool.sh [verbose]" ;;
esac
source=$(configured_source)
tell "working directory $folder, source $source"
[ "$source" = ldif ] || fail "the source \"$source\" is not supported by this version, only ldif"

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
