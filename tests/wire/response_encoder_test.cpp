// Answers to commands 3 and 4 against byte vectors written out from the wire tables: every
// record encoder, every version gate, and how a record newer than the encoders goes out.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "hex_bytes.h"
#include "support/log_capture.h"
#include "wire/response_encoders.h"

using namespace webauthn;

namespace {

using Bytes = std::vector<uint8_t>;

bool strict = false;
bool StrictPolicy() { return strict; }

// The records, and the bytes each one must give.
wchar16 ab[] = {'a', 'b', 0};
wchar16 x[] = {'x', 0};
wchar16 es[] = {'E', 'S', 0};
wchar16 two[] = {'2', 0};
wchar16 none[] = {'n', 'o', 'n', 'e', 0};
uint8_t credId[] = {9, 8, 7};
uint8_t one[] = {0xF5};
uint8_t salt[] = {1, 2};
uint8_t sig[] = {0xAA};
uint8_t cert[] = {0xC1, 0xC2};
uint8_t authData[] = {0x49};
uint8_t derSig[] = {0x30, 0x44};
uint8_t userId[] = {0x0A};
uint8_t attAuthData[] = {0xA1};
uint8_t object[] = {0xA3, 1, 2, 3, 4};
uint8_t attCredId[] = {9};

WEBAUTHN_EXTENSION extension{x, 1, one};
WEBAUTHN_X5C x5c{2, cert};
WEBAUTHN_HMAC_SECRET_SALT hmac{2, salt, 0, nullptr};

const char kCredential[] = "01000000 | 03000000 090807 00 | 03000000 6100 6200 0000 0000";
const char kExtensions[] = "01000000 | 02000000 7800 0000 | 01000000 F5 000000";
const char kSalt[] = "01000000 | 02000000 0102 0000 | 00000000";
const char kCommon[] =
    "01000000 | 01000000 | 03000000 4500 5300 0000 0000 | F9FFFFFF | 01000000 AA 000000 | 01000000 |"
    "02000000 C1C2 0000 | 02000000 3200 0000 | 00000000 | 00000000";

WEBAUTHN_CREDENTIAL Credential() { return WEBAUTHN_CREDENTIAL{1, 3, credId, ab}; }

WEBAUTHN_COMMON_ATTESTATION Common() {
    WEBAUTHN_COMMON_ATTESTATION c{};
    c.dwVersion = 1;
    c.pwszAlg = es;
    c.lAlg = -7;
    c.cbSignature = 1;
    c.pbSignature = sig;
    c.cX5c = 1;
    c.pX5c = &x5c;
    c.pwszVer = two;
    return c;
}

WEBAUTHN_ASSERTION Assertion(webauthn::DWORD version, WEBAUTHN_HMAC_SECRET_SALT* secret) {
    WEBAUTHN_ASSERTION a{};
    a.dwVersion = version;
    a.cbAuthenticatorData = 1;
    a.pbAuthenticatorData = authData;
    a.cbSignature = 2;
    a.pbSignature = derSig;
    a.Credential = Credential();
    a.cbUserId = 1;
    a.pbUserId = userId;
    a.dwCredLargeBlobStatus = 2;
    a.pHmacSecret = secret;
    return a;
}

WEBAUTHN_CREDENTIAL_ATTESTATION Attestation(webauthn::DWORD version, WEBAUTHN_COMMON_ATTESTATION* common) {
    WEBAUTHN_CREDENTIAL_ATTESTATION a{};
    a.dwVersion = version;
    a.pwszFormatType = none;
    a.cbAuthenticatorData = 1;
    a.pbAuthenticatorData = attAuthData;
    a.dwAttestationDecodeType = 1;
    a.pvAttestationDecode = common;
    a.cbAttestationObject = 5;
    a.pbAttestationObject = object;
    a.cbCredentialId = 1;
    a.pbCredentialId = attCredId;
    a.dwUsedTransport = 0x10;
    a.bLargeBlobSupported = 1;
    a.bResidentKey = 1;
    return a;
}

// The assertion of version 1: everything up to the user id.
std::string AssertionHead(const char* version) {
    return std::string(version) + " | 01000000 49 000000 | 02000000 3044 0000 | " + kCredential +
           " | 01000000 0A 000000";
}
// Extensions count 0, empty large blob, blob status 2.
const char kAssertionV2Tail[] = " | 00000000 | 00000000 | 02000000";

std::string AttestationHead(const char* version, const std::string& common) {
    return std::string(version) + " | 05000000 6E00 6F00 6E00 6500 0000 0000 | 01000000 A1 000000 | 00000000 |" +
           " 01000000 | " + common + " | 05000000 A3010203 04 000000 | 01000000 09 000000";
}

// Writes with a real cursor into a buffer of exactly the measured size, padding pre-zeroed as
// in a response PDU; empty when the encoding fails.
Bytes Encoded(const std::function<uint32_t(uint8_t*, const uint8_t*)>& encode, uint32_t size) {
    Bytes out(size, 0);
    uint32_t written = encode(out.data(), out.data() + out.size());
    if (written == 0) return {};
    EXPECT_EQ(written, size) << "the encoder writes what was measured";
    return out;
}

// A response PDU as the worker makes it: size pass, zero-filled allocation, encoding; null
// when the encoding fails.
template <class Record>
uint8_t* BuildAnswer(uint32_t requestId, uint32_t hr, const Record* record, uint32_t* dataLen,
                     uint32_t (*size)(const Record*), uint32_t (*encode)(uint8_t*, const uint8_t*, uint32_t, const Record*)) {
    *dataLen = size(record);
    uint8_t* pdu = AllocResponsePdu(*dataLen, requestId);
    if (pdu && encode(pdu + 8, pdu + 8 + *dataLen, hr, record) == 0) {
        FreePdu(pdu);
        return nullptr;
    }
    return pdu;
}
uint8_t* Answer(uint32_t requestId, uint32_t hr, const WEBAUTHN_CREDENTIAL_ATTESTATION* a, uint32_t* dataLen) {
    return BuildAnswer(requestId, hr, a, dataLen, Size_AuthenticatorMakeCredentialResponse,
                       Encode_AuthenticatorMakeCredentialResponse);
}
uint8_t* Answer(uint32_t requestId, uint32_t hr, const WEBAUTHN_ASSERTION* a, uint32_t* dataLen) {
    return BuildAnswer(requestId, hr, a, dataLen, Size_AuthenticatorGetAssertionResponse,
                       Encode_AuthenticatorGetAssertionResponse);
}

class ResponseEncoders : public ::testing::Test {
protected:
    void SetUp() override {
        strict = false;
        SetStrictVersionsPolicy(StrictPolicy);
    }
    void TearDown() override { SetStrictVersionsPolicy(nullptr); }
};

TEST_F(ResponseEncoders, RecordsInsideAnAnswerByteForByte) {
    // Each measures with a null cursor exactly what it writes: the size pass of an answer goes
    // through these same encoders.
    WEBAUTHN_CREDENTIAL credential = Credential();
    WEBAUTHN_EXTENSIONS extensions{1, &extension};
    WEBAUTHN_EXTENSIONS empty{0, nullptr};
    WEBAUTHN_COMMON_ATTESTATION common = Common();
    WEBAUTHN_ASSERTION assertion = Assertion(3, nullptr);
    struct Row {
        const char* name;
        std::function<uint32_t(uint8_t*, const uint8_t*)> encode;
        std::string expected;
    } rows[] = {
        {"credential", [&](uint8_t* c, const uint8_t* e) { return Encode_Credential(c, e, &credential); }, kCredential},
        {"extensions", [&](uint8_t* c, const uint8_t* e) { return Encode_Extensions(c, e, &extensions); }, kExtensions},
        {"no extensions", [&](uint8_t* c, const uint8_t* e) { return Encode_Extensions(c, e, &empty); }, "00000000"},
        {"salt", [&](uint8_t* c, const uint8_t* e) { return Encode_HmacSecretSalt(c, e, &hmac); }, kSalt},
        {"no salt", [&](uint8_t* c, const uint8_t* e) { return Encode_HmacSecretSalt(c, e, nullptr); }, "00000000"},
        {"common attestation", [&](uint8_t* c, const uint8_t* e) { return Encode_CommonAttestation(c, e, &common); },
         kCommon},
        {"no common attestation",
         [&](uint8_t* c, const uint8_t* e) { return Encode_CommonAttestation(c, e, nullptr); }, "00000000"},
        {"assertion", [&](uint8_t* c, const uint8_t* e) { return Encode_Assertion(c, e, &assertion); },
         "01000000 " + AssertionHead("03000000") + kAssertionV2Tail + " | 00000000"},
        {"no assertion", [&](uint8_t* c, const uint8_t* e) { return Encode_Assertion(c, e, nullptr); }, "00000000"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const Bytes expected = HexBytes(row.expected);
        EXPECT_EQ(row.encode(nullptr, nullptr), expected.size());
        EXPECT_EQ(Encoded(row.encode, static_cast<uint32_t>(expected.size())), expected);
    }
}

TEST_F(ResponseEncoders, AnswersInEveryRecordVersion) {
    WEBAUTHN_COMMON_ATTESTATION common = Common();
    struct Row {
        const char* name;
        bool makeCredential;
        webauthn::DWORD version;
        bool withSalt;
        std::string expected;  // the data behind the 8-byte header
    } rows[] = {
        {"assertion v1", false, 1, false, "00000000 | 01000000 " + AssertionHead("01000000")},
        {"assertion v2", false, 2, false, "00000000 | 01000000 " + AssertionHead("02000000") + kAssertionV2Tail},
        {"assertion v3, no secret", false, 3, false,
         "00000000 | 01000000 " + AssertionHead("03000000") + kAssertionV2Tail + " | 00000000"},
        {"assertion v3", false, 3, true,
         "00000000 | 01000000 " + AssertionHead("03000000") + kAssertionV2Tail + " | " + kSalt},
        {"assertion v4 as v3", false, 4, true,
         "00000000 | 01000000 " + AssertionHead("03000000") + kAssertionV2Tail + " | " + kSalt},
        {"attestation v1", true, 1, false, "01000980 | 01000000 " + AttestationHead("01000000", kCommon)},
        {"attestation v2", true, 2, false, "01000980 | 01000000 " + AttestationHead("02000000", kCommon) + " | 00000000"},
        {"attestation v3", true, 3, false,
         "01000980 | 01000000 " + AttestationHead("03000000", kCommon) + " | 00000000 | 10000000"},
        {"attestation v4", true, 4, false,
         "01000980 | 01000000 " + AttestationHead("04000000", kCommon) + " | 00000000 | 10000000 | 00000000 01000000 01000000"},
        {"attestation v5 as v4", true, 5, false,
         "01000980 | 01000000 " + AttestationHead("04000000", kCommon) + " | 00000000 | 10000000 | 00000000 01000000 01000000"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const Bytes expected = HexBytes(row.expected);
        uint32_t dataLen = 0;
        uint8_t* pdu = nullptr;
        if (row.makeCredential) {
            WEBAUTHN_CREDENTIAL_ATTESTATION a = Attestation(row.version, &common);
            EXPECT_EQ(Size_AuthenticatorMakeCredentialResponse(&a), expected.size());
            pdu = Answer(0x01020304, 0x80090001, &a, &dataLen);
        } else {
            WEBAUTHN_ASSERTION a = Assertion(row.version, row.withSalt ? &hmac : nullptr);
            EXPECT_EQ(Size_AuthenticatorGetAssertionResponse(&a), expected.size());
            pdu = Answer(0x01020304, 0, &a, &dataLen);
        }
        ASSERT_NE(pdu, nullptr);
        EXPECT_EQ(Bytes(pdu, pdu + 4), HexBytes("04030201"));
        EXPECT_EQ(ReadLe32(pdu + 4), expected.size());
        EXPECT_EQ(Bytes(pdu + 8, pdu + 8 + dataLen), expected);
        FreePdu(pdu);
    }
}

TEST_F(ResponseEncoders, AnswerWithoutRecordAndTheDecodeTypes) {
    uint32_t dataLen = 0;
    uint8_t* pdu = Answer(7, 0x80004005, static_cast<const WEBAUTHN_CREDENTIAL_ATTESTATION*>(nullptr), &dataLen);
    ASSERT_NE(pdu, nullptr);
    EXPECT_EQ(Bytes(pdu, pdu + 16), HexBytes("07000000 08000000 05400080 00000000"));
    FreePdu(pdu);
    pdu = Answer(7, 0x800704C7, static_cast<const WEBAUTHN_ASSERTION*>(nullptr), &dataLen);
    ASSERT_NE(pdu, nullptr);
    EXPECT_EQ(Bytes(pdu, pdu + 16), HexBytes("07000000 08000000 C7040780 00000000"));
    FreePdu(pdu);

    // Decode type 1 with a null record: a presence word of 0 in its place; type 0: nothing.
    WEBAUTHN_CREDENTIAL_ATTESTATION a = Attestation(1, nullptr);
    Bytes expected = HexBytes("00000000 | 01000000 " + AttestationHead("01000000", "00000000"));
    EXPECT_EQ(Encoded([&](uint8_t* c, const uint8_t* e) { return Encode_AuthenticatorMakeCredentialResponse(c, e, 0, &a); },
                      Size_AuthenticatorMakeCredentialResponse(&a)),
              expected);
    a.dwAttestationDecodeType = 0;
    expected = HexBytes(
        "00000000 | 01000000 01000000 | 05000000 6E00 6F00 6E00 6500 0000 0000 | 01000000 A1 000000 | 00000000 |"
        " 00000000 | 05000000 A3010203 04 000000 | 01000000 09 000000");
    EXPECT_EQ(Encoded([&](uint8_t* c, const uint8_t* e) { return Encode_AuthenticatorMakeCredentialResponse(c, e, 0, &a); },
                      Size_AuthenticatorMakeCredentialResponse(&a)),
              expected);
}

TEST_F(ResponseEncoders, StrictVersionsRefuseEachNewerRecordWithItsLine) {
    WEBAUTHN_COMMON_ATTESTATION newerCommon = Common();
    newerCommon.dwVersion = 2;
    WEBAUTHN_COMMON_ATTESTATION common = Common();
    WEBAUTHN_ASSERTION newerCredential = Assertion(1, nullptr);
    newerCredential.Credential.dwVersion = 2;
    WEBAUTHN_ASSERTION newerAssertion = Assertion(4, nullptr);
    WEBAUTHN_CREDENTIAL_ATTESTATION newerAttestation = Attestation(5, &common);
    WEBAUTHN_CREDENTIAL_ATTESTATION withNewerCommon = Attestation(1, &newerCommon);
    struct Row {
        const char* line;
        std::function<uint8_t*(uint32_t*)> build;
        std::string lenientWords;  // a stretch of the lenient answer that shows the written version
    } rows[] = {
        {"Unsupported WEBAUTHN_CREDENTIAL_ATTESTATION version detected",
         [&](uint32_t* n) { return Answer(1, 0, &newerAttestation, n); },
         "00000000 01000000 04000000"},
        {"Unsupported WEBAUTHN_COMMON_ATTESTATION version detected",
         [&](uint32_t* n) { return Answer(1, 0, &withNewerCommon, n); },
         "01000000 | 01000000 | 01000000 | 03000000 4500 5300"},
        {"Unsupported WEBAUTHN_ASSERTION version detected",
         [&](uint32_t* n) { return Answer(1, 0, &newerAssertion, n); },
         "00000000 01000000 03000000"},
        {"Unsupported WEBAUTHN_CREDENTIAL version detected",
         [&](uint32_t* n) { return Answer(1, 0, &newerCredential, n); },
         "30440000 | 01000000 03000000 090807"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.line);
        for (bool strictMode : {false, true}) {
            strict = strictMode;
            ScopedLogCapture log(LOG_WARN);
            uint32_t dataLen = 0;
            uint8_t* pdu = row.build(&dataLen);
            if (strictMode) {
                EXPECT_EQ(pdu, nullptr);
                ASSERT_EQ(log->Lines().size(), 1u);
                EXPECT_EQ(log->Lines()[0].text, std::string(row.line) + "\n");
                EXPECT_EQ(log->Lines()[0].level, LOG_WARN);
                continue;
            }
            ASSERT_NE(pdu, nullptr);
            EXPECT_TRUE(log->Lines().empty());
            const Bytes data(pdu + 8, pdu + 8 + dataLen);
            const Bytes words = HexBytes(row.lenientWords);
            EXPECT_NE(std::search(data.begin(), data.end(), words.begin(), words.end()), data.end())
                << "written as the newest version known";
            FreePdu(pdu);
        }
    }
    strict = false;
}

TEST_F(ResponseEncoders, ALengthWithoutBytesFailsTheAnswer) {
    WEBAUTHN_ASSERTION a = Assertion(1, nullptr);
    a.pbSignature = nullptr;
    ScopedLogCapture log(LOG_ERROR);
    uint32_t dataLen = 0;
    EXPECT_EQ(Answer(1, 0, &a, &dataLen), nullptr);
    EXPECT_EQ(log->Count("Encode_buf: size=2, bp is NULL\n"), 1u);
}

}  // namespace
