#!/bin/bash
# run.sh BUILD_DIR: installs the build into a temporary prefix and uses it from outside: all that its headers declare,
# through find_package and, with both compilers, through pkg-config; and each header alone.
set -euo pipefail

build_dir=$(realpath "$1")
here=$(dirname "$(realpath "$0")")
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT
include=$prefix/installed/include
compilers=(g++ clang++)
warnings=(-std=c++17 -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror)

cmake --install "$build_dir" --prefix "$prefix/installed" >"$prefix/install.log"
python3 "$here/list_exports.py" "$include" >"$prefix/exports.inc"

names=$(find "$prefix/installed" -name 'libtln_core*.debug')
if [ -n "$names" ]; then
  library=$(dirname "$names")/../$(basename "$names" .debug)
  sections=$(readelf -SW "$library")
  [[ $sections == *.gnu_debuglink* && $sections != *.symtab* ]]
  [[ $(readelf -sW "$names") == *talvo_model_run* ]]
  echo "debug information: $(stat -c %s "$names") bytes apart from $(stat -c %s "$library") of the library"
fi

cmake -S "$here" -B "$prefix/build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix/installed" -DCMAKE_BUILD_TYPE=Release \
  -DEXPORTS="$prefix" >"$prefix/configure.log"
cmake --build "$prefix/build"
"$prefix/build/application"
echo "find_package: the application builds and runs"

pc_file=$(find "$prefix/installed" -name tln_core.pc)
export PKG_CONFIG_PATH=${pc_file%/*} LD_LIBRARY_PATH=${pc_file%/pkgconfig/*}
read -ra flags <<<"$(pkg-config --cflags --libs tln_core)"
for compiler in "${compilers[@]}"; do
  "$compiler" "${warnings[@]}" -I"$prefix" "$here/application.cpp" -o "$prefix/application" "${flags[@]}"
  "$prefix/application"
  echo "pkg-config, $compiler: the application builds and runs"
done

read -ra flags <<<"$(pkg-config --cflags --libs tln_core)"
for compiler in gcc clang; do
  "$compiler" -std=c11 -Wall -Wextra -Wpedantic -Werror "$here/../../examples/run_model_c.c" -o "$prefix/run_model_c" \
    "${flags[@]}"
  "$prefix/run_model_c" "$here/../../examples/digits/digits.tlnmodel"
  echo "C11, $compiler: the application builds and runs"
done

if [ -e "$LD_LIBRARY_PATH/libtln_core.so.1" ]; then  # nothing for Python in a static build
  cp -r "$here/../../python" "$prefix/python"
  /usr/bin/python3 -m venv --without-pip --system-site-packages "$prefix/venv"
  python=("$prefix/venv/bin/python" -I)
  "${python[@]}" -m pip install --quiet --no-index --no-build-isolation --no-deps "$prefix/python"
  opens="import sys, talvo, talvo.package; assert talvo.__file__.startswith(sys.prefix); talvo.Model(sys.argv[1])"
  "${python[@]}" -c "$opens" "$here/../../examples/digits/digits.tlnmodel"
  env -u LD_LIBRARY_PATH TALVO_LIBRARY="$LD_LIBRARY_PATH/libtln_core.so.1" \
    "${python[@]}" -c "$opens" "$here/../../examples/digits/digits.tlnmodel"
  echo "Python: the module is installed by pip and finds the library"
fi

if [ -x "$prefix/installed/bin/run_package" ]; then
  env -u LD_LIBRARY_PATH "$prefix/installed/bin/run_package" "$here/../../examples/xor.json" --check --shape bits=2
  (
    source "$prefix/installed/share/bash-completion/completions/run_package"
    COMP_WORDS=(run_package --ch) COMP_CWORD=1
    _talvo_tool "$prefix/installed/bin/run_package"
    [ "${COMPREPLY[*]}" = --check ]
  )
  grep -q '^\\fB\\-\\-check' "$prefix/installed/share/man/man1/run_package.1"
  echo "tools: run_package runs where it is installed, and its options are completed and described"
fi

(cd "$include" && find . -name '*.h' -printf '%P\n') >"$prefix/headers"
for compiler in "${compilers[@]}"; do
  xargs -a "$prefix/headers" -P "$(nproc)" -I{} \
    "$compiler" "${warnings[@]}" -fsyntax-only -I"$include" -include {} -x c++ /dev/null
done
echo "headers: $(wc -l <"$prefix/headers") compile alone with ${compilers[*]}"
