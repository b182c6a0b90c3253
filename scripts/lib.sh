# shellcheck shell=bash disable=SC2034 # its lists are for the scripts that source it
# What the scripts share. Sourcing it moves to the root of the repository.

cd "$(dirname "${BASH_SOURCE[0]}")/.." || exit
exec </dev/null # nothing here asks a question, and standard input may be closed
export CTEST_PARALLEL_LEVEL="${CTEST_PARALLEL_LEVEL:-$(nproc)}"

build_packages=(g++ cmake ninja-build libboost-dev)
demo_packages=("${build_packages[@]}" libcli11-dev nlohmann-json3-dev)
test_packages=("${demo_packages[@]}" libgtest-dev libgmock-dev pkg-config valgrind)
# What the benchmarks compare with; each can be left out.
peers=(libuv1-dev libglib2.0-dev libev-dev libsystemd-dev)
bench_packages=(libbenchmark-dev "${peers[@]}")

die() {
   echo "$*" >&2
   exit 1
}

missing() {
   local package
   for package in "$@"; do
      [[ $(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null) == installed ]] ||
         echo "$package"
   done
}

# Installs those of the named Debian packages that are not there.
need() {
   local wanted as_root=()
   mapfile -t wanted < <(missing "$@")
   ((${#wanted[@]})) || return 0
   if ((EUID != 0)); then
      [[ -n $(command -v sudo) ]] ||
         die "These packages are missing and only root can install them: ${wanted[*]}"
      as_root=(sudo)
   fi
   "${as_root[@]}" apt-get update -qq
   "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
      apt-get install -y -qq --no-install-recommends "${wanted[@]}"
}

# Configures a preset, with further settings if any, and builds it.
build() {
   local preset=$1
   shift
   cmake --preset "$preset" "$@"
   cmake --build --preset "$preset" -j"$(nproc)"
}

# The C++ files of the project, null-terminated; arguments narrow what find gives.
sources() {
   local folder folders=()
   for folder in framework tracker examples tests bench fuzz; do
      [[ ! -d $folder ]] || folders+=("$folder")
   done
   find "${folders[@]}" -type f "$@" -print0
}
