// The library's fixed paths and sizes, in one place.
#ifndef VEXA_COMM_PATHS_AND_LIMITS_H
#define VEXA_COMM_PATHS_AND_LIMITS_H

#include <cstdint>

namespace vexa {

// Directory of the endpoints' logs and marker files, and the default of the
// common log's directory (QZ_LOGPATH). A build may move the endpoints' default
// (VEXA_ENDPOINT_LOG_DIR), and the setting below moves it at run time.
constexpr char kDefaultLogDir[] = "/mnt/sdcard/vexa/";
constexpr char kLogDirVariable[] = "VEXA_LOG_DIR";
// Marker files in that directory, looked for when an endpoint is made.
constexpr char kSilenceMarker[] = "ipc_notprint.txt";  // the endpoint writes no log
constexpr char kTraceMarker[] = "ipc_sendrecv.txt";    // every message is logged
constexpr char kCommonLogName[] = "qzcomm.log";

// Log files of at least this size are started afresh when opened.
constexpr int32_t kEndpointLogMaxSize = 8388608;
constexpr int32_t kCommonLogMaxSize = 10485760;  // QZ_LOGMAXSIZE's default
// A formatted log text keeps at most this many characters, less two.
constexpr int kLogBufferSize = 5120;
// Error texts ("strerror(errno)(errno)") are cut to this size.
constexpr int kErrorTextSize = 200;

// Socket buffer sizes every endpoint asks for.
constexpr int32_t kSendBufferSize = 262144;
constexpr int32_t kRecvBufferSize = 524288;
// Default budget of each wait of a counted read or write.
constexpr int32_t kDefaultIoTimeoutMs = 30000;

}  // namespace vexa

#endif  // VEXA_COMM_PATHS_AND_LIMITS_H
