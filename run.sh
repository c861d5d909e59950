#!/usr/bin/env bash
# One entry point for a fresh Debian machine (run as root):
#   ./run.sh sim [args...]   install, build, run the simulator (built-in scenario by default)
#   ./run.sh test            install, build, run every test; then the same tests under ASan+UBSan
#   ./run.sh bench           install, build, run the benchmarks
# Set ULONAT_LONG=1 for the long crash/soak modes of the tests.
set -euo pipefail
cd "$(dirname "$0")"

# What the library and the tools need; the tests and the benchmarks add theirs,
# so that `./run.sh sim` installs only what the simulator builds with.
SIM_PACKAGES=(build-essential cmake libfmt-dev nlohmann-json3-dev libcli11-dev)
TEST_PACKAGES=(libgtest-dev libgmock-dev pkg-config)
BENCH_PACKAGES=(libbenchmark-dev liblmdb-dev libboost-dev)

install_packages() { # install_packages <package>...
  local missing=()
  for p in "$@"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
  done
  if ((${#missing[@]})); then
    echo "run.sh: installing ${missing[*]}"
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -qq
    apt-get install -y -qq --no-install-recommends "${missing[@]}"
  fi
}

JOBS=$(nproc)

# Line tables (-g1) are enough for the backtraces of a failing test and
# halve the compile time of full debug information; the sanitizer build runs
# at -O1, which keeps its reports exact and compiles in about half the time
# of -O2.
PLAIN_FLAGS="-O2 -g1 -DNDEBUG"
SANITIZE_FLAGS="-O1 -g1 -DNDEBUG"

build() { # build <dir> <flags> [cmake args...]
  local dir=$1 flags=$2; shift 2
  local launcher=()
  # A developer machine with ccache rebuilds in seconds; CI starts cold either way.
  if command -v ccache >/dev/null; then launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache); fi
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=$flags" \
        -DULONAT_WERROR=ON "${launcher[@]}" "$@" >/dev/null
  cmake --build "$dir" -j "$JOBS"
}

cmd=${1:-}
shift || true
case "$cmd" in
  sim)
    install_packages "${SIM_PACKAGES[@]}"
    build build "$PLAIN_FLAGS" -DULONAT_BUILD_TESTS=OFF -DULONAT_BUILD_BENCH=OFF
    exec ./build/tools/ulonat-sim "$@"
    ;;
  test)
    install_packages "${SIM_PACKAGES[@]}" "${TEST_PACKAGES[@]}" "${BENCH_PACKAGES[@]}"
    # The benchmarks are built (not run) too, so that one that no longer
    # compiles is found here and not at the next measurement.
    # Each option is given explicitly: `./run.sh sim` may have left this
    # build folder configured without tests, and a cached OFF must not turn
    # this run into one that finds nothing to test.
    build build "$PLAIN_FLAGS" -DULONAT_BUILD_TESTS=ON -DULONAT_BUILD_TOOLS=ON -DULONAT_BUILD_BENCH=ON
    (cd build && ctest --no-tests=error --output-on-failure -j "$JOBS")
    if [[ "${ULONAT_SKIP_SANITIZERS:-0}" != 1 ]]; then
      build build-asan "$SANITIZE_FLAGS" -DULONAT_SANITIZE=ON -DULONAT_BUILD_TESTS=ON -DULONAT_BUILD_BENCH=OFF -DULONAT_BUILD_TOOLS=ON
      (cd build-asan && ctest --no-tests=error --output-on-failure -j "$JOBS")
    fi
    ;;
  bench)
    install_packages "${SIM_PACKAGES[@]}" "${BENCH_PACKAGES[@]}"
    build build-bench "-O3 -DNDEBUG" -DCMAKE_BUILD_TYPE=Release -DULONAT_BUILD_TESTS=OFF
    for b in build-bench/bench/*_bench; do echo "== $b"; "$b" "$@"; done
    ;;
  *)
    echo "usage: $0 sim [args...] | test | bench" >&2
    exit 2
    ;;
esac
