// A P-256 signing key of Windows CNG, and the hashing and signature forms WebAuthn uses.
#pragma once

#include <windows.h>
#include <bcrypt.h>

#include <cstdint>
#include <vector>

namespace simauth {

using Bytes = std::vector<uint8_t>;

Bytes Sha256(const Bytes& data);
// An ECDSA signature as CNG gives it (r || s, 32 bytes each) in the DER form of WebAuthn.
Bytes RawSignatureToDer(const Bytes& raw);
Bytes DerSignatureToRaw(const Bytes& der);

class EcKey {
public:
    EcKey();
    ~EcKey();
    EcKey(const EcKey&) = delete;
    EcKey& operator=(const EcKey&) = delete;

    bool Valid() const { return key != nullptr; }
    // X and Y of the public point, 32 bytes each.
    bool PublicPoint(Bytes* x, Bytes* y) const;
    // ES256: ECDSA over the SHA-256 of message, DER encoded.
    Bytes SignEs256(const Bytes& message) const;

private:
    BCRYPT_ALG_HANDLE algorithm = nullptr;
    BCRYPT_KEY_HANDLE key = nullptr;
};

// Verifies a DER ES256 signature with a public point, as any relying party would.
bool VerifyEs256(const Bytes& x, const Bytes& y, const Bytes& message, const Bytes& derSignature);

}  // namespace simauth
