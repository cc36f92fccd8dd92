#include <gtest/gtest.h>

#include <string>

#include "io/SFCommandParser.h"
#include "support/TestSupport.h"

namespace {
std::string Header(std::string command) {
    std::string header;
    SFCommandParser::GetCommandHeader(command, header);
    return header;
}
}  // namespace

TEST(SFCommandParser, SplitsHeaderAndParameterAndTrimsLineEnds) {
    EXPECT_EQ("JXT+GSENSOR", Header("JXT+GSENSOR=1,2"));
    EXPECT_EQ("JXT+CPVERSION", Header("JXT+CPVERSION?"));
    EXPECT_EQ("A?B", Header("A?B=C"));
    EXPECT_EQ("JXT+X\r\n", Header("JXT+X\r\n"));
    EXPECT_EQ("", Header(""));
    EXPECT_EQ(11, SFCommandParser::FindEqualSymbol("JXT+GSENSOR=1,2"));
    EXPECT_EQ(3, SFCommandParser::FindPlusSymbol("JXT+GSENSOR=1,2"));
    EXPECT_EQ(-1, SFCommandParser::FindColonSymbol(nullptr));

    std::string parameter = "untouched";
    EXPECT_FALSE(SFCommandParser::GetCommandParamer("JXT+CPVERSION?", parameter));
    EXPECT_EQ("untouched", parameter);
    EXPECT_TRUE(SFCommandParser::GetCommandParamer("JXT+A=B=C", parameter));
    EXPECT_EQ("B=C", parameter);

    // Only the string form trims line ends.
    std::string text = "JXT+X\r\n\r";
    EXPECT_TRUE(SFCommandParser::RemoveEnterSymbol(text));
    EXPECT_EQ("JXT+X", text);
    std::string ends = "\r\n";
    SFCommandParser::RemoveEnterSymbol(ends);
    EXPECT_EQ("", ends);

    char buffer[] = "JXT+X\r\n";
    EXPECT_TRUE(SFCommandParser::RemoveEnterSymbol(buffer));
    EXPECT_STREQ("JXT+X\r\n", buffer);
}

TEST(SFCommandParser, VendorTableFindsTheOwnerByText) {
    vorn_test::LogCapture log;
    // Two rows with equal text: the lower address wins.
    static char rows[2][16] = {"JXT+DUP", "JXT+DUP"};
    static const char gsensor[] = "JXT+GSENSOR";
    SFCommandParser::AddVendorCmd(rows[1], 3);
    SFCommandParser::AddVendorCmd(rows[0], 1);
    SFCommandParser::AddVendorCmd(gsensor, 2);
    SFCommandParser::AddVendorCmd(gsensor, 3);
    SFCommandParser::AddVendorCmd(std::string("JXT+COPY"), 1);

    EXPECT_EQ(1, SFCommandParser::GetServiceIdByVendorCmd("JXT+DUP?", 8));
    EXPECT_EQ(rows[0], SFCommandParser::FindVendorCmd("JXT+DUP", 7));
    EXPECT_EQ(2, SFCommandParser::GetServiceIdByVendorCmd("JXT+GSENSOR=1,2", 15));
    EXPECT_EQ(1, SFCommandParser::GetServiceIdByVendorCmd("JXT+COPY", 8));
    EXPECT_EQ(-1, SFCommandParser::GetServiceIdByVendorCmd("JXT+UNKNOWN", 11));
    EXPECT_TRUE(log.Has("unsupported vendor command(JXT+UNKNOWN) in vendor list table",
                        "GetServiceIdByVendorCmd", 4));

    char out[3172];
    int length = 0;
    ASSERT_TRUE(SFCommandParser::ProductCmd2VendorCmd("JXT+GSENSOR=1,2", 15, out, length));
    EXPECT_EQ("JXT+GSENSOR=1,2", std::string(out, length));
    ASSERT_TRUE(SFCommandParser::ProductCmd2VendorCmd("JXT+DUP?x", 9, out, length));
    EXPECT_EQ("JXT+DUP", std::string(out, length));
    std::string huge = "JXT+GSENSOR=" + std::string(5000, '1');
    ASSERT_TRUE(SFCommandParser::ProductCmd2VendorCmd(huge.c_str(), huge.size(), out, length));
    EXPECT_EQ(3171, length);
    EXPECT_FALSE(SFCommandParser::ProductCmd2VendorCmd("JXT+NONE", 8, out, length));

    SFCommandParser::DumpVendorCmd();
    EXPECT_EQ(2, log.Count("vendor command(JXT+DUP)", "DumpVendorCmd", 1));

    // Once released the table is gone, and every use is a harmless no-op.
    SFCommandParser::Release();
    SFCommandParser::AddVendorCmd(gsensor, 2);
    EXPECT_EQ(nullptr, SFCommandParser::FindVendorCmd("JXT+GSENSOR", 11));
    EXPECT_EQ(-1, SFCommandParser::GetServiceIdByVendorCmd("JXT+GSENSOR", 11));
}
