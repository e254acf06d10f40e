#include "transports.h"

#include <cstdio>

namespace bench {
namespace {

Transport raw_row(const char* name, Role role, bool libraryBuffers) {
    Transport t;
    t.name = name;
    t.role = role;
    t.rtt = [libraryBuffers](int32_t size, int ms, size_t max) {
        return raw_round_trip(libraryBuffers, size, ms, max);
    };
    t.tput = [libraryBuffers](int32_t size, int ms, uint64_t max) {
        return raw_one_way(libraryBuffers, size, ms, max);
    };
    return t;
}

// Round trips answered in the test's callback and one-way traffic. Rows that
// share a rig all open and close it; the rig does each only once.
Transport library_row(const char* name, Role role, LibraryRig* rig, bool logsOn) {
    Transport t;
    t.name = name;
    t.role = role;
    t.rtt = [rig](int32_t size, int ms, size_t max) {
        return rig->roundTripInCallback(size, ms, max);
    };
    t.tput = [rig](int32_t size, int ms, uint64_t max) { return rig->oneWay(size, ms, max); };
    t.open = [rig, logsOn] { return rig->open(logsOn); };
    t.close = [rig] { rig->close(); };
    return t;
}

}  // namespace

std::vector<Transport> make_transports(LibraryRig* logsOff, LibraryRig* logsOn) {
    std::vector<Transport> rows;
    rows.push_back(raw_row("raw TCP (baseline)", Role::kBaseline, false));
    rows.push_back(raw_row("raw TCP, library's buffer sizes", Role::kOther, true));
    rows.push_back(library_row("vexatool, logs off", Role::kLibraryOff, logsOff, false));
    Transport fromHost = library_row("vexatool, logs off, host's thread",
                                     Role::kLibraryOffFromHostThread, logsOff, false);
    fromHost.rtt = [logsOff](int32_t size, int ms, size_t max) {
        return logsOff->roundTripFromHostThread(size, ms, max);
    };
    fromHost.tput = nullptr;  // the same one-way traffic as the row above
    rows.push_back(fromHost);
    rows.push_back(library_row("vexatool, logs on", Role::kLibraryOn, logsOn, true));
#ifdef VEXA_BENCH_HAVE_ZMQ
    Transport zmq;
    zmq.name = "ZeroMQ REQ/REP, PUSH/PULL";
    zmq.rtt = zmq_round_trip;
    zmq.tput = zmq_one_way;
    rows.push_back(zmq);
#endif
    return rows;
}

const Transport* find_role(const std::vector<Transport>& transports, Role role) {
    for (const Transport& t : transports) {
        if (t.role == role)
            return &t;
    }
    return nullptr;
}

bool open_all(std::vector<Transport>& transports) {
    bool ok = true;
    for (Transport& t : transports) {
        if (t.open && !t.open()) {
            std::fprintf(stderr, "%s: could not start on 127.0.0.1\n", t.name.c_str());
            ok = false;
        }
    }
    return ok;
}

void close_all(std::vector<Transport>& transports) {
    for (Transport& t : transports) {
        if (t.close)
            t.close();
    }
}

}  // namespace bench
