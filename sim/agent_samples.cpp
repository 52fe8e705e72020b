#include "sim/agent_samples.h"

#include <algorithm>

namespace agent {

using namespace webauthn;

const wchar16* SampleArena::Text(const std::u16string& text) {
    texts.push_back(text);
    std::u16string& stored = texts.back();
    blocks.emplace_back((stored.size() + 1) * sizeof(wchar16), 0);
    auto* units = reinterpret_cast<wchar16*>(blocks.back().data());
    std::copy(stored.begin(), stored.end(), units);
    return units;
}

uint8_t* SampleArena::Bytes(const std::vector<uint8_t>& bytes) {
    if (bytes.empty()) return nullptr;
    blocks.push_back(bytes);
    return blocks.back().data();
}

namespace {

WEBAUTHN_CLIENT_DATA* ClientData(SampleArena& a, const std::string& type) {
    auto* c = a.New<WEBAUTHN_CLIENT_DATA>();
    std::string json = "{\"type\":\"" + type +
                       "\",\"challenge\":\"q2l0LXdpc2gtbm8tcmVwbGF5\",\"origin\":\"https://login.example.com\"}";
    c->dwVersion = 1;
    c->cbClientDataJSON = static_cast<DWORD>(json.size());
    c->pbClientDataJSON = a.Bytes(json);
    c->pwszHashAlgId = a.Text(u"SHA-256");
    return c;
}

void FillCredentials(SampleArena& a, WEBAUTHN_CREDENTIALS& list, bool full) {
    if (!full) return;
    list.cCredentials = 2;
    list.pCredentials = a.New<WEBAUTHN_CREDENTIAL>(2);
    for (DWORD i = 0; i < 2; ++i) {
        list.pCredentials[i].dwVersion = 1;
        list.pCredentials[i].cbId = 5 + i;
        list.pCredentials[i].pbId = a.Bytes(std::vector<uint8_t>(5 + i, static_cast<uint8_t>(0xA0 + i)));
        list.pCredentials[i].pwszCredentialType = a.Text(u"public-key");
    }
}

void FillExtensions(SampleArena& a, WEBAUTHN_EXTENSIONS& list, bool full) {
    if (!full) return;
    list.cExtensions = 1;
    list.pExtensions = a.New<WEBAUTHN_EXTENSION>();
    list.pExtensions[0].pwszExtensionIdentifier = a.Text(u"hmac-secret");
    list.pExtensions[0].cbExtension = 4;
    list.pExtensions[0].pvExtension = a.Bytes(std::vector<uint8_t>{1, 0, 0, 0});
}

WEBAUTHN_CREDENTIAL_LIST* CredentialList(SampleArena& a, bool full) {
    if (!full) return nullptr;
    auto* list = a.New<WEBAUTHN_CREDENTIAL_LIST>();
    list->cCredentials = 3;
    list->ppCredentials = a.New<WEBAUTHN_CREDENTIAL_EX*>(3);
    for (DWORD i = 0; i < 3; ++i) {
        if (i == 1) continue;  // an element that came absent
        auto* c = a.New<WEBAUTHN_CREDENTIAL_EX>();
        c->dwVersion = 1;
        c->cbId = 7;
        c->pbId = a.Bytes(std::vector<uint8_t>(7, static_cast<uint8_t>(0xC0 + i)));
        c->pwszCredentialType = a.Text(u"public-key");
        c->dwTransports = 0x1F;
        list->ppCredentials[i] = c;
    }
    return list;
}

WEBAUTHN_HMAC_SECRET_SALT* Salt(SampleArena& a, uint8_t fill, bool second) {
    auto* s = a.New<WEBAUTHN_HMAC_SECRET_SALT>();
    s->cbFirst = 32;
    s->pbFirst = a.Bytes(std::vector<uint8_t>(32, fill));
    if (second) {
        s->cbSecond = 32;
        s->pbSecond = a.Bytes(std::vector<uint8_t>(32, static_cast<uint8_t>(fill + 1)));
    }
    return s;
}

}  // namespace

const GUID* SampleGuid(SampleArena& a) {
    auto* g = a.New<GUID>();
    *g = GUID{0x12345678, 0x9ABC, 0xDEF0, {0x10, 0x32, 0x54, 0x76, 0x98, 0xBA, 0xDC, 0xFE}};
    return g;
}

Fido2MakeCredentialRequest SampleMakeCredential(SampleArena& a, uint32_t version, bool full) {
    Fido2MakeCredentialRequest r{};
    r.left = 10;
    r.top = 20;
    r.right = 810;
    r.bottom = 620;
    r.pRpInformation = a.New<WEBAUTHN_RP_ENTITY_INFORMATION>();
    r.pRpInformation->dwVersion = 1;
    r.pRpInformation->pwszId = a.Text(u"example.com");
    r.pRpInformation->pwszName = a.Text(u"Example");
    r.pRpInformation->pwszIcon = full ? a.Text(u"") : nullptr;
    r.pUserInformation = a.New<WEBAUTHN_USER_ENTITY_INFORMATION>();
    r.pUserInformation->dwVersion = 1;
    r.pUserInformation->cbId = 16;
    r.pUserInformation->pbId = a.Bytes(std::vector<uint8_t>{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16});
    r.pUserInformation->pwszName = a.Text(u"alice@example.com");
    r.pUserInformation->pwszIcon = nullptr;
    r.pUserInformation->pwszDisplayName = a.Text(u"Alice \u00C5str\u00F6m");
    r.pPubKeyCredParams = a.New<WEBAUTHN_COSE_CREDENTIAL_PARAMETERS>();
    r.pPubKeyCredParams->cCredentialParameters = 2;
    r.pPubKeyCredParams->pCredentialParameters = a.New<WEBAUTHN_COSE_CREDENTIAL_PARAMETER>(2);
    r.pPubKeyCredParams->pCredentialParameters[0] = {1, a.Text(u"public-key"), -7};
    r.pPubKeyCredParams->pCredentialParameters[1] = {1, a.Text(u"public-key"), -257};
    r.pClientData = ClientData(a, "webauthn.create");
    if (version == 0) return r;

    auto* o = a.New<WEBAUTHN_AUTHENTICATOR_MAKE_CREDENTIAL_OPTIONS>();
    o->dwVersion = version;
    o->dwTimeoutMilliseconds = 60000;
    FillCredentials(a, o->CredentialList, full);
    FillExtensions(a, o->Extensions, full);
    o->dwAuthenticatorAttachment = 2;
    o->bRequireResidentKey = 1;
    o->dwUserVerificationRequirement = 2;
    o->dwAttestationConveyancePreference = 3;
    o->dwFlags = 0x10;
    if (version >= 2 && full) o->pCancellationId = const_cast<GUID*>(SampleGuid(a));
    if (version >= 3) o->pExcludeCredentialList = CredentialList(a, full);
    if (version >= 4) {
        o->dwEnterpriseAttestation = 1;
        o->dwLargeBlobSupport = 2;
        o->bPreferResidentKey = 1;
    }
    if (version >= 5) o->bBrowserInPrivateMode = 1;
    r.pMakeCredentialOptions = o;
    return r;
}

Fido2GetAssertionRequest SampleGetAssertion(SampleArena& a, uint32_t version, bool full) {
    Fido2GetAssertionRequest r{};
    r.left = 0;
    r.top = 0;
    r.right = 1024;
    r.bottom = 768;
    r.pwszRpId = a.Text(u"example.com");
    r.pClientData = ClientData(a, "webauthn.get");
    if (version == 0) return r;

    auto* o = a.New<WEBAUTHN_AUTHENTICATOR_GET_ASSERTION_OPTIONS>();
    o->dwVersion = version;
    o->dwTimeoutMilliseconds = 30000;
    FillCredentials(a, o->CredentialList, full);
    FillExtensions(a, o->Extensions, full);
    o->dwAuthenticatorAttachment = 0;
    o->dwUserVerificationRequirement = 1;
    o->dwFlags = 0;
    if (version >= 2) {
        o->pwszU2fAppId = full ? a.Text(u"https://example.com/appid.json") : nullptr;
        if (full) {
            o->pbU2fAppId = a.New<BOOL>();
            *o->pbU2fAppId = 1;
        }
    }
    if (version >= 3 && full) o->pCancellationId = const_cast<GUID*>(SampleGuid(a));
    if (version >= 4) o->pAllowCredentialList = CredentialList(a, full);
    if (version >= 5) {
        o->dwCredLargeBlobOperation = full ? 1 : 0;
        if (full) {
            o->cbCredLargeBlob = 9;
            o->pbCredLargeBlob = a.Bytes(std::vector<uint8_t>(9, 0x5B));
        }
    }
    if (version >= 6) {
        if (full) {
            auto* v = a.New<WEBAUTHN_HMAC_SECRET_SALT_VALUES>();
            v->pGlobalHmacSalt = Salt(a, 0x11, true);
            v->cCredWithHmacSecretSaltList = 2;
            v->pCredWithHmacSecretSaltList = a.New<WEBAUTHN_CRED_WITH_HMAC_SECRET_SALT>(2);
            v->pCredWithHmacSecretSaltList[0].cbCredID = 5;
            v->pCredWithHmacSecretSaltList[0].pbCredID = a.Bytes(std::vector<uint8_t>(5, 0xA0));
            v->pCredWithHmacSecretSaltList[0].pHmacSecretSalt = Salt(a, 0x21, false);
            v->pCredWithHmacSecretSaltList[1].cbCredID = 6;
            v->pCredWithHmacSecretSaltList[1].pbCredID = a.Bytes(std::vector<uint8_t>(6, 0xA1));
            o->pHmacSecretSaltValues = v;
        }
        o->bBrowserInPrivateMode = 1;
    }
    r.pGetAssertionOptions = o;
    return r;
}

}  // namespace agent
