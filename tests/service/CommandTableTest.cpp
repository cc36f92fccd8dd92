// The command table, intake refusals, response data and the reply record of a service.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "support/TestSupport.h"
#include "vorn_core.h"

using namespace vorn_test;

namespace {

SFRespData* AnswerA(SFMessage*, void*) { return new SFRespData(0, "A", 1, DATA_RESPONSE); }
SFRespData* AnswerB(SFMessage*, void*) { return new SFRespData(0, "B", 1, DATA_RESPONSE); }
SFRespData* AnswerNothing(SFMessage*, void*) { return nullptr; }

// A service with no configuration (no context): only the rows a test inserts.
class BareService : public SFService {
public:
    explicit BareService(int id = 9) : SFService(nullptr, id) {}
    ~BareService() override { StopServiceThreads(); }
};

// Hosts are compiled against SFService's fields: what the engine keeps beside them must not
// move one (64-bit builds).
class LayoutProbe : public BareService {
public:
    std::vector<long> Offsets() const {
        const char* base = reinterpret_cast<const char*>(static_cast<const SFService*>(this));
        std::vector<long> at;
        for (const void* field :
             {(const void*)&m_pMonitorThread, (const void*)&m_tvReqStart,
              (const void*)&m_mtxPipeWrite, (const void*)&m_reqQueue, (const void*)&m_respQueue,
              (const void*)&m_nMsgPipeR, (const void*)&m_bInit, (const void*)&m_pCurReqMsg,
              (const void*)&m_strServiceName, (const void*)&m_cmdList, (const void*)&m_pResponse,
              (const void*)&m_bTimeoutHandling, (const void*)&m_pDllParser})
            at.push_back(static_cast<const char*>(field) - base);
        return at;
    }
};

TEST(ServiceLayout, SFServiceKeepsItsSizeAndFieldOffsets) {
    if (sizeof(void*) != 8) GTEST_SKIP() << "offsets recorded for 64-bit builds";
    EXPECT_EQ(576u, sizeof(SFService));
    const std::vector<long> expected{8, 32, 48, 88, 264, 440, 448, 456, 464, 504, 536, 552, 560};
    EXPECT_EQ(expected, LayoutProbe().Offsets());
}

class CommandTable : public ::testing::Test {
protected:
    LogCapture log;
};

TEST_F(CommandTable, RowsNeedingAMissingHalFunctionOrTooLongANameAreRefused) {
    BareService s;
    s.insert(DATA_REQUEST, 1, "JXT+T_NOHAL", nullptr, nullptr, "f", true);
    EXPECT_TRUE(log.Has("UNKNOWN_SERVICEcommand(JXT+T_NOHAL) intert fail!!!", "insert", 4));
    const std::string longName(128, 'N');
    s.insert(DATA_REQUEST, 1, longName.c_str(), AnswerA, nullptr, nullptr, false);
    s.insert(DATA_REQUEST, 1, "JXT+T_OK", AnswerA, nullptr, std::string(300, 'F').c_str(), false);
    EXPECT_EQ(2, log.CountContaining("must be shorter than 128 bytes"));
    EXPECT_TRUE(s.m_cmdList.empty());
    const std::string longest(127, 'M');
    s.insert(DATA_REQUEST, 1, longest.c_str(), AnswerA, nullptr, nullptr, false);
    ASSERT_EQ(1u, s.m_cmdList.size());
    EXPECT_EQ(longest, s.m_cmdList.front()->command);
}

TEST_F(CommandTable, FirstRowOfAGivenNameWins) {
    BareService s;
    s.insert(DATA_REQUEST, 1, "JXT+T_DUP", AnswerA, nullptr, nullptr, false);
    s.insert(DATA_REQUEST, 1, "JXT+T_DUP", AnswerB, nullptr, nullptr, false);
    SFServiceManager::Initialize(nullptr);
    SFServiceManager::GetServiceManager()->AddService(9, &s);
    sf_response resp{};
    SFData cmd("JXT+T_DUP=1", 11, DATA_REQUEST);
    EXPECT_TRUE(s.HandleInternalRequest(&cmd, &resp, false));
    EXPECT_EQ(std::string("A"), std::string(resp.text, resp.length));
    // A handler that answers nothing leaves the record as it was.
    s.insert(DATA_REQUEST, 1, "JXT+T_NONE", AnswerNothing, nullptr, nullptr, false);
    SFData none("JXT+T_NONE", 10, DATA_REQUEST);
    resp.length = 99;
    EXPECT_TRUE(s.HandleInternalRequest(&none, &resp, false));
    EXPECT_EQ(99u, resp.length);
    EXPECT_TRUE(log.Has("data is empty", "HandleInternalRequest", 1));
    SFServiceManager::GetServiceManager()->m_services.clear();  // the test owns the service
    SFServiceManager::Release();
}

TEST_F(CommandTable, IntakeRefusesEmptyAndUnknownCommands) {
    BareService s;
    EXPECT_FALSE(s.OnHandleCommand(nullptr, 3));
    EXPECT_FALSE(s.OnHandleCommand("JXT", 0));
    EXPECT_EQ(2, log.Count("UNKNOWN_SERVICEEmpty command to handle nothing!!!", "OnHandleCommand"));
    EXPECT_FALSE(s.OnHandleCommand("JXT+NOT_HERE=1", 14));
    EXPECT_TRUE(log.Has("UNKNOWN_SERVICEUnsupport command()!!!", "OnHandleCommand", 4));
    const std::string huge = "JXT+T_OK=" + std::string(30000, 'x');
    s.insert(DATA_REQUEST, 1, "JXT+T_OK", AnswerA, nullptr, nullptr, false);
    EXPECT_FALSE(s.OnHandleCommand(huge.c_str(), static_cast<int>(huge.size())));
}

TEST(ReplyRecord, OnHandleResponseCutsAndClears) {
    BareService s;
    auto out = std::make_unique<sf_response>();
    const std::string big(5000, 'z');
    EXPECT_TRUE(s.OnHandleResponse(big.c_str(), static_cast<int>(big.size()), out.get()));
    EXPECT_EQ(3171u, out->length);
    EXPECT_EQ('\0', out->text[3171]);
    EXPECT_TRUE(s.OnHandleResponse("abc", 3, out.get()));
    EXPECT_EQ(3u, out->length);
    EXPECT_TRUE(s.OnHandleResponse(true, nullptr, out.get()));
    EXPECT_EQ(3u, out->length);
    EXPECT_EQ('\0', out->text[0]);
    response_info info{};
    std::memset(info.bytes, 'i', sizeof info.bytes);
    out->length = 9999;
    EXPECT_TRUE(s.OnHandleResponse(false, &info, out.get()));
    EXPECT_EQ(3171u, out->length);
    EXPECT_EQ('i', out->text[3170]);
}

TEST_F(CommandTable, QueueRefusesNullAndBadDirections) {
    BareService s;
    EXPECT_EQ(1008, s.EnQueue(nullptr));
    EXPECT_TRUE(log.Has("UNKNOWN_SERVICEMessage enqueue fail: message is nullptr", "EnQueue", 4));
    SFMessage odd(static_cast<MsgDirection>(3), nullptr, nullptr, 0, nullptr, nullptr);
    EXPECT_EQ(1008, s.EnQueue(&odd));
    EXPECT_TRUE(log.Has("UNKNOWN_SERVICEmessage direction error", "EnQueue", 4));
}

TEST_F(CommandTable, LifecycleLinesAndRepeatedInitialisation) {
    {
        BareService s(42);
        EXPECT_STREQ("UNKNOWN_SERVICE", s.GetServiceName());
        EXPECT_TRUE(log.Has("[UNKNOWN_SERVICE] start.", "Init", 2));
        EXPECT_TRUE(log.Has("[UNKNOWN_SERVICE] end.", "Init", 2));
        EXPECT_EQ(1001, s.Init());
        EXPECT_TRUE(log.Has("UNKNOWN_SERVICE already initialized", "Init", 1));
        s.StopServiceThreads();
        EXPECT_EQ(0, s.OpenMessagePipe());
        EXPECT_TRUE(log.Has("UNKNOWN_SERVICE Open command pipe again(m_nMsgPipeR)"));
        EXPECT_TRUE(log.Has("UNKNOWN_SERVICE Open command pipe again(m_nMsgPipeW)"));
        EXPECT_NE(-1, s.m_nMsgPipeR.load());
    }
    EXPECT_TRUE(log.Has("Stop error: m_nMsgPipeR is -1", "~SFService", 3));
    EXPECT_TRUE(log.Has("Stop error: m_nMsgPipeW is -1", "~SFService", 3));
}

}  // namespace
