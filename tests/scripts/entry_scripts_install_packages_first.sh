#!/usr/bin/env bash
# Every entry script that configures a build must install the Debian packages first
# (scripts/deps), so that it works as the first command on a fresh machine: the first line
# that runs scripts/deps has to come before the first line that runs cmake. Comment lines do
# not count. Usage: entry_scripts_install_packages_first.sh SOURCE_DIR
set -euo pipefail
top=${1:?usage: $0 SOURCE_DIR}
first_line() {  # first_line FILE REGEX: number of the first non-comment line matching REGEX
  { grep -nE "$2" "$1" || true; } | { grep -vE '^[0-9]+:[[:space:]]*#' || true; } | head -n 1 | cut -d: -f1
}
failures=0 checked=0
for script in "$top"/scripts/* "$top"/.ci/*; do
  [ -f "$script" ] && [ -x "$script" ] || continue
  configure=$(first_line "$script" '(^|[^[:alnum:]_-])cmake[[:space:]]+(-S|--preset|-B)')
  [ -n "$configure" ] || continue
  checked=$((checked + 1))
  deps=$(first_line "$script" 'scripts/deps([^[:alnum:]_-]|$)')
  name=${script#"$top"/}
  if [ -z "$deps" ]; then
    echo "$name configures with cmake (line $configure) but never runs scripts/deps"
    failures=$((failures + 1))
  elif [ "$deps" -gt "$configure" ]; then
    echo "$name runs scripts/deps (line $deps) only after cmake configures (line $configure)"
    failures=$((failures + 1))
  fi
done
if [ "$checked" -eq 0 ]; then
  echo "no entry script that configures a build was found under $top/scripts"
  exit 1
fi
[ "$failures" -eq 0 ] || exit 1
echo "$checked entry scripts install their packages before they configure"
