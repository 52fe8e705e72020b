// Answers to commands 3 and 4 against byte vectors written out by hand: every record encoder,
// every version gate, and how a record newer than the encoders goes out.
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "hex_bytes.h"
#include "support/log_capture.h"
#include "wire/response_encoders.h"

using namespace webauthn;

namespace {

bool strict = false;
bool StrictPolicy() { return strict; }

// The records, and the bytes each one must give.
wchar16 ab[] = {'a', 'b', 0}, x[] = {'x', 0}, es[] = {'E', 'S', 0}, two[] = {'2', 0}, none[] = {'n', 'o', 'n', 'e', 0};
uint8_t credId[] = {9, 8, 7}, one[] = {0xF5}, salt[] = {1, 2}, sig[] = {0xAA}, cert[] = {0xC1, 0xC2};
uint8_t authData[] = {0x49}, derSig[] = {0x30, 0x44}, userId[] = {0x0A}, attAuthData[] = {0xA1};
uint8_t object[] = {0xA3, 1, 2, 3, 4}, attCredId[] = {9};
WEBAUTHN_EXTENSION extension{x, 1, one};
WEBAUTHN_X5C x5c{2, cert};
WEBAUTHN_HMAC_SECRET_SALT hmac{2, salt, 0, nullptr};

const char kCredential[] = "01000000 | 03000000 090807 00 | 03000000 6100 6200 0000 0000";
const char kExtensions[] = "01000000 | 02000000 7800 0000 | 01000000 F5 000000";
const char kSalt[] = "01000000 | 02000000 0102 0000 | 00000000";
const char kCommon[] =
    "01000000 | 01000000 | 03000000 4500 5300 0000 0000 | F9FFFFFF | 01000000 AA 000000 | 01000000 |"
    "02000000 C1C2 0000 | 02000000 3200 0000 | 00000000 | 00000000";

WEBAUTHN_CREDENTIAL Credential() { return {1, 3, credId, ab}; }
WEBAUTHN_COMMON_ATTESTATION Common(webauthn::DWORD version = 1) {
    return {version, es, -7, 1, sig, 1, &x5c, two, 0, nullptr, 0, nullptr};
}
WEBAUTHN_ASSERTION Assertion(webauthn::DWORD version, WEBAUTHN_HMAC_SECRET_SALT* secret) {
    return {version, 1, authData, 2, derSig, Credential(), 1, userId, {1, &extension}, 0, nullptr, 2, secret};
}
WEBAUTHN_CREDENTIAL_ATTESTATION Attestation(webauthn::DWORD version, WEBAUTHN_COMMON_ATTESTATION* common, webauthn::DWORD decodeType = 1) {
    return {version, none, 1, attAuthData, 0, nullptr, decodeType, common, 5, object, 1, attCredId, {0, nullptr},
            0x10, 0, 1, 1};
}

// The assertion of version 1: everything up to the user id.
std::string AssertionHead(const char* version) {
    return std::string(version) + " | 01000000 49 000000 | 02000000 3044 0000 | " + kCredential + " | 01000000 0A 000000";
}
// One extension "x" of one byte, an empty large blob, blob status 2.
const std::string kAssertionV2Tail = std::string(" | ") + kExtensions + " | 00000000 | 02000000";
// The attestation of version 1: its format "none" unless given, then the decode type and what
// stands for the decoded attestation.
std::string AttestationHead(const char* version, const std::string& decoded,
                            const char* format = "05000000 6E00 6F00 6E00 6500 0000 0000") {
    return std::string(version) + " | " + format + " | 01000000 A1 000000 | 00000000 | " + decoded +
           " | 05000000 A3010203 04 000000 | 01000000 09 000000";
}
const std::string kDecoded = std::string("01000000 | ") + kCommon;  // type 1 and its record
const char kAttestationV4Tail[] = " | 00000000 | 10000000 | 00000000 01000000 01000000";

// A response PDU of request id 7 as the worker makes it: size pass (every record encoder
// measuring with a null cursor), zero-filled allocation, encoding; empty when that fails.
template <class Record>
Bytes Answer(uint32_t hr, const Record* record, uint32_t (*size)(const Record*),
             uint32_t (*encode)(uint8_t*, const uint8_t*, uint32_t, const Record*)) {
    const uint32_t dataLen = size(record);
    uint8_t* pdu = AllocResponsePdu(dataLen, 7);
    Bytes out;
    if (pdu && encode(pdu + 8, pdu + 8 + dataLen, hr, record) != 0) out.assign(pdu, pdu + 8 + dataLen);
    FreePdu(pdu);
    return out;
}
Bytes Answer(uint32_t hr, const WEBAUTHN_CREDENTIAL_ATTESTATION* a) {
    return Answer(hr, a, Size_AuthenticatorMakeCredentialResponse, Encode_AuthenticatorMakeCredentialResponse);
}
Bytes Answer(uint32_t hr, const WEBAUTHN_ASSERTION* a) {
    return Answer(hr, a, Size_AuthenticatorGetAssertionResponse, Encode_AuthenticatorGetAssertionResponse);
}
template <class Record>
Bytes Answer(uint32_t hr, const Record& record) { return Answer(hr, &record); }

struct ResponseEncoders : ::testing::Test {
    void SetUp() override { SetStrictVersionsPolicy(StrictPolicy); }
    void TearDown() override {
        strict = false;
        SetStrictVersionsPolicy(nullptr);
    }
};

// A record newer than the encoders goes out, without a line, in the newest version known.
TEST_F(ResponseEncoders, AnswersOfEveryRecordVersionByteForByte) {
    ScopedLogCapture log(LOG_VERBOSE);
    WEBAUTHN_COMMON_ATTESTATION common = Common(), newerCommon = Common(2);
    WEBAUTHN_ASSERTION newerCredential = Assertion(1, nullptr);
    newerCredential.Credential.dwVersion = 2;
    const wchar16 empty[] = {0};
    auto withFormat = [&](const wchar16* format) {
        WEBAUTHN_CREDENTIAL_ATTESTATION a = Attestation(1, &common);
        a.pwszFormatType = format;
        return Answer(0, a);
    };
    // The result word and a present record, behind the header of id 7 and the data length.
    auto ok = [](const std::string& record) { return "00000000 | 01000000 | " + record; };
    auto failed = [](const std::string& record) { return "01000980 | 01000000 | " + record; };
    const std::string assertionV2 = AssertionHead("02000000") + kAssertionV2Tail;
    const std::string assertionV3 = AssertionHead("03000000") + kAssertionV2Tail;
    const std::string attestationV4 = AttestationHead("04000000", kDecoded) + kAttestationV4Tail;
    const struct { const char* name; Bytes answer; std::string data; } rows[] = {
        {"assertion v1", Answer(0, Assertion(1, nullptr)), ok(AssertionHead("01000000"))},
        {"assertion v2", Answer(0, Assertion(2, nullptr)), ok(assertionV2)},
        {"assertion v3, no secret", Answer(0, Assertion(3, nullptr)), ok(assertionV3 + " | 00000000")},
        {"assertion v3", Answer(0, Assertion(3, &hmac)), ok(assertionV3 + " | " + kSalt)},
        {"assertion v4 as v3", Answer(0, Assertion(4, &hmac)), ok(assertionV3 + " | " + kSalt)},
        {"assertion v1 with a credential v2 as v1", Answer(0, newerCredential), ok(AssertionHead("01000000"))},
        {"attestation v1", Answer(0x80090001, Attestation(1, &common)), failed(AttestationHead("01000000", kDecoded))},
        {"attestation v1 with a common attestation v2 as v1", Answer(0x80090001, Attestation(1, &newerCommon)),
         failed(AttestationHead("01000000", kDecoded))},
        {"attestation v2", Answer(0x80090001, Attestation(2, &common)),
         failed(AttestationHead("02000000", kDecoded) + " | 00000000")},
        {"attestation v3", Answer(0x80090001, Attestation(3, &common)),
         failed(AttestationHead("03000000", kDecoded) + " | 00000000 | 10000000")},
        {"attestation v4", Answer(0x80090001, Attestation(4, &common)), failed(attestationV4)},
        {"attestation v5 as v4", Answer(0x80090001, Attestation(5, &common)), failed(attestationV4)},
        {"decode type 1 without its record: a presence of 0", Answer(0, Attestation(1, nullptr)),
         ok(AttestationHead("01000000", "01000000 | 00000000"))},
        {"decode type 0: nothing in its place", Answer(0, Attestation(1, &common, 0)),
         ok(AttestationHead("01000000", "00000000"))},
        {"null format type: a count of 0", withFormat(nullptr), ok(AttestationHead("01000000", kDecoded, "00000000"))},
        {"empty format type: a count of 1", withFormat(empty),
         ok(AttestationHead("01000000", kDecoded, "01000000 0000 0000"))},
        {"no attestation", Answer(0x80004005, static_cast<const WEBAUTHN_CREDENTIAL_ATTESTATION*>(nullptr)),
         "05400080 00000000"},
        {"no assertion", Answer(0x800704C7, static_cast<const WEBAUTHN_ASSERTION*>(nullptr)), "C7040780 00000000"},
    };
    for (const auto& row : rows) {
        const Bytes data = HexBytes(row.data);
        const std::string header = "07000000 " + HexWord(static_cast<uint32_t>(data.size()));
        EXPECT_EQ(row.answer, HexBytes(header + row.data)) << row.name;
    }
    EXPECT_TRUE(log->Lines().empty());
}

TEST_F(ResponseEncoders, NoAnswerForANewerRecordUnderStrictVersionsOrALengthWithoutBytes) {
    WEBAUTHN_COMMON_ATTESTATION common = Common(), newerCommon = Common(2);
    WEBAUTHN_ASSERTION newerCredential = Assertion(1, nullptr), noSignature = Assertion(1, nullptr);
    newerCredential.Credential.dwVersion = 2;
    noSignature.pbSignature = nullptr;
    const struct { bool strict; const char* line; int32_t level; std::function<Bytes()> answer; } rows[] = {
        {true, "Unsupported WEBAUTHN_CREDENTIAL_ATTESTATION version detected", LOG_WARN,
         [&] { return Answer(0, Attestation(5, &common)); }},
        {true, "Unsupported WEBAUTHN_COMMON_ATTESTATION version detected", LOG_WARN,
         [&] { return Answer(0, Attestation(1, &newerCommon)); }},
        {true, "Unsupported WEBAUTHN_ASSERTION version detected", LOG_WARN,
         [&] { return Answer(0, Assertion(4, nullptr)); }},
        {true, "Unsupported WEBAUTHN_CREDENTIAL version detected", LOG_WARN,
         [&] { return Answer(0, newerCredential); }},
        {false, "Encode_buf: size=2, bp is NULL", LOG_ERROR, [&] { return Answer(0, noSignature); }},
    };
    for (const auto& row : rows) {
        strict = row.strict;
        ScopedLogCapture log(LOG_WARN);
        EXPECT_TRUE(row.answer().empty()) << row.line;
        ASSERT_EQ(log->Lines().size(), 1u) << row.line;
        EXPECT_EQ(log->Lines()[0].text, std::string(row.line) + "\n");
        EXPECT_EQ(log->Lines()[0].level, row.level) << row.line;
    }
}

}  // namespace
