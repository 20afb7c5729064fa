#!/bin/bash
# demo_proxy.sh start|stop: Squid on the loopback with the demo's daemon behind it, a few pages fetched through it by
# curl, and its end. What the Makefile's target demo-proxy runs; demo-stop ends it too.
set -u
umask 022
cd "$(dirname "${BASH_SOURCE[0]}")/.." || exit 1
# shellcheck source=tools/demo_common.sh
. tools/demo_common.sh
export PATH=$PATH:/usr/sbin:/sbin
state=$PWD/build/demo/proxy # a line for each process: "<pid> <start time> <folder>"
login_port=13128
address_port=13129
web_port=18080
bound_address=127.0.0.2
page=http://127.0.0.1:$web_port/
patience=20 # seconds for the start and for the end

running() { # the recorded processes that still are there
  local pid started
  while read -r pid started _; do
    if [ "$(start_time_of "$pid")" = "$started" ]; then say "$pid"; fi
  done 2>/dev/null <"$state"
}

answers() { (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }

# launch FOLDER COMMAND...: in the background, recorded.
launch() {
  local folder=$1
  shift
  "$@" </dev/null >>"$folder/out" 2>&1 &
  say "$! $(start_time_of $!) $folder" >>"$state"
  disown
}

wait_for_port() {
  local deadline=$((SECONDS + patience))
  until answers "$1"; do
    if [ $SECONDS -ge $deadline ]; then
      cat "$folder/out" "$folder/cache.log" >&2 2>/dev/null
      stop
      die "nothing listens on port $1 after $patience seconds."
    fi
    sleep 0.1
  done
}

# Squid gives up root for an account that need not reach the checkout.
make_folder() {
  if [ "$(id -u)" -eq 0 ]; then
    folder=$(mktemp -d /var/tmp/demo-proxy.XXXXXX) || die "cannot make a temporary folder"
  else
    folder=$PWD/build/demo/squid
    rm -rf "$folder"
    mkdir -p "$folder" || die "cannot make $folder"
  fi
  mkdir "$folder/pages"
  say "This page was fetched through the proxy." >"$folder/pages/index.html"
  install -m 755 build/bin/authhelper "$folder/authhelper" || die "cannot copy authhelper to $folder"
  say "Internet Full Access" >"$folder/groups"
}

write_configuration() {
  cat >"$folder/squid.conf" <<END
http_port 127.0.0.1:$login_port name=login
http_port 127.0.0.1:$address_port name=address

auth_param ntlm program $folder/authhelper --mode ntlm
auth_param ntlm key_extras "%>a"
auth_param ntlm children 10 startup=0 idle=1
auth_param basic program $folder/authhelper --mode basic --concurrency 20
auth_param basic children 2 startup=0 idle=1 concurrency=20
auth_param basic utf8 on
external_acl_type bound ttl=10 negative_ttl=5 concurrency=20 %>a $folder/authhelper --mode ip-user --concurrency 20
external_acl_type in_group ttl=60 negative_ttl=10 concurrency=20 %#un $folder/authhelper --mode group --concurrency 20

acl at_login myportname login
acl at_address myportname address
acl logged_in proxy_auth REQUIRED
acl is_bound external bound
acl may_go external in_group "$folder/groups"
http_access deny at_login !logged_in
http_access deny at_address !is_bound
http_access allow may_go
http_access deny all

logformat demo %>a user=%un %rm %ru %>Hs
access_log stdio:$folder/access.log demo
cache_log $folder/cache.log
pid_filename $folder/squid.pid
visible_hostname gateway.example.com
coredump_dir $folder
cache_store_log none
netdb_filename none
cache deny all
pinger_enable off
shutdown_lifetime 1 second
END
  if [ "$(id -u)" -eq 0 ]; then chown -R proxy: "$folder"; fi
}

# page_through STATUS CURL_ARGUMENT...: fetches the page, shows what Squid logged of it.
page_through() {
  local expected=$1 lines
  shift
  lines=$(wc -l <"$folder/access.log" 2>/dev/null || say 0)
  ask 0 "" curl -s -w '(HTTP status %{http_code})\n' -o /dev/null --noproxy none.invalid "$@" "$page"
  # The look whether the port is open was a connection without a request.
  tail -n +"$((lines + 1))" "$folder/access.log" | sed '/error:transaction-end-before-headers/d; s/^/  access.log: /'
  if ! tail -n 1 "$folder/access.log" | grep -q " $expected\$"; then
    say "demo: expected status $expected"
    surprises=$((surprises + 1))
  fi
  say ""
}

fetch_pages() {
  local login=(-x "http://127.0.0.1:$login_port") address=(-x "http://127.0.0.1:$address_port")
  say "A password, as every browser can send it; then a wrong one:"
  page_through 200 "${login[@]}" --proxy-basic -U 'jmueller:Trial.jmueller'
  page_through 407 "${login[@]}" --proxy-basic -U 'jmueller:guessed'
  say "NTLM: the password does not travel, the directory's hash proves it:"
  page_through 200 "${login[@]}" --proxy-ntlm -U 'EXAMPLE\mweber:Trial.mweber'
  page_through 407 "${login[@]}" --proxy-ntlm -U 'EXAMPLE\mweber:guessed'
  say "The right password of somebody outside the group \"Internet Full Access\":"
  page_through 403 "${login[@]}" --proxy-basic -U 'cchen@lab.example.net:Trial.cchen'
  say "No password at all: the address is bound to a user, another one is not."
  ask 0 "" build/bin/authctl bind "$bound_address" 'EXAMPLE\jmueller'
  page_through 200 "${address[@]}" --interface "$bound_address"
  page_through 403 "${address[@]}" --interface 127.0.0.3
}

how_to_go_on() {
  say "Use it:   curl -x http://127.0.0.1:$login_port --proxy-ntlm -U 'EXAMPLE\\mweber:Trial.mweber' $page"
  say "Look at:  $folder/squid.conf, $folder/access.log, $folder/cache.log"
  say "Stop it:  make demo-stop (ends the daemon, too)"
}

start() {
  local port
  for port in squid curl python3; do command -v $port >/dev/null || die "$port is not installed"; done
  [ -x build/bin/authhelper ] || die "build/bin has no authhelper; run: make build"
  mkdir -p build/demo || die "cannot make build/demo"
  if [ -n "$(running)" ]; then
    read -r _ _ folder <"$state"
    say "The proxy of the demo is running already."
    how_to_go_on
    return
  fi
  rm -f "$state"
  bash tools/demo.sh start >build/demo/start.out 2>&1 || {
    cat build/demo/start.out
    die "the daemon does not run."
  }
  for port in $login_port $address_port $web_port; do
    if answers "$port"; then die "port $port is taken by something else."; fi
  done
  make_folder
  write_configuration
  say "Starting a web server on port $web_port, and Squid with $folder/squid.conf"
  launch "$folder" python3 -m http.server --bind 127.0.0.1 --directory "$folder/pages" "$web_port"
  # The name keeps its shared memory apart from that of a Squid that serves this machine.
  launch "$folder" squid -N -n "demo$$" -f "$folder/squid.conf"
  wait_for_port "$web_port"
  wait_for_port "$address_port"
  say ""
  fetch_pages
  how_to_go_on
  if [ "$surprises" -gt 0 ]; then die "$surprises answers were not as expected."; fi
}

stop() {
  local pid deadline=$((SECONDS + patience))
  [ -e "$state" ] || return
  read -r _ _ folder <"$state"
  for pid in $(running); do
    kill -TERM "$pid" 2>/dev/null || die "process $pid belongs to another account; run this as root or as that account."
  done
  while [ -n "$(running)" ] && [ $SECONDS -lt $deadline ]; do sleep 0.1; done
  for pid in $(running); do kill -KILL "$pid" 2>/dev/null; done
  rm -f "$state"
  case $folder in /var/tmp/demo-proxy.??????) rm -rf "$folder" ;; esac
  say "The proxy of the demo has ended."
}

case ${1-} in
  start) start ;;
  stop) stop ;;
  *) die "usage: demo_proxy.sh start|stop" ;;
esac
