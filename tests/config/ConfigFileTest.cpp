// Overlaying the defaults with a configuration file, good and bad.
#include <gtest/gtest.h>

#include "support/TestSupport.h"
#include "vorn_core.h"

using namespace vorn_test;

namespace {

class ConfigFile : public ::testing::Test {
protected:
    bool Apply(const std::string& json) { return cfg.ParseJSONDoc(dir.Write("vorn.json", json)); }
    const std::vector<cmd_info>& List(ServiceId id) { return *cfg.GetWhiteList(id); }
    // Every record's text, to compare a whole configuration at once.
    std::string Snapshot() {
        std::string all;
        for (CommonConfig& c : cfg.m_configs) all += c.ToString();
        return all;
    }
    LogCapture log;
    TempDir dir;
    ConfigManager cfg;
};

TEST_F(ConfigFile, DocumentedExampleGivesTheDocumentedRows) {
    ASSERT_TRUE(Apply(R"({
      "misc": {
        "libpath": "libvorn_hal.so", "default_timeout": 15, "support": true,
        "whitelist": [ "JXT", "JXT+TIMEOUT",
          { "command": "JXT+MEMORY", "func": "memory_check_cmd", "timeout": 30 } ] },
      "sensor": {
        "default_func": "accelerometer_operate_cmd",
        "whitelist": [
          { "commands": [ "JXT+GSENSOR" ], "func": "gsensor_operate_cmd" },
          { "command": "JXT+GYRO", "func": "gyro_operate_cmd", "timeout": 20 },
          "JXT+ASENSOR" ] },
      "modem": { "support": false } })"));
    const auto& misc = List(MISC_SERVICE);
    ASSERT_EQ(3u, misc.size());
    EXPECT_EQ("JXT", misc[0].command);
    EXPECT_EQ(15u, misc[0].timeout);
    EXPECT_EQ("", misc[0].func);
    EXPECT_EQ(30u, misc[2].timeout);
    EXPECT_EQ("memory_check_cmd", misc[2].func);
    const auto& sensor = List(SENSOR_SERVICE);
    ASSERT_EQ(3u, sensor.size());
    EXPECT_EQ(15u, sensor[0].timeout);
    EXPECT_EQ("gsensor_operate_cmd", sensor[0].func);
    EXPECT_EQ(20u, sensor[1].timeout);
    EXPECT_EQ("JXT+ASENSOR", sensor[2].command);
    EXPECT_EQ("accelerometer_operate_cmd", sensor[2].func);
    EXPECT_FALSE(cfg.IsSupport(MODEM_SERVICE));
    EXPECT_EQ(2u, List(MODEM_SERVICE).size());
    EXPECT_EQ(3, log.Count("\n" + cfg.GetConfig(MISC_SERVICE)->m_strText, "ParseJSONDoc", 2) +
                     log.Count("\n" + cfg.GetConfig(SENSOR_SERVICE)->m_strText) +
                     log.Count("\n" + cfg.GetConfig(MODEM_SERVICE)->m_strText));
}

TEST_F(ConfigFile, MembersAreReadInAFixedOrderWithTheirOwnRules) {
    ASSERT_TRUE(Apply(R"({ "misc": {
        "whitelist": [ "JXT+A", { "command": "JXT+B", "timeout": 3 } ],
        "default_func": "f", "default_timeout": 40, "libpath": "" } })"));
    // default_timeout and default_func reach the rows although they come later.
    EXPECT_EQ(40u, List(MISC_SERVICE)[0].timeout);
    EXPECT_EQ("f", List(MISC_SERVICE)[0].func);
    EXPECT_EQ(3u, List(MISC_SERVICE)[1].timeout);
    EXPECT_EQ("libvorn_hal.so", cfg.GetLibPath(MISC_SERVICE));  // an empty libpath changes nothing
    ASSERT_TRUE(Apply(R"({ "misc": { "default_func": "" , "libpath": "/x/lib.so"} })"));
    EXPECT_EQ("", cfg.GetConfig(MISC_SERVICE)->m_strFunc);  // an empty default_func does set it
    EXPECT_EQ("/x/lib.so", cfg.GetLibPath(MISC_SERVICE));
}

TEST_F(ConfigFile, UnknownKeysFallBackOnTheLastServiceNamed) {
    ASSERT_TRUE(Apply(R"({ "bogus": { "support": false },
                           "misc": { "default_timeout": 9 },
                           "extra": { "support": false } })"));
    EXPECT_FALSE(cfg.IsSupport(MISC_SERVICE));
    EXPECT_TRUE(cfg.IsSupport(SENSOR_SERVICE));
    EXPECT_TRUE(cfg.IsSupport(MODEM_SERVICE));
    EXPECT_EQ(9, cfg.GetDftTimeout(MISC_SERVICE));
    // Each unknown key goes to the service named just before it in the file, not by name.
    ASSERT_TRUE(Apply(R"({ "sensor": {}, "zz": { "default_timeout": 4 },
                           "modem": {}, "aa": { "default_func": "m" } })"));
    EXPECT_EQ(4, cfg.GetDftTimeout(SENSOR_SERVICE));
    EXPECT_EQ(15, cfg.GetDftTimeout(MODEM_SERVICE));
    EXPECT_EQ("m", cfg.GetConfig(MODEM_SERVICE)->m_strFunc);
    EXPECT_EQ("", cfg.GetConfig(SENSOR_SERVICE)->m_strFunc);
}

TEST_F(ConfigFile, RepeatedKeysApplyAgainInDocumentOrder) {
    ASSERT_TRUE(Apply(R"({ "sensor": { "whitelist": [ "JXT+ONE" ], "default_timeout": 5 },
                           "sensor": { "whitelist": [ "JXT+TWO", "JXT+THREE" ] },
                           "sensor": { "whitelist": [] } })"));
    const auto& rows = List(SENSOR_SERVICE);
    ASSERT_EQ(2u, rows.size());  // the second list replaced the first; the empty one kept it
    EXPECT_EQ("JXT+TWO", rows[0].command);
    EXPECT_EQ(5u, rows[0].timeout);  // the first application's time-out stayed
}

TEST_F(ConfigFile, EntryObjectsCollectCommandsInMemberOrder) {
    ASSERT_TRUE(Apply(R"({ "misc": { "whitelist": [
        { "timeout": 7, "func": "g", "commands": [ "JXT+C1", 5, "JXT+C2" ], "command": "JXT+C0" },
        { "command": "JXT+D", "command": "JXT+D" },
        { "timeout": 1 },
        { "command": "JXT+E", "commands": [ "JXT+F" ] } ] } })"));
    const auto& rows = List(MISC_SERVICE);
    ASSERT_EQ(8u, rows.size());
    EXPECT_EQ("JXT+C1", rows[0].command);
    EXPECT_EQ("", rows[1].command);  // a non-string name is an empty command
    EXPECT_EQ("JXT+C2", rows[2].command);
    EXPECT_EQ("JXT+C0", rows[3].command);
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(7u, rows[i].timeout);
        EXPECT_EQ("g", rows[i].func);
    }
    EXPECT_EQ("JXT+D", rows[4].command);
    EXPECT_EQ("JXT+D", rows[5].command);
    EXPECT_EQ("JXT+E", rows[6].command);
    EXPECT_EQ("JXT+F", rows[7].command);
}

TEST_F(ConfigFile, ElementsWithoutACommandRepeatTheLastOne) {
    ASSERT_TRUE(Apply(R"({ "misc": { "whitelist": [ {}, "JXT+A", 42, null, {},
        { "command": "JXT+B" }, true ] } })"));
    std::vector<std::string> names;
    for (const cmd_info& row : List(MISC_SERVICE)) names.push_back(row.command);
    EXPECT_EQ((std::vector<std::string>{"", "JXT+A", "JXT+A", "JXT+A", "JXT+A", "JXT+B", "JXT+B"}),
              names);
}

TEST_F(ConfigFile, WrongTypesLeaveFieldsAlone) {
    ASSERT_TRUE(Apply(R"({ "misc": { "support": "no", "default_timeout": "9", "libpath": 3,
        "default_func": [], "whitelist": "JXT" },
        "sensor": { "default_timeout": 2.5, "whitelist": [ { "command": "JXT+X",
        "timeout": -4 } ] }, "modem": 7 })"));
    EXPECT_TRUE(cfg.IsSupport(MISC_SERVICE));
    EXPECT_EQ(15, cfg.GetDftTimeout(MISC_SERVICE));
    EXPECT_EQ(3u, List(MISC_SERVICE).size());
    // Floats and negative numbers are not integers of the kind read: refused.
    EXPECT_EQ(15, cfg.GetDftTimeout(SENSOR_SERVICE));
    EXPECT_EQ(15u, List(SENSOR_SERVICE)[0].timeout);
}

TEST_F(ConfigFile, BadFilesAreLoggedAndChangeNothing) {
    const std::string before = Snapshot();
    const std::string missing = dir.path() + "/none.json";
    EXPECT_FALSE(cfg.ParseJSONDoc(missing));
    EXPECT_TRUE(log.Has("Json file" + missing + "open error!!!", "ParseJSONDoc", 4));
    EXPECT_EQ("JSON-VORN", log.Lines().back().tag);
    const std::string deep(100000, '[');
    std::string withNul = R"({ "misc": { "support": false } })";
    withNul.insert(5, 1, '\0');
    for (const std::string& bad :
         {std::string(""), std::string("{"), std::string("{\"misc\": {\"support\": fals"),
          std::string("not json"), std::string("{} trailing"), deep, withNul,
          std::string("{\"misc\": {\"libpath\": \"\xff\xfe\"}, }")}) {
        log.Clear();
        const std::string path = dir.Write("bad.json", bad);
        EXPECT_FALSE(cfg.ParseJSONDoc(path)) << bad.substr(0, 40);
        EXPECT_TRUE(log.Has("Json file" + path + "syntax error!!!", "ParseJSONDoc", 4));
        EXPECT_EQ(before, Snapshot());
    }
    // Valid JSON that is not an object: read, and nothing applied.
    EXPECT_TRUE(Apply("[1, 2]"));
    EXPECT_TRUE(Apply("\"text\""));
    EXPECT_EQ(before, Snapshot());
}

TEST_F(ConfigFile, LargeAndOddButValidFilesAreRead) {
    std::string big = R"({ "misc": { "whitelist": [)";
    for (int i = 0; i < 50000; ++i) big += "\"JXT+N" + std::to_string(i) + "\",";
    big += R"("JXT+LAST"], "padding": ")" + std::string(2 << 20, 'p') + R"(" }, "": {} })";
    EXPECT_TRUE(Apply(big));
    EXPECT_EQ(50001u, List(MISC_SERVICE).size());
    EXPECT_TRUE(log.Has("Key is empty~~~~~~~~~~~~~~~~~~~~~~", "ParseJSONDoc", 4));
    EXPECT_TRUE(Apply("{\"misc\": {\"default_func\": \"caf\xc3\xa9\xff\"}}"));
    EXPECT_EQ("caf\xc3\xa9\xff", cfg.GetConfig(MISC_SERVICE)->m_strFunc);
}

#ifdef VORN_HAL_PATH
// The strict check names, with the key's path, each thing that the reader above passes over in
// silence, and what the HAL lacks; a clean file gives no line.
TEST_F(ConfigFile, CheckerNamesWhatTheReaderIgnoresAndWhatTheHalLacks) {
    const std::string hal = VORN_HAL_PATH;
    const std::string clean = dir.Write("clean.json", R"({
      "misc": { "libpath": ")" + hal + R"(", "default_timeout": 15, "support": true,
        "whitelist": [ "JXT", { "command": "JXT+MEMORY", "func": "memory_check_cmd" } ] },
      "sensor": { "libpath": ")" + hal + R"(", "whitelist": [
        { "commands": [ "JXT+GSENSOR" ], "func": "gsensor_operate_cmd", "timeout": 20 } ] },
      "modem": { "support": false } })");
    EXPECT_EQ(std::vector<std::string>{}, ConfigChecker::Check(clean));

    const std::string missingLib = dir.path() + "/none.so";
    const std::string bad = dir.Write("bad.json", R"({ "misic": { "support": true },
      "misc": { "libpath": ")" + hal + R"(", "default_timeout": "30", "defualt_func": "x",
        "whitelist": [ "JXT", 7, {}, { "timeout": 3 },
          { "comand": "A", "command": "JXT+MEMORY", "func": "nope_cmd" },
          { "commands": [ "A", 1 ], "timeout": -1 } ] },
      "extra": { "default_timeout": 20 },
      "sensor": { "libpath": ")" + missingLib + R"(" }, "modem": 7 })");
    const std::vector<std::string> expected = {
        "/misic: unknown service, ignored (services: misc, sensor, modem)",
        "/misc/default_timeout: expected a whole number, found a string; ignored",
        "/misc/defualt_func: unknown member, ignored",
        "/misc/whitelist/1: expected a command or an object, found the number 7; the entry "
        "repeats the command before it",
        "/misc/whitelist/2: an empty entry repeats the command before it",
        "/misc/whitelist/3: the entry names no \"command\" or \"commands\" and adds no command",
        "/misc/whitelist/4/comand: unknown member, ignored",
        "/misc/whitelist/5/commands: expected an array of strings, found an array",
        "/misc/whitelist/5/timeout: expected a whole number from 0, found the number -1",
        "/extra: unknown service; its members apply to \"misc\", the service named before it",
        "/modem: expected an object, found the number 7; ignored",
        "/misc/whitelist: \"JXT+MEMORY\": \"" + hal + "\" exports no function \"nope_cmd\"",
        "/sensor/libpath: the HAL library \"" + missingLib + "\" does not load",
    };
    EXPECT_EQ(expected, ConfigChecker::Check(bad));
    EXPECT_EQ(std::vector<std::string>{dir.path() + "/none.json: cannot be opened: No such file "
                                                    "or directory"},
              ConfigChecker::Check(dir.path() + "/none.json"));
}
#endif

}  // namespace
