#!/usr/bin/env bash
# Checks the library as a front-end author gets it. Installs the build tree
# given as $1 into a temporary prefix, then:
#  - the installed shared library exports the TAM_ functions and nothing else;
#  - the installed kernel does not load QtCore;
#  - a C front end builds with pkg-config and a C++ one with find_package;
#  - both run, the C one against the installed kernel, as does the installed
#    console, which finds ./tamkern and ../lib from its own directory, and
#    tamix, run from another directory.
set -euo pipefail
build=$(cd "${1:?usage: check-package.sh BUILD_DIR}" && pwd)
src=$(cd "$(dirname "$0")/.." && pwd)
tmp=$(mktemp -d "${TMPDIR:-/tmp}/tamix-package.XXXXXX")
trap 'rm -rf "$tmp"' EXIT
prefix=$tmp/prefix
fail() { echo "check-package: $*" >&2; exit 1; }

cmake --install "$build" --prefix "$prefix" >/dev/null
lib=$(ls "$prefix"/lib*/libtamclient.so.0 2>/dev/null | head -n 1)
[ -n "$lib" ] || fail "no libtamclient.so.0 installed"

others=$(nm -D --defined-only "$lib" | awk '{print $3}' | grep -v '^TAM_' || true)
[ -z "$others" ] || fail "exported besides TAM_*: $(echo $others | head -c 300)"
echo "exports: $(nm -D --defined-only "$lib" | grep -c ' TAM_') TAM_ functions, nothing else"

! ldd "$prefix/bin/tamkern" | grep -i -E 'qt5|icu' || fail "the kernel loads QtCore"

export PKG_CONFIG_PATH=$(dirname "$lib")/pkgconfig
cc -std=c11 -Wall -Wextra -pedantic -Werror "$src/tests/package/consumer/consumer.c" \
   -o "$tmp/consumer_c" $(pkg-config --cflags --libs tamix) -Wl,-rpath,"$(dirname "$lib")"
"$tmp/consumer_c" "$prefix/bin/tamkern" "$prefix/lib"

cmake -S "$src/tests/package/consumer" -B "$tmp/cxx" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$tmp/cxx" >/dev/null
"$tmp/cxx/consumer"

out=$(cd "$prefix/bin" && printf '1+1\nquit\n' | ./tamcon)
grep -qx '>> 2' <<<"$out" || fail "installed console: $out"
echo "installed console answered 1+1"

# tamix finds the kernel and its library directory beside itself, from any
# directory.
out=$(cd / && printf 'factor(x^4-1)\n' | "$prefix/bin/tamix")
[ "$out" = "(x-1)*(x+1)*(x^2+1)" ] || fail "installed tamix: $out"
echo "installed tamix answered from /"
