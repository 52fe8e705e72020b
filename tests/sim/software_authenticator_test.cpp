// What the plug-in's tests rely on in the software authenticator beyond what they show
// themselves: callers killed in their wait counted and never mistaken for waiting ones, and a
// reset that forgets everything. Its signatures are verified by the demo's JSON check; its
// answers, steering and cancels by id through the plug-in's operations.
#include <gtest/gtest.h>
#include <windows.h>

#include "plugin/webauthn_binding.h"
#include "sim/agent_samples.h"
#include "sim/authenticator_client.h"
#include "support/log_wait.h"
#include "sysutil/scoped_handle.h"

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
    // the library. Join gives back the record it got; a caller left running is joined when it goes.
    struct Caller {
        Caller(SoftwareAuthenticator* test, const Fido2MakeCredentialRequest& request)
            : test(test), request(request), thread(CreateThread(nullptr, 0, Run, this, 0, nullptr)) {}
        ~Caller() { Join(); }
        static DWORD WINAPI Run(void* self) {
            auto* c = static_cast<Caller*>(self);
            c->id = GetCurrentThreadId();
            c->result = c->test->Make(c->request, &c->attestation);
            return 0;
        }
        // Whether the call ended by itself; past the bound it is killed, so that it never writes
        // into a frame that is gone.
        bool Join() {
            const bool ended = WaitForSingleObject(thread.Get(), 5000) == WAIT_OBJECT_0;
            if (!ended && TerminateThread(thread.Get(), 0)) WaitForSingleObject(thread.Get(), 5000);
            got = got || attestation != nullptr;
            if (attestation) test->Free(attestation);
            attestation = nullptr;
            return ended;
        }
        SoftwareAuthenticator* test;
        const Fido2MakeCredentialRequest& request;
        HRESULT result = S_OK;
        WEBAUTHN_CREDENTIAL_ATTESTATION* attestation = nullptr;
        bool got = false;
        DWORD id = 0;
        ScopedHandle thread;  // last: the thread starts once the fields it writes are set
    };

    // The crypto thread's queue polled until it holds `jobs`, as a killed caller signals nothing.
    bool WaitCryptoJobs(LONG jobs) { return WaitUntil([&] { return auth.CryptoJobs() == jobs; }, 5000); }

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
    ASSERT_TRUE(TerminateThread(doomed.thread.Get(), 0));
    ASSERT_TRUE(doomed.Join());
    // The killed caller is neither waiting nor running any more, and a wait isn't met by it.
    EXPECT_EQ(auth.Blocked(), 0);
    EXPECT_EQ(auth.Killed(), 1);
    EXPECT_EQ(auth.RunningCallers(), 0);
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
    for (const Caller* c : {&first, &second}) {
        EXPECT_EQ(c->result, S_OK);
        EXPECT_TRUE(c->got);
    }
    // The keys are made off the callers' threads, by one thread for every caller.
    EXPECT_NE(crypto, 0u);
    EXPECT_NE(crypto, first.id);
    EXPECT_NE(crypto, second.id);
    EXPECT_EQ(auth.CryptoThread(), crypto);

    auth.HoldCrypto(true);
    Caller doomed(this, make);
    ASSERT_TRUE(WaitCryptoJobs(1));
    ASSERT_TRUE(TerminateThread(doomed.thread.Get(), 0));
    ASSERT_TRUE(doomed.Join());
    EXPECT_EQ(auth.Killed(), 1) << "killed while waiting for its key";
    EXPECT_EQ(auth.CryptoJobs(), 0) << "its job is dropped, never run into a dead stack";
    EXPECT_EQ(auth.Blocked() + auth.RunningCallers(), 0);
    Caller next(this, make);
    ASSERT_TRUE(WaitCryptoJobs(1));
    auth.HoldCrypto(false);
    ASSERT_TRUE(next.Join()) << "the next caller is served";
    EXPECT_EQ(next.result, S_OK);
    EXPECT_TRUE(next.got);

    auth.HoldCrypto(true);
    Caller queued(this, make);
    ASSERT_TRUE(WaitCryptoJobs(1));
    auth.Reset();
    ASSERT_TRUE(queued.Join()) << "a reset runs what is queued before it ends the thread";
    EXPECT_EQ(queued.result, S_OK);
    EXPECT_TRUE(queued.got);
    EXPECT_EQ(auth.CryptoThread(), 0u);
    EXPECT_EQ(auth.Killed() + auth.CryptoJobs(), 0);
}

}  // namespace
