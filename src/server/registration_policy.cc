#include "server/registration_policy.h"

#include "comm/env_path.h"

namespace vexa {

RegistrationPolicy registration_policy_from_environment(std::string* unknown) {
    const std::string value = comm::env_get_string(kRegistrationVariable);
    unknown->clear();
    if (value == "launched") {
        return RegistrationPolicy::kLaunched;
    }
    if (value == "open") {
        return RegistrationPolicy::kOpen;
    }
    if (!value.empty() && value != "protect") {
        *unknown = value;
    }
    return RegistrationPolicy::kProtect;
}

const char* registration_policy_name(RegistrationPolicy policy) {
    switch (policy) {
        case RegistrationPolicy::kLaunched:
            return "launched";
        case RegistrationPolicy::kOpen:
            return "open";
        case RegistrationPolicy::kProtect:
            break;
    }
    return "protect";
}

RegistrationBody split_registration_body(const char* data, int32_t length) {
    RegistrationBody body;
    body.hostLength = length;
    constexpr int32_t kPidLength = 4;
    if (data != nullptr && length == kPidLength + static_cast<int32_t>(kLaunchTokenLength)) {
        body.hostLength = kPidLength;
        body.token = data + kPidLength;
    }
    return body;
}

const char* refusal_reason(RegistrationPolicy policy, bool tokenValid, bool replacesLaunched) {
    if (tokenValid || policy == RegistrationPolicy::kOpen) {
        return nullptr;
    }
    if (policy == RegistrationPolicy::kLaunched) {
        return "no valid launch token";
    }
    return replacesLaunched ? "the pair belongs to a launched test" : nullptr;
}

std::string LaunchTokens::issue() {
    std::string token = make_launch_token();
    if (!token.empty()) {
        comm::LockGuard guard(m_lock);
        m_tokens.push_back(token);
    }
    return token;
}

bool LaunchTokens::valid(const char* token) const {
    if (token == nullptr) {
        return false;
    }
    comm::LockGuard guard(m_lock);
    bool found = false;
    for (const std::string& known : m_tokens) {
        unsigned char difference = 0;
        for (size_t i = 0; i < kLaunchTokenLength; ++i) {
            difference |= static_cast<unsigned char>(known[i] ^ token[i]);
        }
        found |= difference == 0;
    }
    return found;
}

}  // namespace vexa
