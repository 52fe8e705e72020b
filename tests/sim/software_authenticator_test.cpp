// What the plug-in's tests rely on in the software authenticator beyond what they show
// themselves: callers killed in their wait counted and never mistaken for waiting ones, and a
// reset that forgets everything. Its signatures are verified by the demo's JSON check; its
// answers, steering and cancels by id through the plug-in's operations.
#include <gtest/gtest.h>
#include <windows.h>

#include <vector>

#include "plugin/webauthn_binding.h"
#include "sim/agent_samples.h"
#include "sim/authenticator_client.h"

namespace {

using webauthn::Fido2MakeCredentialRequest;
using webauthn::WEBAUTHN_CREDENTIAL_ATTESTATION;

constexpr HRESULT kCancelled = static_cast<HRESULT>(0x800704C7);

class SoftwareAuthenticator : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(auth.Loaded());
        auth.Reset();
    }
    void TearDown() override { EXPECT_EQ(auth.LiveRecords(), 0) << "every record given back"; }
    HRESULT Make(const Fido2MakeCredentialRequest& r, WEBAUTHN_CREDENTIAL_ATTESTATION** out) {
        return auth.Get<webauthn::MakeCredentialFn>("WebAuthNAuthenticatorMakeCredential")(
            nullptr, r.pRpInformation, r.pUserInformation, r.pPubKeyCredParams, r.pClientData, r.pMakeCredentialOptions, out);
    }
    HRESULT Cancel(const webauthn::GUID* id) {
        return auth.Get<webauthn::CancelCurrentOperationFn>("WebAuthNCancelCurrentOperation")(id);
    }
    void Free(WEBAUTHN_CREDENTIAL_ATTESTATION* a) {
        auth.Get<webauthn::FreeCredentialAttestationFn>("WebAuthNFreeCredentialAttestation")(a);
    }
    // A caller on a thread of its own, started at once, which a test can kill while it waits in
    // the library. Join gives back the record it got.
    struct Caller {
        Caller(SoftwareAuthenticator* test, const Fido2MakeCredentialRequest& request) : test(test), request(request) {
            thread = CreateThread(nullptr, 0, Run, this, 0, nullptr);
        }
        static DWORD WINAPI Run(void* self) {
            auto* c = static_cast<Caller*>(self);
            c->id = GetCurrentThreadId();
            c->result = c->test->Make(c->request, &c->attestation);
            return 0;
        }
        bool Join() {
            const bool ended = WaitForSingleObject(thread, 5000) == WAIT_OBJECT_0;
            CloseHandle(thread);
            got = attestation != nullptr;
            if (got) test->Free(attestation);
            return ended;
        }
        SoftwareAuthenticator* test;
        const Fido2MakeCredentialRequest& request;
        HRESULT result = S_OK;
        WEBAUTHN_CREDENTIAL_ATTESTATION* attestation = nullptr;
        bool got = false;
        HANDLE thread = nullptr;
        DWORD id = 0;
    };

    // The crypto thread's queue polled until it holds `jobs`, as a killed caller signals nothing.
    bool WaitCryptoJobs(LONG jobs) {
        for (int i = 0; i < 500 && auth.CryptoJobs() != jobs; ++i) Sleep(10);
        return auth.CryptoJobs() == jobs;
    }

    sim::SoftwareAuthenticator auth;
    agent::SampleArena arena;
};

TEST_F(SoftwareAuthenticator, KilledWaitersAreCountedAndNeitherBlockNorSurviveAReset) {
    auth.Mode(SIMAUTH_BLOCK_UNTIL_CANCEL);
    auto withId = agent::SampleMakeCredential(arena, 2, true);
    const webauthn::GUID* id = withId.pMakeCredentialOptions->pCancellationId;
    Caller doomed(this, withId);
    ASSERT_TRUE(auth.WaitBlocked(1));
    EXPECT_EQ(auth.RunningCallers(), 1);
    ASSERT_TRUE(TerminateThread(doomed.thread, 0));
    ASSERT_TRUE(doomed.Join());
    // The killed caller is neither waiting nor running any more, and a wait isn't met by it.
    EXPECT_EQ(std::vector<LONG>({auth.Blocked(), auth.Killed(), auth.RunningCallers()}), std::vector<LONG>({0, 1, 0}));
    EXPECT_FALSE(auth.WaitBlocked(1, 100));

    auto withoutId = agent::SampleMakeCredential(arena, 1, false);
    Caller waiting(this, withoutId);
    ASSERT_TRUE(auth.WaitBlocked(1));
    EXPECT_EQ(Cancel(id), S_OK) << "no caller has it: kept for later";
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
    Caller first(this, make);
    ASSERT_TRUE(first.Join());
    const DWORD crypto = auth.CryptoThread();
    Caller second(this, make);
    ASSERT_TRUE(second.Join());
    EXPECT_TRUE(first.got && second.got);
    // The keys are made off the callers' threads, by one thread for every caller.
    EXPECT_TRUE(crypto != 0 && crypto != first.id && crypto != second.id && auth.CryptoThread() == crypto);

    auth.HoldCrypto(true);
    Caller doomed(this, make);
    ASSERT_TRUE(WaitCryptoJobs(1));
    ASSERT_TRUE(TerminateThread(doomed.thread, 0));
    ASSERT_TRUE(doomed.Join());
    EXPECT_EQ(auth.Killed(), 1) << "killed while waiting for its key";
    EXPECT_EQ(auth.CryptoJobs(), 0) << "its job is dropped, never run into a dead stack";
    EXPECT_EQ(auth.Blocked() + auth.RunningCallers(), 0);
    Caller next(this, make);
    ASSERT_TRUE(WaitCryptoJobs(1));
    auth.HoldCrypto(false);
    ASSERT_TRUE(next.Join()) << "the next caller is served";
    EXPECT_TRUE(next.result == S_OK && next.got);

    auth.HoldCrypto(true);
    Caller queued(this, make);
    ASSERT_TRUE(WaitCryptoJobs(1));
    auth.Reset();
    ASSERT_TRUE(queued.Join()) << "a reset runs what is queued before it ends the thread";
    EXPECT_TRUE(queued.result == S_OK && queued.got);
    EXPECT_EQ(auth.CryptoThread(), 0u);
    EXPECT_EQ(auth.Killed() + auth.CryptoJobs(), 0);
}

}  // namespace
