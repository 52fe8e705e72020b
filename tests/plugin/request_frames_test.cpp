// What the plug-in answers to each kind of blob that the agent can send.
#include "plugin_host_fixture.h"

namespace {

class RequestFrames : public PluginOnHost {
protected:
    void SetUp() override {
        PluginOnHost::SetUp();
        NewInstance();
        host.BringUp();
    }
};

const sim::Bytes kClientInfoAnswer7 = {7, 0, 0, 0, 4, 0, 0, 0, 0, 0, 0, 1};

TEST_F(RequestFrames, GetClientInfoExampleByteForByte) {
    EXPECT_EQ(Exchange({7, 0, 0, 0, 1, 0, 0, 0, 4, 0, 0, 0, 3, 0, 1, 2}), kClientInfoAnswer7);
    auto messages = host.Messages();
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].objectName, "fido2DataObj");
    EXPECT_EQ(messages[0].command, 1u);
    EXPECT_TRUE(messages[0].postMode) << "answers go in post mode";
    EXPECT_EQ(messages[0].params.size(), 1u);
}

TEST_F(RequestFrames, ValidAndInvalidFrames) {
    struct Row {
        const char* what;
        sim::Bytes blob;
        sim::Bytes answer;  // empty: no answer at all
    };
    const sim::Bytes full = Request(7, 1, {});
    const Row rows[] = {
        {"12 bytes, no data", Request(7, 1, {}), kClientInfoAnswer7},
        {"empty blob", {}, {}},
        {"11 bytes", sim::Bytes(full.begin(), full.end() - 1), {}},
        {"12 bytes claiming 1 data byte", {7, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0}, {}},
        {"dataLen overflowing 32 bits", {7, 0, 0, 0, 1, 0, 0, 0, 0xF8, 0xFF, 0xFF, 0xFF}, {}},
        {"trailing bytes ignored", {7, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0xAA, 0xBB}, kClientInfoAnswer7},
        {"command 0", Request(7, 0, {}), {}},
        {"command 6", Request(7, 6, {}), {}},
        {"api version without a library", Request(0xFFFFFFFF, 2, {}), {0xFF, 0xFF, 0xFF, 0xFF, 4, 0, 0, 0, 0, 0, 0, 0}},
        {"requestId copied whatever it is", Request(0x80000001, 1, {1, 2}), {1, 0, 0, 0x80, 4, 0, 0, 0, 0, 0, 0, 1}},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(Exchange(row.blob, row.answer.empty() ? 150 : 1000), row.answer) << row.what;
    }
}

TEST_F(RequestFrames, MessagesWithoutABlobOrWithAnotherCommandGetNoAnswer) {
    size_t before = host.Messages().size();
    host.DeliverMessage(Request(7, 1, {}), 2);
    host.DeliverMessage(Request(7, 1, {}), 1, std::string(), false);
    EXPECT_FALSE(host.WaitForMessages(before + 1, 150));
}

TEST_F(RequestFrames, CredentialCommandsWithoutALibraryAnswerEFail) {
    // No webauthn.dll beside this program: the operation is answered with E_FAIL, no record.
    for (uint32_t command : {3u, 4u}) {
        EXPECT_EQ(Exchange(Request(7, command, {0, 0, 0, 0}), 5000),
                  (sim::Bytes{7, 0, 0, 0, 8, 0, 0, 0, 0x05, 0x40, 0x00, 0x80, 0, 0, 0, 0}))
            << command;
    }
    EXPECT_TRUE(Exchange(Request(7, 5, {0, 0, 0, 0}), 150).empty()) << "command 5 is never answered";
}

TEST_F(RequestFrames, AnswerFailsQuietlyWhenTheHostRefusesToSend) {
    host.invokeResult = false;
    EXPECT_TRUE(Exchange(Request(7, 1, {}), 150).empty());
    EXPECT_EQ(host.LiveContexts(), 0u) << "a context that wasn't sent is destroyed";
    host.invokeResult = true;
    host.setContextOptionResult = false;
    EXPECT_EQ(Exchange(Request(7, 1, {})), kClientInfoAnswer7) << "a failed post-mode option doesn't stop the send";
}

}  // namespace
