// The JSON node the configuration reader is built on.
#include <gtest/gtest.h>

#include "platform/CJsonObject.h"

namespace {

TEST(JsonNode, ChildrenAreTheSameObjectsAndKeepTheirIteration) {
    neb::CJsonObject doc;
    ASSERT_TRUE(doc.Parse(R"({ "a": [ { "x": 1, "y": 2 } ], "b": "t" })"));
    EXPECT_EQ(&doc["a"], &doc["a"]);
    EXPECT_EQ(&doc["a"][0u], &doc["a"][0u]);
    std::string key;
    ASSERT_TRUE(doc["a"][0u].GetKey(key));
    EXPECT_EQ("x", key);
    ASSERT_TRUE(doc["a"][0u].GetKey(key));  // goes on from the last call
    EXPECT_EQ("y", key);
    EXPECT_FALSE(doc["a"][0u].GetKey(key));
    EXPECT_TRUE(doc["missing"].IsEmpty());
    EXPECT_EQ(0, doc["b"].GetArraySize());
    EXPECT_EQ(1, doc["a"].GetArraySize());
    EXPECT_FALSE(doc["b"].GetKey(key));
}

TEST(JsonNode, TypedReadsRefuseMismatchesAndLeaveTheTarget) {
    neb::CJsonObject doc(R"({ "i": 7, "f": 1.5, "n": -2, "big": 5000000000, "s": "v",
                              "t": true, "arr": [ "e0", 3 ] })");
    int i = 99;
    unsigned u = 99;
    bool b = false;
    std::string s = "keep";
    EXPECT_TRUE(doc.Get("i", i));
    EXPECT_EQ(7, i);
    EXPECT_FALSE(doc.Get("f", i));
    EXPECT_FALSE(doc.Get("n", u));
    EXPECT_FALSE(doc.Get("big", i));
    EXPECT_TRUE(doc.Get("big", s) == false && s == "keep");
    EXPECT_EQ(99u, u);
    EXPECT_TRUE(doc.Get("n", i));
    EXPECT_EQ(-2, i);
    EXPECT_FALSE(doc.Get("s", b));
    EXPECT_TRUE(doc.Get("t", b) && b);
    EXPECT_EQ("v", doc("s"));
    EXPECT_EQ("", doc("i"));
    EXPECT_TRUE(doc["arr"].Get(0, s) && s == "e0");
    EXPECT_FALSE(doc["arr"].Get(1, s));
    EXPECT_EQ("", doc["arr"](1u));
    EXPECT_FALSE(doc["arr"].Get(5, s));
}

TEST(JsonNode, RepeatedKeysReadTheOccurrenceJustIterated) {
    neb::CJsonObject doc(R"({ "k": 1, "k": 2 })");
    std::string key;
    int v = 0;
    EXPECT_TRUE(doc.Get("k", v) && v == 1);
    ASSERT_TRUE(doc.GetKey(key));
    EXPECT_TRUE(doc.Get("k", v) && v == 1);
    ASSERT_TRUE(doc.GetKey(key));
    EXPECT_TRUE(doc.Get("k", v) && v == 2);
}

TEST(JsonNode, MembersComeInDocumentOrderWithEveryRepetition) {
    // "\u0061" is the key "a" again; the first "k" holds a repetition of its own.
    neb::CJsonObject doc(R"({ "k": { "z": 1, "z": [ 2 ] }, "b": true, "\u0061": "one",
                              "a": "two", "k": 3 })");
    std::vector<std::string> keys;
    std::vector<std::string> texts;
    std::string key;
    while (doc.GetKey(key)) {
        keys.push_back(key);
        texts.push_back(doc[key].ToString());
    }
    EXPECT_EQ((std::vector<std::string>{"k", "b", "a", "a", "k"}), keys);
    EXPECT_EQ((std::vector<std::string>{R"({ "z": 1, "z": [ 2 ] })", "true", R"("one")", R"("two")",
                                        "3"}),
              texts);
    ASSERT_TRUE(doc.GetKey(key));  // the first "k": its own members, both of them
    neb::CJsonObject& first = doc[key];
    ASSERT_TRUE(first.GetKey(key));
    int z = 0;
    EXPECT_TRUE(first.Get(key, z) && z == 1);
    ASSERT_TRUE(first.GetKey(key));
    EXPECT_EQ(1, first[key].GetArraySize());
    EXPECT_FALSE(first.GetKey(key));
    // The nesting the reader accepts ends at 1000 levels.
    EXPECT_TRUE(doc.Parse(std::string(1000, '[') + std::string(1000, ']')));
    EXPECT_FALSE(doc.Parse(std::string(1001, '[') + std::string(1001, ']')));
}

TEST(JsonNode, CopiesAreIndependentValues) {
    auto* original = new neb::CJsonObject(R"({ "a": { "b": "c" } })");
    neb::CJsonObject copy(*original);
    neb::CJsonObject assigned;
    assigned = (*original)["a"];
    delete original;
    EXPECT_EQ("c", copy["a"]("b"));
    EXPECT_EQ("c", assigned("b"));
    EXPECT_FALSE(assigned.Parse("{"));
    EXPECT_TRUE(assigned.IsEmpty());
}

}  // namespace
