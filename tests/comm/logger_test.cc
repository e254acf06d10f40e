#include "comm/logger.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/test_support.h"

namespace {

using vexa_test::log_texts;
using vexa_test::read_file;
using vexa_test::read_lines;
using vexa_test::ScopedEnv;
using vexa_test::TempDir;
using vexa_test::write_file;

// "YYYY/MM/DD hh:mm:ss.mmm " followed by `text`. (No std::regex: GCC 12 warns
// falsely inside it in sanitizer builds.)
bool is_stamped(const std::string& line, const std::string& text) {
    const std::string shape = "dddd/dd/dd dd:dd:dd.ddd ";
    if (line.size() != shape.size() + text.size())
        return false;
    for (size_t i = 0; i < shape.size(); ++i) {
        bool digit = std::isdigit(static_cast<unsigned char>(line[i])) != 0;
        if (shape[i] == 'd' ? !digit : line[i] != shape[i])
            return false;
    }
    return line.compare(shape.size(), std::string::npos, text) == 0;
}

// Runs first in this binary: the default logger is made once per process.
TEST(CommLog, FirstUseCreatesTheLogDirectoryAndQzcommLog) {
    TempDir tmp;
    std::string dir = tmp.path() + "fresh/";
    ScopedEnv logPath("QZ_LOGPATH", dir.c_str());
    comm::comm_log("hello %d", 42);
    struct stat st {};
    ASSERT_EQ(stat(dir.c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    // The directory is made with mode 0600; only root can still create the file in it.
    if (geteuid() == 0) {
        EXPECT_EQ(log_texts(dir + "qzcomm.log"), std::vector<std::string>{"hello 42"});
    }
}

TEST(Logger, LineIsLocalStampBlankTextNewline) {
    TempDir tmp;
    std::string path = tmp.file("a.log");
    {
        comm::Logger logger(path, true, true, true, 0);
        logger.writeLine("plain text");
        logger.writeFormat("n=%d s=%s", 7, "x");
    }
    std::string content = read_file(path);
    std::vector<std::string> lines = read_lines(path);
    ASSERT_EQ(lines.size(), 2u) << content;
    EXPECT_TRUE(is_stamped(lines[0], "plain text")) << lines[0];
    EXPECT_TRUE(is_stamped(lines[1], "n=7 s=x")) << lines[1];
    EXPECT_EQ(content.back(), '\n');
}

TEST(Logger, QzLogPrintZeroMakesNoFile) {
    TempDir tmp;
    ScopedEnv print("QZ_LOGPRINT", "0");
    std::string path = tmp.file("silent.log");
    comm::Logger logger(path);
    logger.writeLine("ignored");
    logger.writeFormat("%s", "ignored");
    EXPECT_EQ(logger.fileHandle(), nullptr);
    EXPECT_NE(access(path.c_str(), F_OK), 0);
}

TEST(Logger, SizeLimitIsCheckedOnlyAtOpening) {
    TempDir tmp;
    std::string big = tmp.file("big.log");
    std::string small = tmp.file("small.log");
    write_file(big, std::string(120, 'x'));
    write_file(small, std::string(50, 'y') + "\n");
    {
        comm::Logger bigLogger(big, true, true, true, 100);
        comm::Logger smallLogger(small, true, true, true, 100);
        bigLogger.writeLine("fresh");
        smallLogger.writeLine("appended");
        // Growing past the limit while open cuts nothing.
        for (int i = 0; i < 10; ++i)
            smallLogger.writeLine("more");
    }
    EXPECT_EQ(log_texts(big), std::vector<std::string>{"fresh"});
    std::vector<std::string> lines = read_lines(small);
    ASSERT_EQ(lines.size(), 12u);
    EXPECT_EQ(lines[0], std::string(50, 'y'));
    // The next opening discards the oversized file.
    comm::Logger reopened(small, true, true, true, 100);
    reopened.writeLine("again");
    EXPECT_EQ(log_texts(small), std::vector<std::string>{"again"});
}

TEST(Logger, EnvironmentSizeLimitZeroOrNegativeNeverDeletes) {
    TempDir tmp;
    for (const char* value : {"0", "-5"}) {
        ScopedEnv maxSize("QZ_LOGMAXSIZE", value);
        std::string path = tmp.file(std::string("keep") + value + ".log");
        write_file(path, std::string(64, 'k') + "\n");
        comm::Logger logger(path);
        logger.writeLine("added");
        EXPECT_EQ(read_lines(path).size(), 2u) << value;
    }
    ScopedEnv maxSize("QZ_LOGMAXSIZE", "10");
    std::string path = tmp.file("cut.log");
    write_file(path, std::string(64, 'k') + "\n");
    comm::Logger logger(path);
    logger.writeLine("only");
    EXPECT_EQ(log_texts(path), std::vector<std::string>{"only"});
}

TEST(Logger, OnlyZeroTurnsAppendOff) {
    TempDir tmp;
    std::string path = tmp.file("append.log");
    write_file(path, "old\n");
    {
        ScopedEnv append("QZ_LOGAPPEND", "false");  // any text but "0" is true
        comm::Logger logger(path);
        logger.writeLine("new");
    }
    EXPECT_EQ(read_lines(path).size(), 2u);
    {
        ScopedEnv append("QZ_LOGAPPEND", "0");
        comm::Logger logger(path);
        logger.writeLine("truncated");
    }
    EXPECT_EQ(log_texts(path), std::vector<std::string>{"truncated"});
}

TEST(Logger, OneFlushFlagForAllLoggers) {
    TempDir tmp;
    std::string first = tmp.file("first.log");
    comm::Logger quiet(first, true, true, false, 0);
    EXPECT_FALSE(comm::log_flush_enabled());
    quiet.writeLine("buffered");
    EXPECT_EQ(read_file(first), "");
    // Opening another logger with flushing on turns it back on for the first too.
    comm::Logger loud(tmp.file("second.log"), true, true, true, 0);
    EXPECT_TRUE(comm::log_flush_enabled());
    quiet.writeLine("flushed");
    EXPECT_EQ(log_texts(first), (std::vector<std::string>{"buffered", "flushed"}));
}

TEST(Logger, FormattedTextIsCutAt5118Characters) {
    TempDir tmp;
    std::string path = tmp.file("long.log");
    {
        comm::Logger logger(path, true, true, true, 0);
        logger.writeFormat("%s", std::string(6000, 'z').c_str());
    }
    std::vector<std::string> texts = log_texts(path);
    ASSERT_EQ(texts.size(), 1u);
    EXPECT_EQ(texts[0], std::string(5118, 'z'));
}

TEST(Logger, ConcurrentWritersNeverMixLines) {
    TempDir tmp;
    std::string path = tmp.file("threads.log");
    const int kThreads = 4;
    const int kLines = 200;
    {
        comm::Logger logger(path, true, true, true, 0);
        std::vector<std::thread> writers;
        for (int t = 0; t < kThreads; ++t) {
            writers.emplace_back([&logger, t] {
                for (int i = 0; i < kLines; ++i) {
                    if (i % 2 == 0) {
                        logger.writeFormat("writer %d line %d %s", t, i, "abcdefghij");
                    } else {
                        logger.writeLine("writer " + std::to_string(t) + " line " +
                                         std::to_string(i) + " abcdefghij");
                    }
                }
            });
        }
        for (std::thread& w : writers)
            w.join();
    }
    std::vector<std::string> texts = log_texts(path);
    ASSERT_EQ(texts.size(), static_cast<size_t>(kThreads * kLines));
    for (const std::string& text : texts) {
        int writer = -1;
        int line = -1;
        char tail[16] = {};
        ASSERT_EQ(std::sscanf(text.c_str(), "writer %d line %d %15s", &writer, &line, tail), 3)
            << text;
        ASSERT_EQ(text, "writer " + std::to_string(writer) + " line " + std::to_string(line) +
                            " abcdefghij");
    }
}

}  // namespace
