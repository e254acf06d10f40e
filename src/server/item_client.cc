#include "server/item_client.h"

#include <charconv>
#include <cstdio>

namespace vexa {

std::string make_client_key(const std::string& dev, int32_t testItem) {
    std::string key;
    make_client_key(dev.data(), dev.size(), testItem, &key);
    return key;
}

void make_client_key(const char* dev, size_t devLength, int32_t testItem, std::string* key) {
    // Formed for every message: no allocation once the string has grown, and
    // the digits of "%d" without going through printf.
    char digits[16];
    const auto end = std::to_chars(digits, digits + sizeof(digits), testItem).ptr;
    key->assign(dev, devLength);
    key->append(digits, static_cast<size_t>(end - digits));
}

std::string item_client_text(const ItemClient& item) {
    char text[260];
    std::snprintf(text, sizeof(text), "pid=%d dev=%s test_item=%d socket=%d", item.pid,
                  item.dev.c_str(), item.test_item, item.socket);
    return text;
}

}  // namespace vexa
