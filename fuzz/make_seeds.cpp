// Writes the seed corpus from the agent's own encoder: requests of every options version, full
// and sparse (one version past the newest too), GUIDs of each length, and frames short, long
// and exact.
//   make_seeds <corpus folder>
// With --cuts, writes instead variants of the full requests for the coverage-guided merge of
// fuzz/coverage.sh --add-seeds, which keeps those that reach a path no seed reaches yet: each
// request cut off at every 4-byte step, each word of the newest ones replaced by 0, by the
// number of words behind it and by 0xFFFFFFFF (so every count and length the rest can't hold,
// and every GUID of the wrong length), and the newest ones with each allocation failing.
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
            const Bytes full = Encoded(arena, make, v);
            const std::string prefix = folder + "v" + std::to_string(v) + "-cut-";
            for (size_t at = 0; at < full.size(); at += 4) {
                Write(prefix + std::to_string(at), Bytes(full.data(), full.data() + at));
            }
        }
        const Bytes newestFull = Encoded(arena, make, newest);
        for (size_t at = 0; at + 4 <= newestFull.size(); at += 4) {
            for (uint32_t word : {0u, static_cast<uint32_t>((newestFull.size() - at) / 4 - 1), 0xFFFFFFFFu}) {
                Bytes patched = newestFull;
                WriteLe32(patched.data() + at, word);
                Write(folder + "word-" + std::to_string(at) + "-" + std::to_string(word), patched);
            }
        }
        WriteAllocationFailures(folder + "newest-", make, newestFull);
    }
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
    Write(root + "/guid/sixteen-cut", Bytes(guid.begin(), guid.begin() + 12));
    Write(root + "/guid/length-cut", Bytes(guid.begin(), guid.begin() + 2));
    Write(root + "/guid/none", agent::EncodeCancelData(nullptr));
    for (uint32_t length : {1u, 8u, 15u, 17u, 32u}) {
        agent::WireWriter w;
        w.Buf(Bytes(length, 0x5A).data(), length);
        Write(root + "/guid/length-" + std::to_string(length), w.bytes);
    }
    const std::string frame = root + "/frame/";
    const Bytes clientInfo = agent::RequestPdu(7, 1, {3, 0, 1, 2});
    Write(frame + "client-info", clientInfo);
    Write(frame + "short", Bytes(clientInfo.begin(), clientInfo.begin() + 11));
    Write(frame + "data-missing", Bytes(clientInfo.begin(), clientInfo.begin() + 12));
    Bytes wraps = clientInfo;
    WriteLe32(wraps.data() + 8, 0xFFFFFFFF);
    Write(frame + "length-wraps", wraps);
    Bytes behind = clientInfo;
    behind.insert(behind.end(), {0xEE, 0xEE});
    Write(frame + "bytes-behind", behind);
    Write(frame + "make-credential", agent::RequestPdu(8, 3, Encoded(arena, true, kMakeCredentialOptionsNewest)));
    Write(frame + "cancel", agent::RequestPdu(9, 5, guid));
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
