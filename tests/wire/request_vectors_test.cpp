// Requests decoded from byte vectors written out by hand: the options of every version, whole
// requests with bytes behind them, and what a cut, short or refused request frees and logs.
#include <gtest/gtest.h>

#include <functional>
#include <regex>
#include <string>
#include <vector>

#include "hex_bytes.h"
#include "support/counted_allocations.h"
#include "support/log_capture.h"
#include "wire/record_release.h"
#include "wire/request_decoders.h"

using namespace webauthn;

namespace {

using Pieces = std::vector<std::string>;

// Window 1 2 3 4; relying party of version 1, id "ab", no name, an empty icon; user 75 whose
// texts are cut short by a zero unit inside (name), made empty whatever their unit (icon) and
// terminated in place of their last unit (display name); one ES256 parameter of type "ab";
// client data "{}" hashed by "x"; relying party id "a".
const char kWindow[] = "01000000 02000000 03000000 04000000";
const char kRp[] = "01000000 | 03000000 6100 6200 0000 0000 | 00000000 | 01000000 0000 0000";
const char kUser[] = "01000000 | 01000000 75 000000 | 03000000 6100 0000 6200 0000 | 01000000 7800 0000 | 02000000 6100 6200";
const char kCose[] = "01000000 | 01000000 03000000 6100 6200 0000 0000 F9FFFFFF";
const char kClientData[] = "01000000 | 02000000 7B7D 0000 | 02000000 7800 0000";
const char kRpId[] = "02000000 6100 0000";

// Pieces of the options, by the version that brings them.
const char kCredentials[] =  // one credential: version 1, id "id", type "ab"
    "01000000 | 01000000 02000000 6964 0000 03000000 6100 6200 0000 0000";
const char kExtensions[] = "01000000 | 02000000 7800 0000 | 01000000 F5 000000";  // "x" with one byte
const char kGuid[] = "10000000 00112233 44556677 8899AABB CCDDEEFF";
// Present by any nonzero word, count 2: a credential of version 1, id 09, null type, transports
// 4; then an absent one.
const char kCredentialList[] = "FFFFFFFF 02000000 | 01000000 01000000 01000000 09000000 00000000 04000000 | 00000000";
// App id "ap", then a boolean present by any nonzero word, its value kept as it came.
const char kAppId[] = "03000000 6100 7000 0000 0000 | FFFFFFFF 55000000";
// A global salt of 11 and empty, one credential 09 without a salt.
const char kSaltValues[] = "01000000 | 01000000 01000000 11000000 00000000 | 01000000 | 01000000 09000000 00000000";

std::string OptionsHead(uint32_t version) { return "01000000 " + HexWord(version); }  // presence, version

// The fields behind the version, as far as a version has them: `full`, or with each optional
// field as small as it gets (a GUID of length 0, absent records, null texts, empty lists).
Pieces MakeCredentialFields(uint32_t version, bool full = true) {
    Pieces p = {"30750000", kCredentials, kExtensions, "01000000 | 01000000 | 02000000 | 03000000 | 04000000"};
    if (version >= 2) p.push_back(full ? kGuid : "00000000");
    if (version >= 3) p.push_back(full ? kCredentialList : "00000000");
    if (version >= 4) p.push_back("05000000 | 06000000 | 01000000");
    if (version >= 5) p.push_back("01000000");
    return p;
}
Pieces GetAssertionFields(uint32_t version, bool full = true) {
    Pieces p = {"30750000", kCredentials, kExtensions, "01000000 | 02000000 | 04000000"};
    if (version >= 2) p.push_back(full ? kAppId : "00000000 | 00000000");
    if (version >= 3) p.push_back(full ? kGuid : "00000000");
    if (version >= 4) p.push_back(full ? kCredentialList : "00000000");
    if (version >= 5) p.push_back(full ? "07000000 | 03000000 B1B2B3 00" : "07000000 | 00000000");
    if (version >= 6) p.insert(p.end(), {full ? kSaltValues : "01000000 | 00000000 | 00000000", "01000000"});
    return p;
}

Pieces Join(Pieces a, const Pieces& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}
Bytes Wire(const Pieces& pieces) {
    std::string hex;
    for (const std::string& piece : pieces) hex += piece + " | ";
    return HexBytes(hex);
}
// Where the first piece equal to `piece` starts.
size_t Offset(const Pieces& pieces, const std::string& piece) {
    size_t at = 0;
    for (size_t i = 0; i < pieces.size() && pieces[i] != piece; ++i) at += HexBytes(pieces[i]).size();
    return at;
}

// Whole requests with the newest options, every field spelled out.
const Pieces kMakeCredential = Join({kWindow, kRp, kUser, kCose, kClientData, OptionsHead(5)}, MakeCredentialFields(5));
const Pieces kGetAssertion = Join({kWindow, kRpId, kClientData, OptionsHead(6)}, GetAssertionFields(6));

// Decodes the first `length` bytes as a whole request and frees it; whether one came out.
template <class Request>
bool Freed(Request* r, void (*release)(Request*)) {
    release(r);
    return r != nullptr;
}
bool RequestDecodes(bool make, const Bytes& wire, size_t length) {
    const uint8_t *begin = wire.data(), *end = begin + length;
    return make ? Freed(Decode_AuthenticatorMakeCredentialRequest(begin, end), Free_AuthenticatorMakeCredentialRequest)
                : Freed(Decode_AuthenticatorGetAssertionRequest(begin, end), Free_AuthenticatorGetAssertionRequest);
}

// A record decoder run over bytes into an out-argument of its own; the bytes taken. Whatever
// it built is released by the matching free routine.
using Decoder = std::function<uint32_t(const Bytes&)>;
template <class Out>
Decoder Decoding(uint32_t (*decode)(const uint8_t*, const uint8_t*, Out*), void (*release)(Out*) = nullptr) {
    return [decode, release](const Bytes& b) {
        Out out{};
        const uint32_t taken = decode(b.data(), b.data() + b.size(), &out);
        if (release) release(&out);
        return taken;
    };
}

using Words = std::vector<uint32_t>;

// Decoded texts, "(null)" for a null pointer, and byte fields, empty for null.
using Strings = std::vector<std::basic_string<wchar16>>;
Strings Texts(std::initializer_list<const wchar16*> texts) {
    Strings shown;
    for (const wchar16* text : texts) shown.push_back(text ? text : L"(null)");
    return shown;
}
Bytes Data(const void* bytes, uint32_t length) {
    auto* p = static_cast<const uint8_t*>(bytes);
    return p ? Bytes(p, p + length) : Bytes();
}

// kCredentials and kExtensions.
void ExpectHead(const WEBAUTHN_CREDENTIALS& credentials, const WEBAUTHN_EXTENSIONS& extensions) {
    ASSERT_EQ(Words({credentials.cCredentials, extensions.cExtensions}), Words({1, 1}));
    const WEBAUTHN_CREDENTIAL& c = credentials.pCredentials[0];
    const WEBAUTHN_EXTENSION& e = extensions.pExtensions[0];
    EXPECT_EQ(Texts({c.pwszCredentialType, e.pwszExtensionIdentifier}), (Strings{L"ab", L"x"}));
    EXPECT_EQ((std::vector<Bytes>{Data(c.pbId, c.cbId), Data(e.pvExtension, e.cbExtension)}),
              (std::vector<Bytes>{{'i', 'd'}, {0xF5}}));
    EXPECT_EQ(c.dwVersion, 1u);
}

// The GUID's bytes in memory order, and the list of kCredentialList, when `present`.
void ExpectGuidAndList(const webauthn::GUID* guid, const WEBAUTHN_CREDENTIAL_LIST* list, bool guidPresent,
                       bool listPresent) {
    EXPECT_EQ(guid ? Data(guid, 16) : Bytes(), guidPresent ? HexBytes(kGuid + 9) : Bytes());
    ASSERT_EQ(list != nullptr, listPresent);
    if (!list) return;
    ASSERT_EQ(list->cCredentials, 2u) << "an absent element still counts";
    ASSERT_NE(list->ppCredentials[0], nullptr);
    const WEBAUTHN_CREDENTIAL_EX* first = list->ppCredentials[0];
    EXPECT_EQ(Words({first->dwVersion, first->cbId, first->pbId[0], first->dwTransports}), Words({1, 1, 9, 4}));
    EXPECT_EQ(first->pwszCredentialType, nullptr);
    EXPECT_EQ(list->ppCredentials[1], nullptr);
}

// Decodes the options of each version from 0 (read as 1) to `newest`, full and sparse, with a
// word behind them that is never read; `check` gets what came out, which is freed after it.
template <class Options>
void ForEachVersion(uint32_t newest, uint32_t (*decode)(const uint8_t*, const uint8_t*, Options**),
                    void (*release)(Options*), Pieces (*fields)(uint32_t, bool),
                    const std::function<void(const Options&, uint32_t fields, bool full)>& check) {
    CountedAllocations allocations;
    EXPECT_EQ(Decoding(decode)(HexBytes("00000000 EEEEEEEE")), 4u) << "absent";
    for (uint32_t run = 0; run < 2 * (newest + 1); ++run) {
        const uint32_t version = run / 2, present = version == 0 ? 1 : version;
        const bool full = run % 2 == 0;
        SCOPED_TRACE(testing::Message() << "version " << version << (full ? ", full" : ", sparse"));
        const Bytes options = Wire(Join({OptionsHead(version)}, fields(present, full)));
        Bytes wire = options;
        wire.insert(wire.end(), 4, 0xEE);
        Options* o = nullptr;
        ASSERT_EQ(decode(wire.data(), wire.data() + wire.size(), &o), options.size());
        ASSERT_TRUE(o);
        EXPECT_EQ(o->dwVersion, version) << "passed on as sent";
        check(*o, present, full);
        release(o);
        EXPECT_EQ(CountedAllocations::Live(), 0);
    }
}

TEST(RequestVectors, OptionsOfEveryVersion) {
    ForEachVersion<WEBAUTHN_AUTHENTICATOR_MAKE_CREDENTIAL_OPTIONS>(
        5, Decode_AuthenticatorMakeCredentialOptions, Free_AuthenticatorMakeCredentialOptions, MakeCredentialFields,
        [](const WEBAUTHN_AUTHENTICATOR_MAKE_CREDENTIAL_OPTIONS& o, uint32_t fields, bool full) {
            // A field above the version keeps its zero.
            const bool v4 = fields >= 4;
            EXPECT_EQ(Words({o.dwTimeoutMilliseconds, o.dwAuthenticatorAttachment,
                             static_cast<uint32_t>(o.bRequireResidentKey), o.dwUserVerificationRequirement,
                             o.dwAttestationConveyancePreference, o.dwFlags, o.dwEnterpriseAttestation,
                             o.dwLargeBlobSupport, static_cast<uint32_t>(o.bPreferResidentKey),
                             static_cast<uint32_t>(o.bBrowserInPrivateMode)}),
                      Words({30000, 1, 1, 2, 3, 4, v4 ? 5u : 0u, v4 ? 6u : 0u, v4, fields >= 5}));
            ExpectHead(o.CredentialList, o.Extensions);
            ExpectGuidAndList(o.pCancellationId, o.pExcludeCredentialList, full && fields >= 2, full && fields >= 3);
        });
    ForEachVersion<WEBAUTHN_AUTHENTICATOR_GET_ASSERTION_OPTIONS>(
        6, Decode_AuthenticatorGetAssertionOptions, Free_AuthenticatorGetAssertionOptions, GetAssertionFields,
        [](const WEBAUTHN_AUTHENTICATOR_GET_ASSERTION_OPTIONS& o, uint32_t fields, bool full) {
            EXPECT_EQ(Words({o.dwTimeoutMilliseconds, o.dwAuthenticatorAttachment, o.dwUserVerificationRequirement,
                             o.dwFlags, o.dwCredLargeBlobOperation, static_cast<uint32_t>(o.bBrowserInPrivateMode)}),
                      Words({30000, 1, 2, 4, fields >= 5 ? 7u : 0u, fields >= 6}));
            ExpectHead(o.CredentialList, o.Extensions);
            const bool v2 = full && fields >= 2;
            EXPECT_EQ(Texts({o.pwszU2fAppId}), Strings{v2 ? L"ap" : L"(null)"}) << "a count of 0 is null";
            EXPECT_EQ(Data(o.pbU2fAppId, o.pbU2fAppId ? 4 : 0), v2 ? HexBytes("55000000") : Bytes());
            ExpectGuidAndList(o.pCancellationId, o.pAllowCredentialList, full && fields >= 3, full && fields >= 4);
            EXPECT_EQ(o.pbCredLargeBlob ? Data(o.pbCredLargeBlob, o.cbCredLargeBlob) : Bytes{0xFF},
                      full && fields >= 5 ? HexBytes("B1B2B3") : Bytes{0xFF});
            ASSERT_EQ(o.pHmacSecretSaltValues != nullptr, fields >= 6);
            const WEBAUTHN_HMAC_SECRET_SALT_VALUES* values = o.pHmacSecretSaltValues;
            if (!values) return;
            ASSERT_EQ(Words({values->pGlobalHmacSalt != nullptr, values->cCredWithHmacSecretSaltList,
                             values->pCredWithHmacSecretSaltList != nullptr}),
                      Words({full, full, full}));
            if (!full) return;
            const WEBAUTHN_HMAC_SECRET_SALT& global = *values->pGlobalHmacSalt;
            const WEBAUTHN_CRED_WITH_HMAC_SECRET_SALT& cred = values->pCredWithHmacSecretSaltList[0];
            EXPECT_EQ((std::vector<Bytes>{Data(global.pbFirst, global.cbFirst), Data(cred.pbCredID, cred.cbCredID)}),
                      (std::vector<Bytes>{{0x11}, {9}}));
            EXPECT_EQ(global.pbSecond, nullptr);
            EXPECT_EQ(cred.pHmacSecretSalt, nullptr);
        });
}

TEST(RequestVectors, WholeRequestsAndTheBytesBehindThem) {
    CountedAllocations allocations;
    const Bytes make = Wire(Join(kMakeCredential, {"DEADBEEF 01"}));
    Fido2MakeCredentialRequest* m = Decode_AuthenticatorMakeCredentialRequest(make.data(), make.data() + make.size());
    ASSERT_NE(m, nullptr);
    const WEBAUTHN_RP_ENTITY_INFORMATION& rp = *m->pRpInformation;
    const WEBAUTHN_USER_ENTITY_INFORMATION& user = *m->pUserInformation;
    ASSERT_EQ(m->pPubKeyCredParams->cCredentialParameters, 1u);
    const WEBAUTHN_COSE_CREDENTIAL_PARAMETER& cose = m->pPubKeyCredParams->pCredentialParameters[0];
    EXPECT_EQ(Words({m->left, m->top, m->right, m->bottom, rp.dwVersion, user.dwVersion, cose.dwVersion,
                     static_cast<uint32_t>(cose.lAlg), m->pClientData->dwVersion}),
              Words({1, 2, 3, 4, 1, 1, 1, 0xFFFFFFF9, 1}));
    // A count of 0 is null, a count of 1 the empty string.
    EXPECT_EQ(Texts({rp.pwszId, rp.pwszName, rp.pwszIcon, user.pwszName, user.pwszIcon, user.pwszDisplayName,
                     cose.pwszCredentialType, m->pClientData->pwszHashAlgId}),
              (Strings{L"ab", L"(null)", L"", L"a", L"", L"a", L"ab", L"x"}));
    EXPECT_EQ(Data(user.pbId, user.cbId), Bytes{0x75});
    EXPECT_EQ(Data(m->pClientData->pbClientDataJSON, m->pClientData->cbClientDataJSON), (Bytes{'{', '}'}));
    ASSERT_NE(m->pMakeCredentialOptions, nullptr);
    EXPECT_EQ(m->pMakeCredentialOptions->bBrowserInPrivateMode, 1);
    Free_AuthenticatorMakeCredentialRequest(m);

    // The smallest useful get-assertion request: dataLen 44, no options.
    const Bytes get = Wire({"00000000 00000000 00000000 00000000", kRpId, "01000000 00000000 01000000 00000000", "00000000"});
    ASSERT_EQ(get.size(), 44u);
    Fido2GetAssertionRequest* g = Decode_AuthenticatorGetAssertionRequest(get.data(), get.data() + get.size());
    ASSERT_NE(g, nullptr);
    EXPECT_EQ(Texts({g->pwszRpId, g->pClientData->pwszHashAlgId}), (Strings{L"a", L""}));
    EXPECT_EQ(g->pClientData->cbClientDataJSON, 0u);
    EXPECT_EQ(g->pClientData->pbClientDataJSON, nullptr);
    EXPECT_EQ(g->pGetAssertionOptions, nullptr);
    Free_AuthenticatorGetAssertionRequest(g);
    EXPECT_TRUE(RequestDecodes(false, Wire(kGetAssertion), Wire(kGetAssertion).size()));
    EXPECT_EQ(CountedAllocations::Live(), 0);
}

// The lines of a primitive that ran out of bytes, and of a record level above it.
bool IsDecodeLine(const std::string& text, const std::string& function) {
    const bool primitive = function == "Decode_uint32" || function == "Decode_buf_uint32Len" || function == "Decode_wstr";
    const std::string form = primitive ? ": Buffer \\((0x)?[0-9A-Fa-f]+, (0x)?[0-9A-Fa-f]+\\)(, sum [0-9]+)?\n" : "";
    return std::regex_match(text, std::regex(primitive ? function + form
                                                       : "Decode error\\. func:" + function + ", line:[1-9][0-9]*\n"));
}

TEST(RequestCuts, ACutLogsThePrimitiveThenOneDecodeErrorPerRecordLevel) {
    // A cut inside a record: the primitive's line (two when the length word of a buf or wstr is
    // itself cut), then one line from each record level up to the request's own.
    const std::string mcOptions = "Decode_AuthenticatorMakeCredentialOptions";
    const std::string gaOptions = "Decode_AuthenticatorGetAssertionOptions";
    struct Row {
        const char* record;
        const Pieces& request;
        std::string piece;  // the cut lies `into` bytes into this piece of the request
        size_t into;
        std::vector<std::string> lines;  // functions of the lines below the request's
    } rows[] = {
        {"window", kMakeCredential, kWindow, 6, {"Decode_uint32", "Decode_WindowRect"}},
        {"relying party", kMakeCredential, kRp, 10, {"Decode_wstr", "Decode_RpEntityInformation"}},
        {"user", kMakeCredential, kUser, 6, {"Decode_uint32", "Decode_buf_uint32Len", "Decode_UserEntityInformation"}},
        {"COSE parameters", kMakeCredential, kCose, 22, {"Decode_uint32", "Decode_CoseCredentialParameters"}},
        {"client data", kMakeCredential, kClientData, 10, {"Decode_buf_uint32Len", "Decode_ClientData"}},
        {"options", kMakeCredential, OptionsHead(5), 6, {"Decode_uint32", mcOptions}},
        {"credential", kMakeCredential, kCredentials, 6, {"Decode_uint32", "Decode_Credential", "Decode_Credentials", mcOptions}},
        {"extension", kMakeCredential, kExtensions, 10, {"Decode_wstr", "Decode_Extensions", mcOptions}},
        {"cancellation id", kMakeCredential, kGuid, 10, {"Decode_buf_uint32Len", mcOptions}},
        {"exclude list element", kMakeCredential, kCredentialList, 14,
         {"Decode_uint32", "Decode_CredentialEx", "Decode_CredentialList", mcOptions}},
        {"window", kGetAssertion, kWindow, 14, {"Decode_uint32", "Decode_WindowRect"}},
        {"relying party id", kGetAssertion, kRpId, 6, {"Decode_wstr"}},
        {"client data", kGetAssertion, kClientData, 2, {"Decode_uint32", "Decode_ClientData"}},
        {"options", kGetAssertion, OptionsHead(6), 2, {"Decode_uint32", gaOptions}},
        {"global salt", kGetAssertion, kSaltValues, 14,
         {"Decode_buf_uint32Len", "Decode_HmacSecretSalt", "Decode_HmacSecretSaltValues", gaOptions}},
        {"salt of a credential", kGetAssertion, kSaltValues, 34,
         {"Decode_uint32", "Decode_HmacSecretSalt", "Decode_CredWithHmacSecretSalt", "Decode_HmacSecretSaltValues",
          gaOptions}},
    };
    CountedAllocations allocations;
    // Every cut fails and frees what it built, each free routine taking null for a part never built.
    for (bool make : {true, false}) {
        const Bytes wire = Wire(make ? kMakeCredential : kGetAssertion);
        for (size_t cut = 0; cut < wire.size(); ++cut) {
            EXPECT_FALSE(RequestDecodes(make, wire, cut)) << cut;
            ASSERT_EQ(CountedAllocations::Live(), 0) << (make ? "make credential, " : "get assertion, ") << cut;
        }
    }
    for (const Row& row : rows) {
        const bool make = &row.request == &kMakeCredential;
        SCOPED_TRACE(testing::Message() << (make ? "make credential, " : "get assertion, ") << row.record);
        const Bytes wire = Wire(row.request);
        const size_t cut = Offset(row.request, row.piece) + row.into;
        ASSERT_LT(cut, wire.size()) << "the piece is part of the request";
        ScopedLogCapture log(LOG_NEVER);
        EXPECT_FALSE(RequestDecodes(make, wire, cut));
        std::vector<std::string> expected = row.lines;
        expected.push_back(make ? "Decode_AuthenticatorMakeCredentialRequest" : "Decode_AuthenticatorGetAssertionRequest");
        const std::vector<CapturedLine> lines = log->Lines();
        ASSERT_EQ(lines.size(), expected.size());
        for (size_t i = 0; i < lines.size(); ++i) {
            EXPECT_EQ(lines[i].function, expected[i] + "()");
            EXPECT_EQ(lines[i].level, LOG_ERROR) << lines[i].text;
            EXPECT_TRUE(IsDecodeLine(lines[i].text, expected[i])) << lines[i].text;
        }
        EXPECT_EQ(CountedAllocations::Live(), 0);
    }
}

TEST(RequestVersions, OptionsNewerThanOurRecordAreRefused) {
    // The library would read the newer fields behind our block: the decode fails, with a line
    // that names the record and the version, whatever bytes follow.
    const struct { bool makeCredential; uint32_t version; const char* line; } rows[] = {
        {true, 6, "Unsupported WEBAUTHN_AUTHENTICATOR_MAKE_CREDENTIAL_OPTIONS version 6 refused"},
        {true, 0xFFFFFFFF, "Unsupported WEBAUTHN_AUTHENTICATOR_MAKE_CREDENTIAL_OPTIONS version 4294967295 refused"},
        {false, 7, "Unsupported WEBAUTHN_AUTHENTICATOR_GET_ASSERTION_OPTIONS version 7 refused"},
    };
    CountedAllocations allocations;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.line);
        Bytes options = HexBytes(OptionsHead(row.version));
        options.resize(options.size() + 96, 0);  // room for every field of any version, all zero
        ScopedLogCapture log(LOG_ERROR);
        EXPECT_EQ((row.makeCredential ? Decoding(Decode_AuthenticatorMakeCredentialOptions)
                                      : Decoding(Decode_AuthenticatorGetAssertionOptions))(options),
                  0u);
        ASSERT_FALSE(log->Lines().empty());
        EXPECT_EQ(log->Lines()[0].text.rfind(row.line, 0), 0u) << log->Lines()[0].text;
        EXPECT_EQ(CountedAllocations::Live(), 0) << "and the out-argument stays null, or this leaks";
    }
}

TEST(RecordEdges, AShortListLogsAsIfEachElementHadBeenTried) {
    // One element on the wire and a count of 2 or of 0xFFFFFFFF: either way the second element
    // is tried and fails, with the lines of the primitive and of each record level above it.
    // The bytes before its count, the one element, the functions of the lines without "Decode_".
    const struct { const char* head, *element; Decoder decode; Pieces functions; } rows[] = {
        {"", "01000000 02000000 69640000 00000000", Decoding(Decode_Credentials, Free_Credentials),
         {"uint32", "Credential", "Credentials"}},
        {"", "01000000 00000000 F9FFFFFF", Decoding(Decode_CoseCredentialParameters),
         {"uint32", "CoseCredentialParameters"}},
        {"", "00000000 00000000", Decoding(Decode_Extensions), {"uint32", "wstr", "Extensions"}},
        {"01000000", "00000000", Decoding(Decode_CredentialList), {"uint32", "CredentialEx", "CredentialList"}},
        {"01000000 00000000", "00000000 00000000", Decoding(Decode_HmacSecretSaltValues),
         {"uint32", "buf_uint32Len", "CredWithHmacSecretSalt", "HmacSecretSaltValues"}},
    };
    CountedAllocations allocations;
    for (const auto& row : rows) {
        for (uint32_t count : {2u, 0xFFFFFFFFu}) {
            SCOPED_TRACE(testing::Message() << row.functions.back() << " of count " << count);
            ScopedLogCapture log(LOG_ERROR);
            EXPECT_EQ(row.decode(HexBytes(std::string(row.head) + HexWord(count) + row.element)), 0u);
            Pieces functions, expected;
            for (const CapturedLine& line : log->Lines()) functions.push_back(line.function);
            for (const std::string& f : row.functions) expected.push_back("Decode_" + f + "()");
            EXPECT_EQ(functions, expected);
            EXPECT_EQ(CountedAllocations::Live(), 0);
        }
    }
}

}  // namespace
