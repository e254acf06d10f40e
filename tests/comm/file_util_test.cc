#include "comm/file_util.h"

#include <unistd.h>

#include <algorithm>

#include <gtest/gtest.h>

#include "support/test_support.h"

namespace {

using vexa_test::read_file;
using vexa_test::write_file;

// The wrappers of stdio and stat: only what they add is tested. A read that
// fails leaves the output alone; a write replaces the whole file.
TEST(FileUtil, FailedReadsLeaveTheOutputAlone) {
    vexa_test::TempDir tmp;
    const std::string path = tmp.file("data.bin");
    const std::string binary("a\0b\r\n\xff", 6);
    ASSERT_TRUE(comm::file_write_string(path, "a longer text than the next one"));
    ASSERT_TRUE(comm::file_write(path, binary.data(), 6));
    std::string out = "old";
    ASSERT_TRUE(comm::file_read_all(path, out));
    EXPECT_EQ(out, binary);
    char buf[16] = {};
    EXPECT_EQ(comm::file_read(path, buf, 4), 4);
    EXPECT_EQ(comm::file_read(tmp.file("missing"), buf, sizeof(buf)), 0);
    out = "old";
    EXPECT_FALSE(comm::file_read_all(tmp.file("missing"), out));
    EXPECT_FALSE(comm::file_read_all(tmp.path(), out));  // a directory cannot be read
    EXPECT_EQ(out, "old");
    EXPECT_FALSE(comm::file_write_string(tmp.file("no/dir"), "x"));
}

TEST(FileUtil, CopyLeavesTargetAloneWithoutSource) {
    vexa_test::TempDir tmp;
    std::string big(100000, '\0');  // several copy chunks
    for (size_t i = 0; i < big.size(); ++i)
        big[i] = static_cast<char>(i * 7 + i / 251);
    write_file(tmp.file("source"), big);
    write_file(tmp.file("target"), "previous content");
    ASSERT_TRUE(comm::file_copy(tmp.file("source"), tmp.file("target")));
    EXPECT_EQ(read_file(tmp.file("target")), big);

    write_file(tmp.file("target"), "untouched");
    EXPECT_FALSE(comm::file_copy(tmp.file("missing"), tmp.file("target")));
    EXPECT_EQ(read_file(tmp.file("target")), "untouched");
}

TEST(FileUtil, NameSplitsAtLastDotOfWholeText) {
    EXPECT_EQ(comm::file_base_name("a.tar.gz"), "a.tar");
    EXPECT_EQ(comm::file_extension("a.tar.gz"), "gz");
    EXPECT_EQ(comm::file_extension("noext"), "");
    EXPECT_EQ(comm::file_base_name("/a.b/c"), "/a");
}

TEST(FileUtil, ListFilesOnlyRegularFilesWithPathsUpTo999Bytes) {
    vexa_test::TempDir tmp;
    std::string dir = tmp.path();
    while (dir.size() < 900)
        dir += std::string(100, 'd') + "/";
    dir.resize(900);
    dir.back() = '/';
    ASSERT_TRUE(vexa_test::make_dirs(dir + "sub/"));
    const std::string fits(999 - dir.size(), 'f');
    write_file(dir + fits, "1");
    write_file(dir + fits + "g", "too long");
    write_file(dir + "two", "2");
    write_file(dir + "sub/deeper", "3");
    ASSERT_EQ(symlink((dir + "two").c_str(), (dir + "link").c_str()), 0);

    std::vector<std::string> out{"kept"};
    comm::list_files(dir, out);
    std::sort(out.begin() + 1, out.end());
    EXPECT_EQ(out, (std::vector<std::string>{"kept", dir + fits, dir + "two"}));
    comm::list_files(tmp.file("missing/"), out);
    EXPECT_EQ(out.size(), 3u);
}

}  // namespace
