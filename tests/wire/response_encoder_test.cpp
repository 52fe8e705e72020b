// Answers to commands 3 and 4 in every record version, read back by the agent's decoder.
#include <gtest/gtest.h>

#include <vector>

#include "sim/agent_responses.h"
#include "support/log_capture.h"
#include "wire/response_encoders.h"

using namespace webauthn;

namespace {

bool strict = false;
bool StrictPolicy() { return strict; }

class ResponseEncoders : public ::testing::Test {
protected:
    void SetUp() override {
        strict = false;
        SetStrictVersionsPolicy(StrictPolicy);
    }
    void TearDown() override { SetStrictVersionsPolicy(nullptr); }

    // Builds the PDU and checks the frame; empty when the encoding failed.
    std::vector<uint8_t> Pdu(uint32_t requestId, uint32_t hr, const WEBAUTHN_CREDENTIAL_ATTESTATION* a) {
        uint32_t dataLen = 0;
        uint8_t* pdu = BuildMakeCredentialResponsePdu(requestId, hr, a, &dataLen);
        if (!pdu) return {};
        std::vector<uint8_t> bytes(pdu, pdu + 8 + dataLen);
        FreePdu(pdu);
        EXPECT_EQ(dataLen, Size_AuthenticatorMakeCredentialResponse(a)) << "size pass and encoder agree";
        return bytes;
    }
    std::vector<uint8_t> Pdu(uint32_t requestId, uint32_t hr, const WEBAUTHN_ASSERTION* a) {
        uint32_t dataLen = 0;
        uint8_t* pdu = BuildGetAssertionResponsePdu(requestId, hr, a, &dataLen);
        if (!pdu) return {};
        std::vector<uint8_t> bytes(pdu, pdu + 8 + dataLen);
        FreePdu(pdu);
        EXPECT_EQ(dataLen, Size_AuthenticatorGetAssertionResponse(a));
        return bytes;
    }

    const wchar16 packed[7] = {'p', 'a', 'c', 'k', 'e', 'd', 0};
    const wchar16 publicKey[11] = {'p', 'u', 'b', 'l', 'i', 'c', '-', 'k', 'e', 'y', 0};
    uint8_t authData[37] = {0x49, 0x96};
    uint8_t object[5] = {0xA3, 1, 2, 3, 4};
    uint8_t id[16] = {9, 8, 7};
    uint8_t sig[70] = {0x30, 0x44};
    uint8_t ext[1] = {0xF5};
    wchar16 extName[12] = {'c', 'r', 'e', 'd', 'P', 'r', 'o', 't', 'e', 'c', 't', 0};
    WEBAUTHN_EXTENSION extension{extName, 1, ext};

    WEBAUTHN_CREDENTIAL_ATTESTATION Attestation(DWORD version) {
        WEBAUTHN_CREDENTIAL_ATTESTATION a{};
        a.dwVersion = version;
        a.pwszFormatType = packed;
        a.cbAuthenticatorData = sizeof(authData);
        a.pbAuthenticatorData = authData;
        a.cbAttestationObject = sizeof(object);
        a.pbAttestationObject = object;
        a.cbCredentialId = sizeof(id);
        a.pbCredentialId = id;
        a.Extensions = {1, &extension};
        a.dwUsedTransport = 0x10;
        a.bEpAtt = 0;
        a.bLargeBlobSupported = 1;
        a.bResidentKey = 1;
        return a;
    }
    WEBAUTHN_ASSERTION Assertion(DWORD version) {
        WEBAUTHN_ASSERTION a{};
        a.dwVersion = version;
        a.cbAuthenticatorData = sizeof(authData);
        a.pbAuthenticatorData = authData;
        a.cbSignature = sizeof(sig);
        a.pbSignature = sig;
        a.Credential = {1, sizeof(id), id, publicKey};
        a.cbUserId = 3;
        a.pbUserId = id;
        a.Extensions = {0, nullptr};
        a.dwCredLargeBlobStatus = 2;
        return a;
    }
};

TEST_F(ResponseEncoders, FailedOperationWithoutRecordByteForByte) {
    EXPECT_EQ(Pdu(7, 0x80004005, static_cast<const WEBAUTHN_CREDENTIAL_ATTESTATION*>(nullptr)),
              (std::vector<uint8_t>{7, 0, 0, 0, 8, 0, 0, 0, 0x05, 0x40, 0x00, 0x80, 0, 0, 0, 0}));
    EXPECT_EQ(Pdu(7, 0x80004005, static_cast<const WEBAUTHN_ASSERTION*>(nullptr)).size(), 16u);
}

TEST_F(ResponseEncoders, AttestationInEveryVersionBothModes) {
    for (bool strictMode : {false, true}) {
        strict = strictMode;
        for (DWORD version = 1; version <= 5; ++version) {
            SCOPED_TRACE(testing::Message() << "version " << version << (strictMode ? " strict" : " lenient"));
            ScopedLogCapture log(LOG_WARN);
            WEBAUTHN_CREDENTIAL_ATTESTATION a = Attestation(version);
            std::vector<uint8_t> pdu = Pdu(3, 0x80090001 /* negative hr with a record */, &a);
            if (version > kAttestationNewest && strictMode) {
                EXPECT_TRUE(pdu.empty());
                EXPECT_EQ(log->Count("Unsupported WEBAUTHN_CREDENTIAL_ATTESTATION version detected"), 1u);
                continue;
            }
            ASSERT_FALSE(pdu.empty());
            EXPECT_TRUE(log->Lines().empty());
            agent::AttestationAnswer answer;
            ASSERT_TRUE(agent::DecodeAttestationAnswer(agent::Bytes(pdu.begin() + 8, pdu.end()), &answer));
            EXPECT_EQ(answer.hr, 0x80090001u);
            EXPECT_TRUE(answer.present);
            EXPECT_EQ(answer.dwVersion, std::min<DWORD>(version, kAttestationNewest));
            EXPECT_EQ(answer.formatType.text, u"packed");
            EXPECT_EQ(answer.attestationObject, agent::Bytes(object, object + sizeof(object)));
            EXPECT_EQ(answer.extensions.size(), version >= 2 ? 1u : 0u);
            EXPECT_EQ(answer.usedTransport, version >= 3 ? 0x10u : 0u);
            EXPECT_EQ(answer.residentKey, version >= 4 ? 1u : 0u);
        }
    }
}

TEST_F(ResponseEncoders, AssertionInEveryVersionBothModes) {
    uint8_t first[32] = {1};
    WEBAUTHN_HMAC_SECRET_SALT secret{32, first, 0, nullptr};
    for (bool strictMode : {false, true}) {
        strict = strictMode;
        for (DWORD version = 1; version <= 4; ++version) {
            SCOPED_TRACE(testing::Message() << "version " << version << (strictMode ? " strict" : " lenient"));
            ScopedLogCapture log(LOG_WARN);
            WEBAUTHN_ASSERTION a = Assertion(version);
            a.pHmacSecret = version == 3 ? nullptr : &secret;
            std::vector<uint8_t> pdu = Pdu(4, 0, &a);
            if (version > kAssertionNewest && strictMode) {
                EXPECT_TRUE(pdu.empty());
                EXPECT_EQ(log->Count("Unsupported WEBAUTHN_ASSERTION version detected"), 1u);
                continue;
            }
            ASSERT_FALSE(pdu.empty());
            agent::AssertionAnswer answer;
            ASSERT_TRUE(agent::DecodeAssertionAnswer(agent::Bytes(pdu.begin() + 8, pdu.end()), &answer));
            EXPECT_EQ(answer.dwVersion, std::min<DWORD>(version, kAssertionNewest));
            EXPECT_EQ(answer.signature.size(), sizeof(sig));
            EXPECT_EQ(answer.credentialType.text, u"public-key");
            EXPECT_EQ(answer.userId.size(), 3u);
            EXPECT_EQ(answer.credLargeBlobStatus, version >= 2 ? 2u : 0u);
            EXPECT_EQ(answer.hmacSecret.present, version == 4);
            if (version == 1) {
                // cbUserId, pbUserId is the last field: 3 bytes padded to 4, behind its length.
                EXPECT_EQ(std::vector<uint8_t>(pdu.end() - 8, pdu.end() - 4), (std::vector<uint8_t>{3, 0, 0, 0}));
            }
        }
    }
}

TEST_F(ResponseEncoders, NestedRecordsFollowTheirOwnVersions) {
    WEBAUTHN_ASSERTION a = Assertion(1);
    a.Credential.dwVersion = 2;
    std::vector<uint8_t> lenient = Pdu(1, 0, &a);
    agent::AssertionAnswer answer;
    ASSERT_TRUE(agent::DecodeAssertionAnswer(agent::Bytes(lenient.begin() + 8, lenient.end()), &answer));
    EXPECT_EQ(answer.credentialVersion, 1u) << "a newer credential is written as 1";
    strict = true;
    {
        ScopedLogCapture log(LOG_WARN);
        EXPECT_TRUE(Pdu(1, 0, &a).empty());
        EXPECT_EQ(log->Count("Unsupported WEBAUTHN_CREDENTIAL version detected"), 1u);
    }
    a.Credential.dwVersion = 0;
    ASSERT_FALSE(Pdu(1, 0, &a).empty()) << "0 stays 0";

    WEBAUTHN_CREDENTIAL_ATTESTATION att = Attestation(1);
    WEBAUTHN_COMMON_ATTESTATION common{};
    common.dwVersion = 2;
    att.dwAttestationDecodeType = 1;
    att.pvAttestationDecode = &common;
    {
        ScopedLogCapture log(LOG_WARN);
        EXPECT_TRUE(Pdu(1, 0, &att).empty());
        EXPECT_EQ(log->Count("Unsupported WEBAUTHN_COMMON_ATTESTATION version detected"), 1u);
    }
    strict = false;
    std::vector<uint8_t> withCommon = Pdu(1, 0, &att);
    agent::AttestationAnswer decoded;
    ASSERT_TRUE(agent::DecodeAttestationAnswer(agent::Bytes(withCommon.begin() + 8, withCommon.end()), &decoded));
    EXPECT_TRUE(decoded.common.present);
    EXPECT_EQ(decoded.common.dwVersion, 1u);
}

TEST_F(ResponseEncoders, DecodeTypesAndTexts) {
    WEBAUTHN_CREDENTIAL_ATTESTATION a = Attestation(1);
    a.dwAttestationDecodeType = 1;
    a.pvAttestationDecode = nullptr;
    std::vector<uint8_t> nullCommon = Pdu(1, 0, &a);
    a.dwAttestationDecodeType = 0;
    std::vector<uint8_t> noCommon = Pdu(1, 0, &a);
    EXPECT_EQ(nullCommon.size(), noCommon.size() + 4) << "a presence word of 0 stands in for a null decode";

    const wchar16 empty[1] = {0};
    a.pwszFormatType = nullptr;
    size_t withNull = Pdu(1, 0, &a).size();
    a.pwszFormatType = empty;
    EXPECT_EQ(Pdu(1, 0, &a).size(), withNull + 4) << "null is a count of 0, empty a count of 1";
}

TEST_F(ResponseEncoders, LengthWithoutBytesFailsTheEncoding) {
    WEBAUTHN_ASSERTION a = Assertion(1);
    a.pbSignature = nullptr;
    ScopedLogCapture log(LOG_ERROR);
    EXPECT_TRUE(Pdu(1, 0, &a).empty());
    EXPECT_EQ(log->Count("bp is NULL"), 1u);
}

}  // namespace
