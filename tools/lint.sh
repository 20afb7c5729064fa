#!/bin/bash
# lint.sh BUILD_DIR: layout, bug finders and shell checks over all sources of ours. BUILD_DIR must hold a
# compile database and the generated headers. Runs everything, then fails when anything was found.
set -uo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.." || exit 1
root=$(pwd -P)
build=${1:?usage: lint.sh BUILD_DIR}
jobs=$(nproc)
failed=()

# Files of ours with these endings, not those in build directories.
own() {
  local pattern=()
  for ending in "$@"; do pattern+=(-o -name "*.$ending"); done
  find . -mindepth 1 \( -path './build*' -o -path './.*' \) -prune -o -type f \( "${pattern[@]:1}" \) -print0
}

run() {
  local name=$1
  shift
  echo "== $name"
  "$@" || failed+=("$name")
}

layout() {
  own cpp h proto | xargs -0 -r -n 20 -P "$jobs" clang-format --dry-run -Werror
}

bugs() {
  # The database also holds generated sources; the pattern, a regular expression, takes ours only.
  local prefix
  prefix=$(printf '%s' "$root" | sed 's/[^A-Za-z0-9_/-]/\\&/g')
  if [ ! -f "$build/compile_commands.json" ]; then
    echo "no compile database in $build"
    return 1
  fi
  run-clang-tidy -quiet -j "$jobs" -p "$build" "^$prefix/(?!build)[^.].*\.cpp$" 2>&1 |
    sed -e $'s/\e\\[[0-9;]*m//g' -e '/^$/d' -e '/^clang-tidy.* -p=/d' -e '/^[0-9]* warnings generated/d' \
      -e '/^Suppressed [0-9]* warnings/d' -e '/^Use -header-filter/d'
  return "${PIPESTATUS[0]}"
}

shell() {
  own sh | xargs -0 -r shellcheck .ci/run packaging/await-start packaging/quarn-authd-allow debian/quarn-authd.init \
    debian/quarn-authd.postrm &&
    shellcheck --shell=bash packaging/authctl.bash-completion
}

run clang-format layout
run clang-tidy bugs
run shellcheck shell
if [ ${#failed[@]} -gt 0 ]; then
  echo "lint: findings of ${failed[*]}"
  exit 1
fi
echo "lint: nothing found"
