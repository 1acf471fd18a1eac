#!/usr/bin/env bash
# A C caller's view of the library: installs the build into a scratch prefix, checks that
# repohandler.pc names that prefix, compiles repohandler.h alone as every C standard from C99
# on, and builds the README's C example with `gcc -std=c99 -Wall -Werror` through pkg-config
# against the installed header and library; then runs it on a scratch repository.
# Arguments: source folder, build folder, extra compiler flags (the sanitizers of the build).
set -euo pipefail
src=$1 build=$2 extra=${3:-}
work=$(mktemp -d /tmp/rh-c-example.XXXXXX)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAILED: $*" >&2; exit 1; }

prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >/dev/null
pc=$(find "$prefix" -name repohandler.pc)
[ -n "$pc" ] || fail "no repohandler.pc installed under $prefix"
grep -qx "prefix=$prefix" "$pc" || fail "$pc does not name the install prefix: $(grep ^prefix= "$pc")"
export PKG_CONFIG_PATH=${pc%/*}
cflags=$(pkg-config --cflags repohandler)
libs=$(pkg-config --libs repohandler)
libdir=$(pkg-config --variable=libdir repohandler)
[ -f "$libdir/librepohandler.so" ] || fail "pkg-config's libdir $libdir holds no librepohandler.so"
[[ " $cflags " == *" -I$prefix/"* ]] || fail "pkg-config's cflags do not point into $prefix: $cflags"

printf '#include "repohandler.h"\nint main(void) {\n  void (*give_back)(char*) = release;\n  return give_back == 0;\n}\n' >"$work/header.c"
for std in c99 c11 c17; do
  gcc -std=$std -Wall -Wextra -Werror -pedantic $extra $cflags -c "$work/header.c" \
    -o "$work/header.o" || fail "repohandler.h is not valid $std"
done

# The first C block of the README's C section, exactly as a user would copy it.
awk '/^## Using the library from C and C\+\+/ { section = 1 }
     section && /^```c$/ { inside = 1; next }
     inside && /^```$/ { exit }
     inside' "$src/README.md" >"$work/app.c"
[ -s "$work/app.c" ] || fail "the README holds no C example"
gcc -std=c99 -Wall -Werror $extra "$work/app.c" -o "$work/app" $cflags $libs ||
  fail "the README's C example does not build"

repo=$work/repo
mkdir -p "$repo/p1" "$work/locks"
printf 'mountPoints=p1\nisShared=false\nswitchLimit=100\nfullLimit=100\ncleanLimit=100\nmoveLimit=100\nhardFullLimit=100\n' \
  >"$repo/repository.cfg"
: >"$repo/p1/repositorypart.cfg"
out=$(LD_LIBRARY_PATH=$libdir LOCK_VAR=$work/locks "$work/app" "$repo") ||
  fail "the example failed: $out"
loaded=$(LD_LIBRARY_PATH=$libdir ldd "$work/app")
[[ "$loaded" == *"$libdir/librepohandler.so"* ]] || fail "the example did not load $libdir: $loaded"
[[ "$out" =~ ^$repo/p1/[A-Z0-9_]{2}/[A-Z0-9_]{2}/[A-Z0-9_]{2}/1\.2\.840\.1234\ 0$ ]] ||
  fail "unexpected answer: $out"
[ -d "${out% 0}" ] || fail "the study directory ${out% 0} was not made"
echo "ok: $out"
