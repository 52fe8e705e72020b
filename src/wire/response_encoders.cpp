#include "wire/response_encoders.h"

#include "logging/log.h"

namespace webauthn {

namespace {

StrictVersionsFn strictPolicy = nullptr;

// Where a walk puts its fields: with a null cursor it only measures. Nested records go
// through their own public encoders, which measure the same way.
class FieldSink {
public:
    FieldSink(uint8_t* cursor, const uint8_t* end) : at(cursor), end(end) {}
    bool Writing() const { return at != nullptr; }
    bool U32(uint32_t v) { return Add(Encode_uint32(at, end, v)); }
    bool Buf(const void* p, uint32_t n) { return Add(Encode_buf(at, end, static_cast<const uint8_t*>(p), n)); }
    bool Wstr(PCWSTR text) { return Add(Encode_wstr(at, end, text)); }
    template <class Record>
    bool Nested(uint32_t (*encode)(uint8_t*, const uint8_t*, const Record*), const Record* record) {
        return Add(encode(at, end, record));
    }
    uint32_t total = 0;

private:
    bool Add(uint32_t n) {
        if (n == 0) return false;
        total += n;
        if (at) at += n;
        return true;
    }
    uint8_t* at;
    const uint8_t* end;
};

// The version to write. A newer record than we know fails only when writing in strict mode;
// the size pass measures the same fields either way.
bool WrittenVersion(const FieldSink& s, DWORD version, DWORD newest, const char* function, const char* message,
                    DWORD* written) {
    if (version <= newest) {
        *written = version;
        return true;
    }
    *written = newest;
    if (s.Writing() && strictPolicy && strictPolicy()) {
        SY_LOG(LOG_WARN, function, "%s", message);
        return false;
    }
    return true;
}

bool WalkExtensions(FieldSink& s, const WEBAUTHN_EXTENSIONS* list) {
    if (!list || !s.U32(list->cExtensions)) return false;
    if (list->cExtensions && !list->pExtensions) return false;
    for (DWORD i = 0; i < list->cExtensions; ++i) {
        if (!s.Wstr(list->pExtensions[i].pwszExtensionIdentifier) ||
            !s.Buf(list->pExtensions[i].pvExtension, list->pExtensions[i].cbExtension)) {
            return false;
        }
    }
    return true;
}

bool WalkSalt(FieldSink& s, const WEBAUTHN_HMAC_SECRET_SALT* salt) {
    if (!s.U32(salt ? 1 : 0)) return false;
    if (!salt) return true;
    return s.Buf(salt->pbFirst, salt->cbFirst) && s.Buf(salt->pbSecond, salt->cbSecond);
}

bool WalkCommonAttestation(FieldSink& s, const WEBAUTHN_COMMON_ATTESTATION* c) {
    if (!s.U32(c ? 1 : 0)) return false;
    if (!c) return true;
    DWORD written = 0;
    if (!WrittenVersion(s, c->dwVersion, kCommonAttestationNewest, "Encode_CommonAttestation()",
                        "Unsupported WEBAUTHN_COMMON_ATTESTATION version detected", &written)) {
        return false;
    }
    if (!s.U32(written) || !s.Wstr(c->pwszAlg) || !s.U32(static_cast<uint32_t>(c->lAlg)) ||
        !s.Buf(c->pbSignature, c->cbSignature) || !s.U32(c->cX5c)) {
        return false;
    }
    if (c->cX5c && !c->pX5c) return false;
    for (DWORD i = 0; i < c->cX5c; ++i) {
        if (!s.Buf(c->pX5c[i].pbData, c->pX5c[i].cbData)) return false;
    }
    return s.Wstr(c->pwszVer) && s.Buf(c->pbCertInfo, c->cbCertInfo) && s.Buf(c->pbPubArea, c->cbPubArea);
}

bool WalkCredential(FieldSink& s, const WEBAUTHN_CREDENTIAL* c) {
    if (!c) return false;
    DWORD written = 0;
    if (!WrittenVersion(s, c->dwVersion, kCredentialNewest, "Encode_Credential()",
                        "Unsupported WEBAUTHN_CREDENTIAL version detected", &written)) {
        return false;
    }
    return s.U32(written) && s.Buf(c->pbId, c->cbId) && s.Wstr(c->pwszCredentialType);
}

// The attestation part of a make-credential answer: presence word and record.
bool WalkAttestation(FieldSink& s, const WEBAUTHN_CREDENTIAL_ATTESTATION* a) {
    if (!s.U32(a ? 1 : 0)) return false;
    if (!a) return true;
    DWORD written = 0;
    if (!WrittenVersion(s, a->dwVersion, kAttestationNewest, "Encode_AuthenticatorMakeCredentialResponse()",
                        "Unsupported WEBAUTHN_CREDENTIAL_ATTESTATION version detected", &written)) {
        return false;
    }
    if (!s.U32(written) || !s.Wstr(a->pwszFormatType) || !s.Buf(a->pbAuthenticatorData, a->cbAuthenticatorData) ||
        !s.Buf(a->pbAttestation, a->cbAttestation) || !s.U32(a->dwAttestationDecodeType)) {
        return false;
    }
    if (a->dwAttestationDecodeType == 1 &&
        !s.Nested(Encode_CommonAttestation, static_cast<const WEBAUTHN_COMMON_ATTESTATION*>(a->pvAttestationDecode))) {
        return false;
    }
    if (!s.Buf(a->pbAttestationObject, a->cbAttestationObject) || !s.Buf(a->pbCredentialId, a->cbCredentialId)) {
        return false;
    }
    if (a->dwVersion >= 2 && !s.Nested(Encode_Extensions, &a->Extensions)) return false;
    if (a->dwVersion >= 3 && !s.U32(a->dwUsedTransport)) return false;
    if (a->dwVersion >= 4) {
        return s.U32(static_cast<uint32_t>(a->bEpAtt)) && s.U32(static_cast<uint32_t>(a->bLargeBlobSupported)) &&
               s.U32(static_cast<uint32_t>(a->bResidentKey));
    }
    return true;
}

bool WalkAssertion(FieldSink& s, const WEBAUTHN_ASSERTION* a) {
    if (!s.U32(a ? 1 : 0)) return false;
    if (!a) return true;
    DWORD written = 0;
    if (!WrittenVersion(s, a->dwVersion, kAssertionNewest, "Encode_Assertion()",
                        "Unsupported WEBAUTHN_ASSERTION version detected", &written)) {
        return false;
    }
    if (!s.U32(written) || !s.Buf(a->pbAuthenticatorData, a->cbAuthenticatorData) ||
        !s.Buf(a->pbSignature, a->cbSignature) || !s.Nested(Encode_Credential, &a->Credential) ||
        !s.Buf(a->pbUserId, a->cbUserId)) {
        return false;
    }
    if (a->dwVersion >= 2) {
        if (!s.Nested(Encode_Extensions, &a->Extensions) || !s.Buf(a->pbCredLargeBlob, a->cbCredLargeBlob) ||
            !s.U32(a->dwCredLargeBlobStatus)) {
            return false;
        }
    }
    if (a->dwVersion >= 3 && !s.Nested(Encode_HmacSecretSalt, a->pHmacSecret)) return false;
    return true;
}

// Runs a walk; with a null cursor it measures.
template <class Record>
uint32_t Run(uint8_t* cursor, const uint8_t* end, bool (*walk)(FieldSink&, const Record*), const Record* record) {
    FieldSink s(cursor, end);
    return walk(s, record) ? s.total : 0;
}

}  // namespace

void SetStrictVersionsPolicy(StrictVersionsFn policy) { strictPolicy = policy; }

uint32_t Encode_AuthenticatorMakeCredentialResponse(uint8_t* cursor, const uint8_t* end, uint32_t hr,
                                                    const WEBAUTHN_CREDENTIAL_ATTESTATION* attestation) {
    if (!cursor) return 0;
    FieldSink s(cursor, end);
    return s.U32(hr) && WalkAttestation(s, attestation) ? s.total : 0;
}

uint32_t Encode_AuthenticatorGetAssertionResponse(uint8_t* cursor, const uint8_t* end, uint32_t hr,
                                                  const WEBAUTHN_ASSERTION* assertion) {
    if (!cursor) return 0;
    FieldSink s(cursor, end);
    return s.U32(hr) && s.Nested(Encode_Assertion, assertion) ? s.total : 0;
}

uint32_t Encode_Assertion(uint8_t* cursor, const uint8_t* end, const WEBAUTHN_ASSERTION* assertion) {
    return Run(cursor, end, WalkAssertion, assertion);
}

uint32_t Encode_CommonAttestation(uint8_t* cursor, const uint8_t* end, const WEBAUTHN_COMMON_ATTESTATION* common) {
    return Run(cursor, end, WalkCommonAttestation, common);
}

uint32_t Encode_Credential(uint8_t* cursor, const uint8_t* end, const WEBAUTHN_CREDENTIAL* credential) {
    return Run(cursor, end, WalkCredential, credential);
}

uint32_t Encode_Extensions(uint8_t* cursor, const uint8_t* end, const WEBAUTHN_EXTENSIONS* extensions) {
    return Run(cursor, end, WalkExtensions, extensions);
}

uint32_t Encode_HmacSecretSalt(uint8_t* cursor, const uint8_t* end, const WEBAUTHN_HMAC_SECRET_SALT* salt) {
    return Run(cursor, end, WalkSalt, salt);
}

uint32_t Size_AuthenticatorMakeCredentialResponse(const WEBAUTHN_CREDENTIAL_ATTESTATION* attestation) {
    return 4 + Run(nullptr, nullptr, WalkAttestation, attestation);
}

uint32_t Size_AuthenticatorGetAssertionResponse(const WEBAUTHN_ASSERTION* assertion) {
    return 4 + Encode_Assertion(nullptr, nullptr, assertion);
}

}  // namespace webauthn
