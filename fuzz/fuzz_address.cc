// Address parsing of both endpoints. The input, up to its first NUL byte (the
// exported functions take C strings), is handed to the constructors of
// IPCServer and IPCClient, which parse it and throw comm::MyException for an
// invalid address. Only construction: no socket is ever made. Both endpoints
// must accept exactly the addresses a plain reading of the grammar accepts,
// and the server must keep the host and port that reading gives.
//
// The log tag and the device string are fixed, so no file name comes from the
// input.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "client/ipcclient.h"
#include "core/ipcbase.h"
#include "fuzz_support.h"
#include "server/ipcserver.h"

namespace {

constexpr size_t kMaxInput = 256;
const char kTag[] = "fz";

int ignore_message(void* /*user*/, int32_t /*testItem*/, int32_t /*eventId*/, const char* /*dev*/,
                   int32_t /*timeSec*/, int32_t /*timeUsec*/, const char* /*data*/,
                   int32_t /*dataLen*/) {
    return 0;
}

struct Address {
    bool valid = false;
    std::string host;
    int32_t port = 0;
};

// "tcp://:PORT" is the loopback host; "tcp://HOST:PORT[:...]" needs a ':' after
// the host; the port is the decimal number at the start of its text (as atoi
// reads it) and must not be 0.
Address expected_address(const std::string& text) {
    Address address;
    const std::string loopback = "tcp://:";
    const std::string tcp = "tcp://";
    if (text.compare(0, loopback.size(), loopback) == 0) {
        address.host = "127.0.0.1";
        address.port =
            static_cast<int32_t>(std::strtol(text.c_str() + loopback.size(), nullptr, 10));
    } else if (text.compare(0, tcp.size(), tcp) == 0) {
        const std::string rest = text.substr(tcp.size());
        const std::string::size_type colon = rest.find(':');
        if (colon == std::string::npos) {
            return address;
        }
        address.host = rest.substr(0, colon);
        const std::string portText = rest.substr(colon + 1, rest.find(':', colon + 1) - colon - 1);
        address.port = static_cast<int32_t>(std::strtol(portText.c_str(), nullptr, 10));
    } else {
        return address;
    }
    address.valid = address.port != 0;
    return address;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    vexa_fuzz::init_sandbox();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > kMaxInput) {
        return 0;
    }
    const std::string text(reinterpret_cast<const char*>(data),
                           strnlen(reinterpret_cast<const char*>(data), size));
    const Address expected = expected_address(text);

    bool serverMade = false;
    try {
        std::unique_ptr<vexa::IPCServer> server(
            new vexa::IPCServer(text, ignore_message, nullptr, kTag));
        serverMade = true;
        FUZZ_CHECK(server->port() == expected.port);
        FUZZ_CHECK(server->ip() == expected.host);
    } catch (const comm::MyException& e) {
        FUZZ_CHECK(e.code() == comm::kFailureCode);
    }
    FUZZ_CHECK(serverMade == expected.valid);

    bool clientMade = false;
    try {
        std::unique_ptr<vexa::IPCClient> client(
            new vexa::IPCClient(text.c_str(), ignore_message, nullptr, kTag, 1, 0));
        clientMade = true;
    } catch (const comm::MyException& e) {
        FUZZ_CHECK(e.code() == comm::kFailureCode);
    }
    FUZZ_CHECK(clientMade == expected.valid);
    return 0;
}
