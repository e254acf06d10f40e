#include "comm/logger.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "comm/file_util.h"
#include "support/test_support.h"

namespace {

using vexa_test::log_texts;
using vexa_test::read_lines;
using vexa_test::ScopedEnv;
using vexa_test::TempDir;
using vexa_test::write_file;
using Lines = std::vector<std::string>;

// Runs first in this binary: the default logger is made once per process.
TEST(CommLog, FirstUseCreatesTheLogDirectoryAndQzcommLog) {
    TempDir tmp;
    const std::string dir = tmp.path() + "fresh/";
    ScopedEnv logPath("QZ_LOGPATH", dir.c_str());
    comm::comm_log("hello %d", 42);
    struct stat st {};
    ASSERT_EQ(stat(dir.c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    // The directory is made with mode 0600; only root can still create the file in it.
    if (geteuid() == 0) {
        EXPECT_EQ(log_texts(dir + "qzcomm.log"), Lines{"hello 42"});
    }
}

// A line is the local stamp, a blank, the text and a newline; a formatted
// text keeps at most 5118 characters.
TEST(Logger, LineIsLocalStampBlankTextNewline) {
    TempDir tmp;
    const std::string path = tmp.file("a.log");
    {
        comm::Logger logger(path, true, true, true, 0);
        logger.writeLine("plain text");
        logger.writeFormat("n=%d s=%s", 7, "x");
        logger.writeFormat("%s", std::string(6000, 'z').c_str());
    }
    const std::string stamp = "9999/99/99 99:99:99.999 ";
    EXPECT_TRUE(vexa_test::has_shape(
        vexa_test::read_file(path),
        stamp + "plain text\n" + stamp + "n=7 s=x\n" + stamp + std::string(5118, 'z') + "\n"));
}

// Only "0" turns a switch off; with printing off the file is left alone.
TEST(Logger, OnlyZeroTurnsAppendingOrPrintingOff) {
    TempDir tmp;
    const struct {
        const char* name;
        const char* value;
        size_t lines;
    } cases[] = {{"QZ_LOGAPPEND", "false", 3}, {"QZ_LOGAPPEND", "0", 2}, {"QZ_LOGPRINT", "0", 1}};
    int n = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.name) + "=" + c.value);
        ScopedEnv env(c.name, c.value);
        const std::string path = tmp.file(std::to_string(n++) + ".log");
        write_file(path, "old\n");
        {
            comm::Logger logger(path);
            logger.writeLine("new");
            logger.writeFormat("%s", "new");
            EXPECT_EQ(logger.fileHandle() == nullptr, c.lines == 1);
        }
        EXPECT_EQ(read_lines(path).size(), c.lines);
    }
}

// A file at or above the limit is discarded when the logger opens it, and
// the file starts afresh as soon as the lines written bring it to the limit.
TEST(Logger, SizeLimitStartsTheFileAfresh) {
    TempDir tmp;
    const struct {
        const char* envLimit;  // null: the limit 100 is given to the constructor
        size_t size;
        bool discarded;
    } cases[] = {{nullptr, 120, true}, {nullptr, 100, true}, {nullptr, 51, false},
                 {"60", 65, true},     {"0", 65, false},     {"-5", 65, false}};
    int n = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(n);
        ScopedEnv maxSize("QZ_LOGMAXSIZE", c.envLimit);
        const std::string path = tmp.file(std::to_string(n++) + ".log");
        write_file(path, std::string(c.size - 1, 'y') + "\n");
        std::unique_ptr<comm::Logger> logger(c.envLimit != nullptr
                                                 ? new comm::Logger(path)
                                                 : new comm::Logger(path, true, true, true, 100));
        logger->writeLine("more");
        EXPECT_EQ(read_lines(path).size(), c.discarded ? 1u : 2u);
    }
    // "YYYY/MM/DD hh:mm:ss.mmm " is 24 bytes: a 75-byte text brings the file
    // to exactly 100, and it starts afresh; the next line is its first.
    const std::string path = tmp.file("running.log");
    comm::Logger logger(path, true, true, true, 100);
    logger.writeLine(std::string(75, 'x'));
    EXPECT_EQ(comm::file_size(path), 0);
    for (int i = 0; i < 10; ++i)
        logger.writeLine("line " + std::to_string(i));
    EXPECT_LT(comm::file_size(path), 100);
    EXPECT_EQ(log_texts(path).back(), "line 9");
}

TEST(Logger, OneFlushFlagForAllLoggers) {
    TempDir tmp;
    const std::string first = tmp.file("first.log");
    comm::Logger quiet(first, true, true, false, 0);
    EXPECT_FALSE(comm::log_flush_enabled());
    quiet.writeLine("buffered");
    EXPECT_EQ(vexa_test::read_file(first), "");
    // Opening another logger with flushing on turns it back on for the first too.
    comm::Logger loud(tmp.file("second.log"), true, true, true, 0);
    EXPECT_TRUE(comm::log_flush_enabled());
    quiet.writeLine("flushed");
    EXPECT_EQ(log_texts(first), (Lines{"buffered", "flushed"}));
}

TEST(Logger, ConcurrentWritersNeverMixLines) {
    TempDir tmp;
    const std::string path = tmp.file("threads.log");
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
    const Lines texts = log_texts(path);
    ASSERT_EQ(texts.size(), static_cast<size_t>(kThreads * kLines));
    for (const std::string& text : texts) {
        int writer = -1;
        int line = -1;
        ASSERT_EQ(std::sscanf(text.c_str(), "writer %d line %d", &writer, &line), 2) << text;
        ASSERT_EQ(text, "writer " + std::to_string(writer) + " line " + std::to_string(line) +
                            " abcdefghij");
    }
}

}  // namespace
