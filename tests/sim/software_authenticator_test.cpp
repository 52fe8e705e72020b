// What the plug-in's tests rely on in the software authenticator beyond what they show
// themselves: a cancel by id also of a call not yet made, and callers killed in their wait
// counted and never mistaken for waiting ones. Its signatures are verified by the demo's JSON
// check; its answers and steering through the plug-in's operations.
#include <gtest/gtest.h>
#include <windows.h>

#include "plugin/webauthn_binding.h"
#include "sim/agent_samples.h"
#include "sim/authenticator_client.h"

namespace {

using webauthn::WEBAUTHN_CREDENTIAL_ATTESTATION;

constexpr HRESULT kCancelled = static_cast<HRESULT>(0x800704C7);

class SoftwareAuthenticator : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(auth.Loaded());
        auth.Reset();
    }
    void TearDown() override { EXPECT_EQ(auth.LiveRecords(), 0) << "every record given back"; }
    HRESULT Make(const webauthn::Fido2MakeCredentialRequest& r, WEBAUTHN_CREDENTIAL_ATTESTATION** out) {
        return auth.Get<webauthn::MakeCredentialFn>("WebAuthNAuthenticatorMakeCredential")(
            nullptr, r.pRpInformation, r.pUserInformation, r.pPubKeyCredParams, r.pClientData, r.pMakeCredentialOptions, out);
    }
    HRESULT Cancel(const webauthn::GUID* id) {
        return auth.Get<webauthn::CancelCurrentOperationFn>("WebAuthNCancelCurrentOperation")(id);
    }
    void Free(WEBAUTHN_CREDENTIAL_ATTESTATION* a) {
        auth.Get<webauthn::FreeCredentialAttestationFn>("WebAuthNFreeCredentialAttestation")(a);
    }
    // A caller on a thread of its own, which a test can kill while it waits in the library.
    struct Caller {
        SoftwareAuthenticator* test;
        const webauthn::Fido2MakeCredentialRequest* request;
        HRESULT result = S_OK;
        WEBAUTHN_CREDENTIAL_ATTESTATION* attestation = nullptr;
        HANDLE thread = nullptr;
        DWORD id = 0;
        static DWORD WINAPI Run(void* self) {
            auto* c = static_cast<Caller*>(self);
            c->id = GetCurrentThreadId();
            c->result = c->test->Make(*c->request, &c->attestation);
            return 0;
        }
        void Start() { thread = CreateThread(nullptr, 0, Run, this, 0, nullptr); }
        bool Join() {
            const bool ended = WaitForSingleObject(thread, 5000) == WAIT_OBJECT_0;
            CloseHandle(thread);
            return ended;
        }
    };

    // The crypto thread's queue polled until it holds `jobs`, as a killed caller signals nothing.
    bool WaitCryptoJobs(LONG jobs) {
        for (int i = 0; i < 500 && auth.CryptoJobs() != jobs; ++i) Sleep(10);
        return auth.CryptoJobs() == jobs;
    }
    // A caller that made its credential on a thread of its own, and its record given back.
    void MakeOnANewThread(const webauthn::Fido2MakeCredentialRequest& request, DWORD* callerId) {
        Caller caller{this, &request};
        caller.Start();
        ASSERT_TRUE(caller.Join());
        EXPECT_EQ(caller.result, S_OK);
        EXPECT_NE(caller.attestation, nullptr);
        Free(caller.attestation);
        *callerId = caller.id;
    }

    sim::SoftwareAuthenticator auth;
    agent::SampleArena arena;
};

TEST_F(SoftwareAuthenticator, CancelByIdBeforeAndDuringTheCall) {
    auth.Mode(SIMAUTH_BLOCK_UNTIL_CANCEL);
    auto make = agent::SampleMakeCredential(arena, 2, true);  // carries a cancellation id
    const webauthn::GUID* id = make.pMakeCredentialOptions->pCancellationId;
    ASSERT_NE(id, nullptr);
    EXPECT_EQ(Cancel(id), S_OK) << "a cancel for an id not seen yet is accepted";
    WEBAUTHN_CREDENTIAL_ATTESTATION* attestation = nullptr;
    EXPECT_EQ(Make(make, &attestation), kCancelled) << "and cancels that call as soon as it starts";

    Caller caller{this, &make};
    caller.Start();
    ASSERT_TRUE(auth.WaitBlocked(1));
    EXPECT_EQ(Cancel(id), S_OK);
    ASSERT_TRUE(caller.Join());
    EXPECT_EQ(caller.result, kCancelled);
    EXPECT_EQ(caller.attestation, nullptr);
    EXPECT_EQ(auth.Blocked(), 0);
    EXPECT_EQ(Cancel(nullptr), static_cast<HRESULT>(0x80070057));
}

TEST_F(SoftwareAuthenticator, KilledWaitersAreCountedAndNeitherBlockNorSurviveAReset) {
    auth.Mode(SIMAUTH_BLOCK_UNTIL_CANCEL);
    auto withId = agent::SampleMakeCredential(arena, 2, true);
    auto withoutId = agent::SampleMakeCredential(arena, 1, false);
    Caller doomed{this, &withId};
    doomed.Start();
    ASSERT_TRUE(auth.WaitBlocked(1));
    EXPECT_EQ(auth.RunningCallers(), 1);
    ASSERT_TRUE(TerminateThread(doomed.thread, 0));
    ASSERT_TRUE(doomed.Join());
    EXPECT_EQ(auth.Blocked(), 0) << "the killed caller is not waiting any more";
    EXPECT_EQ(auth.Killed(), 1);
    EXPECT_EQ(auth.RunningCallers(), 0);
    EXPECT_FALSE(auth.WaitBlocked(1, 100)) << "a wait for a blocked caller isn't met by the dead one";

    Caller next{this, &withId};
    next.Start();
    ASSERT_TRUE(auth.WaitBlocked(1));
    EXPECT_EQ(Cancel(withId.pMakeCredentialOptions->pCancellationId), S_OK);
    ASSERT_TRUE(next.Join()) << "the next caller is cancelled as usual";
    EXPECT_EQ(next.result, kCancelled);
    EXPECT_EQ(auth.Killed(), 1) << "a caller that returned isn't counted as killed";

    Caller waiting{this, &withoutId};
    waiting.Start();
    ASSERT_TRUE(auth.WaitBlocked(1));
    EXPECT_EQ(Cancel(withId.pMakeCredentialOptions->pCancellationId), S_OK) << "no caller has it: kept for later";
    auth.Reset();
    ASSERT_TRUE(waiting.Join()) << "a call without id ends only by the reset";
    EXPECT_EQ(waiting.result, kCancelled);
    EXPECT_EQ(auth.Blocked() + auth.Killed() + auth.Calls() + auth.RunningCallers(), 0) << "every count cleared";
    WEBAUTHN_CREDENTIAL_ATTESTATION* attestation = nullptr;
    EXPECT_EQ(Make(withId, &attestation), S_OK) << "the cancel from before the reset is gone";
    Free(attestation);
}

TEST_F(SoftwareAuthenticator, CryptoRunsOnOneThreadThatKilledCallersNeitherStallNorEscapeTheCounts) {
    auto make = agent::SampleMakeCredential(arena, 2, true);
    DWORD first = 0, second = 0;
    MakeOnANewThread(make, &first);
    const DWORD crypto = auth.CryptoThread();
    MakeOnANewThread(make, &second);
    EXPECT_NE(crypto, 0u);
    EXPECT_TRUE(crypto != first && crypto != second) << "the keys are made off the callers' threads";
    EXPECT_EQ(auth.CryptoThread(), crypto) << "by one thread for every caller";

    auth.HoldCrypto(true);
    Caller doomed{this, &make};
    doomed.Start();
    ASSERT_TRUE(WaitCryptoJobs(1));
    ASSERT_TRUE(TerminateThread(doomed.thread, 0));
    ASSERT_TRUE(doomed.Join());
    EXPECT_EQ(auth.Killed(), 1) << "killed while waiting for its key";
    EXPECT_EQ(auth.CryptoJobs(), 0) << "its job is dropped, never run into a dead stack";
    EXPECT_EQ(auth.Blocked() + auth.RunningCallers(), 0);
    Caller next{this, &make};
    next.Start();
    ASSERT_TRUE(WaitCryptoJobs(1));
    auth.HoldCrypto(false);
    ASSERT_TRUE(next.Join()) << "the next caller is served";
    EXPECT_EQ(next.result, S_OK);
    Free(next.attestation);

    auth.HoldCrypto(true);
    Caller queued{this, &make};
    queued.Start();
    ASSERT_TRUE(WaitCryptoJobs(1));
    auth.Reset();
    ASSERT_TRUE(queued.Join()) << "a reset runs what is queued before it ends the thread";
    EXPECT_EQ(queued.result, S_OK);
    Free(queued.attestation);
    EXPECT_EQ(auth.CryptoThread(), 0u);
    EXPECT_EQ(auth.Killed() + auth.CryptoJobs(), 0);
}

}  // namespace
