// What one peer may make a server hold, so that no local process can starve
// the tests of another. Each limit is a setting read when a server is made;
// the defaults are far beyond what a well-behaved test reaches.
#ifndef VEXA_SERVER_RESOURCE_LIMITS_H
#define VEXA_SERVER_RESOURCE_LIMITS_H

#include <cstddef>
#include <cstdint>

#include "comm/env_path.h"

namespace vexa {

struct ResourceLimits {
    // Bytes held in incomplete messages across all of a server's connections;
    // past it the connections holding the oldest incomplete messages end.
    static constexpr char kIncompleteBytesVariable[] = "VEXA_MAX_INCOMPLETE_BYTES";
    static constexpr int32_t kDefaultIncompleteBytes = 64 << 20;
    // Pairs one connection may register; one more ends it.
    static constexpr char kPairsVariable[] = "VEXA_MAX_PAIRS_PER_CONNECTION";
    static constexpr int32_t kDefaultPairs = 64;
    // How long one pass of the server's loop goes on serving connections
    // (callbacks included) while others wait.
    static constexpr char kPassBudgetVariable[] = "VEXA_PASS_BUDGET_MS";
    static constexpr int32_t kDefaultPassBudgetMs = 10;

    size_t maxIncompleteBytes = kDefaultIncompleteBytes;
    size_t maxPairsPerConnection = kDefaultPairs;
    int64_t passBudgetMs = kDefaultPassBudgetMs;

    // The settings; a value below 1 (or no number) gives the default.
    static ResourceLimits fromEnvironment() {
        ResourceLimits limits;
        limits.maxIncompleteBytes = setting(kIncompleteBytesVariable, kDefaultIncompleteBytes);
        limits.maxPairsPerConnection = setting(kPairsVariable, kDefaultPairs);
        limits.passBudgetMs = setting(kPassBudgetVariable, kDefaultPassBudgetMs);
        return limits;
    }

  private:
    static int32_t setting(const char* name, int32_t defaultValue) {
        const int32_t value = comm::env_get_int(name, defaultValue);
        return value > 0 ? value : defaultValue;
    }
};

}  // namespace vexa

#endif  // VEXA_SERVER_RESOURCE_LIMITS_H
