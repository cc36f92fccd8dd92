#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <memory>
#include <new>

#include "core/SFMessage.h"

// Run under -DVORN_SANITIZE=address,undefined: a double delete or a leak in the ownership rules
// fails these tests there.

TEST(SFData, EmptyInputGivesEmptyPayloadAndBytesAreTerminated) {
    SFData none(nullptr, 5, DATA_REQUEST), zero("abc", 0, DATA_REQUEST);
    EXPECT_EQ(nullptr, none.data);
    EXPECT_EQ(0u, none.length);
    EXPECT_EQ(nullptr, zero.data);
    EXPECT_EQ(0u, zero.length);

    SFData x("JXT+Xyz", 5, DATA_RESPONSE);
    EXPECT_EQ(5u, x.length);
    EXPECT_EQ('\0', x.data[5]);
    EXPECT_STREQ("JXT+X", x.data);
    EXPECT_EQ(DATA_RESPONSE, x.direction);
}

TEST(SFRespData, KeepsResultWithoutBytesAndReadsFailureAfterDestruction) {
    alignas(SFRespData) unsigned char storage[sizeof(SFRespData)];
    SFRespData* resp = new (storage) SFRespData(1002, nullptr, 0, DATA_RESPONSE);
    EXPECT_EQ(nullptr, resp->data);
    EXPECT_EQ(1002, resp->result);
    std::unique_ptr<SFRespData> copy(resp->Clone());
    EXPECT_EQ(1002, copy->result);
    resp->~SFRespData();
    int32_t after = 0;
    memcpy(&after, storage + offsetof(SFRespData, result), sizeof after);
    EXPECT_EQ(1001, after);
}

TEST(SFMessage, CloneOwnsIndependentCopies) {
    SFMessage msg(MSG_REQUEST, nullptr, "hal_fn", 3, new SFData("JXT+A", 5, DATA_REQUEST), nullptr);
    std::unique_ptr<SFMessage> copy(msg.Clone());
    EXPECT_EQ(nullptr, copy->GetResponseData());
    EXPECT_EQ(nullptr, copy->GetVendorCommandData());
    EXPECT_EQ(nullptr, copy->GetDeviceCommandData());
    ASSERT_NE(msg.GetRequestData(), copy->GetRequestData());
    EXPECT_STREQ("JXT+A", copy->GetRequestData()->data);
    EXPECT_EQ(3, copy->timeout);
    EXPECT_STREQ("hal_fn", copy->GetSoFuncName());
}

TEST(SFMessage, SettersReplaceOnceAndKeepWhatTheyAlreadyHold) {
    std::unique_ptr<SFMessage> msg(SFMessage::NewInstance(
        MSG_REQUEST, nullptr, nullptr, 0, nullptr, new SFRespData(1, "old", 3, DATA_RESPONSE)));
    msg->SetResponseData(new SFRespData(0, "new", 3, DATA_RESPONSE));
    SFRespData* held = msg->GetResponseData();
    msg->SetResponseData(held);
    EXPECT_STREQ("new", msg->GetResponseData()->data);

    SFData* vendor = new SFData("V", 1, DATA_REQUEST);
    msg->SetVendorCommandData(vendor);
    msg->SetVendorCommandData(vendor);
    msg->SetDeviceCommandData(new SFData("D", 1, DATA_REQUEST));
    msg->SetDeviceCommandData(nullptr);
    EXPECT_EQ(nullptr, msg->GetDeviceCommandData());
    EXPECT_STREQ("V", msg->GetVendorCommandData()->data);
}

TEST(SFMessage, AssignmentClonesAndReleasesThePreviousPayloads) {
    SFMessage target(MSG_REQUEST, nullptr, nullptr, 1, new SFData("T", 1, DATA_REQUEST),
                     new SFRespData(5, "R", 1, DATA_RESPONSE));
    SFMessage source(MSG_RESPONSE, nullptr, "fn", 9, new SFData("S", 1, DATA_REQUEST), nullptr);
    source.SetVendorCommandData(new SFData("SV", 2, DATA_REQUEST));
    target = source;
    target = target;
    EXPECT_EQ(MSG_RESPONSE, target.direction);
    EXPECT_EQ(9, target.timeout);
    EXPECT_EQ(nullptr, target.GetResponseData());
    ASSERT_NE(source.GetRequestData(), target.GetRequestData());
    EXPECT_STREQ("S", target.GetRequestData()->data);
    EXPECT_STREQ("SV", target.GetVendorCommandData()->data);
}
