// The server's record of one registered client, and the key it is found by.
#ifndef VEXA_SERVER_ITEM_CLIENT_H
#define VEXA_SERVER_ITEM_CLIENT_H

#include <cstdint>
#include <memory>
#include <string>

#include "core/connection.h"

namespace vexa {

struct ItemClient {
    std::string dev;
    int32_t test_item = 0;
    int socket = -1;
    bool closing = false;   // set when the client sent CLIENT_IPC_EXIT
    int32_t pid = 0;        // from the registration body
    bool launched = false;  // registered with a valid launch token
    // The connection it registered on: messages to it go there, and when it
    // ends every pair registered on it goes too, whatever number the process
    // gives a later connection.
    std::shared_ptr<Connection> conn;
};

// The device string followed directly by the decimal test item. There is no
// separator, so "phone"/12 and "phone1"/2 share the key "phone12" and the later
// registration replaces the earlier one; this is intended.
std::string make_client_key(const std::string& dev, int32_t testItem);
// The same into `key`, reusing its storage.
void make_client_key(const char* dev, size_t devLength, int32_t testItem, std::string* key);

// "pid=%d dev=%s test_item=%d socket=%d", cut at 259 characters.
std::string item_client_text(const ItemClient& item);

}  // namespace vexa

#endif  // VEXA_SERVER_ITEM_CLIENT_H
