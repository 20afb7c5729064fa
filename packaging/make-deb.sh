#!/bin/bash
# make-deb.sh: builds the Debian packages into build/deb, from a copy of the sources there so that nothing is
# written beside them, and has lintian judge them. A second run compiles only what has changed.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
root=$(pwd -P)
out=$root/build/deb
source=$out/source
umask 022

version=$(sed -n 's/^project(.* VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
packaged=$(dpkg-parsechangelog --show-field Version)
if [ "$packaged" != "$version" ]; then
  echo "make-deb.sh: CMakeLists.txt says version $version, debian/changelog $packaged" >&2
  exit 1
fi

# What git tracks or would track; everything but build directories where there is no git.
list_sources() {
  if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
    git ls-files -z --cached --others --exclude-standard | while IFS= read -r -d '' file; do
      if [ -e "$file" ]; then printf '%s\0' "$file"; fi
    done
  else
    find . -mindepth 1 \( -path './build*' -o -path './.git' \) -prune -o ! -type d -print0
  fi
}

mkdir -p "$source"
find "$source" -mindepth 1 -maxdepth 1 ! -name 'obj-*' -exec rm -rf {} +
rm -f "$out"/*.deb "$out"/*.buildinfo "$out"/*.changes
list_sources | tar --null --no-recursion --files-from=- --create | tar --extract --directory "$source"

cd "$source"
# The package tools change HOME, and the compiler's cache would go with it.
CCACHE_DIR=${CCACHE_DIR-${XDG_CACHE_HOME-$HOME/.cache}/ccache}
export CCACHE_DIR
export DEB_BUILD_OPTIONS="${DEB_BUILD_OPTIONS-parallel=$(nproc) nocheck}"
dpkg-buildpackage --build=binary --no-sign --no-pre-clean --rules-file=debian/rules
cd "$out"
ls -l ./*.deb
lintian --allow-root --tag-display-limit 0 --show-overrides --fail-on error,warning ./*.changes
