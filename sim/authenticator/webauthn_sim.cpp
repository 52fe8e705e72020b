// A software authenticator in the shape of the platform's webauthn.dll: real P-256 keys
// through CNG, "packed" self attestation or "none", assertions that verify with any relying
// party, cancellation by id, and a control interface for tests.
#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <list>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "sim/authenticator/cbor.h"
#include "sim/authenticator/crypto_thread.h"
#include "sim/authenticator/ec_key.h"
#include "sim/authenticator/sim_control.h"
#include "wire/webauthn_records.h"

using simauth::Bytes;
using webauthn::PCWSTR;
using webauthn::WEBAUTHN_ASSERTION;
using webauthn::WEBAUTHN_AUTHENTICATOR_GET_ASSERTION_OPTIONS;
using webauthn::WEBAUTHN_AUTHENTICATOR_MAKE_CREDENTIAL_OPTIONS;
using webauthn::WEBAUTHN_CLIENT_DATA;
using webauthn::WEBAUTHN_COSE_CREDENTIAL_PARAMETERS;
using webauthn::WEBAUTHN_CREDENTIAL_ATTESTATION;
using webauthn::WEBAUTHN_CREDENTIAL_EX;
using webauthn::WEBAUTHN_EXTENSIONS;
using webauthn::WEBAUTHN_RP_ENTITY_INFORMATION;
using webauthn::WEBAUTHN_USER_ENTITY_INFORMATION;
using WaGuid = webauthn::GUID;

namespace {

constexpr HRESULT kCancelled = static_cast<HRESULT>(0x800704C7);  // HRESULT_FROM_WIN32(ERROR_CANCELLED)
constexpr HRESULT kNotFound = static_cast<HRESULT>(0x80090011);   // NTE_NOT_FOUND
constexpr HRESULT kInvalidArg = static_cast<HRESULT>(0x80070057);
// A key's storage is finite: the oldest credentials go first. It also keeps a long run that
// never resets the authenticator from growing with every credential made.
constexpr size_t kStoredCredentials = 64;

struct StoredCredential {
    std::u16string rpId;
    Bytes id;
    Bytes userId;
    // Shared with a signing job, which may outlive a reset or a killed caller.
    std::shared_ptr<simauth::EcKey> key;
    uint32_t signCount = 0;
};

struct GuidKey {
    uint8_t bytes[16];
    bool operator<(const GuidKey& o) const { return memcmp(bytes, o.bytes, 16) < 0; }
};

// A caller waiting for its user. It waits on its own event with no lock held, and the entry
// keeps a handle of its thread: a caller that the plug-in kills in here leaves an entry whose
// thread has ended, which counts as killed, never as blocked, and stops nobody's wait.
struct BlockedCall {
    HANDLE thread = nullptr;
    HANDLE wake = nullptr;
    bool hasId = false;
    GuidKey key{};
    bool released = false;  // cancelled or reset: on its way out
};

bool ThreadEnded(HANDLE thread) { return WaitForSingleObject(thread, 0) == WAIT_OBJECT_0; }

HANDLE CallerThread() {
    HANDLE h = nullptr;
    DuplicateHandle(GetCurrentProcess(), GetCurrentThread(), GetCurrentProcess(), &h, SYNCHRONIZE, FALSE, 0);
    return h;
}

// Everything the authenticator knows, for the process that loaded it.
struct State {
    std::mutex mutex;
    int32_t mode = SIMAUTH_INSTANT;
    HRESULT failure = 0;
    bool failureWithRecord = false;
    DWORD attestationVersion = 4;
    DWORD assertionVersion = 3;
    DWORD apiVersion = 4;
    bool noneAttestation = false;
    std::vector<std::unique_ptr<StoredCredential>> credentials;
    std::set<GuidKey> cancelledIds;  // cancels for calls that haven't started yet
    std::list<BlockedCall*> waiting;
    std::vector<HANDLE> callers;      // threads of the calls made since the last reset
    HANDLE blockedChanged = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    LONG calls = 0;
    LONG killed = 0;
    simauth::CryptoThread crypto;

    // Under mutex: entries whose thread ended without leaving the call were killed in here.
    void ReapKilled() {
        for (auto it = waiting.begin(); it != waiting.end();) {
            BlockedCall* call = *it;
            if (!ThreadEnded(call->thread)) {
                ++it;
                continue;
            }
            ++killed;
            CloseHandle(call->thread);
            CloseHandle(call->wake);
            delete call;
            it = waiting.erase(it);
        }
    }
    LONG Blocked() {
        ReapKilled();
        LONG n = 0;
        for (BlockedCall* call : waiting) n += call->released ? 0 : 1;
        return n;
    }
    void Release(BlockedCall* call) {
        call->released = true;
        SetEvent(call->wake);
    }
    void ForgetEndedCallers() {
        for (auto it = callers.begin(); it != callers.end();) {
            if (ThreadEnded(*it)) {
                CloseHandle(*it);
                it = callers.erase(it);
            } else {
                ++it;
            }
        }
    }
};

// Never destroyed: a caller that the plug-in killed may have left its entry behind, and the
// module may be unloaded after the process's exit code has begun.
State& S() {
    static State* state = new State;
    return *state;
}

std::atomic<LONG> liveRecords{0};
std::atomic<LONGLONG> lastEntered{0};
std::atomic<LONGLONG> lastReturned{0};

LONGLONG Now() {
    LARGE_INTEGER t;
    QueryPerformanceCounter(&t);
    return t.QuadPart;
}

// Notes when an operation entered and left the library, for the dispatch benchmarks.
struct CallTimes {
    CallTimes() { lastEntered = Now(); }
    ~CallTimes() { lastReturned = Now(); }
};

std::u16string Text16(PCWSTR text) {
    std::u16string s;
    for (size_t i = 0; text && text[i]; ++i) s += static_cast<char16_t>(text[i]);
    return s;
}

std::string Utf8(const std::u16string& text) {
    std::string out;
    for (char16_t c : text) {
        if (c < 0x80) {
            out += static_cast<char>(c);
        } else if (c < 0x800) {
            out += static_cast<char>(0xC0 | (c >> 6));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else {
            out += static_cast<char>(0xE0 | (c >> 12));
            out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        }
    }
    return out;
}

Bytes RandomBytes(size_t n) {
    Bytes b(n);
    BCryptGenRandom(nullptr, b.data(), static_cast<ULONG>(n), BCRYPT_USE_SYSTEM_PREFERRED_RNG);
    return b;
}

void AppendBe(Bytes& out, uint32_t value, int bytes) {
    for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8) out.push_back(static_cast<uint8_t>(value >> shift));
}

// Waits while the mode says the user doesn't touch; returns kCancelled when the call's id
// is cancelled (before or during the call) or the authenticator is reset, else 0.
HRESULT AwaitUser(const WaGuid* cancellationId) {
    State& s = S();
    BlockedCall* call = nullptr;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        ++s.calls;
        s.ForgetEndedCallers();
        s.callers.push_back(CallerThread());
        GuidKey key{};
        if (cancellationId) memcpy(key.bytes, cancellationId, 16);
        if (cancellationId && s.cancelledIds.erase(key) > 0) return kCancelled;
        if (s.mode != SIMAUTH_BLOCK_UNTIL_CANCEL) return 0;
        call = new BlockedCall;
        call->thread = CallerThread();
        call->wake = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        call->hasId = cancellationId != nullptr;
        call->key = key;
        s.waiting.push_back(call);
        SetEvent(s.blockedChanged);
    }
    WaitForSingleObject(call->wake, INFINITE);
    std::lock_guard<std::mutex> lock(s.mutex);
    s.waiting.remove(call);
    CloseHandle(call->thread);
    CloseHandle(call->wake);
    delete call;
    return kCancelled;
}

template <class T>
T* NewRecord() {
    ++liveRecords;
    return new T{};
}

BYTE* CopyBytes(const Bytes& b) {
    if (b.empty()) return nullptr;
    auto* p = new BYTE[b.size()];
    memcpy(p, b.data(), b.size());
    return p;
}

PCWSTR CopyText(const std::u16string& text) {
    auto* p = new wchar16[text.size() + 1];
    std::copy(text.begin(), text.end(), p);
    p[text.size()] = 0;
    return p;
}

Bytes CoseKey(const simauth::EcKey& key) {
    Bytes x, y;
    key.PublicPoint(&x, &y);
    simauth::Cbor c;
    c.Map(5).Int(1).Int(2).Int(3).Int(-7).Int(-1).Int(1).Int(-2).Bytes(x).Int(-3).Bytes(y);
    return c.out;
}

Bytes ClientDataJson(const WEBAUTHN_CLIENT_DATA* clientData) {
    if (!clientData || !clientData->pbClientDataJSON) return Bytes();
    return Bytes(clientData->pbClientDataJSON, clientData->pbClientDataJSON + clientData->cbClientDataJSON);
}

bool Allowed(const StoredCredential& c, const WEBAUTHN_AUTHENTICATOR_GET_ASSERTION_OPTIONS* o) {
    if (!o) return true;
    bool any = false;
    auto match = [&](const BYTE* id, DWORD n) { return id && Bytes(id, id + n) == c.id; };
    for (DWORD i = 0; i < o->CredentialList.cCredentials && o->CredentialList.pCredentials; ++i) {
        any = true;
        if (match(o->CredentialList.pCredentials[i].pbId, o->CredentialList.pCredentials[i].cbId)) return true;
    }
    if (o->dwVersion >= 4 && o->pAllowCredentialList) {
        for (DWORD i = 0; i < o->pAllowCredentialList->cCredentials; ++i) {
            const WEBAUTHN_CREDENTIAL_EX* e = o->pAllowCredentialList->ppCredentials[i];
            if (!e) continue;
            any = true;
            if (match(e->pbId, e->cbId)) return true;
        }
    }
    return !any;
}

}  // namespace

extern "C" {

DWORD WINAPI WebAuthNGetApiVersionNumber() {
    std::lock_guard<std::mutex> lock(S().mutex);
    return S().apiVersion;
}

HRESULT WINAPI WebAuthNIsUserVerifyingPlatformAuthenticatorAvailable(BOOL* available) {
    if (!available) return kInvalidArg;
    *available = FALSE;
    return S_OK;
}

HRESULT WINAPI WebAuthNAuthenticatorMakeCredential(HWND, const WEBAUTHN_RP_ENTITY_INFORMATION* rp,
                                                   const WEBAUTHN_USER_ENTITY_INFORMATION* user,
                                                   const WEBAUTHN_COSE_CREDENTIAL_PARAMETERS*,
                                                   const WEBAUTHN_CLIENT_DATA* clientData,
                                                   const WEBAUTHN_AUTHENTICATOR_MAKE_CREDENTIAL_OPTIONS* options,
                                                   WEBAUTHN_CREDENTIAL_ATTESTATION** out) {
    CallTimes times;
    if (!out || !rp || !rp->pwszId || !user) return kInvalidArg;
    *out = nullptr;
    HRESULT waited = AwaitUser(options && options->dwVersion >= 2 ? options->pCancellationId : nullptr);
    if (waited != 0) return waited;

    State& s = S();
    HRESULT failure;
    bool withRecord;
    DWORD version;
    bool none;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        failure = s.failure;
        withRecord = s.failureWithRecord;
        version = s.attestationVersion;
        none = s.noneAttestation;
    }
    if (failure != 0 && !withRecord) return failure;

    struct Made {
        std::shared_ptr<simauth::EcKey> key;
        Bytes id, authData, object;
    };
    // Every CNG call goes to the crypto thread, on copies of what it reads.
    const std::u16string rpId = Text16(rp->pwszId);
    const Bytes clientJson = ClientDataJson(clientData);
    Made made = s.crypto.Run([rp8 = Utf8(rpId), clientJson, none]() -> Made {
        Made m;
        auto key = std::make_shared<simauth::EcKey>();
        if (!key->Valid()) return m;
        m.id = RandomBytes(16);
        m.authData = simauth::Sha256(Bytes(rp8.begin(), rp8.end()));
        m.authData.push_back(0x45);  // user present, user verified, attested credential data
        AppendBe(m.authData, 0, 4);
        m.authData.insert(m.authData.end(), 16, 0);  // AAGUID of a software authenticator
        AppendBe(m.authData, static_cast<uint32_t>(m.id.size()), 2);
        m.authData.insert(m.authData.end(), m.id.begin(), m.id.end());
        Bytes cose = CoseKey(*key);
        m.authData.insert(m.authData.end(), cose.begin(), cose.end());

        simauth::Cbor object;
        object.Map(3).Text("fmt").Text(none ? "none" : "packed").Text("attStmt");
        if (none) {
            object.Map(0);
        } else {
            Bytes signed_ = m.authData;
            Bytes hash = simauth::Sha256(clientJson);
            signed_.insert(signed_.end(), hash.begin(), hash.end());
            object.Map(2).Text("alg").Int(-7).Text("sig").Bytes(key->SignEs256(signed_));
        }
        object.Text("authData").Bytes(m.authData);
        m.object = std::move(object.out);
        m.key = std::move(key);
        return m;
    });
    if (!made.key) return static_cast<HRESULT>(0x80090020);  // NTE_FAIL
    const Bytes& authData = made.authData;
    auto credential = std::make_unique<StoredCredential>();
    credential->rpId = rpId;
    credential->id = made.id;
    credential->key = made.key;
    if (user->pbId) credential->userId.assign(user->pbId, user->pbId + user->cbId);

    auto* a = NewRecord<WEBAUTHN_CREDENTIAL_ATTESTATION>();
    a->dwVersion = version;
    a->pwszFormatType = CopyText(none ? u"none" : u"packed");
    a->cbAuthenticatorData = static_cast<DWORD>(authData.size());
    a->pbAuthenticatorData = CopyBytes(authData);
    a->dwAttestationDecodeType = 0;
    a->cbAttestationObject = static_cast<DWORD>(made.object.size());
    a->pbAttestationObject = CopyBytes(made.object);
    a->cbCredentialId = static_cast<DWORD>(credential->id.size());
    a->pbCredentialId = CopyBytes(credential->id);
    a->dwUsedTransport = 0x10;  // internal
    a->bResidentKey = options && options->bRequireResidentKey;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        s.credentials.push_back(std::move(credential));
        if (s.credentials.size() > kStoredCredentials) s.credentials.erase(s.credentials.begin());
    }
    *out = a;
    return failure;
}

HRESULT WINAPI WebAuthNAuthenticatorGetAssertion(HWND, PCWSTR rpIdText, const WEBAUTHN_CLIENT_DATA* clientData,
                                                 const WEBAUTHN_AUTHENTICATOR_GET_ASSERTION_OPTIONS* options,
                                                 WEBAUTHN_ASSERTION** out) {
    CallTimes times;
    if (!out || !rpIdText) return kInvalidArg;
    *out = nullptr;
    HRESULT waited = AwaitUser(options && options->dwVersion >= 3 ? options->pCancellationId : nullptr);
    if (waited != 0) return waited;

    // What the assertion needs is copied out under the lock: the caller must not hold it while
    // it waits for the crypto thread, where it may be killed.
    State& s = S();
    const std::u16string rpId = Text16(rpIdText);
    std::shared_ptr<simauth::EcKey> key;
    Bytes credentialId, userId;
    uint32_t signCount = 0;
    DWORD version = 0;
    HRESULT failure = 0;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        if (s.failure != 0 && !s.failureWithRecord) return s.failure;
        StoredCredential* found = nullptr;
        for (auto& c : s.credentials) {
            if (c->rpId == rpId && Allowed(*c, options)) found = c.get();
        }
        if (!found) return kNotFound;
        signCount = ++found->signCount;
        key = found->key;
        credentialId = found->id;
        userId = found->userId;
        version = s.assertionVersion;
        failure = s.failure;
    }
    struct Signed {
        Bytes authData, signature;
    };
    Signed made = s.crypto.Run([rp8 = Utf8(rpId), clientJson = ClientDataJson(clientData), key, signCount] {
        Signed out;
        out.authData = simauth::Sha256(Bytes(rp8.begin(), rp8.end()));
        out.authData.push_back(0x05);  // user present, user verified
        AppendBe(out.authData, signCount, 4);
        Bytes signed_ = out.authData;
        Bytes hash = simauth::Sha256(clientJson);
        signed_.insert(signed_.end(), hash.begin(), hash.end());
        out.signature = key->SignEs256(signed_);
        return out;
    });
    const Bytes& authData = made.authData;
    const Bytes& signature = made.signature;

    auto* a = NewRecord<WEBAUTHN_ASSERTION>();
    a->dwVersion = version;
    a->cbAuthenticatorData = static_cast<DWORD>(authData.size());
    a->pbAuthenticatorData = CopyBytes(authData);
    a->cbSignature = static_cast<DWORD>(signature.size());
    a->pbSignature = CopyBytes(signature);
    a->Credential.dwVersion = 1;
    a->Credential.cbId = static_cast<DWORD>(credentialId.size());
    a->Credential.pbId = CopyBytes(credentialId);
    a->Credential.pwszCredentialType = CopyText(u"public-key");
    a->cbUserId = static_cast<DWORD>(userId.size());
    a->pbUserId = CopyBytes(userId);
    *out = a;
    return failure;
}

void WINAPI WebAuthNFreeCredentialAttestation(WEBAUTHN_CREDENTIAL_ATTESTATION* a) {
    if (!a) return;
    delete[] a->pwszFormatType;
    delete[] a->pbAuthenticatorData;
    delete[] a->pbAttestationObject;
    delete[] a->pbCredentialId;
    delete a;
    --liveRecords;
}

void WINAPI WebAuthNFreeAssertion(WEBAUTHN_ASSERTION* a) {
    if (!a) return;
    delete[] a->pbAuthenticatorData;
    delete[] a->pbSignature;
    delete[] a->Credential.pbId;
    delete[] a->Credential.pwszCredentialType;
    delete[] a->pbUserId;
    delete a;
    --liveRecords;
}

HRESULT WINAPI WebAuthNGetCancellationId(WaGuid* id) {
    if (!id) return kInvalidArg;
    Bytes random = RandomBytes(16);
    memcpy(id, random.data(), 16);
    return S_OK;
}

// Cancels the calls that were given this id, now or, when none is waiting, the next one that
// starts with it: an id cancelled too early stays armed, as a stale id would be for a real key.
HRESULT WINAPI WebAuthNCancelCurrentOperation(const WaGuid* id) {
    if (!id) return kInvalidArg;
    State& s = S();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.ReapKilled();
    GuidKey key;
    memcpy(key.bytes, id, 16);
    bool woke = false;
    for (BlockedCall* call : s.waiting) {
        if (call->hasId && !call->released && memcmp(call->key.bytes, key.bytes, 16) == 0) {
            s.Release(call);
            woke = true;
        }
    }
    if (!woke) s.cancelledIds.insert(key);
    return S_OK;
}

PCWSTR WINAPI WebAuthNGetErrorName(HRESULT hr) {
    static const wchar16 kCancelledName[] = {'N', 'o', 't', 'A', 'l', 'l', 'o', 'w', 'e', 'd', 'E', 'r', 'r', 'o', 'r', 0};
    static const wchar16 kUnknown[] = {'U', 'n', 'k', 'n', 'o', 'w', 'n', 'E', 'r', 'r', 'o', 'r', 0};
    return hr == kCancelled ? kCancelledName : kUnknown;
}

HRESULT WINAPI WebAuthNGetW3CExceptionDOMError(HRESULT hr) { return hr; }

// --- Control ---

void WINAPI SimAuth_Reset() {
    State& s = S();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.mode = SIMAUTH_INSTANT;
    s.failure = 0;
    s.failureWithRecord = false;
    s.attestationVersion = 4;
    s.assertionVersion = 3;
    s.apiVersion = 4;
    s.noneAttestation = false;
    s.cancelledIds.clear();
    s.credentials.clear();
    s.ReapKilled();
    for (BlockedCall* call : s.waiting) s.Release(call);
    for (HANDLE caller : s.callers) CloseHandle(caller);
    s.callers.clear();
    s.calls = 0;
    s.killed = 0;
    ResetEvent(s.blockedChanged);
    s.crypto.Stop();
    s.crypto.ClearKilled();
}

void WINAPI SimAuth_SetMode(int32_t mode) {
    std::lock_guard<std::mutex> lock(S().mutex);
    S().mode = mode;
}

void WINAPI SimAuth_SetFailure(HRESULT hr, BOOL withRecord) {
    std::lock_guard<std::mutex> lock(S().mutex);
    S().failure = hr;
    S().failureWithRecord = withRecord != 0;
}

void WINAPI SimAuth_SetRecordVersions(DWORD attestation, DWORD assertion) {
    std::lock_guard<std::mutex> lock(S().mutex);
    S().attestationVersion = attestation;
    S().assertionVersion = assertion;
}

void WINAPI SimAuth_SetApiVersion(DWORD version) {
    std::lock_guard<std::mutex> lock(S().mutex);
    S().apiVersion = version;
}

void WINAPI SimAuth_SetNoneAttestation(BOOL none) {
    std::lock_guard<std::mutex> lock(S().mutex);
    S().noneAttestation = none != 0;
}

LONG WINAPI SimAuth_LiveRecords() { return liveRecords; }

LONG WINAPI SimAuth_CallCount() {
    std::lock_guard<std::mutex> lock(S().mutex);
    return S().calls;
}

LONG WINAPI SimAuth_BlockedCount() {
    std::lock_guard<std::mutex> lock(S().mutex);
    return S().Blocked();
}

LONG WINAPI SimAuth_KilledCallers() {
    std::lock_guard<std::mutex> lock(S().mutex);
    S().ReapKilled();
    return S().killed + S().crypto.Killed();
}

LONG WINAPI SimAuth_RunningCallers() {
    std::lock_guard<std::mutex> lock(S().mutex);
    S().ForgetEndedCallers();
    return static_cast<LONG>(S().callers.size());
}

// A killed caller doesn't signal anything, so the wait looks again at short intervals too.
BOOL WINAPI SimAuth_WaitForBlocked(LONG count, DWORD timeoutMs) {
    State& s = S();
    const ULONGLONG deadline = GetTickCount64() + timeoutMs;
    for (;;) {
        {
            std::lock_guard<std::mutex> lock(s.mutex);
            if (s.Blocked() >= count) return TRUE;
            ResetEvent(s.blockedChanged);
        }
        const ULONGLONG now = GetTickCount64();
        if (now >= deadline) return FALSE;
        WaitForSingleObject(s.blockedChanged, static_cast<DWORD>(std::min<ULONGLONG>(deadline - now, 50)));
    }
}

void WINAPI SimAuth_HoldCrypto(BOOL hold) { S().crypto.Hold(hold != FALSE); }

void WINAPI SimAuth_CryptoState(DWORD* threadId, LONG* pendingJobs) {
    if (threadId) *threadId = S().crypto.ThreadId();
    if (pendingJobs) *pendingJobs = S().crypto.Pending();
}

void WINAPI SimAuth_LastCallTimes(LONGLONG* entered, LONGLONG* returned) {
    if (entered) *entered = lastEntered;
    if (returned) *returned = lastReturned;
}

BOOL WINAPI DllMain(HINSTANCE, DWORD, LPVOID) { return TRUE; }

}  // extern "C"
