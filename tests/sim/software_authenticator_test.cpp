// The software authenticator as the plug-in will call it: real keys, signatures that verify
// with CNG against the key in the attestation, cancellation by id, steering.
#include <gtest/gtest.h>
#include <windows.h>

#include <cstring>
#include <thread>

#include "sim/agent_samples.h"
#include "sim/authenticator/ec_key.h"
#include "plugin/webauthn_binding.h"
#include "sim/authenticator_client.h"
#include "wire/webauthn_records.h"

using simauth::Bytes;
using webauthn::Fido2GetAssertionRequest;
using webauthn::Fido2MakeCredentialRequest;
using webauthn::PCWSTR;
using webauthn::WEBAUTHN_ASSERTION;
using webauthn::WEBAUTHN_AUTHENTICATOR_GET_ASSERTION_OPTIONS;
using webauthn::WEBAUTHN_AUTHENTICATOR_MAKE_CREDENTIAL_OPTIONS;
using webauthn::WEBAUTHN_CLIENT_DATA;
using webauthn::WEBAUTHN_COSE_CREDENTIAL_PARAMETERS;
using webauthn::WEBAUTHN_CREDENTIAL;
using webauthn::WEBAUTHN_CREDENTIAL_ATTESTATION;
using webauthn::WEBAUTHN_RP_ENTITY_INFORMATION;
using webauthn::WEBAUTHN_USER_ENTITY_INFORMATION;

namespace {

using webauthn::CancelCurrentOperationFn;
using webauthn::FreeAssertionFn;
using webauthn::GetAssertionFn;
using webauthn::MakeCredentialFn;
using FreeAttestationFn = webauthn::FreeCredentialAttestationFn;
using CancelFn = CancelCurrentOperationFn;

constexpr HRESULT kCancelled = static_cast<HRESULT>(0x800704C7);

class SoftwareAuthenticator : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(auth.Loaded());
        auth.Reset();
        makeCredential = auth.Get<MakeCredentialFn>("WebAuthNAuthenticatorMakeCredential");
        getAssertion = auth.Get<GetAssertionFn>("WebAuthNAuthenticatorGetAssertion");
        freeAttestation = auth.Get<FreeAttestationFn>("WebAuthNFreeCredentialAttestation");
        freeAssertion = auth.Get<FreeAssertionFn>("WebAuthNFreeAssertion");
        cancel = auth.Get<CancelFn>("WebAuthNCancelCurrentOperation");
    }
    void TearDown() override {
        EXPECT_EQ(auth.LiveRecords(), 0) << "every record given back";
    }
    HRESULT Make(const Fido2MakeCredentialRequest& r, WEBAUTHN_CREDENTIAL_ATTESTATION** out) {
        return makeCredential(nullptr, r.pRpInformation, r.pUserInformation, r.pPubKeyCredParams, r.pClientData,
                              r.pMakeCredentialOptions, out);
    }
    HRESULT Get(const Fido2GetAssertionRequest& r, WEBAUTHN_ASSERTION** out) {
        return getAssertion(nullptr, r.pwszRpId, r.pClientData, r.pGetAssertionOptions, out);
    }

    sim::SoftwareAuthenticator auth;
    MakeCredentialFn makeCredential = nullptr;
    GetAssertionFn getAssertion = nullptr;
    FreeAttestationFn freeAttestation = nullptr;
    FreeAssertionFn freeAssertion = nullptr;
    CancelFn cancel = nullptr;
    agent::SampleArena arena;
};

// The public point from the COSE key of the attested credential data.
bool PublicPoint(const WEBAUTHN_CREDENTIAL_ATTESTATION* a, Bytes* x, Bytes* y) {
    const uint8_t* d = a->pbAuthenticatorData;
    if (a->cbAuthenticatorData < 55) return false;
    size_t idLength = (d[53] << 8) | d[54];
    size_t at = 55 + idLength;
    static const uint8_t head[] = {0xA5, 0x01, 0x02, 0x03, 0x26, 0x20, 0x01, 0x21, 0x58, 0x20};
    if (at + sizeof(head) + 32 + 3 + 32 > a->cbAuthenticatorData || memcmp(d + at, head, sizeof(head)) != 0) {
        return false;
    }
    at += sizeof(head);
    x->assign(d + at, d + at + 32);
    at += 32;
    if (d[at] != 0x22 || d[at + 1] != 0x58 || d[at + 2] != 0x20) return false;
    at += 3;
    y->assign(d + at, d + at + 32);
    return true;
}

Bytes SignedBytes(const uint8_t* authData, DWORD n, const WEBAUTHN_CLIENT_DATA* clientData) {
    Bytes message(authData, authData + n);
    Bytes hash = simauth::Sha256(Bytes(clientData->pbClientDataJSON,
                                       clientData->pbClientDataJSON + clientData->cbClientDataJSON));
    message.insert(message.end(), hash.begin(), hash.end());
    return message;
}

TEST_F(SoftwareAuthenticator, AssertionSignatureVerifiesAgainstTheAttestedKey) {
    auto make = agent::SampleMakeCredential(arena, 4, false);
    WEBAUTHN_CREDENTIAL_ATTESTATION* attestation = nullptr;
    ASSERT_EQ(Make(make, &attestation), S_OK);
    ASSERT_NE(attestation, nullptr);
    EXPECT_EQ(attestation->dwVersion, 4u);
    EXPECT_EQ(attestation->cbCredentialId, 16u);
    Bytes rpHash = simauth::Sha256(Bytes{'e', 'x', 'a', 'm', 'p', 'l', 'e', '.', 'c', 'o', 'm'});
    EXPECT_EQ(Bytes(attestation->pbAuthenticatorData, attestation->pbAuthenticatorData + 32), rpHash);
    EXPECT_EQ(attestation->pbAuthenticatorData[32], 0x45) << "user present, verified, attested data";
    Bytes x, y;
    ASSERT_TRUE(PublicPoint(attestation, &x, &y));

    auto get = agent::SampleGetAssertion(arena, 1, false);
    WEBAUTHN_CREDENTIAL allow{1, attestation->cbCredentialId, attestation->pbCredentialId, nullptr};
    get.pGetAssertionOptions->CredentialList = {1, &allow};
    WEBAUTHN_ASSERTION* assertion = nullptr;
    ASSERT_EQ(Get(get, &assertion), S_OK);
    ASSERT_NE(assertion, nullptr);
    EXPECT_EQ(Bytes(assertion->Credential.pbId, assertion->Credential.pbId + assertion->Credential.cbId),
              Bytes(attestation->pbCredentialId, attestation->pbCredentialId + attestation->cbCredentialId));
    EXPECT_EQ(assertion->pbAuthenticatorData[36], 1) << "the counter counts";
    Bytes message = SignedBytes(assertion->pbAuthenticatorData, assertion->cbAuthenticatorData, get.pClientData);
    Bytes signature(assertion->pbSignature, assertion->pbSignature + assertion->cbSignature);
    EXPECT_TRUE(simauth::VerifyEs256(x, y, message, signature));
    message[0] ^= 1;
    EXPECT_FALSE(simauth::VerifyEs256(x, y, message, signature)) << "a changed message doesn't verify";
    freeAssertion(assertion);
    freeAttestation(attestation);
}

TEST_F(SoftwareAuthenticator, AllowListAndUnknownRelyingParty) {
    auto make = agent::SampleMakeCredential(arena, 1, false);
    WEBAUTHN_CREDENTIAL_ATTESTATION* attestation = nullptr;
    ASSERT_EQ(Make(make, &attestation), S_OK);
    auto get = agent::SampleGetAssertion(arena, 4, true);  // its allow list names other ids
    WEBAUTHN_ASSERTION* assertion = nullptr;
    EXPECT_EQ(Get(get, &assertion), static_cast<HRESULT>(0x80090011));
    EXPECT_EQ(assertion, nullptr);
    auto other = agent::SampleGetAssertion(arena, 0, false);
    other.pwszRpId = arena.Text(u"other.example");
    EXPECT_EQ(Get(other, &assertion), static_cast<HRESULT>(0x80090011));
    freeAttestation(attestation);
}

TEST_F(SoftwareAuthenticator, CancelByIdBeforeAndDuringTheCall) {
    auth.Mode(SIMAUTH_BLOCK_UNTIL_CANCEL);
    auto make = agent::SampleMakeCredential(arena, 2, true);  // carries a cancellation id
    const webauthn::GUID* id = make.pMakeCredentialOptions->pCancellationId;
    ASSERT_NE(id, nullptr);

    EXPECT_EQ(cancel(id), S_OK) << "a cancel for an id not seen yet is accepted";
    WEBAUTHN_CREDENTIAL_ATTESTATION* attestation = nullptr;
    EXPECT_EQ(Make(make, &attestation), kCancelled) << "and cancels that call as soon as it starts";

    HRESULT result = S_OK;
    std::thread worker([&] { result = Make(make, &attestation); });
    ASSERT_TRUE(auth.WaitBlocked(1));
    EXPECT_EQ(cancel(id), S_OK);
    worker.join();
    EXPECT_EQ(result, kCancelled);
    EXPECT_EQ(attestation, nullptr);
    EXPECT_EQ(auth.Blocked(), 0);
}

TEST_F(SoftwareAuthenticator, SteeredFailuresVersionsAndFormats) {
    auto make = agent::SampleMakeCredential(arena, 1, false);
    WEBAUTHN_CREDENTIAL_ATTESTATION* attestation = nullptr;
    auth.Get<SimAuth_SetFailureFn>("SimAuth_SetFailure")(static_cast<HRESULT>(0x80090027), FALSE);
    EXPECT_EQ(Make(make, &attestation), static_cast<HRESULT>(0x80090027));
    EXPECT_EQ(attestation, nullptr);
    auth.Get<SimAuth_SetFailureFn>("SimAuth_SetFailure")(static_cast<HRESULT>(0x80090027), TRUE);
    EXPECT_EQ(Make(make, &attestation), static_cast<HRESULT>(0x80090027));
    ASSERT_NE(attestation, nullptr) << "a record with a negative result";
    freeAttestation(attestation);

    auth.Get<SimAuth_SetFailureFn>("SimAuth_SetFailure")(0, FALSE);
    auth.Get<SimAuth_SetRecordVersionsFn>("SimAuth_SetRecordVersions")(9, 7);
    auth.Get<SimAuth_SetNoneAttestationFn>("SimAuth_SetNoneAttestation")(TRUE);
    ASSERT_EQ(Make(make, &attestation), S_OK);
    EXPECT_EQ(attestation->dwVersion, 9u);
    const Bytes none = {0xA3, 0x63, 'f', 'm', 't', 0x64, 'n', 'o', 'n', 'e'};
    EXPECT_EQ(Bytes(attestation->pbAttestationObject, attestation->pbAttestationObject + none.size()), none);
    freeAttestation(attestation);
    auth.Get<SimAuth_SetApiVersionFn>("SimAuth_SetApiVersion")(7);
    using VersionFn = DWORD(WINAPI*)();
    EXPECT_EQ(auth.Get<VersionFn>("WebAuthNGetApiVersionNumber")(), 7u);
}

// A caller on a thread of its own that a test can kill while it waits in the library.
struct BlockedCaller {
    SoftwareAuthenticator* test;
    const Fido2MakeCredentialRequest* request;
    HRESULT result = S_OK;
    WEBAUTHN_CREDENTIAL_ATTESTATION* attestation = nullptr;
};

DWORD WINAPI CallFromOwnThread(void* argument);

class KilledCallers : public SoftwareAuthenticator {
protected:
    HANDLE StartCaller(BlockedCaller* caller) { return CreateThread(nullptr, 0, CallFromOwnThread, caller, 0, nullptr); }
    friend DWORD WINAPI CallFromOwnThread(void* argument);
};

DWORD WINAPI CallFromOwnThread(void* argument) {
    auto* caller = static_cast<BlockedCaller*>(argument);
    caller->result = static_cast<KilledCallers*>(caller->test)->Make(*caller->request, &caller->attestation);
    return 0;
}

TEST_F(KilledCallers, AKilledWaiterNeitherCountsAsBlockedNorHoldsUpTheNext) {
    auth.Mode(SIMAUTH_BLOCK_UNTIL_CANCEL);
    auto make = agent::SampleMakeCredential(arena, 2, true);
    BlockedCaller doomed{this, &make};
    HANDLE thread = StartCaller(&doomed);
    ASSERT_TRUE(auth.WaitBlocked(1));
    EXPECT_EQ(auth.RunningCallers(), 1);
    ASSERT_TRUE(TerminateThread(thread, 0));
    ASSERT_EQ(WaitForSingleObject(thread, 5000), WAIT_OBJECT_0);
    CloseHandle(thread);

    EXPECT_EQ(auth.Blocked(), 0) << "the killed caller is not waiting any more";
    EXPECT_EQ(auth.Killed(), 1);
    EXPECT_EQ(auth.RunningCallers(), 0);
    EXPECT_FALSE(auth.WaitBlocked(1, 100)) << "a wait for a blocked caller isn't met by the dead one";

    BlockedCaller next{this, &make};
    thread = StartCaller(&next);
    ASSERT_TRUE(auth.WaitBlocked(1));
    EXPECT_EQ(cancel(make.pMakeCredentialOptions->pCancellationId), S_OK);
    ASSERT_EQ(WaitForSingleObject(thread, 5000), WAIT_OBJECT_0) << "the next caller is cancelled as usual";
    CloseHandle(thread);
    EXPECT_EQ(next.result, kCancelled);
    EXPECT_EQ(auth.Blocked(), 0);
    EXPECT_EQ(auth.Killed(), 1) << "a caller that returned isn't counted as killed";
}

TEST_F(KilledCallers, ResetReleasesWaitersAndClearsEveryCountAndPendingCancel) {
    auth.Mode(SIMAUTH_BLOCK_UNTIL_CANCEL);
    auto withId = agent::SampleMakeCredential(arena, 2, true);
    auto withoutId = agent::SampleMakeCredential(arena, 1, false);
    BlockedCaller doomed{this, &withId}, waiting{this, &withoutId};
    HANDLE killedThread = StartCaller(&doomed);
    ASSERT_TRUE(auth.WaitBlocked(1));
    ASSERT_TRUE(TerminateThread(killedThread, 0));
    WaitForSingleObject(killedThread, 5000);
    CloseHandle(killedThread);
    HANDLE waiter = StartCaller(&waiting);
    ASSERT_TRUE(auth.WaitBlocked(1));
    EXPECT_EQ(cancel(withId.pMakeCredentialOptions->pCancellationId), S_OK) << "no caller has it: kept for later";

    auth.Reset();
    ASSERT_EQ(WaitForSingleObject(waiter, 5000), WAIT_OBJECT_0) << "a call without id ends only by the reset";
    CloseHandle(waiter);
    EXPECT_EQ(waiting.result, kCancelled);
    EXPECT_EQ(auth.Blocked(), 0);
    EXPECT_EQ(auth.Killed(), 0);
    EXPECT_EQ(auth.Calls(), 0);
    EXPECT_EQ(auth.RunningCallers(), 0);
    WEBAUTHN_CREDENTIAL_ATTESTATION* attestation = nullptr;
    EXPECT_EQ(Make(withId, &attestation), S_OK) << "the cancel from before the reset is gone";
    freeAttestation(attestation);
}

}  // namespace
