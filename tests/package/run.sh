#!/bin/bash
# run.sh BUILD_DIR: installs the build into a temporary prefix and uses it from outside: through find_package, through
# pkg-config, and each header alone with both compilers.
set -euo pipefail

build_dir=$(realpath "$1")
here=$(dirname "$(realpath "$0")")
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT

cmake --install "$build_dir" --prefix "$prefix/installed" >"$prefix/install.log"

cmake -S "$here" -B "$prefix/build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix/installed" -DCMAKE_BUILD_TYPE=Release \
  >"$prefix/configure.log"
cmake --build "$prefix/build"
"$prefix/build/application"
echo "find_package: the application builds and runs"

pc_file=$(find "$prefix/installed" -name tln_core.pc)
lib_dir=$(dirname "$(dirname "$pc_file")")
export PKG_CONFIG_PATH=$(dirname "$pc_file")
# shellcheck disable=SC2046
g++ -std=c++17 "$here/application.cpp" -o "$prefix/application" $(pkg-config --cflags --libs tln_core)
LD_LIBRARY_PATH=$lib_dir "$prefix/application"
echo "pkg-config: the application builds and runs"

headers=0
while read -r header; do
  for compiler in g++ clang++; do
    "$compiler" -std=c++17 -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror -fsyntax-only \
      -I "$prefix/installed/include" -x c++ - <<<"#include \"$header\""
  done
  headers=$((headers + 1))
done < <(cd "$prefix/installed/include" && find . -name '*.h' -printf '%P\n' | sort)
test "$headers" -gt 0
if find "$prefix/installed/include" -path '*/rows/*' -o -name '*_support.h' | grep .; then
  echo "internal headers are installed" >&2
  exit 1
fi
echo "headers: $headers compile alone with both compilers"
