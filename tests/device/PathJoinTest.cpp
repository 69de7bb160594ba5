// Joining and standardizing paths, as the transfer calls and the listings use them.
#include <gtest/gtest.h>

#include "platform/PathJoin.h"

TEST(PathJoin, OneSeparatorBetweenTheParts)
{
    const struct {
        const char* a;
        const char* b;
        const char* joined;
    } rows[] = {
        {"/", "a", "/a"},
        {"./", "a", "./a"},
        {"", "a", "a"},
        {"a", "", "a"},
        {"", "", ""},
        {"/", "", "/"},
        {"/tmp/x", "a/b/c.db", "/tmp/x/a/b/c.db"},
        {"/tmp/x/", "/a/", "/tmp/x/a"},
        {"/tmp//x", "a//b", "/tmp/x/a/b"},
        {"Media", "/Lumen_Control/Lumen", "Media/Lumen_Control/Lumen"},
        {"a", "../b", "a/../b"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(platform::joinPath(QString::fromUtf8(row.a), QString::fromUtf8(row.b)), QString::fromUtf8(row.joined))
            << row.a << " + " << row.b;
}

TEST(PathJoin, StandardizedForms)
{
    const struct {
        const char* path;
        const char* standard;
    } rows[] = {
        {"/", "/"},     {"", ""},          {"//a/./b/", "/a/b"}, {"/a/../b", "/b"}, {"/..", "/"},
        {"./a", "a"},   {".", "."},        {"./", "."},          {"a/..", "a/.."}, {"Lumen_Control/", "Lumen_Control"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(platform::standardizePath(QString::fromUtf8(row.path)), QString::fromUtf8(row.standard)) << row.path;
}
