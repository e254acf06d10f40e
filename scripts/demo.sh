#!/usr/bin/env bash
# Shows a whole exchange between the host tool and the two example tests:
# installs what is missing, builds into build/ (the same build as
# scripts/test.sh), then runs
#
#   build/tools/vexahost --demo [ARGS...] -a tcp://:PORT <example program> <example .so>
#
# ARGS are the script's own arguments, passed on: for example --json, or
# --junit-xml report.xml for a JUnit report of the two tests.
# PORT is 6000 when that is free, otherwise any free loopback port. Each test
# registers, says hello, echoes the host's ping, says bye on the host's leave
# and closes; the tool then prints "2 passed, 0 failed" and exits 0.
#
# The library logs into the device directory /mnt/sdcard/vexa/ unless told
# otherwise: --log-dir build/demo-logs/ puts the logs of the tool's server and
# of both tests there, and the script shows what each says of the exchange.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
source "$root/scripts/ensure-packages.sh"

ensure_packages cmake ninja-build g++ libgtest-dev

build="$root/build"
cmake -S "$root" -B "$build" -G Ninja \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DVEXA_WERROR=ON \
    -DCMAKE_C_FLAGS="" -DCMAKE_CXX_FLAGS="" \
    -DCMAKE_EXE_LINKER_FLAGS="" -DCMAKE_SHARED_LINKER_FLAGS=""
cmake --build "$build" --target vexahost vexa_example_test vexa_example_test_so

port=$(python3 - <<'PY'
import socket

def bindable(port):
    with socket.socket() as s:
        # As the server does: a port left in TIME_WAIT by an earlier run is fine.
        s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        try:
            s.bind(("127.0.0.1", port))
        except OSError:
            return 0
        return s.getsockname()[1]

print(bindable(6000) or bindable(0))
PY
)

program="$build/examples/vexa_example_test"
library="$build/examples/libvexa_example_test_so.so"
logs="$build/demo-logs/"
rm -rf "$logs"
echo "== vexahost --demo --log-dir $logs $* -a tcp://:$port $program $library"
timeout 60 "$build/tools/vexahost" --demo --log-dir "$logs" "$@" -a "tcp://:$port" \
    "$program" "$library" </dev/null
# Each log's lines about the conversation: listening, launching, connecting,
# registering and closing.
for log in "$logs"*.log; do
    echo "== $log ($(wc -l <"$log") lines):"
    grep -E 'bind |run_test |load library|connect [0-9]|CLIENT_IPC_CONFIG|client close|test_id=9003' "$log"
done
