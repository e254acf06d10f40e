// The processes below vexahost, read from /proc: whether a test that
// registers was started by the tool, and ending a test that ran out of time.
// The tool only ever signals processes of its own tree, never a pid a peer
// merely claims.
#ifndef VEXAHOST_PROCESS_TREE_H
#define VEXAHOST_PROCESS_TREE_H

#include <cstdint>
#include <vector>

namespace vexahost {

// `pid`, its parent, and so on up to and including `ancestor`, following the
// parent of each process in /proc/<pid>/stat; empty when `pid` is not in
// `ancestor`'s tree or a step cannot be read.
std::vector<int32_t> line_to_ancestor(int32_t pid, int32_t ancestor);

// Sends `signo` to `root` and every process below it. Returns 0, or the errno
// of the first refusal (EPERM for a process of another user, such as a test
// run as root through su); processes that are already gone do not count.
int signal_tree(int32_t root, int signo);

}  // namespace vexahost

#endif  // VEXAHOST_PROCESS_TREE_H
