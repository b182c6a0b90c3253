#!/usr/bin/env bash
# Installs a build, moves the installed tree, and builds and runs the README's first C++ program
# against it: through find_package, then through pkg-config. Each installed header compiles alone.
# Usage: installed.sh README BUILD-DIR CMAKE COMPILER
set -euo pipefail
readme=$1 build=$2 cmake=$3 compiler=$4

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

"$cmake" --install "$build" --prefix "$work/first" >install.log
mv first moved

awk '/^```/ { if (inside) exit; inside = $0 == "```cpp"; next } inside' "$readme" >program.cpp
[[ -s program.cpp ]] || { echo "no \`\`\`cpp block in $readme"; exit 1; }

cat >CMakeLists.txt <<'END'
cmake_minimum_required(VERSION 3.25)
project(user LANGUAGES CXX)
find_package(ZorChildProcessTracker 0.1 REQUIRED)
add_executable(found program.cpp)
target_link_libraries(found PRIVATE Zor::ChildProcessTracker)
END
"$cmake" -S . -B found -G Ninja -DCMAKE_CXX_COMPILER="$compiler" \
   -DCMAKE_PREFIX_PATH="$work/moved" >configure.log
"$cmake" --build found
./found/found
(ulimit -n 4 && ./found/found 3>&-) # and survives it where no child can have a pipe
echo "find_package: ran"

pc=$(find moved -name '*.pc')
PKG_CONFIG_PATH=$work/$(dirname "$pc")
export PKG_CONFIG_PATH
read -ra flags < <(pkg-config --cflags --libs ZorChildProcessTracker)
libdir=$(pkg-config --variable=libdir ZorChildProcessTracker)
"$compiler" -std=c++20 program.cpp -o linked "${flags[@]}" -Wl,-rpath,"$libdir"
./linked
echo "pkg-config: ran"

includes=$(pkg-config --variable=includedir ZorChildProcessTracker)
find "$includes" -name '*.h' -print0 | xargs -0 -I{} \
   "$compiler" -std=c++20 -fsyntax-only -Wall -Werror -I "$includes" -include {} -x c++ /dev/null
