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

TEST(ErrorCode, EachRangeHasItsText) {
    EXPECT_EQ("", Text(0));
    EXPECT_EQ(std::string("1:") + strerror(1) + "\r\n", Text(1));
    EXPECT_EQ(std::string("1000:") + strerror(1000) + "\r\n", Text(1000));
    EXPECT_EQ("1001:Normal error\r\n", Text(1001));
    EXPECT_EQ("1003:Unsupport command\r\n", Text(1003));
    EXPECT_EQ("1009:Out of range\r\n", Text(1009));
    for (int code : {1010, 1011, 99999, -1})
        EXPECT_EQ(std::to_string(code) + ":Unknow error\r\n", Text(code));
    GetStringByErrCode(1001, nullptr);
}
