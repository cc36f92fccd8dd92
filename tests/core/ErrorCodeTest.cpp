#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "core/ErrorCode.h"

namespace {
std::string Text(int code) {
    char out[256] = {0};
    GetStringByErrCode(code, out);
    return out;
}
}  // namespace

TEST(ErrorCode, LibraryCodesUseTheirOwnTexts) {
    EXPECT_EQ("1001:Normal error\r\n", Text(1001));
    EXPECT_EQ("1003:Unsupport command\r\n", Text(1003));
    EXPECT_EQ("1008:The parameter is invalid\r\n", Text(1008));
    EXPECT_EQ("1009:Out of range\r\n", Text(1009));
}

TEST(ErrorCode, SystemRangeUsesStrerrorUpToOneThousand) {
    EXPECT_EQ(std::string("1:") + strerror(1) + "\r\n", Text(1));
    EXPECT_EQ("2:No such file or directory\r\n", Text(2));
    EXPECT_EQ(std::string("1000:") + strerror(1000) + "\r\n", Text(1000));
}

TEST(ErrorCode, EverythingElseIsUnknown) {
    EXPECT_EQ("1010:Unknow error\r\n", Text(1010));
    EXPECT_EQ("1011:Unknow error\r\n", Text(1011));
    EXPECT_EQ("99999:Unknow error\r\n", Text(99999));
    EXPECT_EQ("-1:Unknow error\r\n", Text(-1));
    EXPECT_EQ("-5:Unknow error\r\n", Text(-5));
}

TEST(ErrorCode, ZeroAndNullBufferWriteNothing) {
    EXPECT_EQ("", Text(0));
    GetStringByErrCode(1001, nullptr);
}
