// Whole credential operations through the DLL, the host simulator and the software
// authenticator: answers, cancellation by id, supersedes, channel loss, and their races.
#include <thread>

#include "plugin_host_fixture.h"
#include "sim/agent_codec.h"
#include "sim/agent_responses.h"
#include "sim/agent_samples.h"
#include "sim/authenticator/ec_key.h"
#include "sim/authenticator_client.h"

namespace {

constexpr uint32_t kCancelledHr = 0x800704C7;
constexpr uint32_t kEFail = 0x80004005;

sim::SoftwareAuthenticator& Auth() {
    static sim::SoftwareAuthenticator auth;
    return auth;
}

class Operations : public PluginOnHost {
protected:
    void SetUp() override {
        ASSERT_TRUE(Auth().Loaded());
        Auth().Reset();
        PluginOnHost::SetUp();
        NewInstance();
        host.BringUp();
    }
    void TearDown() override {
        Auth().Reset();  // ends anything still blocked in the library
        PluginOnHost::TearDown();
        EXPECT_EQ(Auth().LiveRecords(), 0) << "every library record went back through the library";
    }
    agent::Bytes MakeCredentialPdu(uint32_t id, uint32_t version, bool full) {
        return agent::RequestPdu(id, kCmdMakeCredential,
                                 agent::EncodeMakeCredentialData(agent::SampleMakeCredential(arena, version, full)));
    }
    void Send(const agent::Bytes& pdu) { host.DeliverMessage(pdu); }
    std::vector<sim::SentMessage> Answers() { return host.Messages(); }
    agent::SampleArena arena;
};

TEST_F(Operations, RegistrationAndAuthenticationVerify) {
    agent::Bytes answer = Exchange(MakeCredentialPdu(11, 4, false), 5000);
    uint32_t requestId = 0;
    agent::Bytes data;
    ASSERT_TRUE(agent::SplitResponsePdu(answer, &requestId, &data));
    EXPECT_EQ(requestId, 11u);
    agent::AttestationAnswer attestation;
    ASSERT_TRUE(agent::DecodeAttestationAnswer(data, &attestation));
    EXPECT_EQ(attestation.hr, 0u);
    ASSERT_TRUE(attestation.present);
    EXPECT_EQ(attestation.formatType.text, u"packed");
    ASSERT_GE(attestation.authenticatorData.size(), 55u + 16 + 77);
    const uint8_t* cose = attestation.authenticatorData.data() + 55 + 16;
    simauth::Bytes x(cose + 10, cose + 42), y(cose + 45, cose + 77);

    auto get = agent::SampleGetAssertion(arena, 1, false);
    webauthn::WEBAUTHN_CREDENTIAL allow{1, static_cast<uint32_t>(attestation.credentialId.size()),
                                        attestation.credentialId.data(), nullptr};
    get.pGetAssertionOptions->CredentialList = {1, &allow};
    answer = Exchange(agent::RequestPdu(12, kCmdGetAssertion, agent::EncodeGetAssertionData(get)), 5000);
    ASSERT_TRUE(agent::SplitResponsePdu(answer, &requestId, &data));
    agent::AssertionAnswer assertion;
    ASSERT_TRUE(agent::DecodeAssertionAnswer(data, &assertion));
    EXPECT_EQ(assertion.hr, 0u);
    EXPECT_EQ(assertion.credentialId, attestation.credentialId);
    simauth::Bytes message = assertion.authenticatorData;
    simauth::Bytes hash = simauth::Sha256(simauth::Bytes(get.pClientData->pbClientDataJSON,
                                                         get.pClientData->pbClientDataJSON + get.pClientData->cbClientDataJSON));
    message.insert(message.end(), hash.begin(), hash.end());
    EXPECT_TRUE(simauth::VerifyEs256(x, y, message, assertion.signature));
}

TEST_F(Operations, MalformedRequestsAreAnsweredWithEFail) {
    agent::Bytes good = MakeCredentialPdu(21, 5, true);
    agent::Bytes shortData = good;
    WriteLe32(shortData.data() + 8, ReadLe32(good.data() + 8) - 8);  // dataLen shorter than the request
    for (const agent::Bytes& pdu : {agent::RequestPdu(20, kCmdGetAssertion, {1, 2, 3, 4}), shortData}) {
        agent::Bytes answer = Exchange(pdu, 5000);
        uint32_t requestId = 0;
        agent::Bytes data;
        ASSERT_TRUE(agent::SplitResponsePdu(answer, &requestId, &data));
        EXPECT_EQ(requestId, ReadLe32(pdu.data()));
        EXPECT_EQ(data, (agent::Bytes{0x05, 0x40, 0x00, 0x80, 0, 0, 0, 0}));
    }
    EXPECT_EQ(Auth().Calls(), 0) << "the library was never called";
}

TEST_F(Operations, RequestWithoutOptionsReachesTheLibrary) {
    agent::Bytes answer = Exchange(MakeCredentialPdu(30, 0, false), 5000);
    agent::AttestationAnswer a;
    ASSERT_TRUE(agent::DecodeAttestationAnswer(agent::Bytes(answer.begin() + 8, answer.end()), &a));
    EXPECT_EQ(a.hr, 0u);
    EXPECT_TRUE(a.present);
}

TEST_F(Operations, NewerRecordsGoOutAsTheNewestKnownByDefault) {
    Auth().Get<SimAuth_SetRecordVersionsFn>("SimAuth_SetRecordVersions")(5, 4);
    agent::Bytes answer = Exchange(MakeCredentialPdu(31, 1, false), 5000);
    agent::AttestationAnswer a;
    ASSERT_TRUE(agent::DecodeAttestationAnswer(agent::Bytes(answer.begin() + 8, answer.end()), &a));
    EXPECT_EQ(a.dwVersion, 4u);
    Auth().Get<SimAuth_SetFailureFn>("SimAuth_SetFailure")(static_cast<HRESULT>(0x80090027), TRUE);
    answer = Exchange(MakeCredentialPdu(32, 1, false), 5000);
    ASSERT_TRUE(agent::DecodeAttestationAnswer(agent::Bytes(answer.begin() + 8, answer.end()), &a));
    EXPECT_EQ(a.hr, 0x80090027u);
    EXPECT_TRUE(a.present) << "a record that comes with a negative hr is sent";
}

TEST_F(Operations, CancelByIdAnswersWithTheLibrarysResult) {
    Auth().Mode(SIMAUTH_BLOCK_UNTIL_CANCEL);
    auto sample = agent::SampleMakeCredential(arena, 2, true);
    Send(agent::RequestPdu(40, kCmdMakeCredential, agent::EncodeMakeCredentialData(sample)));
    ASSERT_TRUE(Auth().WaitBlocked(1));
    Send(agent::RequestPdu(41, kCmdCancelCurrentOperation,
                           agent::EncodeCancelData(sample.pMakeCredentialOptions->pCancellationId)));
    ASSERT_TRUE(host.WaitForMessages(1, 5000));
    agent::AttestationAnswer a;
    auto sent = Answers();
    ASSERT_EQ(sent.size(), 1u) << "command 5 itself is never answered";
    ASSERT_TRUE(agent::DecodeAttestationAnswer(agent::Bytes(sent[0].params[0].begin() + 8, sent[0].params[0].end()), &a));
    EXPECT_EQ(ReadLe32(sent[0].params[0].data()), 40u);
    EXPECT_EQ(a.hr, kCancelledHr);
    EXPECT_FALSE(a.present);
}

TEST_F(Operations, CancelWithoutOperationOrWithBadGuidsSendsNothing) {
    const uint8_t other[16] = {1, 2, 3};
    for (const agent::Bytes& data : {agent::EncodeCancelData(reinterpret_cast<const webauthn::GUID*>(other)),
                                     agent::EncodeCancelData(nullptr), agent::Bytes{8, 0, 0, 0, 1, 2, 3, 4, 5, 6, 7, 8}}) {
        Send(agent::RequestPdu(50, kCmdCancelCurrentOperation, data));
    }
    EXPECT_FALSE(host.WaitForMessages(1, 300));
}

TEST_F(Operations, SupersededOperationGetsNoAnswer) {
    Auth().Mode(SIMAUTH_BLOCK_UNTIL_CANCEL);
    Send(MakeCredentialPdu(60, 2, true));
    ASSERT_TRUE(Auth().WaitBlocked(1));
    Auth().Mode(SIMAUTH_INSTANT);
    Send(MakeCredentialPdu(61, 2, true));
    ASSERT_TRUE(host.WaitForMessages(1, 5000));
    EXPECT_FALSE(host.WaitForMessages(2, 300));
    auto sent = Answers();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(ReadLe32(sent[0].params[0].data()), 61u) << "only the second is answered";
    EXPECT_EQ(Auth().Blocked(), 0);
    EXPECT_EQ(Auth().Killed(), 0) << "the first was cancelled by its id, not killed";
}

TEST_F(Operations, ChannelLossStopsTheOperationWithoutAnswer) {
    Auth().Mode(SIMAUTH_BLOCK_UNTIL_CANCEL);
    Send(MakeCredentialPdu(70, 2, true));
    ASSERT_TRUE(Auth().WaitBlocked(1));
    host.ReportChannel(TBX_STATE_DISCONNECTED, TBX_STATE_DISCONNECTED);
    EXPECT_EQ(Auth().Blocked(), 0) << "the worker was cancelled and joined during OnNotReady";
    EXPECT_EQ(Auth().Killed(), 0);
    EXPECT_EQ(Auth().RunningCallers(), 0);
    EXPECT_TRUE(Answers().empty());
    host.ReportChannel(TBX_STATE_DISCONNECTED, TBX_STATE_DISCONNECTED);  // OnNotReady again finds nothing
}

TEST_F(Operations, StopAfterTheLibraryReturnedStillAnswers) {
    // The worker is held in its send, after its second check: the stop finds nothing to cancel.
    host.HoldInvokes(true);
    Send(MakeCredentialPdu(80, 2, true));
    ASSERT_TRUE(host.WaitForHeldInvokes(1, 5000));
    std::thread release([&] {
        Sleep(100);
        host.HoldInvokes(false);
    });
    Send(MakeCredentialPdu(81, 2, true));  // stops the held worker, which finishes its answer
    release.join();
    ASSERT_TRUE(host.WaitForMessages(2, 5000));
    auto sent = Answers();
    EXPECT_EQ(ReadLe32(sent[0].params[0].data()), 80u);
    EXPECT_EQ(ReadLe32(sent[1].params[0].data()), 81u);
}

// The host's destroy and exit leave no worker behind: one still running could return into
// the DLL after the host has unloaded it.
TEST_F(Operations, DestroyStopsTheOperationAlsoOfAnInstanceThatIsNotReady) {
    Auth().Mode(SIMAUTH_BLOCK_UNTIL_CANCEL);
    ASSERT_TRUE(host.SetObjectState("fido2ControlObj", TBX_STATE_DISCONNECTED));
    Send(MakeCredentialPdu(100, 2, true));  // the data object still delivers
    ASSERT_TRUE(Auth().WaitBlocked(1));
    Destroy(instances[0]);
    EXPECT_EQ(Auth().RunningCallers(), 0) << "the worker is over when the destroy returns";
    EXPECT_EQ(Auth().Killed(), 0) << "it was cancelled, not killed";
    EXPECT_TRUE(Answers().empty());
}

TEST_F(Operations, ExitStopsTheOperationOfAnInstanceTheHostNeverDestroyed) {
    Auth().Mode(SIMAUTH_BLOCK_UNTIL_CANCEL);
    Send(MakeCredentialPdu(110, 2, true));
    ASSERT_TRUE(Auth().WaitBlocked(1));
    ASSERT_TRUE(host.Exit());
    EXPECT_EQ(Auth().RunningCallers(), 0) << "no worker runs on once the host may unload the DLL";
    EXPECT_EQ(Auth().Killed(), 0);
    EXPECT_TRUE(Answers().empty());
}

}  // namespace
