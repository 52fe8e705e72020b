// Writes the seed corpus from the agent's own encoder: requests of every options version, full
// and sparse (one version past the newest too), GUIDs of each length, and frames of each command.
//   make_seeds <corpus folder>
#include <cstdio>
#include <string>

#include "sim/agent_codec.h"
#include "sim/agent_samples.h"
#include "wire/request_decoders.h"

namespace {

using agent::Bytes;

bool ok = true;

void Write(const std::string& path, const Bytes& bytes) {
    FILE* f = fopen(path.c_str(), "wb");
    const bool written = f && fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
    ok &= f && fclose(f) == 0 && written;
}

void WriteSeeds(const std::string& root) {
    agent::SampleArena arena;
    for (uint32_t v = 0; v <= webauthn::kGetAssertionOptionsNewest + 1; ++v) {
        for (bool full : {false, true}) {
            const std::string name = "v" + std::to_string(v) + (full ? "-full" : "-sparse");
            if (v <= webauthn::kMakeCredentialOptionsNewest + 1)
                Write(root + "/make_credential/" + name,
                      agent::EncodeMakeCredentialData(agent::SampleMakeCredential(arena, v, full)));
            Write(root + "/get_assertion/" + name, agent::EncodeGetAssertionData(agent::SampleGetAssertion(arena, v, full)));
        }
    }
    const Bytes guid = agent::EncodeCancelData(agent::SampleGuid(arena));
    Write(root + "/guid/sixteen", guid);
    Write(root + "/guid/none", agent::EncodeCancelData(nullptr));
    // Wrong lengths on both sides of 16.
    for (uint32_t length : {1u, 15u, 17u, 32u}) {
        agent::WireWriter w;
        w.Buf(Bytes(length, 0x5A).data(), length);
        Write(root + "/guid/length-" + std::to_string(length), w.bytes);
    }
    Bytes clientInfo = agent::RequestPdu(7, 1, {3, 0, 1, 2});
    Write(root + "/frame/client-info", clientInfo);
    clientInfo.insert(clientInfo.end(), {0xEE, 0xEE});
    Write(root + "/frame/bytes-behind", clientInfo);
    const uint32_t newest = webauthn::kMakeCredentialOptionsNewest;
    Write(root + "/frame/make-credential",
          agent::RequestPdu(8, 3, agent::EncodeMakeCredentialData(agent::SampleMakeCredential(arena, newest, true))));
    Write(root + "/frame/cancel", agent::RequestPdu(9, 5, guid));
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: make_seeds <corpus folder>\n");
        return 2;
    }
    WriteSeeds(argv[1]);
    if (!ok) fprintf(stderr, "make_seeds: a seed could not be written below %s\n", argv[1]);
    return ok ? 0 : 1;
}
