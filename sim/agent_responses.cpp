#include "sim/agent_responses.h"

namespace agent {

namespace {

// Reads primitives with bounds checks; the first failure sticks.
class WireReader {
public:
    explicit WireReader(const Bytes& bytes) : data(bytes) {}
    bool ok = true;

    uint32_t U32() {
        if (!Need(4)) return 0;
        uint32_t v = static_cast<uint32_t>(data[at]) | (static_cast<uint32_t>(data[at + 1]) << 8) |
                     (static_cast<uint32_t>(data[at + 2]) << 16) | (static_cast<uint32_t>(data[at + 3]) << 24);
        at += 4;
        return v;
    }
    Bytes Buf() {
        uint32_t n = U32();
        uint64_t padded = (static_cast<uint64_t>(n) + 3) & ~3ULL;
        if (!Need(padded)) return {};
        Bytes b(data.begin() + static_cast<long>(at), data.begin() + static_cast<long>(at + n));
        at += static_cast<size_t>(padded);
        return b;
    }
    WireText Wstr() {
        WireText t;
        uint32_t count = U32();
        uint64_t padded = (2ULL * count + 3) & ~3ULL;
        if (!ok || !Need(padded)) return t;
        t.isNull = count == 0;
        for (uint32_t i = 0; i + 1 < count; ++i) {
            t.text.push_back(static_cast<char16_t>(data[at + 2 * i] | (data[at + 2 * i + 1] << 8)));
        }
        at += static_cast<size_t>(padded);
        return t;
    }
    std::vector<WireExtension> Extensions() {
        std::vector<WireExtension> list;
        uint32_t count = U32();
        for (uint32_t i = 0; ok && i < count; ++i) {
            WireExtension e;
            e.identifier = Wstr();
            e.value = Buf();
            list.push_back(e);
        }
        return list;
    }
    bool AtEnd() const { return ok && at == data.size(); }

private:
    bool Need(uint64_t n) {
        if (!ok || data.size() - at < n) ok = false;
        return ok;
    }
    const Bytes& data;
    size_t at = 0;
};

}  // namespace

bool SplitResponsePdu(const Bytes& pdu, uint32_t* requestId, Bytes* data) {
    WireReader r(pdu);
    uint32_t id = r.U32();
    uint32_t length = r.U32();
    if (!r.ok || pdu.size() - 8 != length) return false;
    if (requestId) *requestId = id;
    if (data) data->assign(pdu.begin() + 8, pdu.end());
    return true;
}

bool DecodeAttestationAnswer(const Bytes& data, AttestationAnswer* a) {
    WireReader r(data);
    a->hr = r.U32();
    a->present = r.U32() != 0;
    if (!a->present) return r.AtEnd();
    a->dwVersion = r.U32();
    a->formatType = r.Wstr();
    a->authenticatorData = r.Buf();
    a->attestation = r.Buf();
    a->attestationDecodeType = r.U32();
    if (a->attestationDecodeType == 1) {
        a->common.present = r.U32() != 0;
        if (a->common.present) {
            a->common.dwVersion = r.U32();
            a->common.alg = r.Wstr();
            a->common.lAlg = static_cast<int32_t>(r.U32());
            a->common.signature = r.Buf();
            uint32_t certificates = r.U32();
            for (uint32_t i = 0; r.ok && i < certificates; ++i) a->common.x5c.push_back(r.Buf());
            a->common.ver = r.Wstr();
            a->common.certInfo = r.Buf();
            a->common.pubArea = r.Buf();
        }
    }
    a->attestationObject = r.Buf();
    a->credentialId = r.Buf();
    if (a->dwVersion >= 2) a->extensions = r.Extensions();
    if (a->dwVersion >= 3) a->usedTransport = r.U32();
    if (a->dwVersion >= 4) {
        a->epAtt = r.U32();
        a->largeBlobSupported = r.U32();
        a->residentKey = r.U32();
    }
    return r.AtEnd();
}

bool DecodeAssertionAnswer(const Bytes& data, AssertionAnswer* a) {
    WireReader r(data);
    a->hr = r.U32();
    a->present = r.U32() != 0;
    if (!a->present) return r.AtEnd();
    a->dwVersion = r.U32();
    a->authenticatorData = r.Buf();
    a->signature = r.Buf();
    a->credentialVersion = r.U32();
    a->credentialId = r.Buf();
    a->credentialType = r.Wstr();
    a->userId = r.Buf();
    if (a->dwVersion >= 2) {
        a->extensions = r.Extensions();
        a->credLargeBlob = r.Buf();
        a->credLargeBlobStatus = r.U32();
    }
    if (a->dwVersion >= 3) {
        a->hmacSecret.present = r.U32() != 0;
        if (a->hmacSecret.present) {
            a->hmacSecret.first = r.Buf();
            a->hmacSecret.second = r.Buf();
        }
    }
    return r.AtEnd();
}

}  // namespace agent
