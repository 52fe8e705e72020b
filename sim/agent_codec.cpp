#include "sim/agent_codec.h"

#include <cstring>

namespace agent {

using namespace webauthn;

void WireWriter::U32(uint32_t value) {
    for (int i = 0; i < 4; ++i) bytes.push_back(static_cast<uint8_t>(value >> (8 * i)));
}

void WireWriter::Buf(const void* data, uint32_t length) {
    U32(length);
    const auto* p = static_cast<const uint8_t*>(data);
    if (length && p) bytes.insert(bytes.end(), p, p + length);
    if (length && !p) bytes.insert(bytes.end(), length, 0);
    while (bytes.size() % 4) bytes.push_back(0);
}

void WireWriter::Wstr(const wchar16* text) {
    if (!text) {
        U32(0);
        return;
    }
    uint32_t count = 1;
    while (text[count - 1] != 0) ++count;
    U32(count);
    for (uint32_t i = 0; i < count; ++i) {
        uint16_t unit = static_cast<uint16_t>(text[i]);
        bytes.push_back(static_cast<uint8_t>(unit));
        bytes.push_back(static_cast<uint8_t>(unit >> 8));
    }
    while (bytes.size() % 4) bytes.push_back(0);
}

namespace {

void WriteCredentials(WireWriter& w, const WEBAUTHN_CREDENTIALS& list) {
    w.U32(list.cCredentials);
    for (DWORD i = 0; i < list.cCredentials && list.pCredentials; ++i) {
        const WEBAUTHN_CREDENTIAL& c = list.pCredentials[i];
        w.U32(c.dwVersion);
        w.Buf(c.pbId, c.cbId);
        w.Wstr(c.pwszCredentialType);
    }
}

void WriteExtensions(WireWriter& w, const WEBAUTHN_EXTENSIONS& list) {
    w.U32(list.cExtensions);
    for (DWORD i = 0; i < list.cExtensions && list.pExtensions; ++i) {
        w.Wstr(list.pExtensions[i].pwszExtensionIdentifier);
        w.Buf(list.pExtensions[i].pvExtension, list.pExtensions[i].cbExtension);
    }
}

void WriteCredentialList(WireWriter& w, const WEBAUTHN_CREDENTIAL_LIST* list) {
    if (!list) {
        w.U32(0);
        return;
    }
    w.U32(1);
    w.U32(list->cCredentials);
    for (DWORD i = 0; i < list->cCredentials; ++i) {
        const WEBAUTHN_CREDENTIAL_EX* c = list->ppCredentials ? list->ppCredentials[i] : nullptr;
        if (!c) {
            w.U32(0);
            continue;
        }
        w.U32(1);
        w.U32(c->dwVersion);
        w.Buf(c->pbId, c->cbId);
        w.Wstr(c->pwszCredentialType);
        w.U32(c->dwTransports);
    }
}

void WriteSalt(WireWriter& w, const WEBAUTHN_HMAC_SECRET_SALT* salt) {
    if (!salt) {
        w.U32(0);
        return;
    }
    w.U32(1);
    w.Buf(salt->pbFirst, salt->cbFirst);
    w.Buf(salt->pbSecond, salt->cbSecond);
}

void WriteSaltValues(WireWriter& w, const WEBAUTHN_HMAC_SECRET_SALT_VALUES* values) {
    if (!values) {
        w.U32(0);
        return;
    }
    w.U32(1);
    WriteSalt(w, values->pGlobalHmacSalt);
    w.U32(values->cCredWithHmacSecretSaltList);
    for (DWORD i = 0; i < values->cCredWithHmacSecretSaltList && values->pCredWithHmacSecretSaltList; ++i) {
        w.Buf(values->pCredWithHmacSecretSaltList[i].pbCredID, values->pCredWithHmacSecretSaltList[i].cbCredID);
        WriteSalt(w, values->pCredWithHmacSecretSaltList[i].pHmacSecretSalt);
    }
}

void WriteClientData(WireWriter& w, const WEBAUTHN_CLIENT_DATA* c) {
    static const WEBAUTHN_CLIENT_DATA empty{};
    if (!c) c = &empty;
    w.U32(c->dwVersion);
    w.Buf(c->pbClientDataJSON, c->cbClientDataJSON);
    w.Wstr(c->pwszHashAlgId);
}

void WriteRect(WireWriter& w, DWORD left, DWORD top, DWORD right, DWORD bottom) {
    w.U32(left);
    w.U32(top);
    w.U32(right);
    w.U32(bottom);
}

// The fields both option records open with, behind the presence word.
template <class Options>
void WriteOptionsHead(WireWriter& w, const Options& o) {
    w.U32(1);
    w.U32(o.dwVersion);
    w.U32(o.dwTimeoutMilliseconds);
    WriteCredentials(w, o.CredentialList);
    WriteExtensions(w, o.Extensions);
    w.U32(o.dwAuthenticatorAttachment);
}

}  // namespace

Bytes EncodeMakeCredentialOptions(const WEBAUTHN_AUTHENTICATOR_MAKE_CREDENTIAL_OPTIONS* o) {
    WireWriter w;
    if (!o) {
        w.U32(0);
        return w.bytes;
    }
    WriteOptionsHead(w, *o);
    w.U32(static_cast<uint32_t>(o->bRequireResidentKey));
    w.U32(o->dwUserVerificationRequirement);
    w.U32(o->dwAttestationConveyancePreference);
    w.U32(o->dwFlags);
    if (o->dwVersion >= 2) w.Guid(o->pCancellationId);
    if (o->dwVersion >= 3) WriteCredentialList(w, o->pExcludeCredentialList);
    if (o->dwVersion >= 4) {
        w.U32(o->dwEnterpriseAttestation);
        w.U32(o->dwLargeBlobSupport);
        w.U32(static_cast<uint32_t>(o->bPreferResidentKey));
    }
    if (o->dwVersion >= 5) w.U32(static_cast<uint32_t>(o->bBrowserInPrivateMode));
    return w.bytes;
}

Bytes EncodeGetAssertionOptions(const WEBAUTHN_AUTHENTICATOR_GET_ASSERTION_OPTIONS* o) {
    WireWriter w;
    if (!o) {
        w.U32(0);
        return w.bytes;
    }
    WriteOptionsHead(w, *o);
    w.U32(o->dwUserVerificationRequirement);
    w.U32(o->dwFlags);
    if (o->dwVersion >= 2) {
        w.Wstr(o->pwszU2fAppId);
        w.U32(o->pbU2fAppId ? 1 : 0);
        if (o->pbU2fAppId) w.U32(static_cast<uint32_t>(*o->pbU2fAppId));
    }
    if (o->dwVersion >= 3) w.Guid(o->pCancellationId);
    if (o->dwVersion >= 4) WriteCredentialList(w, o->pAllowCredentialList);
    if (o->dwVersion >= 5) {
        w.U32(o->dwCredLargeBlobOperation);
        w.Buf(o->pbCredLargeBlob, o->cbCredLargeBlob);
    }
    if (o->dwVersion >= 6) {
        WriteSaltValues(w, o->pHmacSecretSaltValues);
        w.U32(static_cast<uint32_t>(o->bBrowserInPrivateMode));
    }
    return w.bytes;
}

Bytes EncodeMakeCredentialData(const Fido2MakeCredentialRequest& r) {
    WireWriter w;
    WriteRect(w, r.left, r.top, r.right, r.bottom);
    static const WEBAUTHN_RP_ENTITY_INFORMATION noRp{};
    const WEBAUTHN_RP_ENTITY_INFORMATION* rp = r.pRpInformation ? r.pRpInformation : &noRp;
    w.U32(rp->dwVersion);
    w.Wstr(rp->pwszId);
    w.Wstr(rp->pwszName);
    w.Wstr(rp->pwszIcon);
    static const WEBAUTHN_USER_ENTITY_INFORMATION noUser{};
    const WEBAUTHN_USER_ENTITY_INFORMATION* user = r.pUserInformation ? r.pUserInformation : &noUser;
    w.U32(user->dwVersion);
    w.Buf(user->pbId, user->cbId);
    w.Wstr(user->pwszName);
    w.Wstr(user->pwszIcon);
    w.Wstr(user->pwszDisplayName);
    const WEBAUTHN_COSE_CREDENTIAL_PARAMETERS* params = r.pPubKeyCredParams;
    w.U32(params ? params->cCredentialParameters : 0);
    for (DWORD i = 0; params && params->pCredentialParameters && i < params->cCredentialParameters; ++i) {
        w.U32(params->pCredentialParameters[i].dwVersion);
        w.Wstr(params->pCredentialParameters[i].pwszCredentialType);
        w.U32(static_cast<uint32_t>(params->pCredentialParameters[i].lAlg));
    }
    WriteClientData(w, r.pClientData);
    Bytes options = EncodeMakeCredentialOptions(r.pMakeCredentialOptions);
    w.bytes.insert(w.bytes.end(), options.begin(), options.end());
    return w.bytes;
}

Bytes EncodeGetAssertionData(const Fido2GetAssertionRequest& r) {
    WireWriter w;
    WriteRect(w, r.left, r.top, r.right, r.bottom);
    w.Wstr(r.pwszRpId);
    WriteClientData(w, r.pClientData);
    Bytes options = EncodeGetAssertionOptions(r.pGetAssertionOptions);
    w.bytes.insert(w.bytes.end(), options.begin(), options.end());
    return w.bytes;
}

Bytes EncodeCancelData(const GUID* guid) {
    WireWriter w;
    w.Guid(guid);
    return w.bytes;
}

Bytes RequestPdu(uint32_t requestId, uint32_t command, const Bytes& data) {
    WireWriter w;
    w.U32(requestId);
    w.U32(command);
    w.U32(static_cast<uint32_t>(data.size()));
    w.bytes.insert(w.bytes.end(), data.begin(), data.end());
    return w.bytes;
}

// --- Equality ---

namespace {

class Compare {
public:
    explicit Compare(std::string* why) : why(why) {}
    bool ok = true;

    void Word(uint64_t a, uint64_t b, const char* field) {
        if (ok && a != b) Fail(field);
    }
    void Text(PCWSTR a, PCWSTR b, const char* field) {
        if (!ok) return;
        if ((a == nullptr) != (b == nullptr)) return Fail(field);
        if (!a) return;
        size_t i = 0;
        for (; a[i] && b[i]; ++i) {
            if (a[i] != b[i]) return Fail(field);
        }
        if (a[i] != b[i]) Fail(field);
    }
    void Blob(const void* a, DWORD na, const void* b, DWORD nb, const char* field) {
        if (!ok) return;
        if (na != nb) return Fail(field);
        if (na && (!a || !b || memcmp(a, b, na) != 0)) Fail(field);
    }
    template <class T>
    bool BothOrNeither(const T* a, const T* b, const char* field) {
        if (!ok) return false;
        if ((a == nullptr) != (b == nullptr)) {
            Fail(field);
            return false;
        }
        return a != nullptr;
    }

    void Credentials(const WEBAUTHN_CREDENTIALS& a, const WEBAUTHN_CREDENTIALS& b) {
        Word(a.cCredentials, b.cCredentials, "CredentialList.cCredentials");
        for (DWORD i = 0; ok && i < a.cCredentials; ++i) {
            Word(a.pCredentials[i].dwVersion, b.pCredentials[i].dwVersion, "Credential.dwVersion");
            Blob(a.pCredentials[i].pbId, a.pCredentials[i].cbId, b.pCredentials[i].pbId, b.pCredentials[i].cbId,
                 "Credential.pbId");
            Text(a.pCredentials[i].pwszCredentialType, b.pCredentials[i].pwszCredentialType,
                 "Credential.pwszCredentialType");
        }
    }
    void Extensions(const WEBAUTHN_EXTENSIONS& a, const WEBAUTHN_EXTENSIONS& b) {
        Word(a.cExtensions, b.cExtensions, "Extensions.cExtensions");
        for (DWORD i = 0; ok && i < a.cExtensions; ++i) {
            Text(a.pExtensions[i].pwszExtensionIdentifier, b.pExtensions[i].pwszExtensionIdentifier,
                 "Extension.pwszExtensionIdentifier");
            Blob(a.pExtensions[i].pvExtension, a.pExtensions[i].cbExtension, b.pExtensions[i].pvExtension,
                 b.pExtensions[i].cbExtension, "Extension.pvExtension");
        }
    }
    void CredentialList(const WEBAUTHN_CREDENTIAL_LIST* a, const WEBAUTHN_CREDENTIAL_LIST* b, const char* field) {
        if (!BothOrNeither(a, b, field)) return;
        Word(a->cCredentials, b->cCredentials, field);
        for (DWORD i = 0; ok && i < a->cCredentials; ++i) {
            const WEBAUTHN_CREDENTIAL_EX* x = a->ppCredentials[i];
            const WEBAUTHN_CREDENTIAL_EX* y = b->ppCredentials[i];
            if (!BothOrNeither(x, y, "CredentialEx")) continue;
            Word(x->dwVersion, y->dwVersion, "CredentialEx.dwVersion");
            Blob(x->pbId, x->cbId, y->pbId, y->cbId, "CredentialEx.pbId");
            Text(x->pwszCredentialType, y->pwszCredentialType, "CredentialEx.pwszCredentialType");
            Word(x->dwTransports, y->dwTransports, "CredentialEx.dwTransports");
        }
    }
    void Guid(const GUID* a, const GUID* b, const char* field) {
        if (BothOrNeither(a, b, field)) Blob(a, 16, b, 16, field);
    }
    void Salt(const WEBAUTHN_HMAC_SECRET_SALT* a, const WEBAUTHN_HMAC_SECRET_SALT* b, const char* field) {
        if (!BothOrNeither(a, b, field)) return;
        Blob(a->pbFirst, a->cbFirst, b->pbFirst, b->cbFirst, field);
        Blob(a->pbSecond, a->cbSecond, b->pbSecond, b->cbSecond, field);
    }
    void ClientData(const WEBAUTHN_CLIENT_DATA* a, const WEBAUTHN_CLIENT_DATA* b) {
        if (!BothOrNeither(a, b, "pClientData")) return;
        Word(a->dwVersion, b->dwVersion, "ClientData.dwVersion");
        Blob(a->pbClientDataJSON, a->cbClientDataJSON, b->pbClientDataJSON, b->cbClientDataJSON,
             "ClientData.pbClientDataJSON");
        Text(a->pwszHashAlgId, b->pwszHashAlgId, "ClientData.pwszHashAlgId");
    }

    // The window rectangle both requests open with.
    template <class Request>
    void Rect(const Request& a, const Request& b) {
        Word(a.left, b.left, "left");
        Word(a.top, b.top, "top");
        Word(a.right, b.right, "right");
        Word(a.bottom, b.bottom, "bottom");
    }
    // The fields both option records open with.
    template <class Options>
    void OptionsHead(const Options& x, const Options& y) {
        Word(x.dwVersion, y.dwVersion, "dwVersion");
        Word(x.dwTimeoutMilliseconds, y.dwTimeoutMilliseconds, "dwTimeoutMilliseconds");
        Credentials(x.CredentialList, y.CredentialList);
        Extensions(x.Extensions, y.Extensions);
        Word(x.dwAuthenticatorAttachment, y.dwAuthenticatorAttachment, "dwAuthenticatorAttachment");
    }

private:
    void Fail(const char* field) {
        ok = false;
        if (why) *why = field;
    }
    std::string* why;
};

}  // namespace

bool SameMakeCredentialRequest(const Fido2MakeCredentialRequest& a, const Fido2MakeCredentialRequest& b,
                               std::string* why) {
    Compare c(why);
    c.Rect(a, b);
    if (c.BothOrNeither(a.pRpInformation, b.pRpInformation, "pRpInformation")) {
        c.Word(a.pRpInformation->dwVersion, b.pRpInformation->dwVersion, "Rp.dwVersion");
        c.Text(a.pRpInformation->pwszId, b.pRpInformation->pwszId, "Rp.pwszId");
        c.Text(a.pRpInformation->pwszName, b.pRpInformation->pwszName, "Rp.pwszName");
        c.Text(a.pRpInformation->pwszIcon, b.pRpInformation->pwszIcon, "Rp.pwszIcon");
    }
    if (c.BothOrNeither(a.pUserInformation, b.pUserInformation, "pUserInformation")) {
        const auto *x = a.pUserInformation, *y = b.pUserInformation;
        c.Word(x->dwVersion, y->dwVersion, "User.dwVersion");
        c.Blob(x->pbId, x->cbId, y->pbId, y->cbId, "User.pbId");
        c.Text(x->pwszName, y->pwszName, "User.pwszName");
        c.Text(x->pwszIcon, y->pwszIcon, "User.pwszIcon");
        c.Text(x->pwszDisplayName, y->pwszDisplayName, "User.pwszDisplayName");
    }
    if (c.BothOrNeither(a.pPubKeyCredParams, b.pPubKeyCredParams, "pPubKeyCredParams")) {
        const auto *x = a.pPubKeyCredParams, *y = b.pPubKeyCredParams;
        c.Word(x->cCredentialParameters, y->cCredentialParameters, "cCredentialParameters");
        for (DWORD i = 0; c.ok && i < x->cCredentialParameters; ++i) {
            c.Word(x->pCredentialParameters[i].dwVersion, y->pCredentialParameters[i].dwVersion, "Cose.dwVersion");
            c.Text(x->pCredentialParameters[i].pwszCredentialType, y->pCredentialParameters[i].pwszCredentialType,
                   "Cose.pwszCredentialType");
            c.Word(static_cast<uint32_t>(x->pCredentialParameters[i].lAlg),
                   static_cast<uint32_t>(y->pCredentialParameters[i].lAlg), "Cose.lAlg");
        }
    }
    c.ClientData(a.pClientData, b.pClientData);
    const auto *x = a.pMakeCredentialOptions, *y = b.pMakeCredentialOptions;
    if (c.BothOrNeither(x, y, "pMakeCredentialOptions")) {
        c.OptionsHead(*x, *y);
        c.Word(static_cast<uint32_t>(x->bRequireResidentKey), static_cast<uint32_t>(y->bRequireResidentKey),
               "bRequireResidentKey");
        c.Word(x->dwUserVerificationRequirement, y->dwUserVerificationRequirement, "dwUserVerificationRequirement");
        c.Word(x->dwAttestationConveyancePreference, y->dwAttestationConveyancePreference,
               "dwAttestationConveyancePreference");
        c.Word(x->dwFlags, y->dwFlags, "dwFlags");
        c.Guid(x->pCancellationId, y->pCancellationId, "pCancellationId");
        c.CredentialList(x->pExcludeCredentialList, y->pExcludeCredentialList, "pExcludeCredentialList");
        c.Word(x->dwEnterpriseAttestation, y->dwEnterpriseAttestation, "dwEnterpriseAttestation");
        c.Word(x->dwLargeBlobSupport, y->dwLargeBlobSupport, "dwLargeBlobSupport");
        c.Word(static_cast<uint32_t>(x->bPreferResidentKey), static_cast<uint32_t>(y->bPreferResidentKey),
               "bPreferResidentKey");
        c.Word(static_cast<uint32_t>(x->bBrowserInPrivateMode), static_cast<uint32_t>(y->bBrowserInPrivateMode),
               "bBrowserInPrivateMode");
    }
    return c.ok;
}

bool SameGetAssertionRequest(const Fido2GetAssertionRequest& a, const Fido2GetAssertionRequest& b,
                             std::string* why) {
    Compare c(why);
    c.Rect(a, b);
    c.Text(a.pwszRpId, b.pwszRpId, "pwszRpId");
    c.ClientData(a.pClientData, b.pClientData);
    const auto *x = a.pGetAssertionOptions, *y = b.pGetAssertionOptions;
    if (c.BothOrNeither(x, y, "pGetAssertionOptions")) {
        c.OptionsHead(*x, *y);
        c.Word(x->dwUserVerificationRequirement, y->dwUserVerificationRequirement, "dwUserVerificationRequirement");
        c.Word(x->dwFlags, y->dwFlags, "dwFlags");
        c.Text(x->pwszU2fAppId, y->pwszU2fAppId, "pwszU2fAppId");
        if (c.BothOrNeither(x->pbU2fAppId, y->pbU2fAppId, "pbU2fAppId")) {
            c.Word(static_cast<uint32_t>(*x->pbU2fAppId), static_cast<uint32_t>(*y->pbU2fAppId), "*pbU2fAppId");
        }
        c.Guid(x->pCancellationId, y->pCancellationId, "pCancellationId");
        c.CredentialList(x->pAllowCredentialList, y->pAllowCredentialList, "pAllowCredentialList");
        c.Word(x->dwCredLargeBlobOperation, y->dwCredLargeBlobOperation, "dwCredLargeBlobOperation");
        c.Blob(x->pbCredLargeBlob, x->cbCredLargeBlob, y->pbCredLargeBlob, y->cbCredLargeBlob, "pbCredLargeBlob");
        const auto *s = x->pHmacSecretSaltValues, *t = y->pHmacSecretSaltValues;
        if (c.BothOrNeither(s, t, "pHmacSecretSaltValues")) {
            c.Salt(s->pGlobalHmacSalt, t->pGlobalHmacSalt, "pGlobalHmacSalt");
            c.Word(s->cCredWithHmacSecretSaltList, t->cCredWithHmacSecretSaltList, "cCredWithHmacSecretSaltList");
            for (DWORD i = 0; c.ok && i < s->cCredWithHmacSecretSaltList; ++i) {
                const auto& e = s->pCredWithHmacSecretSaltList[i];
                const auto& f = t->pCredWithHmacSecretSaltList[i];
                c.Blob(e.pbCredID, e.cbCredID, f.pbCredID, f.cbCredID, "CredWithHmacSecretSalt.pbCredID");
                c.Salt(e.pHmacSecretSalt, f.pHmacSecretSalt, "CredWithHmacSecretSalt.pHmacSecretSalt");
            }
        }
        c.Word(static_cast<uint32_t>(x->bBrowserInPrivateMode), static_cast<uint32_t>(y->bBrowserInPrivateMode),
               "bBrowserInPrivateMode");
    }
    return c.ok;
}

}  // namespace agent
