// Launch tokens: the secret a server hands each test it launches, so that the
// test's registration can be told from one made by any other local process.
//
// A program gets its token in its environment (VEXA_LAUNCH_TOKEN), a test
// library inside the process, by the server address it is given. A client that
// has one appends it to its registration (9001) body after the 4-byte pid.
#ifndef VEXA_CORE_LAUNCH_TOKEN_H
#define VEXA_CORE_LAUNCH_TOKEN_H

#include <cstddef>
#include <string>

namespace vexa {

constexpr char kLaunchTokenVariable[] = "VEXA_LAUNCH_TOKEN";
// 128 bits from the system's random source, as lowercase hex digits.
constexpr size_t kLaunchTokenLength = 32;

// A fresh token; "" when the random source cannot be read. Needs no free
// descriptor where the system has getrandom (or, on Android, arc4random).
std::string make_launch_token();
// Exactly kLaunchTokenLength lowercase hex digits.
bool is_launch_token(const char* text, size_t length);

// The token of a test library loaded for the server at `servPath` (the address
// its run_test_so receives). Kept for the life of the process: each load
// replaces it, and every token of that server stays valid while it runs.
void set_in_process_token(const std::string& servPath, const std::string& token);
// The server at `servPath` is gone: its tokens mean nothing any more.
void forget_in_process_token(const std::string& servPath);
// What a client made for `servPath` presents: the in-process token for that
// address, else a well-formed VEXA_LAUNCH_TOKEN, else "".
std::string client_launch_token(const std::string& servPath);

}  // namespace vexa

#endif  // VEXA_CORE_LAUNCH_TOKEN_H
