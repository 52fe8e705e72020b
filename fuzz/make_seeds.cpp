// Writes the seed corpus: valid requests of every options version, full and sparse.
//   make_seeds <corpus folder>
#include <cstdio>
#include <string>

#include "sim/agent_codec.h"
#include "sim/agent_samples.h"

namespace {

bool Write(const std::string& path, const agent::Bytes& bytes) {
    FILE* f = fopen(path.c_str(), "wb");
    if (!f) return false;
    fwrite(bytes.data(), 1, bytes.size(), f);
    fclose(f);
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: make_seeds <corpus folder>\n");
        return 2;
    }
    const std::string root = argv[1];
    agent::SampleArena arena;
    bool ok = true;
    for (uint32_t v = 0; v <= 6; ++v) {
        for (int full = 0; full < 2; ++full) {
            std::string name = "v" + std::to_string(v) + (full ? "-full" : "-sparse");
            ok &= Write(root + "/make_credential/" + name,
                        agent::EncodeMakeCredentialData(agent::SampleMakeCredential(arena, v, full != 0)));
        }
    }
    for (uint32_t v = 0; v <= 7; ++v) {
        for (int full = 0; full < 2; ++full) {
            std::string name = "v" + std::to_string(v) + (full ? "-full" : "-sparse");
            ok &= Write(root + "/get_assertion/" + name,
                        agent::EncodeGetAssertionData(agent::SampleGetAssertion(arena, v, full != 0)));
        }
    }
    ok &= Write(root + "/guid/sixteen", agent::EncodeCancelData(agent::SampleGuid(arena)));
    ok &= Write(root + "/guid/none", agent::EncodeCancelData(nullptr));
    ok &= Write(root + "/frame/client-info", agent::RequestPdu(7, 1, {3, 0, 1, 2}));
    ok &= Write(root + "/frame/make-credential",
                agent::RequestPdu(8, 3, agent::EncodeMakeCredentialData(agent::SampleMakeCredential(arena, 5, true))));
    ok &= Write(root + "/frame/cancel", agent::RequestPdu(9, 5, agent::EncodeCancelData(agent::SampleGuid(arena))));
    return ok ? 0 : 1;
}
