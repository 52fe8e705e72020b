// Requests decoded from byte vectors written out from the wire tables: the options of every
// version, the records both requests share, and whole requests with their trailing bytes.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "hex_bytes.h"
#include "support/counted_allocations.h"
#include "wire/record_release.h"
#include "wire/request_decoders.h"

using namespace webauthn;

namespace {

using Bytes = std::vector<uint8_t>;

std::u16string Text(PCWSTR text) {
    std::u16string s;
    for (size_t i = 0; text && text[i]; ++i) s += static_cast<char16_t>(text[i]);
    return s;
}
Bytes Data(const void* bytes, DWORD length) {
    auto* p = static_cast<const uint8_t*>(bytes);
    return p ? Bytes(p, p + length) : Bytes();
}

// Pieces of the options, by the version that brings them. The word VV is the version.
const char kCredentials[] =  // one credential: version 1, id "id", type "ab"
    "01000000 | 01000000 02000000 6964 0000 03000000 6100 6200 0000 0000";
const char kExtensions[] = "01000000 | 02000000 7800 0000 | 01000000 F5 000000";  // "x" with one byte
const char kGuid[] = "10000000 00112233 44556677 8899AABB CCDDEEFF";
// Present by any nonzero word, count 2: a credential of version 1, id 09, null type, transports
// 4; then an absent one.
const char kCredentialList[] = "FFFFFFFF 02000000 | 01000000 01000000 01000000 09000000 00000000 04000000 | 00000000";
const char kTrailer[] = "EEEEEEEE";  // behind the options: never read

std::string Options(uint32_t version, const std::vector<std::string>& parts) {
    char word[16];
    snprintf(word, sizeof(word), "%02X000000", version);
    std::string hex = std::string("01000000 ") + word;
    for (const std::string& part : parts) hex += " | " + part;
    return hex;
}

void ExpectHead(DWORD timeout, const WEBAUTHN_CREDENTIALS& credentials, const WEBAUTHN_EXTENSIONS& extensions,
                DWORD attachment) {
    EXPECT_EQ(timeout, 30000u);
    ASSERT_EQ(credentials.cCredentials, 1u);
    EXPECT_EQ(credentials.pCredentials[0].dwVersion, 1u);
    EXPECT_EQ(Data(credentials.pCredentials[0].pbId, credentials.pCredentials[0].cbId), (Bytes{'i', 'd'}));
    EXPECT_EQ(Text(credentials.pCredentials[0].pwszCredentialType), u"ab");
    ASSERT_EQ(extensions.cExtensions, 1u);
    EXPECT_EQ(Text(extensions.pExtensions[0].pwszExtensionIdentifier), u"x");
    EXPECT_EQ(Data(extensions.pExtensions[0].pvExtension, extensions.pExtensions[0].cbExtension), Bytes{0xF5});
    EXPECT_EQ(attachment, 1u);
}

void ExpectGuid(const GUID* guid, bool present) {
    ASSERT_EQ(guid != nullptr, present);
    if (present) {
        EXPECT_EQ(Data(guid, 16), HexBytes(kGuid + 9)) << "the GUID's bytes in memory order";
    }
}

void ExpectCredentialList(const WEBAUTHN_CREDENTIAL_LIST* list, bool present) {
    ASSERT_EQ(list != nullptr, present);
    if (!present) return;
    ASSERT_EQ(list->cCredentials, 2u) << "an absent element still counts";
    ASSERT_NE(list->ppCredentials[0], nullptr);
    EXPECT_EQ(list->ppCredentials[0]->dwVersion, 1u);
    EXPECT_EQ(Data(list->ppCredentials[0]->pbId, list->ppCredentials[0]->cbId), Bytes{9});
    EXPECT_EQ(list->ppCredentials[0]->pwszCredentialType, nullptr);
    EXPECT_EQ(list->ppCredentials[0]->dwTransports, 4u);
    EXPECT_EQ(list->ppCredentials[1], nullptr);
}

TEST(RequestVectors, MakeCredentialOptionsOfEveryVersion) {
    const std::vector<std::string> v1 = {"30750000", kCredentials, kExtensions,
                                         "01000000 | 01000000 | 02000000 | 03000000 | 04000000"};
    auto upTo = [&](uint32_t version) {
        std::vector<std::string> parts = v1;
        if (version >= 2) parts.push_back(kGuid);
        if (version >= 3) parts.push_back(kCredentialList);
        if (version >= 4) parts.push_back("05000000 | 06000000 | 01000000");
        if (version >= 5) parts.push_back("01000000");
        return parts;
    };
    CountedAllocations allocations;
    for (uint32_t version = 0; version <= 5; ++version) {
        SCOPED_TRACE(testing::Message() << "version " << version);
        const uint32_t fields = version == 0 ? 1 : version;  // 0 reads as 1
        const Bytes options = HexBytes(Options(version, upTo(fields)));
        const Bytes wire = HexBytes(Options(version, upTo(fields)) + kTrailer);
        WEBAUTHN_AUTHENTICATOR_MAKE_CREDENTIAL_OPTIONS* o = nullptr;
        ASSERT_EQ(Decode_AuthenticatorMakeCredentialOptions(wire.data(), wire.data() + wire.size(), &o), options.size());
        ASSERT_NE(o, nullptr);
        EXPECT_EQ(o->dwVersion, version) << "passed on as sent";
        ExpectHead(o->dwTimeoutMilliseconds, o->CredentialList, o->Extensions, o->dwAuthenticatorAttachment);
        EXPECT_EQ(o->bRequireResidentKey, 1);
        EXPECT_EQ(o->dwUserVerificationRequirement, 2u);
        EXPECT_EQ(o->dwAttestationConveyancePreference, 3u);
        EXPECT_EQ(o->dwFlags, 4u);
        ExpectGuid(o->pCancellationId, fields >= 2);
        ExpectCredentialList(o->pExcludeCredentialList, fields >= 3);
        EXPECT_EQ(o->dwEnterpriseAttestation, fields >= 4 ? 5u : 0u);
        EXPECT_EQ(o->dwLargeBlobSupport, fields >= 4 ? 6u : 0u);
        EXPECT_EQ(o->bPreferResidentKey, fields >= 4 ? 1 : 0);
        EXPECT_EQ(o->bBrowserInPrivateMode, fields >= 5 ? 1 : 0);
        Free_AuthenticatorMakeCredentialOptions(o);
        EXPECT_EQ(CountedAllocations::Live(), 0);
    }
}

TEST(RequestVectors, GetAssertionOptionsOfEveryVersion) {
    const std::vector<std::string> v1 = {"30750000", kCredentials, kExtensions, "01000000 | 02000000 | 04000000"};
    auto upTo = [&](uint32_t version) {
        std::vector<std::string> parts = v1;
        // App id "ap", then a boolean present by any nonzero word, its value kept as it came.
        if (version >= 2) parts.push_back("03000000 6100 7000 0000 0000 | FFFFFFFF 55000000");
        if (version >= 3) parts.push_back(kGuid);
        if (version >= 4) parts.push_back(kCredentialList);
        if (version >= 5) parts.push_back("07000000 | 03000000 B1B2B3 00");
        // Salt values: a global salt of 11 and empty, one credential 09 without a salt; private mode.
        if (version >= 6) {
            parts.push_back("01000000 | 01000000 01000000 11000000 00000000 | 01000000 | 01000000 09000000 00000000");
            parts.push_back("01000000");
        }
        return parts;
    };
    CountedAllocations allocations;
    for (uint32_t version = 0; version <= 6; ++version) {
        SCOPED_TRACE(testing::Message() << "version " << version);
        const uint32_t fields = version == 0 ? 1 : version;
        const Bytes options = HexBytes(Options(version, upTo(fields)));
        const Bytes wire = HexBytes(Options(version, upTo(fields)) + kTrailer);
        WEBAUTHN_AUTHENTICATOR_GET_ASSERTION_OPTIONS* o = nullptr;
        ASSERT_EQ(Decode_AuthenticatorGetAssertionOptions(wire.data(), wire.data() + wire.size(), &o), options.size());
        ASSERT_NE(o, nullptr);
        EXPECT_EQ(o->dwVersion, version);
        ExpectHead(o->dwTimeoutMilliseconds, o->CredentialList, o->Extensions, o->dwAuthenticatorAttachment);
        EXPECT_EQ(o->dwUserVerificationRequirement, 2u);
        EXPECT_EQ(o->dwFlags, 4u);
        EXPECT_EQ(Text(o->pwszU2fAppId), fields >= 2 ? u"ap" : u"");
        ASSERT_EQ(o->pbU2fAppId != nullptr, fields >= 2);
        if (o->pbU2fAppId) {
            EXPECT_EQ(*o->pbU2fAppId, 0x55);
        }
        ExpectGuid(o->pCancellationId, fields >= 3);
        ExpectCredentialList(o->pAllowCredentialList, fields >= 4);
        EXPECT_EQ(o->dwCredLargeBlobOperation, fields >= 5 ? 7u : 0u);
        EXPECT_EQ(Data(o->pbCredLargeBlob, o->cbCredLargeBlob), fields >= 5 ? (Bytes{0xB1, 0xB2, 0xB3}) : Bytes());
        ASSERT_EQ(o->pHmacSecretSaltValues != nullptr, fields >= 6);
        if (const WEBAUTHN_HMAC_SECRET_SALT_VALUES* values = o->pHmacSecretSaltValues) {
            ASSERT_NE(values->pGlobalHmacSalt, nullptr);
            EXPECT_EQ(Data(values->pGlobalHmacSalt->pbFirst, values->pGlobalHmacSalt->cbFirst), Bytes{0x11});
            EXPECT_EQ(values->pGlobalHmacSalt->pbSecond, nullptr);
            ASSERT_EQ(values->cCredWithHmacSecretSaltList, 1u);
            EXPECT_EQ(Data(values->pCredWithHmacSecretSaltList[0].pbCredID, values->pCredWithHmacSecretSaltList[0].cbCredID),
                      Bytes{9});
            EXPECT_EQ(values->pCredWithHmacSecretSaltList[0].pHmacSecretSalt, nullptr);
        }
        EXPECT_EQ(o->bBrowserInPrivateMode, fields >= 6 ? 1 : 0);
        Free_AuthenticatorGetAssertionOptions(o);
        EXPECT_EQ(CountedAllocations::Live(), 0);
    }
}

TEST(RequestVectors, SmallVariantsOfTheOptionalFields) {
    const char kZeroHead[] = "00000000 | 00000000 | 00000000";  // time-out, no credentials, no extensions
    struct Row {
        const char* name;
        std::string hex;
        bool makeCredential;
    } rows[] = {
        {"absent options", "00000000", true},
        {"absent options", "00000000", false},
        {"v2 with an empty GUID", Options(2, {kZeroHead, "00000000 00000000 00000000 00000000 00000000", "00000000"}),
         true},
        {"v3 with an absent exclude list",
         Options(3, {kZeroHead, "00000000 00000000 00000000 00000000 00000000", "00000000", "00000000"}), true},
        {"v2 with a null app id and an absent boolean", Options(2, {kZeroHead, "00000000 00000000 00000000", "00000000 00000000"}),
         false},
        {"v6 with salt values of no global salt and no list",
         Options(6, {kZeroHead, "00000000 00000000 00000000", "00000000 00000000", "00000000", "00000000",
                     "00000000 00000000", "01000000 00000000 00000000", "00000000"}),
         false},
    };
    CountedAllocations allocations;
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const Bytes wire = HexBytes(row.hex);
        if (row.makeCredential) {
            WEBAUTHN_AUTHENTICATOR_MAKE_CREDENTIAL_OPTIONS* o = nullptr;
            ASSERT_EQ(Decode_AuthenticatorMakeCredentialOptions(wire.data(), wire.data() + wire.size(), &o), wire.size());
            if (o) {
                EXPECT_EQ(o->pCancellationId, nullptr);
                EXPECT_EQ(o->pExcludeCredentialList, nullptr);
            }
            Free_AuthenticatorMakeCredentialOptions(o);
        } else {
            WEBAUTHN_AUTHENTICATOR_GET_ASSERTION_OPTIONS* o = nullptr;
            ASSERT_EQ(Decode_AuthenticatorGetAssertionOptions(wire.data(), wire.data() + wire.size(), &o), wire.size());
            if (o) {
                EXPECT_EQ(o->pbU2fAppId, nullptr);
                EXPECT_EQ(Text(o->pwszU2fAppId), u"");
                if (o->dwVersion == 6) {
                    ASSERT_NE(o->pHmacSecretSaltValues, nullptr);
                    EXPECT_EQ(o->pHmacSecretSaltValues->pGlobalHmacSalt, nullptr);
                    EXPECT_EQ(o->pHmacSecretSaltValues->cCredWithHmacSecretSaltList, 0u);
                    EXPECT_EQ(o->pHmacSecretSaltValues->pCredWithHmacSecretSaltList, nullptr);
                }
            }
            Free_AuthenticatorGetAssertionOptions(o);
        }
        EXPECT_EQ(CountedAllocations::Live(), 0);
    }
}

TEST(RequestVectors, WholeRequestsAndTheBytesBehindThem) {
    CountedAllocations allocations;
    // Window 1 2 3 4; relying party of version 1, id "ab", no name, an empty icon; user 75,
    // name "x", no icon, no display name; one ES256 parameter of type "ab"; client data "{}"
    // hashed by "x"; no options. Then bytes that aren't part of the request.
    const Bytes make = HexBytes(
        "01000000 02000000 03000000 04000000 |"
        "01000000 03000000 6100 6200 0000 0000 00000000 01000000 0000 0000 |"
        "01000000 01000000 75 000000 02000000 7800 0000 00000000 00000000 |"
        "01000000 01000000 03000000 6100 6200 0000 0000 F9FFFFFF |"
        "01000000 02000000 7B7D 0000 02000000 7800 0000 |"
        "00000000 | DEADBEEF 01");
    Fido2MakeCredentialRequest* m = Decode_AuthenticatorMakeCredentialRequest(make.data(), make.data() + make.size());
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(m->left + m->top * 10 + m->right * 100 + m->bottom * 1000, 4321u);
    EXPECT_EQ(m->pRpInformation->dwVersion, 1u);
    EXPECT_EQ(Text(m->pRpInformation->pwszId), u"ab");
    EXPECT_EQ(m->pRpInformation->pwszName, nullptr) << "a count of 0 is null";
    ASSERT_NE(m->pRpInformation->pwszIcon, nullptr) << "a count of 1 is the empty string";
    EXPECT_EQ(m->pRpInformation->pwszIcon[0], 0);
    EXPECT_EQ(Data(m->pUserInformation->pbId, m->pUserInformation->cbId), Bytes{0x75});
    EXPECT_EQ(Text(m->pUserInformation->pwszName), u"x");
    EXPECT_EQ(m->pUserInformation->pwszIcon, nullptr);
    EXPECT_EQ(m->pUserInformation->pwszDisplayName, nullptr);
    ASSERT_EQ(m->pPubKeyCredParams->cCredentialParameters, 1u);
    EXPECT_EQ(Text(m->pPubKeyCredParams->pCredentialParameters[0].pwszCredentialType), u"ab");
    EXPECT_EQ(m->pPubKeyCredParams->pCredentialParameters[0].lAlg, -7);
    EXPECT_EQ(Data(m->pClientData->pbClientDataJSON, m->pClientData->cbClientDataJSON), (Bytes{'{', '}'}));
    EXPECT_EQ(Text(m->pClientData->pwszHashAlgId), u"x");
    EXPECT_EQ(m->pMakeCredentialOptions, nullptr);
    Free_AuthenticatorMakeCredentialRequest(m);

    // The smallest useful get-assertion request: dataLen 44.
    const Bytes get = HexBytes(
        "00000000 00000000 00000000 00000000 | 02000000 6100 0000 | 01000000 00000000 01000000 0000 0000 | 00000000");
    ASSERT_EQ(get.size(), 44u);
    Fido2GetAssertionRequest* g = Decode_AuthenticatorGetAssertionRequest(get.data(), get.data() + get.size());
    ASSERT_NE(g, nullptr);
    EXPECT_EQ(Text(g->pwszRpId), u"a");
    EXPECT_EQ(g->pClientData->cbClientDataJSON, 0u);
    EXPECT_EQ(g->pClientData->pbClientDataJSON, nullptr);
    ASSERT_NE(g->pClientData->pwszHashAlgId, nullptr);
    EXPECT_EQ(g->pGetAssertionOptions, nullptr);
    Free_AuthenticatorGetAssertionRequest(g);
    EXPECT_EQ(CountedAllocations::Live(), 0);
}

}  // namespace
