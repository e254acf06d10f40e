#include "comm/string_util.h"

#include <sys/stat.h>

#include <gtest/gtest.h>

#include "support/test_support.h"

namespace {

using Pieces = std::vector<std::string>;
using KeyValues = std::map<std::string, std::string>;

TEST(StringUtil, PathPiecesAndAffixes) {
    EXPECT_EQ(comm::get_dir_part("a/b/c.txt"), "a/b/");
    EXPECT_EQ(comm::get_file_name("a/b/c.txt"), "c.txt");
    EXPECT_EQ(comm::get_dir_part("c.txt"), "");
    EXPECT_EQ(comm::get_file_name("a\\b/c\\d"), "d");
    EXPECT_EQ(comm::get_dir_part("a\\b/c\\d"), "a\\b/c\\");

    EXPECT_FALSE(comm::starts_with("abc", ""));
    EXPECT_FALSE(comm::ends_with("", ""));
    EXPECT_FALSE(comm::starts_with("ab", "abc"));
    std::string s = "tcp://tcp://x.so.so";
    comm::strip_prefix(s, "tcp://");
    comm::strip_suffix(s, ".so");
    EXPECT_EQ(s, "tcp://x.so");  // once only
}

TEST(StringUtil, ReplaceAllDoesNotRescan) {
    std::string s = "aaaa";
    comm::replace_all(s, "aa", "a");
    EXPECT_EQ(s, "aa");
    s = "a.a";
    comm::replace_all(s, "a", "aa");  // `to` holds `from`: must not loop
    EXPECT_EQ(s, "aa.aa");
    comm::replace_all(s, "", "x");
    comm::replace_all(s, "a", nullptr);
    EXPECT_EQ(s, "aa.aa");
    EXPECT_FALSE(comm::contains(s, ""));
}

TEST(StringUtil, ParseIntDoesNotValidate) {
    EXPECT_EQ(comm::parse_int("-0x1F"), -31);
    EXPECT_EQ(comm::parse_int("0x1g2"), 0x12);  // non-hex skipped
    EXPECT_EQ(comm::parse_int("0x"), 0);
    EXPECT_EQ(comm::parse_int("010"), 8);
    EXPECT_EQ(comm::parse_int("12a"), 169);  // 12 * 10 + ('a' - '0')
    EXPECT_EQ(comm::parse_int("4294967297"), 1);
    EXPECT_EQ(comm::parse_int("-"), 0);
    EXPECT_EQ(comm::parse_int(nullptr), 0);
}

TEST(StringUtil, SplitsKeepEmptyPieces) {
    Pieces out{"kept"};
    comm::split_by_string("tcp://:6000", ":", out, false);
    comm::split_by_string("127.0.0.1:", ":", out, false);
    comm::split_by_string("", ":", out, false);
    comm::split_by_string(" a ::  ", "::", out, true);
    comm::split_by_string("a:b", nullptr, out, false);
    EXPECT_EQ(out, (Pieces{"kept", "tcp", "//", "6000", "127.0.0.1", "", "", "a", "", "a:b"}));

    out.clear();
    comm::split_by_char("", ',', out, false);
    EXPECT_TRUE(out.empty());
    comm::split_by_char("a  b", ' ', out, true);
    comm::split_by_char("x,\t,", ',', out, true);
    EXPECT_EQ(out, (Pieces{"a", "", "b", "x", "", ""}));
}

TEST(StringUtil, ParseKeyValuesReadsCrLfOnly) {
    KeyValues kv;
    comm::parse_key_values("a=1\r\nb = 2 \r\na=3", kv);
    EXPECT_EQ(kv, (KeyValues{{"a", "3"}, {"b", "2"}}));

    kv.clear();
    comm::parse_key_values("a=1\nb = 2 \na=3", kv);
    EXPECT_EQ(kv, (KeyValues{{"a", "1\nb"}}));

    kv.clear();
    comm::parse_key_values("\r\nnoequals\r\n=x\r\nk=v=w\r\n\r\n", kv);
    EXPECT_EQ(kv, (KeyValues{{"", "x"}, {"k", "v"}}));
}

TEST(StringUtil, MakeDirUsesMode0600) {
    vexa_test::TempDir tmp;
    const std::string dir = tmp.file("made");
    EXPECT_FALSE(comm::is_dir_exist(dir));
    ASSERT_TRUE(comm::make_dir(dir));
    EXPECT_FALSE(comm::make_dir(dir));
    EXPECT_TRUE(comm::is_dir_exist(dir));

    mode_t mask = umask(0);
    umask(mask);
    struct stat st {};
    ASSERT_EQ(stat(dir.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600 & ~mask);
}

}  // namespace
