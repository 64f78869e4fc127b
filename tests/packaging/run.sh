#!/usr/bin/env bash
# Installs a native build into a temporary prefix and checks it as a user
# would meet it: the installed files and soname, then consumer.c built and run
# through find_package(kivo) (shared and static) and through pkg-config (kivo
# and kivo_static); last, the source tree configured as a subproject.
# Usage: run.sh BUILD_DIR LIBDIR INCLUDEDIR BINDIR (the last three relative
# to the prefix, as GNUInstallDirs chose them). CC picks the C compiler.
set -euo pipefail
build=$(cd "$1" && pwd)
libdir=$2 includedir=$3 bindir=$4
here=$(cd "$(dirname "$0")" && pwd)
src=$(cd "$here/../.." && pwd)
cc=${CC:-cc}
work=$(mktemp -d "$build/packaging.XXXXXX")
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
fail() { echo "packaging: $*" >&2; exit 1; }

cmake --install "$build" --prefix "$prefix" >/dev/null

# Every public header and nothing else; the libraries, the soname, the tool.
diff <(cd "$src/include" && ls -- *.h) <(cd "$prefix/$includedir/kivo" && ls) \
  || fail "installed headers differ from include/*.h"
lib=$prefix/$libdir
[ -f "$lib/libkivo_static.a" ] || fail "libkivo_static.a not installed"
[ "$(readlink "$lib/libkivo.so")" = libkivo.so.0 ] || fail "libkivo.so does not link to libkivo.so.0"
[ -f "$lib/$(readlink "$lib/libkivo.so.0")" ] || fail "libkivo.so.0 does not link to the library"
objdump -p "$lib/libkivo.so" | grep -E >/dev/null 'SONAME +libkivo\.so\.0$' || fail "soname is not libkivo.so.0"
[ -x "$prefix/$bindir/kivo" ] || fail "the kivo tool not installed"
"$prefix/$bindir/kivo" --help >/dev/null || fail "the installed kivo tool does not run"

# find_package(kivo): kivo::kivo and kivo::kivo_static.
cmake -S "$here" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_COMPILER="$cc" >/dev/null
cmake --build "$work/cmake" >/dev/null
"$work/cmake/consumer_shared" || fail "find_package: the shared consumer failed"
"$work/cmake/consumer_static" || fail "find_package: the static consumer failed"
ldd "$work/cmake/consumer_shared" | grep >/dev/null "$lib/libkivo.so.0" || fail "find_package: not linked to the installed libkivo.so.0"

# pkg-config: kivo (shared) and kivo_static.
export PKG_CONFIG_PATH=$lib/pkgconfig
[ "$(pkg-config --modversion kivo)" = "$(sed -n 's/^#define KIVO_VERSION_STRING "\(.*\)"/\1/p' "$src/include/kivo.h")" ] \
  || fail "pkg-config version differs from KIVO_VERSION_STRING"
# shellcheck disable=SC2046
"$cc" "$here/consumer.c" -o "$work/pc_shared" $(pkg-config --cflags --libs kivo)
LD_LIBRARY_PATH=$lib "$work/pc_shared" || fail "pkg-config: the shared consumer failed"
# shellcheck disable=SC2046
"$cc" "$here/consumer.c" -o "$work/pc_static" $(pkg-config --cflags --libs kivo_static)
"$work/pc_static" || fail "pkg-config: the static consumer failed"

# add_subdirectory: configures, and users see include/ only (checked in CMakeLists.txt).
cmake -S "$here" -B "$work/sub" -DKIVO_SOURCE_DIR="$src" -DCMAKE_C_COMPILER="$cc" >/dev/null \
  || fail "add_subdirectory: configuring failed"
echo "packaging: install, find_package, pkg-config and add_subdirectory passed"
