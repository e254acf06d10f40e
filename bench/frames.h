// The benchmark's messages on the wire: its event ids, the 100-byte head as
// the library frames it, one common body, and whole frames written and read
// on a blocking raw socket.
#ifndef VEXA_BENCH_FRAMES_H
#define VEXA_BENCH_FRAMES_H

#include <cstdint>

#include "vexatool.h"

namespace bench {

// The head: dev NUL-padded, then five integers, each big-endian.
//   0          80     84        88    92     96    100
//   | dev      | item | eventId | sec | usec | len |
constexpr int kDevSize = 80;
constexpr int kItemOffset = 80;
constexpr int kEventOffset = 84;
constexpr int kSecOffset = 88;
constexpr int kUsecOffset = 92;
constexpr int kLenOffset = 96;
constexpr int kHeadSize = 100;

constexpr int32_t kPing = 2000;  // round trip, echoed by the test
constexpr int32_t kData = 2001;  // one-way traffic
constexpr int32_t kEnd = 2002;   // end of the one-way traffic; body = count sent
constexpr int32_t kBiggestBody = IPC_MAX_DATA_LEN - 1;
constexpr char kTestDev[] = "bench";
constexpr int32_t kTestItem = 1;

// 0 to kBiggestBody bytes of a fixed pattern, the body of every message sent.
const char* body_bytes();

// A head from kTestDev and kTestItem, stamped with the time of day.
void encode_head(uint8_t* head, int32_t eventId, int32_t len);
int32_t get32(const uint8_t* at);

// Head and body with one writev (head alone for an empty body).
bool write_frame(int fd, int32_t eventId, const void* body, int32_t len);
// Reads one frame into `body` (room for the largest); false on a broken stream.
bool read_frame(int fd, int32_t* eventId, char* body, int32_t* len);

}  // namespace bench

#endif  // VEXA_BENCH_FRAMES_H
