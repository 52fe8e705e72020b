// Dispatch overhead of the real plug-in on the host simulator with the instant software
// authenticator: request delivered -> library entered, library returned -> answer handed to
// the host; and supersede latency: a new request while the old one waits in the library,
// until the delivery thread returns (old worker cancelled, joined, new one started).
#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <vector>

#include "sim/agent_codec.h"
#include "sim/agent_samples.h"
#include "sim/authenticator_client.h"
#include "sim/host_sim.h"

namespace {

double Frequency() {
    LARGE_INTEGER f;
    QueryPerformanceFrequency(&f);
    return static_cast<double>(f.QuadPart);
}

int64_t Now() {
    LARGE_INTEGER t;
    QueryPerformanceCounter(&t);
    return t.QuadPart;
}

void Report(const char* what, std::vector<double> us) {
    std::sort(us.begin(), us.end());
    double median = us[us.size() / 2];
    double p99 = us[std::min(us.size() - 1, us.size() * 99 / 100)];
    printf("%-44s n=%zu  median %8.1f us  p99 %8.1f us\n", what, us.size(), median, p99);
}

}  // namespace

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? atoi(argv[1]) : 500;
    sim::SoftwareAuthenticator auth;
    sim::Host& host = sim::Host::Get();
    if (!auth.Loaded() || !host.LoadPlugin()) {
        fprintf(stderr, "bench: plug-in or authenticator missing\n");
        return 2;
    }
    auto times = auth.Get<SimAuth_LastCallTimesFn>("SimAuth_LastCallTimes");
    host.Init();
    TBXUserData instance = 0;
    host.CreateInstance(&instance);
    host.BringUp();

    agent::SampleArena arena;
    const agent::Bytes data = agent::EncodeMakeCredentialData(agent::SampleMakeCredential(arena, 2, true));
    const double usPerTick = 1e6 / Frequency();
    std::vector<double> toLibrary, toSend, supersede;
    auth.Mode(SIMAUTH_INSTANT);
    for (int i = 0; i < rounds; ++i) {
        size_t before = host.Messages().size();
        int64_t delivered = Now();
        host.DeliverMessage(agent::RequestPdu(static_cast<uint32_t>(i), 3, data));
        if (!host.WaitForMessages(before + 1, 10000)) return 1;
        LONGLONG entered = 0, returned = 0;
        times(&entered, &returned);
        toLibrary.push_back((entered - delivered) * usPerTick);
        toSend.push_back((host.Messages()[before].sentTicks - returned) * usPerTick);
    }
    for (int i = 0; i < rounds / 5; ++i) {
        auth.Mode(SIMAUTH_BLOCK_UNTIL_CANCEL);
        size_t before = host.Messages().size();
        host.DeliverMessage(agent::RequestPdu(1, 3, data));
        auth.WaitBlocked(1);
        auth.Mode(SIMAUTH_INSTANT);
        int64_t start = Now();
        host.DeliverMessage(agent::RequestPdu(2, 3, data));
        supersede.push_back((Now() - start) * usPerTick);
        host.WaitForMessages(before + 1, 10000);
    }
    host.DestroyInstance(instance);
    host.Exit();
    Report("request delivered -> library entered", toLibrary);
    Report("library returned -> answer handed to host", toSend);
    Report("supersede: new request -> old worker joined", supersede);
    return 0;
}
