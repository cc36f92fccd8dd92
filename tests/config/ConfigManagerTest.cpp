// The configuration records: built-in defaults, queries and the text form.
#include <gtest/gtest.h>

#include "vorn_core.h"

namespace {

TEST(ConfigDefaults, EveryServiceIsOnWithTheSampleHalAndItsVocabulary) {
    ConfigManager cfg;
    for (ServiceId id : {MISC_SERVICE, SENSOR_SERVICE, MODEM_SERVICE}) {
        EXPECT_TRUE(cfg.IsSupport(id));
        EXPECT_EQ("libvorn_hal.so", cfg.GetLibPath(id));
        EXPECT_EQ(15, cfg.GetDftTimeout(id));
        EXPECT_EQ(id, cfg.GetConfig(id)->m_nServiceId);
    }
    const std::vector<cmd_info>& sensor = *cfg.GetWhiteList(SENSOR_SERVICE);
    ASSERT_EQ(3u, sensor.size());
    EXPECT_EQ("JXT+GSENSOR", sensor[0].command);
    EXPECT_EQ("gsensor_operate_cmd", sensor[0].func);
    EXPECT_EQ("JXT+GYRO", sensor[1].command);
    EXPECT_EQ("JXT+ASENSOR", sensor[2].command);
    EXPECT_EQ("accelerometer_operate_cmd", sensor[2].func);
    for (const cmd_info& row : sensor) EXPECT_EQ(0u, row.timeout);
    EXPECT_EQ(2u, cfg.GetWhiteList(MODEM_SERVICE)->size());
    EXPECT_EQ("", (*cfg.GetWhiteList(MODEM_SERVICE))[0].func);
}

TEST(ConfigDefaults, UnknownServicesAnswerEmpty) {
    ConfigManager cfg;
    for (int raw : {0, 4, -1, 1000}) {
        const auto id = static_cast<ServiceId>(raw);
        EXPECT_FALSE(cfg.IsSupport(id));
        EXPECT_EQ("", cfg.GetLibPath(id));
        EXPECT_EQ(0, cfg.GetDftTimeout(id));
        EXPECT_EQ(nullptr, cfg.GetWhiteList(id));
        EXPECT_EQ(nullptr, cfg.GetConfig(id));
    }
}

TEST(ConfigText, MiscRecordPrintsExactly) {
    ConfigManager cfg;
    const std::string expected =
        "<<<<<<< name:misc\n"
        "Common configration:\n"
        "Module<1>name<misc>timeout<15>function<>support<1>libpath<libvorn_hal.so>\n"
        "whitelist:\n"
        "<JXT>,timeout<0>,function<>\n"
        "<JXT+TIMEOUT>,timeout<0>,function<>\n"
        "<JXT+MEMORY>,timeout<0>,function<memory_check_cmd>\n"
        ">>>>>>> name:misc";
    CommonConfig* misc = cfg.GetConfig(MISC_SERVICE);
    EXPECT_EQ("", misc->m_strText);
    EXPECT_EQ(expected, misc->ToString());
    EXPECT_EQ(expected, misc->m_strText);
}

TEST(ConfigText, EmptyWhiteListAndNegativeAndHugeNumbers) {
    CommonConfig c(MODEM_SERVICE, "modem", -3, "f", false, "", {});
    EXPECT_EQ(
        "<<<<<<< name:modem\nCommon configration:\nModule<3>name<modem>timeout<-3>function<f>"
        "support<0>libpath<>\nwhitelist:\n>>>>>>> name:modem",
        c.ToString());
    c.m_whiteList.push_back({"X", 4294967295u, ""});
    EXPECT_NE(std::string::npos, c.ToString().find("<X>,timeout<4294967295>,function<>\n"));
}

TEST(ConfigText, AssignmentKeepsTheTargetsCachedTextCopyCarriesIt) {
    ConfigManager cfg;
    CommonConfig misc = *cfg.GetConfig(MISC_SERVICE);
    CommonConfig sensor = *cfg.GetConfig(SENSOR_SERVICE);
    const std::string miscText = misc.ToString();
    const std::string sensorText = sensor.ToString();
    sensor = misc;
    EXPECT_EQ(sensorText, sensor.m_strText);  // stale until the next ToString
    EXPECT_EQ("misc", sensor.m_strName);
    EXPECT_EQ(miscText, sensor.ToString());
    CommonConfig copy(misc);
    EXPECT_EQ(miscText, copy.m_strText);
    copy = copy;  // self-assignment keeps the white list
    EXPECT_EQ(3u, copy.m_whiteList.size());
}

}  // namespace
