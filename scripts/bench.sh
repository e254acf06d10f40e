#!/usr/bin/env bash
# Installs what is missing, builds the benchmark (Release, in build-bench/) and
# runs it: libvexatool64 against a raw loopback TCP baseline (and ZeroMQ when
# libzmq is installed), then the idle CPU of a server with idle clients.
# Prints the tables; arguments go to the benchmark (--quick, --rounds N, ...),
# except --pinned, which runs every process and thread of the benchmark on the
# machine's last CPU (the benchmark's --pin CPU), so that the ratios stay
# steady on a shared machine. Everything stays on 127.0.0.1; a full run takes
# about two and a half minutes.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
source "$root/scripts/ensure-packages.sh"

ensure_packages cmake ninja-build g++ libgtest-dev pkg-config
# Optional: the ZeroMQ rows. Without it the benchmark simply leaves them out.
if ! dpkg-query -W -f='${Status}' libzmq3-dev 2>/dev/null | grep -q "ok installed"; then
    ensure_packages libzmq3-dev || echo "libzmq3-dev not available: no ZeroMQ rows"
fi

build="$root/build-bench"
mkdir -p "$build"
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DVEXA_BUILD_BENCH=ON \
    > "$build/configure.log" 2>&1 || { cat "$build/configure.log"; exit 1; }
cmake --build "$build" --target vexa_bench -j 2
echo "machine: $(nproc) cores, $(lscpu | sed -n 's/^Model name: *//p'), kernel $(uname -r)"
args=()
for arg in "$@"; do
    if [ "$arg" = "--pinned" ]; then
        args+=(--pin "$(($(nproc) - 1))")
    else
        args+=("$arg")
    fi
done
"$build/bench/vexa_bench" "${args[@]}"
