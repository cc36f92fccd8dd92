// The context wrapper and the service manager: refusals, ownership, singletons.
#include <gtest/gtest.h>

#include <vector>

#include "EngineHarness.h"

using namespace vorn_test;

namespace {

std::vector<int> g_destroyed;

class CountedService : public SFService {
public:
    explicit CountedService(int id) : SFService(nullptr, id), m_id(id) {}
    ~CountedService() override {
        StopServiceThreads();
        g_destroyed.push_back(m_id);
    }

private:
    int m_id;
};

TEST(ServiceManager, OwnsTheFirstServiceOfAnIdAndReleasesInIdOrder) {
    LogCapture log;
    g_destroyed.clear();
    SFServiceManager::Initialize(nullptr);
    SFServiceManager* manager = SFServiceManager::GetServiceManager();
    ASSERT_EQ(manager, g_pServiceMgr);
    auto* spare = new CountedService(2);
    manager->AddService(3, new CountedService(3));
    manager->AddService(1, new CountedService(1));
    manager->AddService(2, new CountedService(2));
    manager->AddService(2, spare);  // refused, and left to its creator
    EXPECT_NE(spare, manager->GetService(2));
    EXPECT_TRUE(log.Has("Find service(SENSOR_SERVICE)", "GetService", 1));
    EXPECT_EQ(nullptr, manager->GetService(0));
    EXPECT_TRUE(log.Has("Didn't find service by Service Id (0)", "GetService", 4));
    EXPECT_EQ(nullptr, manager->GetService(nullptr, 3));
    EXPECT_TRUE(log.Has("command is empty", "GetService", 4));
    EXPECT_FALSE(manager->HandleRequest(nullptr, 1));
    EXPECT_TRUE(log.Has("paramer ERROR", "HandleRequest", 4));
    EXPECT_FALSE(manager->CheckCommand("JXT+NOBODY", 10));
    EXPECT_TRUE(log.Has("Unsupported command[JXT+NOBODY]", "CheckCommand", 4));
    EXPECT_FALSE(manager->HandleResponse(nullptr));
    EXPECT_TRUE(log.Has("ContextWrapper is null", "HandleResponse", 4));
    SFServiceManager::Release();
    EXPECT_EQ((std::vector<int>{1, 2, 3}), g_destroyed);
    EXPECT_EQ(nullptr, g_pServiceMgr);
    delete spare;
}

TEST(ServiceManager, CommandOfAServiceNeverAddedIsRefused) {
    EngineHarness h(TestConfigJson(), false);
    SFServiceManager* manager = SFServiceManager::GetServiceManager();
    SFService* modem = manager->m_services[MODEM_SERVICE];
    manager->m_services.erase(MODEM_SERVICE);
    EXPECT_FALSE(manager->HandleRequest("JXT+CPVERSION?", 14));
    EXPECT_TRUE(h.log.Has("didn't find service", "HandleRequest", 4));
    EXPECT_EQ(1001, h.wrapper->SendInternalMessage("JXT+CPVERSION?", 14));
    delete modem;
}

TEST(ContextWrapper, WithoutCollaboratorsItRefusesEverything) {
    LogCapture log;
    ContextWrapper bare(nullptr, nullptr);
    EXPECT_TRUE(log.Has("m_pCmdIOService or pCfgMgr is null", "ContextWrapper", 4));
    EXPECT_EQ(nullptr, SFServiceManager::GetServiceManager());
    EXPECT_EQ(1001, bare.Start());
    EXPECT_TRUE(log.Has("m_pCmdIOService is null", "Start", 4));
    sf_response resp{};
    EXPECT_EQ(1001, bare.SendResponse(&resp));
    EXPECT_TRUE(log.Has("m_pCmdIOService is null", "SendResponse", 4));
    EXPECT_EQ(1001, ContextWrapper::CmdIOCallback("JXT", 3, nullptr));
    EXPECT_EQ(1008, bare.SendMessage("JXT", 0));
    EXPECT_TRUE(log.Has("RequestService is null", "SendMessage", 4));
    EXPECT_EQ(1008, bare.SendInternalMessage(nullptr, 3));
    EXPECT_TRUE(log.Has("Input buffer is null", "SendInternalMessage", 4));
    EXPECT_EQ(1001, bare.SendInternalMessage("JXT", 3));
    EXPECT_TRUE(log.Has("service manger is null!!!", "SendInternalMessage", 4));
}

}  // namespace
