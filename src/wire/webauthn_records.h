// The records of the platform's WebAuthn interface, in the memory form that webauthn.dll
// reads and writes: natural alignment, the platform's pointer width, its field names. We
// declare them ourselves because the versions in use are newer than what the toolchain's
// header knows; a compile-time check holds them against that header where both have a record.
// Portable: 16-bit text units are wchar16 (wchar_t on Windows).
#pragma once

#include <cstdint>

#include "wire/pdu.h"

namespace webauthn {

using DWORD = uint32_t;
using BOOL = int32_t;
using LONG = int32_t;
using BYTE = uint8_t;
using PCWSTR = const wchar16*;

struct GUID {
    uint32_t Data1;
    uint16_t Data2;
    uint16_t Data3;
    uint8_t Data4[8];
};
static_assert(sizeof(GUID) == 16, "a GUID is 16 bytes");

struct WEBAUTHN_RP_ENTITY_INFORMATION {
    DWORD dwVersion;
    PCWSTR pwszId;
    PCWSTR pwszName;
    PCWSTR pwszIcon;
};

struct WEBAUTHN_USER_ENTITY_INFORMATION {
    DWORD dwVersion;
    DWORD cbId;
    BYTE* pbId;
    PCWSTR pwszName;
    PCWSTR pwszIcon;
    PCWSTR pwszDisplayName;
};

struct WEBAUTHN_CLIENT_DATA {
    DWORD dwVersion;
    DWORD cbClientDataJSON;
    BYTE* pbClientDataJSON;
    PCWSTR pwszHashAlgId;
};

struct WEBAUTHN_COSE_CREDENTIAL_PARAMETER {
    DWORD dwVersion;
    PCWSTR pwszCredentialType;
    LONG lAlg;
};

struct WEBAUTHN_COSE_CREDENTIAL_PARAMETERS {
    DWORD cCredentialParameters;
    WEBAUTHN_COSE_CREDENTIAL_PARAMETER* pCredentialParameters;
};

struct WEBAUTHN_CREDENTIAL {
    DWORD dwVersion;
    DWORD cbId;
    BYTE* pbId;
    PCWSTR pwszCredentialType;
};

struct WEBAUTHN_CREDENTIALS {
    DWORD cCredentials;
    WEBAUTHN_CREDENTIAL* pCredentials;
};

struct WEBAUTHN_CREDENTIAL_EX {
    DWORD dwVersion;
    DWORD cbId;
    BYTE* pbId;
    PCWSTR pwszCredentialType;
    DWORD dwTransports;
};

struct WEBAUTHN_CREDENTIAL_LIST {
    DWORD cCredentials;
    WEBAUTHN_CREDENTIAL_EX** ppCredentials;
};

struct WEBAUTHN_EXTENSION {
    PCWSTR pwszExtensionIdentifier;
    DWORD cbExtension;
    void* pvExtension;
};

struct WEBAUTHN_EXTENSIONS {
    DWORD cExtensions;
    WEBAUTHN_EXTENSION* pExtensions;
};

struct WEBAUTHN_HMAC_SECRET_SALT {
    DWORD cbFirst;
    BYTE* pbFirst;
    DWORD cbSecond;
    BYTE* pbSecond;
};

struct WEBAUTHN_CRED_WITH_HMAC_SECRET_SALT {
    DWORD cbCredID;
    BYTE* pbCredID;
    WEBAUTHN_HMAC_SECRET_SALT* pHmacSecretSalt;
};

struct WEBAUTHN_HMAC_SECRET_SALT_VALUES {
    WEBAUTHN_HMAC_SECRET_SALT* pGlobalHmacSalt;
    DWORD cCredWithHmacSecretSaltList;
    WEBAUTHN_CRED_WITH_HMAC_SECRET_SALT* pCredWithHmacSecretSaltList;
};

// Options of version 5.
struct WEBAUTHN_AUTHENTICATOR_MAKE_CREDENTIAL_OPTIONS {
    DWORD dwVersion;
    DWORD dwTimeoutMilliseconds;
    WEBAUTHN_CREDENTIALS CredentialList;
    WEBAUTHN_EXTENSIONS Extensions;
    DWORD dwAuthenticatorAttachment;
    BOOL bRequireResidentKey;
    DWORD dwUserVerificationRequirement;
    DWORD dwAttestationConveyancePreference;
    DWORD dwFlags;
    GUID* pCancellationId;                              // version 2
    WEBAUTHN_CREDENTIAL_LIST* pExcludeCredentialList;  // version 3
    DWORD dwEnterpriseAttestation;                      // version 4
    DWORD dwLargeBlobSupport;
    BOOL bPreferResidentKey;
    BOOL bBrowserInPrivateMode;  // version 5
};
constexpr DWORD kMakeCredentialOptionsNewest = 5;

// Options of version 6.
struct WEBAUTHN_AUTHENTICATOR_GET_ASSERTION_OPTIONS {
    DWORD dwVersion;
    DWORD dwTimeoutMilliseconds;
    WEBAUTHN_CREDENTIALS CredentialList;
    WEBAUTHN_EXTENSIONS Extensions;
    DWORD dwAuthenticatorAttachment;
    DWORD dwUserVerificationRequirement;
    DWORD dwFlags;
    PCWSTR pwszU2fAppId;                               // version 2
    BOOL* pbU2fAppId;
    GUID* pCancellationId;                             // version 3
    WEBAUTHN_CREDENTIAL_LIST* pAllowCredentialList;   // version 4
    DWORD dwCredLargeBlobOperation;                    // version 5
    DWORD cbCredLargeBlob;
    BYTE* pbCredLargeBlob;
    WEBAUTHN_HMAC_SECRET_SALT_VALUES* pHmacSecretSaltValues;  // version 6
    BOOL bBrowserInPrivateMode;
};
constexpr DWORD kGetAssertionOptionsNewest = 6;

// --- Records that the library returns ---

struct WEBAUTHN_X5C {
    DWORD cbData;
    BYTE* pbData;
};

struct WEBAUTHN_COMMON_ATTESTATION {
    DWORD dwVersion;
    PCWSTR pwszAlg;
    LONG lAlg;
    DWORD cbSignature;
    BYTE* pbSignature;
    DWORD cX5c;
    WEBAUTHN_X5C* pX5c;
    PCWSTR pwszVer;
    DWORD cbCertInfo;
    BYTE* pbCertInfo;
    DWORD cbPubArea;
    BYTE* pbPubArea;
};

struct WEBAUTHN_CREDENTIAL_ATTESTATION {
    DWORD dwVersion;
    PCWSTR pwszFormatType;
    DWORD cbAuthenticatorData;
    BYTE* pbAuthenticatorData;
    DWORD cbAttestation;
    BYTE* pbAttestation;
    DWORD dwAttestationDecodeType;
    void* pvAttestationDecode;
    DWORD cbAttestationObject;
    BYTE* pbAttestationObject;
    DWORD cbCredentialId;
    BYTE* pbCredentialId;
    WEBAUTHN_EXTENSIONS Extensions;  // version 2
    DWORD dwUsedTransport;           // version 3
    BOOL bEpAtt;                     // version 4
    BOOL bLargeBlobSupported;
    BOOL bResidentKey;
};

struct WEBAUTHN_ASSERTION {
    DWORD dwVersion;
    DWORD cbAuthenticatorData;
    BYTE* pbAuthenticatorData;
    DWORD cbSignature;
    BYTE* pbSignature;
    WEBAUTHN_CREDENTIAL Credential;
    DWORD cbUserId;
    BYTE* pbUserId;
    WEBAUTHN_EXTENSIONS Extensions;  // version 2
    DWORD cbCredLargeBlob;
    BYTE* pbCredLargeBlob;
    DWORD dwCredLargeBlobStatus;
    WEBAUTHN_HMAC_SECRET_SALT* pHmacSecret;  // version 3
};

// --- The decoded requests: window rectangle, then the library call's arguments ---

struct Fido2MakeCredentialRequest {
    DWORD left, top, right, bottom;
    WEBAUTHN_RP_ENTITY_INFORMATION* pRpInformation;
    WEBAUTHN_USER_ENTITY_INFORMATION* pUserInformation;
    WEBAUTHN_COSE_CREDENTIAL_PARAMETERS* pPubKeyCredParams;
    WEBAUTHN_CLIENT_DATA* pClientData;
    WEBAUTHN_AUTHENTICATOR_MAKE_CREDENTIAL_OPTIONS* pMakeCredentialOptions;
};

struct Fido2GetAssertionRequest {
    DWORD left, top, right, bottom;
    PCWSTR pwszRpId;
    WEBAUTHN_CLIENT_DATA* pClientData;
    WEBAUTHN_AUTHENTICATOR_GET_ASSERTION_OPTIONS* pGetAssertionOptions;
};

}  // namespace webauthn
