// The library's counted frame reader with a SocketUtil and a log file of its
// own, filling a body buffer prefilled with 0x7f, so that a missing NUL shows.
#ifndef VEXA_TESTS_SUPPORT_FRAME_READER_H
#define VEXA_TESTS_SUPPORT_FRAME_READER_H

#include <string>
#include <vector>

#include "comm/logger.h"
#include "core/ipc_message.h"
#include "net/socket_util.h"
#include "support/test_support.h"

namespace vexa_test {

class FrameReader {
  public:
    explicit FrameReader(const std::string& logPath)
        : path(logPath), logger(logPath, true, true, true, 0), m_buffer(IPC_MAX_DATA_LEN, '\x7f') {
        util.mysock_init_with_logger(&logger);
        msg.data = m_buffer.data();
    }
    bool read(int fd) { return vexa::readMsgFromSocket(&util, fd, &msg, &logger, &noStop); }
    // The log's texts after the init line.
    std::vector<std::string> lines() const {
        std::vector<std::string> texts = log_texts(path);
        if (!texts.empty()) {
            texts.erase(texts.begin());
        }
        return texts;
    }

    std::string path;
    comm::Logger logger;
    vexa::SocketUtil util;
    vexa::StopFlag noStop{0};
    vexa::IPCMessage msg{};

  private:
    std::vector<char> m_buffer;
};

}  // namespace vexa_test

#endif  // VEXA_TESTS_SUPPORT_FRAME_READER_H
