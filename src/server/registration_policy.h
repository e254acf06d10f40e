// Who may register a pair: the server's registration policy and the launch
// tokens it has handed out.
//
//   protect   (the default) a pair registered with a valid token can be
//             replaced only by a registration that carries one too; any other
//             registration is taken, a later one replacing an earlier;
//   launched  only registrations with a valid token are taken;
//   open      every registration is taken, a later one replacing an earlier.
//
// Whatever the policy, a message acts only on pairs registered on its own
// connection (the server's loop sees to that).
#ifndef VEXA_SERVER_REGISTRATION_POLICY_H
#define VEXA_SERVER_REGISTRATION_POLICY_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "comm/thread_util.h"
#include "core/launch_token.h"

namespace vexa {

enum class RegistrationPolicy { kProtect, kLaunched, kOpen };

constexpr char kRegistrationVariable[] = "VEXA_REGISTRATION";

// VEXA_REGISTRATION: "protect" (also unset or empty), "launched" or "open".
// Any other text gives protect and is returned in *unknown (else "").
RegistrationPolicy registration_policy_from_environment(std::string* unknown);
const char* registration_policy_name(RegistrationPolicy policy);

// A registration body as it came: the pid, and a token when the body is the
// pid followed by exactly kLaunchTokenLength bytes. The host is shown only
// hostLength bytes: the pid, as without a token.
struct RegistrationBody {
    int32_t hostLength = 0;
    const char* token = nullptr;  // null: none
};
RegistrationBody split_registration_body(const char* data, int32_t length);

// Why a registration is refused, or nullptr when it is taken.
// `tokenValid`: it carries a token this server handed out; `replacesLaunched`:
// the pair is held by a registration that carried one.
const char* refusal_reason(RegistrationPolicy policy, bool tokenValid, bool replacesLaunched);

// The tokens of one server's launches: each stays valid until the server
// ends. Any thread may issue or check.
class LaunchTokens {
  public:
    // A fresh token, remembered; "" when the random source failed.
    std::string issue() EXCLUDES(m_lock);
    // Compared with every token in constant time: how much of a guess is
    // right does not show in how long the check takes.
    bool valid(const char* token) const EXCLUDES(m_lock);

  private:
    mutable comm::Lock m_lock;
    std::vector<std::string> m_tokens GUARDED_BY(m_lock);
};

}  // namespace vexa

#endif  // VEXA_SERVER_REGISTRATION_POLICY_H
