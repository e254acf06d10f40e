#include "server/item_client.h"

#include <cstdio>

#include "comm/string_util.h"

namespace vexa {

std::string make_client_key(const std::string& dev, int32_t testItem) {
    return dev + comm::int_to_string(testItem);
}

std::string item_client_text(const ItemClient& item) {
    char text[260];
    std::snprintf(text, sizeof(text), "pid=%d dev=%s test_item=%d socket=%d", item.pid,
                  item.dev.c_str(), item.test_item, item.socket);
    return text;
}

}  // namespace vexa
