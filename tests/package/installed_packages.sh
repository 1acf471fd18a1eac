#!/usr/bin/env bash
# The Debian packages as an operator and a developer meet them: builds them (scripts/package),
# runs lintian on them, installs them on this machine with dpkg, and checks the installed files:
# the library under its SONAME with its shlibs, the README's C example built through pkg-config,
# the README's Java example against the installed jar, repoctl's manual page and completion, the
# systemd units, the scheduled maintenance over a repository list. Then it purges the packages
# and checks that nothing of them is left. The packages are purged on every exit path.
#
# Usage: installed_packages.sh SOURCE_DIR [PACKAGE_DIR]
#   Without PACKAGE_DIR, scripts/package builds the packages into SOURCE_DIR/build/package
#   first; a PACKAGE_DIR that holds packages already has them tested as they are.
# Needs root (dpkg). Refuses to run when one of the packages is installed already, since it
# could not leave the machine as it found it.
set -uo pipefail
src=$(cd "${1:?usage: $0 SOURCE_DIR [PACKAGE_DIR]}" && pwd)
debs=${2:-$src/build/package}
packages=(librepohandler1 librepohandler-dev librepohandler-java repoctl)
version=$(sed -nE 's/^project\(repohandler VERSION ([0-9.]+).*/\1/p' "$src/CMakeLists.txt")
multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
libdir=/usr/lib/$multiarch

if [ "$(id -u)" -ne 0 ]; then
  echo "installed_packages.sh: installing packages needs root" >&2
  exit 1
fi
# Two runs on one machine (two work trees) would install and purge under each other.
exec 9>/run/lock/repohandler-package-test.lock
flock 9

installed_before() {
  local p
  for p in "${packages[@]}" librepohandler1-dbgsym repoctl-dbgsym; do
    dpkg-query -W -f='${db:Status-Status}\n' "$p" 2>/dev/null | grep -qvx 'not-installed' && echo "$p"
  done
}
already=$(installed_before)
if [ -n "$already" ]; then
  echo "installed_packages.sh: already installed here: $already; purge them first" >&2
  exit 1
fi

work=$(mktemp -d /tmp/rh-package-test.XXXXXX)
# dpkg fails at once when another dpkg or apt holds its lock: such a call is tried again.
dpkg_waiting() {
  local attempt
  for attempt in $(seq 60); do
    if dpkg "$@" >"$work/dpkg.log" 2>&1; then return 0; fi
    grep -qi 'lock' "$work/dpkg.log" || { cat "$work/dpkg.log" >&2; return 1; }
    sleep 2
  done
  cat "$work/dpkg.log" >&2
  return 1
}
purge() {
  local present
  present=$(installed_before)
  [ -z "$present" ] || dpkg_waiting --purge $present
}
cleanup() {
  purge || echo "installed_packages.sh: purging the packages failed" >&2
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM HUP

passed=0 failed=0
# Each group runs in a subshell of its own: the first failed check ends the group.
fail() { echo "    $*" >&2; exit 1; }
check() {  # check NAME FUNCTION: runs one group of checks and counts it
  local name=$1 function=$2
  if ("$function") >"$work/check.log" 2>&1; then
    passed=$((passed + 1))
    echo "ok: $name"
  else
    failed=$((failed + 1))
    echo "FAILED: $name"
    sed 's/^/    /' "$work/check.log"
  fi
}

# A repository with two mounts on the machine's own file system: the first has clean and move
# limits below any fill level, so the maintenance always finds it past its move limit and
# records its move state; the second never passes a limit.
make_repository() {  # make_repository DIR
  mkdir -p "$1/p1" "$1/p2" || return 1
  printf 'mountPoints=p1\\p2\nisShared=false\n' >"$1/repository.cfg"
  printf 'switchLimit=100\nfullLimit=100\ncleanLimit=0.01\nmoveLimit=0.01\nhardFullLimit=100\n' \
    >"$1/p1/repositorypart.cfg"
  printf 'switchLimit=100\nfullLimit=100\ncleanLimit=100\nmoveLimit=100\nhardFullLimit=100\n' \
    >"$1/p2/repositorypart.cfg"
}
# The environment of the library for a check: its lock files and state in the scratch folder, and
# an administrators' message script that records what it is asked to send.
scratch_environment() {
  mkdir -p "$work/locks" "$work/var" "$work/admin"
  printf '#!/bin/sh\necho "$@" >>%s/admin/messages\n' "$work" >"$work/admin/sendmessage.sh"
  chmod +x "$work/admin/sendmessage.sh"
  export LOCK_VAR=$work/locks VAR=$work/var TMP=$work KSADMIN_HOME=$work/admin
}

lintian_reports_no_error_and_no_warning() {
  local changes
  changes=$(ls "$debs"/*.changes) || fail "no .changes file in $debs"
  lintian --fail-on error,warning "$changes" 2>&1 | grep -v 'running with root privileges'
  [ "${PIPESTATUS[0]}" -eq 0 ] || fail "lintian found errors or warnings"
}

the_library_is_installed_under_its_soname_with_its_shlibs() {
  local soname shlibs
  soname=$(objdump -p "$libdir/librepohandler.so.1" | awk '$1 == "SONAME" { print $2 }')
  [ "$soname" = librepohandler.so.1 ] || fail "SONAME is \"$soname\", the package is librepohandler1"
  ldconfig -p | grep -q "librepohandler.so.1 (.*) => .*/librepohandler.so.1$" ||
    fail "the dynamic loader's cache does not know librepohandler.so.1"
  shlibs=$(cat "/var/lib/dpkg/info/librepohandler1:$(dpkg --print-architecture).shlibs")
  [ "$shlibs" = "librepohandler 1 librepohandler1 (>= $version)" ] ||
    fail "the shlibs of librepohandler1 are \"$shlibs\""
  [ ! -e "$libdir/librepohandler.so" ] || fail "librepohandler.so is there without the development files"
}

the_development_files_hold_the_link_that_the_linker_finds() {
  [ "$(dpkg -S "$libdir/librepohandler.so" | cut -d: -f1)" = librepohandler-dev ] ||
    fail "librepohandler.so does not belong to librepohandler-dev"
  [ "$(readlink -f "$libdir/librepohandler.so")" = "$(readlink -f "$libdir/librepohandler.so.1")" ] ||
    fail "librepohandler.so does not lead to librepohandler.so.1"
  [ -f /usr/include/repohandler/repohandler.h ] || fail "no repohandler.h"
}

the_readme_c_example_builds_through_pkg_config_and_runs() {
  local cflags libs loaded out repo=$work/c-repo
  cflags=$(env -u PKG_CONFIG_PATH pkg-config --cflags repohandler) || fail "pkg-config knows no repohandler"
  libs=$(env -u PKG_CONFIG_PATH pkg-config --libs repohandler) || return 1
  awk '/^## Using the library from C and C\+\+/ { s = 1 } s && /^```c$/ { i = 1; next }
       i && /^```$/ { exit } i' "$src/README.md" >"$work/app.c"
  [ -s "$work/app.c" ] || fail "the README holds no C example"
  gcc -std=c99 -Wall -Werror "$work/app.c" -o "$work/app" $cflags $libs ||
    fail "the README's C example does not build against the installed files"
  loaded=$(env -u LD_LIBRARY_PATH ldd "$work/app" | awk '$1 == "librepohandler.so.1" { print $3 }')
  [ -n "$loaded" ] && [ "$(readlink -f "$loaded")" = "$(readlink -f "$libdir/librepohandler.so.1")" ] ||
    fail "the example does not load the installed library: $(ldd "$work/app")"
  # A program built against the library depends on the package through its shlibs.
  mkdir -p "$work/shlibdeps/debian" && printf 'Source: x\n\nPackage: x\nArchitecture: any\n' \
    >"$work/shlibdeps/debian/control"
  (cd "$work/shlibdeps" && dpkg-shlibdeps -O "$work/app" 2>/dev/null) |
    grep -qF "librepohandler1 (>= $version)" ||
    fail "dpkg-shlibdeps does not name librepohandler1 (>= $version)"
  make_repository "$repo" && scratch_environment
  out=$(env -u LD_LIBRARY_PATH "$work/app" "$repo") || fail "the example failed: $out"
  [[ $out =~ ^$repo/p1/[A-Z0-9_]{2}/[A-Z0-9_]{2}/[A-Z0-9_]{2}/1\.2\.840\.1234\ 0$ ]] ||
    fail "unexpected answer: $out"
}

the_readme_java_example_runs_against_the_installed_jar_and_library() {
  local jar=/usr/share/java/repohandler.jar out repo=$work/java-repo
  mkdir -p "$work/java"
  awk '/^## Using the library from Java/ { s = 1 } s && /^```java$/ { i = 1; next }
       i && /^```$/ { exit } i' "$src/README.md" >"$work/java/StudyStore.java"
  grep -q 'class StudyStore' "$work/java/StudyStore.java" || fail "the README holds no StudyStore"
  cat >"$work/java/Main.java" <<'EOF'
public class Main {
    public static void main(String[] args) {
        StudyStore store = new StudyStore(args[0]);
        String placed = store.placeStudy("1.2.840.1234");
        if (placed == null || !new java.io.File(placed).mkdirs()) System.exit(1);
        System.out.println(placed + " " + store.findStudy("1.2.840.1234"));
        System.exit(store.deleteStudy("1.2.840.1234") ? 0 : 1);
    }
}
EOF
  javac -Xlint:all -Werror -cp "$jar" -d "$work/java" "$work/java/StudyStore.java" \
    "$work/java/Main.java" || fail "the README's Java example does not compile against $jar"
  make_repository "$repo" && scratch_environment
  # No -Djava.library.path: the library is found on the JVM's default path.
  out=$(env -u LD_LIBRARY_PATH java -Xcheck:jni -cp "$jar:$work/java" Main "$repo" 2>&1) ||
    fail "the Java example failed: $out"
  [[ $out =~ ^($repo/p1/[A-Z0-9_/]+/1\.2\.840\.1234)\ ($repo/p1/[A-Z0-9_/]+/1\.2\.840\.1234)$ ]] &&
    [ "${BASH_REMATCH[1]}" = "${BASH_REMATCH[2]}" ] || fail "unexpected answer: $out"
  [ ! -e "${BASH_REMATCH[1]}" ] || fail "the study was not deleted"
}

the_manual_page_and_the_completion_know_every_command() {
  local commands rendered name words
  commands=$(repoctl help | awk '/^commands:/ { i = 1; next } i && /^  [^ ]/ { print $1 }')
  [ "$(wc -l <<<"$commands")" -ge 10 ] || fail "repoctl help lists only: $commands"
  rendered=$(MANWIDTH=100 LC_ALL=C.UTF-8 man --warnings repoctl 2>"$work/man.err") ||
    fail "man repoctl failed"
  [ ! -s "$work/man.err" ] || fail "man reports: $(cat "$work/man.err")"
  for name in $commands; do
    grep -qE "^   $name( |$)" <<<"$rendered" || fail "the manual page has no section on $name"
  done
  grep -q -- "--night" <<<"$rendered" || fail "the manual page does not show check-overload's --night"

  # The completion is tried as bash runs it: COMP_WORDS/COMP_CWORD in, COMPREPLY out.
  complete_words() {  # complete_words WORD...: the completions of the last word
    bash -c '. /usr/share/bash-completion/completions/repoctl
             COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _repoctl; printf "%s\n" "${COMPREPLY[@]}"' \
      repoctl "$@" | sed '/^$/d' | sort
  }
  words=$(complete_words repoctl "")
  [ "$words" = "$(printf '%s\nhelp\n' "$commands" | sort)" ] ||
    fail "the completion offers \"$words\" for the command, repoctl help lists \"$commands\""
  [ "$(complete_words repoctl check-overload /tmp --ni)" = "--night" ] ||
    fail "check-overload's --night does not complete"
  [ -z "$(complete_words repoctl status --ni)" ] || fail "status is offered --night"
  printf '# a comment\n\n  %s/listed-repository  \n' "$work" >"$work/list"
  [ "$(REPOHANDLER_REPOSITORIES=$work/list complete_words repoctl status "$work/listed")" = \
    "$work/listed-repository" ] || fail "a listed repository does not complete"
}

the_systemd_units_pass_systemd_analyze_verify() {
  local unit units=()
  for unit in repohandler-check repohandler-night; do
    units+=("/lib/systemd/system/$unit.service" "/lib/systemd/system/$unit.timer")
  done
  # Offline: no systemd needs to run; a warning (an unknown key, a bad time) shows on stderr.
  systemd-analyze verify "${units[@]}" 2>"$work/verify.err" || fail "$(cat "$work/verify.err")"
  [ ! -s "$work/verify.err" ] || fail "systemd-analyze verify: $(cat "$work/verify.err")"
  grep -qx 'ExecStart=/usr/libexec/repohandler/repohandler-maintenance --night /etc/repohandler/repositories' \
    /lib/systemd/system/repohandler-night.service || fail "the night service does not run --night"
  grep -qx 'EnvironmentFile=-/etc/repohandler/environment' \
    /lib/systemd/system/repohandler-check.service || fail "the check has no environment file"
  # Installing enables no timer: the operator does, once the repositories are listed.
  [ -z "$(find /etc/systemd/system -name 'repohandler-*' 2>/dev/null)" ] ||
    fail "installing enabled: $(find /etc/systemd/system -name 'repohandler-*')"
}

the_maintenance_checks_every_listed_repository_and_goes_on_past_a_failure() {
  local out status
  make_repository "$work/first" && make_repository "$work/second" && scratch_environment
  printf '# repositories\n\n%s\nrelative/path\n%s/missing\n  %s  \n' "$work/first" "$work" \
    "$work/second" >"$work/list"
  out=$(/usr/libexec/repohandler/repohandler-maintenance --night "$work/list" 2>&1)
  status=$?
  echo "$out"
  [ $status -eq 1 ] || fail "exit status $status with two bad entries"
  grep -q '4 repositories listed, 2 failed' <<<"$out" || fail "wrong summary"
  for repository in first second; do
    grep -qx "repository $work/$repository: check-overload --night" <<<"$out" ||
      fail "$repository was not checked"
    # The first mount is past its move limit: the check records its move state under VAR.
    [ -f "$VAR/lastmove-KSRepositoryHandler-${work//\//_}_${repository}_p1-.cfg" ] ||
      fail "no move state of $repository's first mount in $VAR: $(ls "$VAR")"
  done
  printf '%s\n' "$work/first" "$work/second" >"$work/list"
  if ! repoctl help | grep -qE "^  metrics( |$)"; then
    echo "repoctl has no metrics command: the metrics file is not checked"
    /usr/libexec/repohandler/repohandler-maintenance "$work/list" || fail "a clean list fails"
    return 0
  fi
  mkdir -p "$work/prom"
  METRICS_TEXTFILE_DIR=$work/prom /usr/libexec/repohandler/repohandler-maintenance "$work/list" ||
    fail "a clean list fails"
  for repository in first second; do
    grep -qF "repository=\"$work/$repository\"" "$work/prom/repohandler.prom" ||
      fail "no metrics of $repository in $work/prom/repohandler.prom"
  done
}

removing_the_packages_leaves_nothing_behind() {
  local path left
  purge || fail "dpkg --purge failed"
  [ -z "$(installed_before)" ] || fail "still installed: $(installed_before)"
  for path in /usr/bin/repoctl /etc/repohandler /usr/libexec/repohandler /usr/include/repohandler \
              "$libdir/librepohandler.so.1" "$libdir/jni/librepohandler.so" \
              /usr/share/java/repohandler.jar /lib/systemd/system/repohandler-check.timer; do
    [ ! -e "$path" ] && [ ! -L "$path" ] || left+=" $path"
  done
  [ -z "${left:-}" ] || fail "left behind:$left"
  ! ldconfig -p | grep -q librepohandler || fail "the loader's cache still knows librepohandler"
  [ -z "$(find /var/lib/systemd/deb-systemd-helper-enabled -name 'repohandler-*' 2>/dev/null)" ] ||
    fail "systemd's enable state of the units is left"
}

if [ ! -f "$debs/repoctl_${version}_$(dpkg --print-architecture).deb" ] || [ -z "${2:-}" ]; then
  "$src/scripts/package" "$debs" >/dev/null || exit 1
fi
check "lintian reports no error and no warning" lintian_reports_no_error_and_no_warning
deb_of() { ls "$debs/${1}_"*.deb; }
# A server host first: the library, the Java binding and repoctl, without the development files
# (which would put the library on the JVM's path too). Then the development files.
if dpkg_waiting -i "$(deb_of librepohandler1)" "$(deb_of librepohandler-java)" "$(deb_of repoctl)"; then
  check "the library is installed under its SONAME with its shlibs" \
    the_library_is_installed_under_its_soname_with_its_shlibs
  check "the README's Java example runs against the installed jar and library" \
    the_readme_java_example_runs_against_the_installed_jar_and_library
  check "the manual page and the completion know every command of repoctl help" \
    the_manual_page_and_the_completion_know_every_command
  check "the systemd units pass systemd-analyze verify and are not enabled on installation" \
    the_systemd_units_pass_systemd_analyze_verify
  check "the maintenance checks every listed repository, goes on past a failing one, writes the metrics" \
    the_maintenance_checks_every_listed_repository_and_goes_on_past_a_failure
  if dpkg_waiting -i "$(deb_of librepohandler-dev)"; then
    check "the development files hold the link that -lrepohandler finds" \
      the_development_files_hold_the_link_that_the_linker_finds
    check "the README's C example builds through pkg-config against the installed files and runs" \
      the_readme_c_example_builds_through_pkg_config_and_runs
  else
    echo "FAILED: the development files do not install"
    failed=$((failed + 1))
  fi
  check "removing the packages leaves nothing of them behind" removing_the_packages_leaves_nothing_behind
else
  echo "FAILED: the packages do not install"
  failed=$((failed + 1))
fi
echo "installed packages: $passed checks passed, $failed failed"
[ $failed -eq 0 ]
