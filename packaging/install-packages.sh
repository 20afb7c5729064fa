#!/bin/sh
# install-packages.sh GROUP...: installs the Debian packages of these groups of apt-packages.txt that are
# missing. Does nothing, and asks for nothing, when none is. Needs root or sudo only then.

set -eu
export LC_ALL=C
list=$(dirname -- "$0")/apt-packages.txt
policy=/usr/sbin/policy-rc.d

if [ $# -eq 0 ]; then
  echo "usage: install-packages.sh GROUP..." >&2
  exit 2
fi
for group in "$@"; do
  if ! awk -v group="$group" '$1 == group { found = 1 } END { exit !found }' "$list"; then
    echo "install-packages.sh: no group \"$group\" in $list" >&2
    exit 2
  fi
done
wanted=$(awk -v groups=" $* " '!/^#/ && index(groups, " " $1 " ") && !seen[$2]++ { print $2 }' "$list")

if ! command -v dpkg-query >/dev/null || ! command -v apt-get >/dev/null; then
  echo "install-packages.sh: this is no Debian system; make sure yourself that there is:" >&2
  echo "$wanted" | sed 's/^/  /' >&2
  exit 0
fi

missing=
for package in $wanted; do
  # The second letter of the state is the one that counts: "ii", or "hi" for one that is held.
  case $(dpkg-query -W -f '${db:Status-Abbrev}' "$package" 2>/dev/null || true) in
    ?i*) ;;
    *) missing="$missing $package" ;;
  esac
done
[ -n "$missing" ] || exit 0

if [ "$(id -u)" -ne 0 ]; then
  if ! command -v sudo >/dev/null; then
    echo "install-packages.sh: these packages are missing, and there is neither root nor sudo to install them:" >&2
    echo " $missing" >&2
    echo "As root: apt-get install --no-install-recommends$missing" >&2
    exit 1
  fi
  echo "Installing with sudo:$missing"
  exec sudo -- sh "$0" "$@"
fi

echo "Installing:$missing"
# Some of them bring a service that would start at once and take its port. While a policy-rc.d says 101, no
# package starts (or stops) anything. One that an administrator put there is left as it is.
if (set -C && printf '#!/bin/sh\nexit 101\n' >"$policy") 2>/dev/null; then
  trap 'rm -f "$policy"' EXIT
  trap 'exit 1' HUP INT TERM
  chmod 755 "$policy"
fi
export DEBIAN_FRONTEND=noninteractive
apt-get -o DPkg::Lock::Timeout=300 update ||
  echo "install-packages.sh: apt-get update failed; trying with the package lists that are there" >&2
# shellcheck disable=SC2086 # the names of packages, one word each
apt-get -o DPkg::Lock::Timeout=300 install -y --no-install-recommends $missing </dev/null
# Nor shall such a service come up at the next boot: the tests and benchmarks start their own.
for package in $missing; do
  case $package in
    memcached | redis-server | krb5-kdc | krb5-admin-server | winbind)
      if command -v systemctl >/dev/null; then systemctl --quiet disable "$package" || true; fi
      ;;
  esac
done
