// Writes the seed corpus from the agent's own encoder: requests of every options version, full
// and sparse (one version past the newest too), GUIDs of each length, and frames of each command.
//   make_seeds <corpus folder>
// With --cuts, writes instead variants for the coverage-guided merge of fuzz/coverage.sh
// --add-seeds, which keeps those that reach a path no seed reaches yet: each full request,
// GUID and frame cut off at every 4-byte step and with each of its words replaced by 0, by the
// number of words behind it and by 0xFFFFFFFF (so every count and length the rest can't hold,
// every GUID of the wrong length, every frame too short or too long), and the newest requests
// with each allocation failing.
//   make_seeds --cuts <scratch folder>
#include <cstdio>
#include <cstring>
#include <string>

#include "fuzz_common.h"
#include "sim/agent_samples.h"
#include "wire/record_release.h"
#include "wire/request_decoders.h"

namespace {

using namespace webauthn;
using agent::Bytes;

bool ok = true;

void Write(const std::string& path, const Bytes& bytes) {
    FILE* f = fopen(path.c_str(), "wb");
    const bool written = f && fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
    ok &= f && fclose(f) == 0 && written;
}

Bytes Encoded(agent::SampleArena& arena, bool make, uint32_t version, bool full = true) {
    return make ? agent::EncodeMakeCredentialData(agent::SampleMakeCredential(arena, version, full))
                : agent::EncodeGetAssertionData(agent::SampleGetAssertion(arena, version, full));
}

void DecodeAndFree(bool make, const Bytes& b) {
    const uint8_t* end = b.data() + b.size();
    if (make) {
        Free_AuthenticatorMakeCredentialRequest(Decode_AuthenticatorMakeCredentialRequest(b.data(), end));
    } else {
        Free_AuthenticatorGetAssertionRequest(Decode_AuthenticatorGetAssertionRequest(b.data(), end));
    }
}

void WriteCutsAndWords(const std::string& prefix, const Bytes& input) {
    for (size_t at = 0; at < input.size(); at += 4) {
        Write(prefix + "cut-" + std::to_string(at), Bytes(input.data(), input.data() + at));
        if (at + 4 > input.size()) break;
        for (uint32_t word : {0u, static_cast<uint32_t>((input.size() - at) / 4 - 1), 0xFFFFFFFFu}) {
            Bytes patched = input;
            WriteLe32(patched.data() + at, word);
            Write(prefix + "word-" + std::to_string(at) + "-" + std::to_string(word), patched);
        }
    }
}

// The request with a word behind it, which the decoder ignores, of which the last byte makes
// the harness fail each allocation of the decode in turn.
void WriteAllocationFailures(const std::string& prefix, bool make, const Bytes& request) {
    long allocations = 0;
    {
        CountedAllocations counted;
        DecodeAndFree(make, request);
        allocations = CountedAllocations::Made();
    }
    Bytes input = request;
    input.resize(request.size() + 4, 0);
    for (long index = 0; index < allocations; ++index) {
        for (int last = 0; last < 256; ++last) {
            input.back() = static_cast<uint8_t>(last);
            if (fuzz::FailureIndex(input.data(), input.size(), allocations) != index) continue;
            Write(prefix + "fail-allocation-" + std::to_string(index), input);
            break;
        }
    }
}

void WriteVariants(const std::string& root, agent::SampleArena& arena) {
    for (bool make : {true, false}) {
        const std::string folder = root + (make ? "/make_credential/" : "/get_assertion/");
        const uint32_t newest = make ? kMakeCredentialOptionsNewest : kGetAssertionOptionsNewest;
        for (uint32_t v = 0; v <= newest; ++v) {
            WriteCutsAndWords(folder + "v" + std::to_string(v) + "-", Encoded(arena, make, v));
        }
        WriteAllocationFailures(folder + "newest-", make, Encoded(arena, make, newest));
    }
    const Bytes guid = agent::EncodeCancelData(agent::SampleGuid(arena));
    WriteCutsAndWords(root + "/guid/", guid);
    WriteCutsAndWords(root + "/frame/client-info-", agent::RequestPdu(7, 1, {3, 0, 1, 2}));
    WriteCutsAndWords(root + "/frame/cancel-", agent::RequestPdu(9, 5, guid));
}

void WriteSeeds(const std::string& root, agent::SampleArena& arena) {
    for (uint32_t v = 0; v <= kGetAssertionOptionsNewest + 1; ++v) {
        for (bool full : {false, true}) {
            const std::string name = "v" + std::to_string(v) + (full ? "-full" : "-sparse");
            if (v <= kMakeCredentialOptionsNewest + 1) {
                Write(root + "/make_credential/" + name, Encoded(arena, true, v, full));
            }
            Write(root + "/get_assertion/" + name, Encoded(arena, false, v, full));
        }
    }
    const Bytes guid = agent::EncodeCancelData(agent::SampleGuid(arena));
    Write(root + "/guid/sixteen", guid);
    Write(root + "/guid/none", agent::EncodeCancelData(nullptr));
    // Wrong lengths on both sides, which the merge can't tell from one another by the code they reach.
    for (uint32_t length : {1u, 15u, 17u, 32u}) {
        agent::WireWriter w;
        w.Buf(Bytes(length, 0x5A).data(), length);
        Write(root + "/guid/length-" + std::to_string(length), w.bytes);
    }
    Bytes clientInfo = agent::RequestPdu(7, 1, {3, 0, 1, 2});
    Write(root + "/frame/client-info", clientInfo);
    clientInfo.insert(clientInfo.end(), {0xEE, 0xEE});
    Write(root + "/frame/bytes-behind", clientInfo);
    Write(root + "/frame/make-credential", agent::RequestPdu(8, 3, Encoded(arena, true, kMakeCredentialOptionsNewest)));
    Write(root + "/frame/cancel", agent::RequestPdu(9, 5, guid));
}

}  // namespace

int main(int argc, char** argv) {
    const bool variants = argc == 3 && strcmp(argv[1], "--cuts") == 0;
    if (argc != 2 && !variants) {
        fprintf(stderr, "usage: make_seeds <corpus folder> | make_seeds --cuts <scratch folder>\n");
        return 2;
    }
    const std::string root = argv[argc - 1];
    agent::SampleArena arena;
    if (variants) {
        WriteVariants(root, arena);
    } else {
        WriteSeeds(root, arena);
    }
    if (!ok) fprintf(stderr, "make_seeds: a seed could not be written below %s\n", root.c_str());
    return ok ? 0 : 1;
}
