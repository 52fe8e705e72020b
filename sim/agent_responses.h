// The agent's reading of the plug-in's answers to commands 3 and 4: the result code, the
// presence word and the record, by the version the plug-in wrote. Owning, portable records.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace agent {

using Bytes = std::vector<uint8_t>;

struct WireText {
    bool isNull = true;
    std::u16string text;
};

struct WireExtension {
    WireText identifier;
    Bytes value;
};

struct CommonAttestation {
    bool present = false;
    uint32_t dwVersion = 0;
    WireText alg;
    int32_t lAlg = 0;
    Bytes signature;
    std::vector<Bytes> x5c;
    WireText ver;
    Bytes certInfo;
    Bytes pubArea;
};

struct AttestationAnswer {
    uint32_t hr = 0;
    bool present = false;
    uint32_t dwVersion = 0;
    WireText formatType;
    Bytes authenticatorData;
    Bytes attestation;
    uint32_t attestationDecodeType = 0;
    CommonAttestation common;  // only for decode type 1
    Bytes attestationObject;
    Bytes credentialId;
    std::vector<WireExtension> extensions;  // version 2
    uint32_t usedTransport = 0;              // version 3
    uint32_t epAtt = 0, largeBlobSupported = 0, residentKey = 0;  // version 4
};

struct HmacSecret {
    bool present = false;
    Bytes first;
    Bytes second;
};

struct AssertionAnswer {
    uint32_t hr = 0;
    bool present = false;
    uint32_t dwVersion = 0;
    Bytes authenticatorData;
    Bytes signature;
    uint32_t credentialVersion = 0;
    Bytes credentialId;
    WireText credentialType;
    Bytes userId;
    std::vector<WireExtension> extensions;  // version 2
    Bytes credLargeBlob;
    uint32_t credLargeBlobStatus = 0;
    HmacSecret hmacSecret;  // version 3
};

// Splits a response PDU into requestId and data; false if the frame doesn't hold.
bool SplitResponsePdu(const Bytes& pdu, uint32_t* requestId, Bytes* data);
// False when the data is cut short or has bytes left over.
bool DecodeAttestationAnswer(const Bytes& data, AttestationAnswer* answer);
bool DecodeAssertionAnswer(const Bytes& data, AssertionAnswer* answer);

}  // namespace agent
