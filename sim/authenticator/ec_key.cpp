#include "sim/authenticator/ec_key.h"

#include <cstring>

namespace simauth {

namespace {

bool Ok(NTSTATUS status) { return status >= 0; }

// CNG handles closed on every way out.
struct Algorithm {
    BCRYPT_ALG_HANDLE handle = nullptr;
    explicit Algorithm(LPCWSTR id) {
        if (!Ok(BCryptOpenAlgorithmProvider(&handle, id, nullptr, 0))) handle = nullptr;
    }
    ~Algorithm() {
        if (handle) BCryptCloseAlgorithmProvider(handle, 0);
    }
};

Bytes DerInteger(const uint8_t* value, size_t length) {
    while (length > 1 && value[0] == 0) {
        ++value;
        --length;
    }
    Bytes out = {0x02};
    const bool pad = (value[0] & 0x80) != 0;
    out.push_back(static_cast<uint8_t>(length + (pad ? 1 : 0)));
    if (pad) out.push_back(0);
    out.insert(out.end(), value, value + length);
    return out;
}

}  // namespace

Bytes Sha256(const Bytes& data) {
    Algorithm sha(BCRYPT_SHA256_ALGORITHM);
    Bytes digest(32);
    if (!sha.handle || !Ok(BCryptHash(sha.handle, nullptr, 0, const_cast<PUCHAR>(data.data()),
                                      static_cast<ULONG>(data.size()), digest.data(), 32))) {
        return Bytes();
    }
    return digest;
}

Bytes RawSignatureToDer(const Bytes& raw) {
    if (raw.size() != 64) return Bytes();
    Bytes r = DerInteger(raw.data(), 32);
    Bytes s = DerInteger(raw.data() + 32, 32);
    Bytes out = {0x30, static_cast<uint8_t>(r.size() + s.size())};
    out.insert(out.end(), r.begin(), r.end());
    out.insert(out.end(), s.begin(), s.end());
    return out;
}

Bytes DerSignatureToRaw(const Bytes& der) {
    Bytes raw(64, 0);
    size_t at = 2;
    if (der.size() < 8 || der[0] != 0x30) return Bytes();
    for (int part = 0; part < 2; ++part) {
        if (at + 2 > der.size() || der[at] != 0x02) return Bytes();
        size_t length = der[at + 1];
        at += 2;
        if (at + length > der.size()) return Bytes();
        const uint8_t* value = der.data() + at;
        size_t n = length;
        while (n > 32 && *value == 0) {
            ++value;
            --n;
        }
        if (n > 32) return Bytes();
        memcpy(raw.data() + part * 32 + (32 - n), value, n);
        at += length;
    }
    return raw;
}

EcKey::EcKey() {
    if (!Ok(BCryptOpenAlgorithmProvider(&algorithm, BCRYPT_ECDSA_P256_ALGORITHM, nullptr, 0))) {
        algorithm = nullptr;
        return;
    }
    if (!Ok(BCryptGenerateKeyPair(algorithm, &key, 256, 0)) || !Ok(BCryptFinalizeKeyPair(key, 0))) {
        if (key) BCryptDestroyKey(key);
        key = nullptr;
    }
}

EcKey::~EcKey() {
    if (key) BCryptDestroyKey(key);
    if (algorithm) BCryptCloseAlgorithmProvider(algorithm, 0);
}

bool EcKey::PublicPoint(Bytes* x, Bytes* y) const {
    uint8_t blob[sizeof(BCRYPT_ECCKEY_BLOB) + 64];
    ULONG size = 0;
    if (!key || !Ok(BCryptExportKey(key, nullptr, BCRYPT_ECCPUBLIC_BLOB, blob, sizeof(blob), &size, 0)) ||
        size != sizeof(blob)) {
        return false;
    }
    const uint8_t* point = blob + sizeof(BCRYPT_ECCKEY_BLOB);
    x->assign(point, point + 32);
    y->assign(point + 32, point + 64);
    return true;
}

Bytes EcKey::SignEs256(const Bytes& message) const {
    Bytes digest = Sha256(message);
    Bytes raw(64);
    ULONG size = 0;
    if (!key || digest.empty() ||
        !Ok(BCryptSignHash(key, nullptr, digest.data(), 32, raw.data(), 64, &size, 0)) || size != 64) {
        return Bytes();
    }
    return RawSignatureToDer(raw);
}

bool VerifyEs256(const Bytes& x, const Bytes& y, const Bytes& message, const Bytes& derSignature) {
    if (x.size() != 32 || y.size() != 32) return false;
    Algorithm ecdsa(BCRYPT_ECDSA_P256_ALGORITHM);
    if (!ecdsa.handle) return false;
    uint8_t blob[sizeof(BCRYPT_ECCKEY_BLOB) + 64];
    auto* header = reinterpret_cast<BCRYPT_ECCKEY_BLOB*>(blob);
    header->dwMagic = BCRYPT_ECDSA_PUBLIC_P256_MAGIC;
    header->cbKey = 32;
    memcpy(blob + sizeof(BCRYPT_ECCKEY_BLOB), x.data(), 32);
    memcpy(blob + sizeof(BCRYPT_ECCKEY_BLOB) + 32, y.data(), 32);
    BCRYPT_KEY_HANDLE key = nullptr;
    if (!Ok(BCryptImportKeyPair(ecdsa.handle, nullptr, BCRYPT_ECCPUBLIC_BLOB, &key, blob, sizeof(blob), 0))) {
        return false;
    }
    Bytes digest = Sha256(message);
    Bytes raw = DerSignatureToRaw(derSignature);
    bool valid = !raw.empty() && !digest.empty() &&
                 Ok(BCryptVerifySignature(key, nullptr, digest.data(), 32, raw.data(), 64, 0));
    BCryptDestroyKey(key);
    return valid;
}

}  // namespace simauth
