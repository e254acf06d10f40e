// The server's table of registered pairs: found by key (the host's commands)
// and by the connection they registered on (messages, ends of connections).
// Work done for one connection costs as many pairs as it has registered,
// whatever the table holds. Not thread-safe: the server's client lock guards it.
#ifndef VEXA_SERVER_CLIENT_REGISTRY_H
#define VEXA_SERVER_CLIENT_REGISTRY_H

#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "server/item_client.h"

namespace vexa {

class ClientRegistry {
  public:
    // The pair under key, null when none.
    ItemClient* find(const std::string& key);
    // Whether key is registered on conn.
    bool registeredOn(const std::string& key, const Connection* conn) const;
    // How many pairs conn has registered.
    size_t pairsOn(const Connection* conn) const;
    // Stores item (its conn set) under key, replacing what was there.
    void put(const std::string& key, const ItemClient& item);
    // Removes key; false when it was not there.
    bool erase(const std::string& key);
    // Copies of conn's pairs, in key order.
    std::vector<ItemClient> pairsOf(const Connection* conn) const;
    // conn's pairs, in key order, removed from the table.
    std::vector<ItemClient> takeAllOf(const Connection* conn);
    size_t size() const { return m_byKey.size(); }

  private:
    std::map<std::string, ItemClient> m_byKey;
    std::unordered_map<const Connection*, std::set<std::string>> m_keysOf;
};

}  // namespace vexa

#endif  // VEXA_SERVER_CLIENT_REGISTRY_H
