// Decode of a 64 KiB make-credential request against memcpy of the same bytes, natively.
// The bulk of the request is what makes such requests large in practice: a long exclude list
// (a relying party that knows many credentials of the user). A second request of the same size
// carries its bulk in one field, the decoder's best case.
#include <chrono>
#include <cstring>
#include <vector>

#include "bench/bench_figures.h"
#include "sim/agent_codec.h"
#include "sim/agent_samples.h"
#include "wire/record_release.h"
#include "wire/request_decoders.h"

namespace {

using namespace webauthn;
using Clock = std::chrono::steady_clock;

constexpr size_t kTarget = 64 * 1024;

// Grows the exclude list of a full version-5 request, one 64-byte credential id at a time,
// until the data reaches 64 KiB.
agent::Bytes ListHeavyRequest(agent::SampleArena& arena) {
    Fido2MakeCredentialRequest request = agent::SampleMakeCredential(arena, 5, true);
    auto* list = arena.New<WEBAUTHN_CREDENTIAL_LIST>();
    request.pMakeCredentialOptions->pExcludeCredentialList = list;
    const size_t base = agent::EncodeMakeCredentialData(request).size();
    const size_t perCredential = 4 + 4 + (4 + 64) + (4 + 2 * 12) + 4;  // flag, version, id, type, transports
    const size_t count = (kTarget - base + perCredential - 1) / perCredential;
    list->cCredentials = static_cast<DWORD>(count);
    list->ppCredentials = arena.New<WEBAUTHN_CREDENTIAL_EX*>(count);
    for (size_t i = 0; i < count; ++i) {
        auto* credential = arena.New<WEBAUTHN_CREDENTIAL_EX>();
        credential->dwVersion = 1;
        credential->cbId = 64;
        credential->pbId = arena.Bytes(std::vector<uint8_t>(64, static_cast<uint8_t>(i)));
        credential->pwszCredentialType = arena.Text(u"public-key");
        credential->dwTransports = 0x3;
        list->ppCredentials[i] = credential;
    }
    return agent::EncodeMakeCredentialData(request);
}

// The same request with its bulk in the client data instead.
agent::Bytes OneFieldRequest(agent::SampleArena& arena) {
    Fido2MakeCredentialRequest request = agent::SampleMakeCredential(arena, 5, true);
    const size_t rest = agent::EncodeMakeCredentialData(request).size() - request.pClientData->cbClientDataJSON;
    std::vector<uint8_t> json(kTarget - rest, '.');
    request.pClientData->cbClientDataJSON = static_cast<DWORD>(json.size());
    request.pClientData->pbClientDataJSON = arena.Bytes(json);
    return agent::EncodeMakeCredentialData(request);
}

// The sizes of the blocks that one decode allocates, in order, seen through the wire
// layer's allocator hook.
std::vector<size_t> recordedSizes;

void* RecordingCalloc(size_t count, size_t size) {
    recordedSizes.push_back(count * size);
    return calloc(count, size);
}

std::vector<size_t> AllocationsOfOneDecode(const agent::Bytes& data) {
    recordedSizes.clear();
    SetWireAllocator(RecordingCalloc, free);
    Free_AuthenticatorMakeCredentialRequest(Decode_AuthenticatorMakeCredentialRequest(data.data(), data.data() + data.size()));
    SetWireAllocator(nullptr, nullptr);
    return recordedSizes;
}

double Microseconds(Clock::duration d) { return std::chrono::duration<double, std::micro>(d).count(); }

double MegabytesPerSecond(size_t bytes, double us) { return us > 0 ? static_cast<double>(bytes) / us : 0; }

// One decode, timed; the release comes after the clock stops. False when the request fails
// to decode, which makes the whole run worthless.
bool TimeDecode(const agent::Bytes& data, std::vector<double>* us) {
    const Clock::time_point start = Clock::now();
    Fido2MakeCredentialRequest* request = Decode_AuthenticatorMakeCredentialRequest(data.data(), data.data() + data.size());
    const Clock::time_point stop = Clock::now();
    if (!request) return false;
    us->push_back(Microseconds(stop - start));
    Free_AuthenticatorMakeCredentialRequest(request);
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    const bench::Options options = bench::ParseOptions("decode_bench", argc, argv, 2000);
    if (!options.ok) return 2;
    agent::SampleArena arena;
    const agent::Bytes listHeavy = ListHeavyRequest(arena);
    const agent::Bytes oneField = OneFieldRequest(arena);
    std::vector<uint8_t> target(listHeavy.size());
    // The decoder gives every field a block of its own; the same blocks, zeroed and released
    // without any decoding, are what the decode can't go below.
    const std::vector<size_t> blocks = AllocationsOfOneDecode(listHeavy);
    std::vector<void*> held(blocks.size());
    std::vector<double> decodeUs, oneFieldUs, memcpyUs, allocationUs;
    // Interleaved, so that whatever else the machine does weighs on all three alike.
    for (int i = 0; i < options.rounds; ++i) {
        if (!TimeDecode(listHeavy, &decodeUs) || !TimeDecode(oneField, &oneFieldUs)) {
            fprintf(stderr, "decode_bench: the request does not decode\n");
            return 1;
        }
        const Clock::time_point start = Clock::now();
        memcpy(target.data(), listHeavy.data(), listHeavy.size());
        const Clock::time_point stop = Clock::now();
        memcpyUs.push_back(Microseconds(stop - start));
        const Clock::time_point allocStart = Clock::now();
        for (size_t b = 0; b < blocks.size(); ++b) held[b] = calloc(blocks[b], 1);
        const Clock::time_point allocStop = Clock::now();
        allocationUs.push_back(Microseconds(allocStop - allocStart));
        for (void* block : held) free(block);
        // The copy must be seen to be used, or the compiler may drop it.
        if (target[static_cast<size_t>(i) % target.size()] != listHeavy[static_cast<size_t>(i) % target.size()]) return 1;
    }
    const double decodeRate = MegabytesPerSecond(listHeavy.size(), bench::Median(decodeUs));
    const double memcpyRate = MegabytesPerSecond(listHeavy.size(), bench::Median(memcpyUs));
    bench::Figures figures;
    figures.Add("request_bytes", static_cast<double>(listHeavy.size()));
    figures.Add("decode_64k_mb_s", decodeRate);
    figures.AddSeries("decode_64k", "us", decodeUs);
    figures.Add("decode_64k_one_field_mb_s", MegabytesPerSecond(oneField.size(), bench::Median(oneFieldUs)));
    figures.Add("memcpy_64k_mb_s", memcpyRate);
    figures.AddSeries("memcpy_64k", "us", memcpyUs);
    figures.Add("decode_64k_allocations", static_cast<double>(blocks.size()));
    figures.AddSeries("allocations_64k", "us", allocationUs);
    figures.Add("decode_share_of_memcpy_pct", memcpyRate > 0 ? 100 * decodeRate / memcpyRate : 0);
    figures.Print(options.json);
    return 0;
}
