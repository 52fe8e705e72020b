#include "wire/record_trace.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

#include "logging/log.h"
#include "sysutil/sy_guid.h"

namespace webauthn {

namespace {

const char kSeparator[] = "*****************************\n";

// The lines of one routine: each carries the routine's name and tests its own level.
class Dump {
public:
    explicit Dump(const char* function) : function(function) {}

    void Line(const char* format, ...) const SY_PRINTF_FORMAT(2, 3);
    void U32(const char* name, DWORD v) const { Line("%s=%u\n", name, static_cast<unsigned>(v)); }
    void I32(const char* name, LONG v) const { Line("%s=%d\n", name, static_cast<int>(v)); }
    void Ptr(const char* name, const void* p) const { Line("%s=0x%p\n", name, p); }
    void Bool(const char* name, BOOL v) const { Line("%s=%s\n", name, v ? "TRUE" : "FALSE"); }
    void Text(const char* name, PCWSTR text) const {
        if (processLogLevel < LOG_TRACE) return;
        Log(function, LOG_TRACE, "%s=%s", name, text ? Utf8(text).c_str() : "(null)");
    }
    // Length line, pointer line, and the bytes at VERBOSE when there are any.
    void Bytes(const char* lengthName, const char* pointerName, DWORD length, const void* bytes) const {
        U32(lengthName, length);
        Ptr(pointerName, bytes);
        if (length && bytes) SY_LOG_HEX(LOG_VERBOSE, function, bytes, static_cast<int32_t>(length));
    }
    void Guid(const GUID* guid) const {
        if (processLogLevel < LOG_TRACE) return;
        std::string text = "NULL";
        if (guid) {
            uint64_t words[2];
            memcpy(words, guid, 16);
            text = Syguid(words[0], words[1]).ToString();
        }
        Log(function, LOG_TRACE, "pCancellationId=%s\n", text.c_str());
    }

    const char* function;

private:
    static std::string Utf8(PCWSTR text) {
        std::string out;
        for (size_t i = 0; text && text[i]; ++i) {
            uint32_t c = static_cast<uint16_t>(text[i]);
            if (c >= 0xD800 && c < 0xDC00 && text[i + 1] >= 0xDC00 && text[i + 1] < 0xE000) {
                c = 0x10000 + ((c - 0xD800) << 10) + (static_cast<uint16_t>(text[++i]) - 0xDC00);
            }
            if (c < 0x80) {
                out += static_cast<char>(c);
            } else if (c < 0x800) {
                out += static_cast<char>(0xC0 | (c >> 6));
                out += static_cast<char>(0x80 | (c & 0x3F));
            } else if (c < 0x10000) {
                out += static_cast<char>(0xE0 | (c >> 12));
                out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
                out += static_cast<char>(0x80 | (c & 0x3F));
            } else {
                out += static_cast<char>(0xF0 | (c >> 18));
                out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
                out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
                out += static_cast<char>(0x80 | (c & 0x3F));
            }
        }
        return out;
    }
};

void Dump::Line(const char* format, ...) const {
    if (processLogLevel < LOG_TRACE) return;
    char text[kLogMessageBytes];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    Log(function, LOG_TRACE, "%s", text);
}

// Separator and pointer line of a top-level routine; false when there is nothing behind.
bool Open(const Dump& d, const char* pointerLine, const void* record) {
    d.Line("%s", kSeparator);
    d.Line(pointerLine, record);
    return record != nullptr;
}

}  // namespace

void Log_TextField(const char* function, const char* name, PCWSTR text) { Dump(function).Text(name, text); }

void Log_RpEntityInformation(const WEBAUTHN_RP_ENTITY_INFORMATION* r) {
    Dump d("Log_RpEntityInformation()");
    if (!Open(d, "pRpInformation=0x%p\n", r)) return;
    d.U32("dwVersion", r->dwVersion);
    d.Text("pwszId", r->pwszId);
    d.Text("pwszName", r->pwszName);
    d.Text("pwszIcon", r->pwszIcon);
}

void Log_UserEntityInformation(const WEBAUTHN_USER_ENTITY_INFORMATION* r) {
    Dump d("Log_UserEntityInformation()");
    if (!Open(d, "pUserInformation=0x%p\n", r)) return;
    d.U32("dwVersion", r->dwVersion);
    d.Bytes("cbId", "pbId", r->cbId, r->pbId);
    d.Text("pwszName", r->pwszName);
    d.Text("pwszIcon", r->pwszIcon);
    d.Text("pwszDisplayName", r->pwszDisplayName);
}

void Log_CoseCredentialParameters(const WEBAUTHN_COSE_CREDENTIAL_PARAMETERS* r) {
    Dump d("Log_CoseCredentialParameters()");
    if (!Open(d, "pPubKeyCredParams=0x%p\n", r)) return;
    d.U32("cCredentialParameters", r->cCredentialParameters);
    for (DWORD i = 0; r->pCredentialParameters && i < r->cCredentialParameters; ++i) {
        d.U32("  dwVersion", r->pCredentialParameters[i].dwVersion);
        d.Text("  pwszCredentialType", r->pCredentialParameters[i].pwszCredentialType);
        d.I32("  lAlg", r->pCredentialParameters[i].lAlg);
    }
}

void Log_ClientData(const WEBAUTHN_CLIENT_DATA* r) {
    Dump d("Log_ClientData()");
    if (!Open(d, "pClientData=0x%p\n", r)) return;
    d.U32("dwVersion", r->dwVersion);
    d.Bytes("cbClientDataJSON", "pbClientDataJSON", r->cbClientDataJSON, r->pbClientDataJSON);
    d.Text("pwszHashAlgId", r->pwszHashAlgId);
}

namespace {
void CredentialLines(const Dump& d, const WEBAUTHN_CREDENTIAL& c) {
    d.U32("  dwVersion", c.dwVersion);
    d.Bytes("  cbId", "  pbId", c.cbId, c.pbId);
    d.Text("  pwszCredentialType", c.pwszCredentialType);
}

void HmacSaltLines(const WEBAUTHN_HMAC_SECRET_SALT* s) {
    Dump d("Log_HmacSecretSalt()");
    d.Ptr("pHmacSecret", s);
    if (!s) return;
    d.Bytes("cbFirst", "pbFirst", s->cbFirst, s->pbFirst);
    d.Bytes("cbSecond", "pbSecond", s->cbSecond, s->pbSecond);
}
}  // namespace

void Log_Credential(const WEBAUTHN_CREDENTIAL* c) {
    if (c) CredentialLines(Dump("Log_Credential()"), *c);
}

void Log_Credentials(DWORD count, const WEBAUTHN_CREDENTIAL* credentials) {
    Dump d("Log_Credentials()");
    d.U32("CredentialsList.cCredentials", count);
    for (DWORD i = 0; credentials && i < count; ++i) Log_Credential(&credentials[i]);
}

void Log_CredentialList(const WEBAUTHN_CREDENTIAL_LIST* list) {
    Dump d("Log_CredentialList()");
    d.Ptr("credentialList", list);
    if (!list) return;
    d.U32("cCredentials", list->cCredentials);
    for (DWORD i = 0; list->ppCredentials && i < list->cCredentials; ++i) {
        const WEBAUTHN_CREDENTIAL_EX* c = list->ppCredentials[i];
        d.Ptr("  pCredential", c);
        if (!c) continue;
        d.U32("    dwVersion", c->dwVersion);
        d.Bytes("    cbId", "    pbId", c->cbId, c->pbId);
        d.Text("    pwszCredentialType", c->pwszCredentialType);
        d.U32("    dwTransports", c->dwTransports);
    }
}

void Log_Extensions(const WEBAUTHN_EXTENSIONS* list) {
    Dump d("Log_Extensions()");
    if (!list) return;
    d.U32("Extensions.cExtensions", list->cExtensions);
    for (DWORD i = 0; list->pExtensions && i < list->cExtensions; ++i) {
        d.Text("  pwszExtensionIdentifier", list->pExtensions[i].pwszExtensionIdentifier);
        d.Bytes("  cbExtension", "  pvExtension", list->pExtensions[i].cbExtension, list->pExtensions[i].pvExtension);
    }
}

void Log_HmacSecretSalt(const WEBAUTHN_HMAC_SECRET_SALT* salt) { HmacSaltLines(salt); }

void Log_HmacSecretSaltValues(const WEBAUTHN_HMAC_SECRET_SALT_VALUES* v) {
    Dump d("Log_HmacSecretSaltValues()");
    d.Ptr("pHmacSecretSaltValues", v);
    if (!v) return;
    Log_HmacSecretSalt(v->pGlobalHmacSalt);
    d.U32("cCredWithHmacSecretSaltList", v->cCredWithHmacSecretSaltList);
    d.Ptr("pCredWithHmacSecretSaltList", v->pCredWithHmacSecretSaltList);
    for (DWORD i = 0; v->pCredWithHmacSecretSaltList && i < v->cCredWithHmacSecretSaltList; ++i) {
        const WEBAUTHN_CRED_WITH_HMAC_SECRET_SALT& e = v->pCredWithHmacSecretSaltList[i];
        d.Bytes("cbCredID", "pbCredID", e.cbCredID, e.pbCredID);
        Log_HmacSecretSalt(e.pHmacSecretSalt);
    }
}

void Log_AuthenticatorMakeCredentialOptions(const WEBAUTHN_AUTHENTICATOR_MAKE_CREDENTIAL_OPTIONS* o) {
    Dump d("Log_AuthenticatorMakeCredentialOptions()");
    if (!Open(d, "pMakeCredentialOptions=0x%p\n", o)) return;
    d.U32("dwVersion", o->dwVersion);
    d.U32("dwTimeoutMilliseconds", o->dwTimeoutMilliseconds);
    Log_Credentials(o->CredentialList.cCredentials, o->CredentialList.pCredentials);
    Log_Extensions(&o->Extensions);
    d.U32("dwAuthenticatorAttachment", o->dwAuthenticatorAttachment);
    d.Bool("bRequireResidentKey", o->bRequireResidentKey);
    d.U32("dwUserVerificationRequirement", o->dwUserVerificationRequirement);
    d.U32("dwAttestationConveyancePreference", o->dwAttestationConveyancePreference);
    d.U32("dwFlags", o->dwFlags);
    if (o->dwVersion >= 2) d.Guid(o->pCancellationId);
    if (o->dwVersion >= 3) Log_CredentialList(o->pExcludeCredentialList);
    if (o->dwVersion >= 4) {
        d.U32("dwEnterpriseAttestation", o->dwEnterpriseAttestation);
        d.U32("dwLargeBlobSupport", o->dwLargeBlobSupport);
        d.Bool("bPreferResidentKey", o->bPreferResidentKey);
    }
    if (o->dwVersion >= 5) d.Bool("bBrowserInPrivateMode", o->bBrowserInPrivateMode);
}

void Log_AuthenticatorGetAssertionOptions(const WEBAUTHN_AUTHENTICATOR_GET_ASSERTION_OPTIONS* o) {
    Dump d("Log_AuthenticatorGetAssertionOptions()");
    if (!Open(d, "pGetAssertionOptions=0x%p\n", o)) return;
    d.U32("dwVersion", o->dwVersion);
    d.U32("dwTimeoutMilliseconds", o->dwTimeoutMilliseconds);
    Log_Credentials(o->CredentialList.cCredentials, o->CredentialList.pCredentials);
    Log_Extensions(&o->Extensions);
    d.U32("dwAuthenticatorAttachment", o->dwAuthenticatorAttachment);
    d.U32("dwUserVerificationRequirement", o->dwUserVerificationRequirement);
    d.U32("dwFlags", o->dwFlags);
    if (o->dwVersion >= 2) {
        d.Text("pwszU2fAppId", o->pwszU2fAppId);
        d.Line("pbU2fAppId=%s\n", !o->pbU2fAppId ? "NULL" : (*o->pbU2fAppId ? "TRUE" : "FALSE"));
    }
    if (o->dwVersion >= 3) d.Guid(o->pCancellationId);
    if (o->dwVersion >= 4) Log_CredentialList(o->pAllowCredentialList);
    if (o->dwVersion >= 5) {
        d.U32("dwCredLargeBlobOperation", o->dwCredLargeBlobOperation);
        d.Bytes("cbCredLargeBlob", "pbCredLargeBlob", o->cbCredLargeBlob, o->pbCredLargeBlob);
    }
    if (o->dwVersion >= 6) {
        Log_HmacSecretSaltValues(o->pHmacSecretSaltValues);
        d.Bool("bBrowserInPrivateMode", o->bBrowserInPrivateMode);
    }
}

void Log_CredentialAttestation(const WEBAUTHN_CREDENTIAL_ATTESTATION* a) {
    Dump d("Log_CredentialAttestation()");
    if (!Open(d, "pCredentialAttestation=0x%p\n", a)) return;
    d.U32("dwVersion", a->dwVersion);
    d.Text("pwszFormatType", a->pwszFormatType);
    d.Bytes("cbAuthenticatorData", "pbAuthenticatorData", a->cbAuthenticatorData, a->pbAuthenticatorData);
    d.Bytes("cbAttestation", "pbAttestation", a->cbAttestation, a->pbAttestation);
    d.U32("dwAttestationDecodeType", a->dwAttestationDecodeType);
    d.Ptr("pvAttestationDecode", a->pvAttestationDecode);
    const auto* c = static_cast<const WEBAUTHN_COMMON_ATTESTATION*>(a->pvAttestationDecode);
    if (a->dwAttestationDecodeType == 1 && c) {
        d.U32("  dwVersion", c->dwVersion);
        d.Text("  pwszAlg", c->pwszAlg);
        d.I32("  lAlg", c->lAlg);
        d.Bytes("  cbSignature", "  pbSignature", c->cbSignature, c->pbSignature);
        d.U32("  cX5c", c->cX5c);
        for (DWORD i = 0; c->pX5c && i < c->cX5c; ++i) {
            d.Bytes("    cbData", "    pbData", c->pX5c[i].cbData, c->pX5c[i].pbData);
        }
        d.Text("  pwszVer", c->pwszVer);
        d.Bytes("  cbCertInfo", "  pbCertInfo", c->cbCertInfo, c->pbCertInfo);
        d.Bytes("  cbPubArea", "  pbPubArea", c->cbPubArea, c->pbPubArea);
    }
    d.Bytes("cbAttestationObject", "pbAttestationObject", a->cbAttestationObject, a->pbAttestationObject);
    d.Bytes("cbCredentialId", "pbCredentialId", a->cbCredentialId, a->pbCredentialId);
    if (a->dwVersion >= 2) Log_Extensions(&a->Extensions);
    if (a->dwVersion >= 3) d.U32("dwUsedTransport", a->dwUsedTransport);
    if (a->dwVersion >= 4) {
        d.Bool("bEpAtt", a->bEpAtt);
        d.Bool("bLargeBlobSupported", a->bLargeBlobSupported);
        d.Bool("bResidentKey", a->bResidentKey);
    }
}

void Log_Assertion(const WEBAUTHN_ASSERTION* a) {
    Dump d("Log_Assertion()");
    if (!Open(d, "pAssertion=0x%p\n", a)) return;
    d.U32("dwVersion", a->dwVersion);
    d.Bytes("cbAuthenticatorData", "pbAuthenticatorData", a->cbAuthenticatorData, a->pbAuthenticatorData);
    d.Bytes("cbSignature", "pbSignature", a->cbSignature, a->pbSignature);
    Log_Credential(&a->Credential);
    d.Bytes("cbUserId", "pbUserId", a->cbUserId, a->pbUserId);
    if (a->dwVersion >= 2) {
        Log_Extensions(&a->Extensions);
        d.Bytes("cbCredLargeBlob", "pbCredLargeBlob", a->cbCredLargeBlob, a->pbCredLargeBlob);
        d.U32("dwCredLargeBlobStatus", a->dwCredLargeBlobStatus);
    }
    if (a->dwVersion >= 3) Log_HmacSecretSalt(a->pHmacSecret);
}

}  // namespace webauthn
