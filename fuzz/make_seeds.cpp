// Writes the seed corpus: valid requests of every options version, full and sparse, with each
// list present but empty, and inputs that each end in one of the decoders' refusals (a count
// that the rest can't hold, a GUID of the wrong length, a frame too short or too long).
//   make_seeds <corpus folder>
// With --cuts, writes instead every full request cut off at each 4-byte step, and the newest
// requests with each allocation of their decode failing, for the coverage-guided merge of
// fuzz/coverage.sh --add-seeds, which keeps those that reach a path no seed reaches yet.
//   make_seeds --cuts <scratch folder>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>

#include "fuzz_common.h"
#include "sim/agent_codec.h"
#include "sim/agent_samples.h"
#include "wire/record_release.h"
#include "wire/request_decoders.h"

namespace {

using namespace webauthn;
using agent::Bytes;

bool Write(const std::string& path, const Bytes& bytes) {
    FILE* f = fopen(path.c_str(), "wb");
    if (!f) return false;
    const bool written = fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
    return fclose(f) == 0 && written;
}

Bytes WithWord(Bytes bytes, size_t offset, uint32_t value) {
    WriteLe32(bytes.data() + offset, value);
    return bytes;
}

// The offset of the first word in which two encodings differ: where a changed count or
// length stands, since everything before it is encoded alike.
size_t FirstDifferentWord(const Bytes& a, const Bytes& b) {
    size_t i = 0;
    while (i < a.size() && i < b.size() && a[i] == b[i]) ++i;
    return i & ~static_cast<size_t>(3);
}

// Requests each ending in one of the decoders' refusals, made from a full one whose count or
// length word is found by encoding it twice: as sampled and with the field changed.
struct Refusals {
    std::string folder;
    std::function<Bytes()> encode;

    template <class Field>
    size_t Locate(Field& field, Field changed) {
        const Field saved = field;
        const Bytes before = encode();
        field = changed;
        const Bytes after = encode();
        field = saved;
        return FirstDifferentWord(before, after);
    }
    // A count beyond any PDU, and one that the bytes left could hold as words but not as elements.
    template <class Count>
    bool Counts(const std::string& name, Count& count) {
        const size_t at = Locate(count, static_cast<Count>(count - 1));
        const Bytes full = encode();
        const uint32_t wordsLeft = static_cast<uint32_t>((full.size() - at - 4) / 4);
        return Write(folder + "/" + name + "-count-huge", WithWord(full, at, 0xFFFFFFFF)) &&
               Write(folder + "/" + name + "-count-overrun", WithWord(full, at, wordsLeft));
    }
    // The list present but empty, which no sample has.
    template <class Count>
    bool Empty(const std::string& name, Count& count) {
        const Count saved = count;
        count = 0;
        const bool ok = Write(folder + "/" + name + "-empty", encode());
        count = saved;
        return ok;
    }
    // A GUID field of lengths other than 0 and 16.
    bool GuidLengths(const std::string& name, GUID*& guid) {
        const size_t at = Locate(guid, static_cast<GUID*>(nullptr));
        bool ok = true;
        for (uint32_t length : {1u, 8u, 15u}) {
            ok &= Write(folder + "/" + name + "-guid-length-" + std::to_string(length), WithWord(encode(), at, length));
        }
        return ok;
    }
};

bool WriteRefusals(const std::string& root, agent::SampleArena& arena) {
    bool ok = true;
    Fido2MakeCredentialRequest make = agent::SampleMakeCredential(arena, kMakeCredentialOptionsNewest, true);
    Refusals m{root + "/make_credential", [&] { return agent::EncodeMakeCredentialData(make); }};
    WEBAUTHN_AUTHENTICATOR_MAKE_CREDENTIAL_OPTIONS& mo = *make.pMakeCredentialOptions;
    ok &= m.Counts("cose", make.pPubKeyCredParams->cCredentialParameters);
    ok &= m.Counts("credentials", mo.CredentialList.cCredentials);
    ok &= m.Counts("extensions", mo.Extensions.cExtensions);
    ok &= m.Counts("exclude-list", mo.pExcludeCredentialList->cCredentials);
    ok &= m.GuidLengths("options", mo.pCancellationId);
    ok &= m.Empty("cose", make.pPubKeyCredParams->cCredentialParameters);
    ok &= m.Empty("exclude-list", mo.pExcludeCredentialList->cCredentials);

    Fido2GetAssertionRequest get = agent::SampleGetAssertion(arena, kGetAssertionOptionsNewest, true);
    Refusals g{root + "/get_assertion", [&] { return agent::EncodeGetAssertionData(get); }};
    WEBAUTHN_AUTHENTICATOR_GET_ASSERTION_OPTIONS& go = *get.pGetAssertionOptions;
    ok &= g.Counts("credentials", go.CredentialList.cCredentials);
    ok &= g.Counts("extensions", go.Extensions.cExtensions);
    ok &= g.Counts("allow-list", go.pAllowCredentialList->cCredentials);
    ok &= g.Counts("salts", go.pHmacSecretSaltValues->cCredWithHmacSecretSaltList);
    ok &= g.GuidLengths("options", go.pCancellationId);
    ok &= g.Empty("allow-list", go.pAllowCredentialList->cCredentials);
    ok &= g.Empty("salts", go.pHmacSecretSaltValues->cCredWithHmacSecretSaltList);

    const std::string guid = root + "/guid/";
    for (uint32_t length : {1u, 8u, 15u, 17u, 32u}) {
        agent::WireWriter w;
        w.Buf(Bytes(length, 0x5A).data(), length);
        ok &= Write(guid + "length-" + std::to_string(length), w.bytes);
    }
    ok &= Write(guid + "sixteen-cut", Bytes{16, 0, 0, 0, 1, 2, 3, 4, 5, 6, 7, 8});
    ok &= Write(guid + "length-cut", Bytes{16, 0});

    const std::string frame = root + "/frame/";
    ok &= Write(frame + "short", Bytes{7, 0, 0, 0, 1, 0, 0, 0, 4, 0, 0});
    ok &= Write(frame + "data-missing", Bytes{7, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0});
    ok &= Write(frame + "length-wraps", Bytes{7, 0, 0, 0, 1, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF, 1, 2, 3, 4});
    ok &= Write(frame + "bytes-behind", Bytes{7, 0, 0, 0, 1, 0, 0, 0, 4, 0, 0, 0, 3, 0, 1, 2, 0xEE, 0xEE});
    return ok;
}

// The request with a word of padding behind it, which the decoder ignores, whose last byte makes
// the harness fail the allocation with the given index; empty when no byte does.
template <class Decode>
Bytes FailingAllocation(const Bytes& request, long index, Decode decode) {
    Bytes input = request;
    input.insert(input.end(), 4, 0);
    for (int last = 0; last < 256; ++last) {
        input.back() = static_cast<uint8_t>(last);
        long chosen = -1;
        fuzz::WithAndWithoutFailure(input.data(), input.size(), [&](bool injected) {
            decode(input);
            if (injected) chosen = fuzz::Allocations::failAt;
        });
        if (chosen == index) return input;
    }
    return Bytes();
}

template <class Decode>
bool WriteAllocationFailures(const std::string& folder, const std::string& name, const Bytes& request, Decode decode) {
    fuzz::Allocations::Begin(-1);
    decode(request);
    const long allocations = fuzz::Allocations::made;
    bool ok = true;
    for (long i = 0; i < allocations; ++i) {
        const Bytes input = FailingAllocation(request, i, decode);
        if (!input.empty()) ok &= Write(folder + "/" + name + "-fail-allocation-" + std::to_string(i), input);
    }
    SetWireAllocator(nullptr, nullptr);
    return ok;
}

// Every full request of every options version cut off at each 4-byte step before its end, and
// the newest ones with each of their allocations failing in turn.
bool WriteCuts(const std::string& root, agent::SampleArena& arena) {
    bool ok = true;
    const Bytes make = agent::EncodeMakeCredentialData(agent::SampleMakeCredential(arena, kMakeCredentialOptionsNewest, true));
    ok &= WriteAllocationFailures(root + "/make_credential", "newest", make, [](const Bytes& b) {
        Free_AuthenticatorMakeCredentialRequest(Decode_AuthenticatorMakeCredentialRequest(b.data(), b.data() + b.size()));
    });
    const Bytes get = agent::EncodeGetAssertionData(agent::SampleGetAssertion(arena, kGetAssertionOptionsNewest, true));
    ok &= WriteAllocationFailures(root + "/get_assertion", "newest", get, [](const Bytes& b) {
        Free_AuthenticatorGetAssertionRequest(Decode_AuthenticatorGetAssertionRequest(b.data(), b.data() + b.size()));
    });
    auto cuts = [&](const std::string& folder, const std::string& name, const Bytes& bytes) {
        for (size_t at = 0; at < bytes.size(); at += 4) {
            ok &= Write(folder + "/" + name + "-cut-" + std::to_string(at), Bytes(bytes.begin(), bytes.begin() + at));
        }
    };
    for (uint32_t v = 0; v <= kMakeCredentialOptionsNewest; ++v) {
        cuts(root + "/make_credential", "v" + std::to_string(v),
             agent::EncodeMakeCredentialData(agent::SampleMakeCredential(arena, v, true)));
    }
    for (uint32_t v = 0; v <= kGetAssertionOptionsNewest; ++v) {
        cuts(root + "/get_assertion", "v" + std::to_string(v),
             agent::EncodeGetAssertionData(agent::SampleGetAssertion(arena, v, true)));
    }
    return ok;
}

bool WriteValid(const std::string& root, agent::SampleArena& arena) {
    bool ok = true;
    for (uint32_t v = 0; v <= kGetAssertionOptionsNewest + 1; ++v) {
        for (bool full : {false, true}) {
            const std::string name = "v" + std::to_string(v) + (full ? "-full" : "-sparse");
            if (v <= kMakeCredentialOptionsNewest + 1) {
                ok &= Write(root + "/make_credential/" + name,
                            agent::EncodeMakeCredentialData(agent::SampleMakeCredential(arena, v, full)));
            }
            ok &= Write(root + "/get_assertion/" + name,
                        agent::EncodeGetAssertionData(agent::SampleGetAssertion(arena, v, full)));
        }
    }
    ok &= Write(root + "/guid/sixteen", agent::EncodeCancelData(agent::SampleGuid(arena)));
    ok &= Write(root + "/guid/none", agent::EncodeCancelData(nullptr));
    ok &= Write(root + "/frame/client-info", agent::RequestPdu(7, 1, {3, 0, 1, 2}));
    ok &= Write(root + "/frame/make-credential",
                agent::RequestPdu(8, 3, agent::EncodeMakeCredentialData(agent::SampleMakeCredential(arena, 5, true))));
    ok &= Write(root + "/frame/cancel", agent::RequestPdu(9, 5, agent::EncodeCancelData(agent::SampleGuid(arena))));
    return ok;
}

}  // namespace

int main(int argc, char** argv) {
    const bool cutsOnly = argc == 3 && strcmp(argv[1], "--cuts") == 0;
    if (argc != 2 && !cutsOnly) {
        fprintf(stderr, "usage: make_seeds <corpus folder> | make_seeds --cuts <scratch folder>\n");
        return 2;
    }
    const std::string root = argv[argc - 1];
    agent::SampleArena arena;
    const bool ok = cutsOnly ? WriteCuts(root, arena) : WriteValid(root, arena) && WriteRefusals(root, arena);
    if (!ok) fprintf(stderr, "make_seeds: a seed could not be written below %s\n", root.c_str());
    return ok ? 0 : 1;
}
