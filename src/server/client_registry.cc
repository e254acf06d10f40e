#include "server/client_registry.h"

namespace vexa {

ItemClient* ClientRegistry::find(const std::string& key) {
    auto found = m_byKey.find(key);
    return found != m_byKey.end() ? &found->second : nullptr;
}

bool ClientRegistry::registeredOn(const std::string& key, const Connection* conn) const {
    auto keys = m_keysOf.find(conn);
    return keys != m_keysOf.end() && keys->second.count(key) != 0;
}

size_t ClientRegistry::pairsOn(const Connection* conn) const {
    auto keys = m_keysOf.find(conn);
    return keys != m_keysOf.end() ? keys->second.size() : 0;
}

void ClientRegistry::put(const std::string& key, const ItemClient& item) {
    erase(key);
    m_byKey[key] = item;
    m_keysOf[item.conn.get()].insert(key);
}

bool ClientRegistry::erase(const std::string& key) {
    auto found = m_byKey.find(key);
    if (found == m_byKey.end()) {
        return false;
    }
    auto keys = m_keysOf.find(found->second.conn.get());
    if (keys != m_keysOf.end()) {
        keys->second.erase(key);
        if (keys->second.empty()) {
            m_keysOf.erase(keys);
        }
    }
    m_byKey.erase(found);
    return true;
}

std::vector<ItemClient> ClientRegistry::pairsOf(const Connection* conn) const {
    std::vector<ItemClient> items;
    auto keys = m_keysOf.find(conn);
    if (keys != m_keysOf.end()) {
        for (const std::string& key : keys->second) {
            items.push_back(m_byKey.at(key));
        }
    }
    return items;
}

std::vector<ItemClient> ClientRegistry::takeAllOf(const Connection* conn) {
    std::vector<ItemClient> items;
    auto keys = m_keysOf.find(conn);
    if (keys == m_keysOf.end()) {
        return items;
    }
    for (const std::string& key : keys->second) {
        auto found = m_byKey.find(key);
        items.push_back(found->second);
        m_byKey.erase(found);
    }
    m_keysOf.erase(keys);
    return items;
}

}  // namespace vexa
