#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <memory>
#include <new>

#include "core/SFMessage.h"

// Under -DVORN_SANITIZE=address,undefined a double delete or a leak in the ownership rules
// fails these tests.

TEST(SFData, EmptyInputGivesEmptyPayloadAndBytesAreTerminated) {
    SFData none(nullptr, 5, DATA_REQUEST), zero("abc", 0, DATA_REQUEST);
    EXPECT_TRUE(none.data == nullptr && none.length == 0);
    EXPECT_TRUE(zero.data == nullptr && zero.length == 0);
    SFData x("JXT+Xyz", 5, DATA_RESPONSE);
    EXPECT_EQ(5u, x.length);
    EXPECT_STREQ("JXT+X", x.data);
}

TEST(SFRespData, KeepsResultWithoutBytesAndReadsFailureAfterDestruction) {
    alignas(SFRespData) unsigned char storage[sizeof(SFRespData)];
    SFRespData* resp = new (storage) SFRespData(1002, nullptr, 0, DATA_RESPONSE);
    EXPECT_EQ(1002, std::unique_ptr<SFRespData>(resp->Clone())->result);
    resp->~SFRespData();
    int32_t after = 0;
    memcpy(&after, storage + offsetof(SFRespData, result), sizeof after);
    EXPECT_EQ(1001, after);
}

TEST(SFMessage, CloneAndAssignmentOwnIndependentCopies) {
    SFMessage source(MSG_RESPONSE, nullptr, "fn", 9, new SFData("S", 1, DATA_REQUEST), nullptr);
    std::unique_ptr<SFMessage> copy(source.Clone());
    EXPECT_EQ(nullptr, copy->GetResponseData());
    EXPECT_EQ(nullptr, copy->GetVendorCommandData());
    ASSERT_NE(source.GetRequestData(), copy->GetRequestData());
    EXPECT_STREQ("S", copy->GetRequestData()->data);

    SFMessage target(MSG_REQUEST, nullptr, nullptr, 1, new SFData("T", 1, DATA_REQUEST),
                     new SFRespData(5, "R", 1, DATA_RESPONSE));
    source.SetVendorCommandData(new SFData("SV", 2, DATA_REQUEST));
    target = source;
    target = target;
    EXPECT_EQ(9, target.timeout);
    EXPECT_STREQ("fn", target.GetSoFuncName());
    EXPECT_EQ(nullptr, target.GetResponseData());
    ASSERT_NE(source.GetRequestData(), target.GetRequestData());
    EXPECT_STREQ("SV", target.GetVendorCommandData()->data);
}

TEST(SFMessage, SettersReplaceOnceAndKeepWhatTheyAlreadyHold) {
    std::unique_ptr<SFMessage> msg(SFMessage::NewInstance(
        MSG_REQUEST, nullptr, nullptr, 0, nullptr, new SFRespData(1, "old", 3, DATA_RESPONSE)));
    msg->SetResponseData(new SFRespData(0, "new", 3, DATA_RESPONSE));
    msg->SetResponseData(msg->GetResponseData());
    EXPECT_STREQ("new", msg->GetResponseData()->data);
    msg->SetDeviceCommandData(new SFData("D", 1, DATA_REQUEST));
    msg->SetDeviceCommandData(nullptr);
    EXPECT_EQ(nullptr, msg->GetDeviceCommandData());
}
