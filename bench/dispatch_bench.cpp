// Dispatch of the plug-in on the host simulator with the instant software authenticator, split
// at the points where the plug-in's own work meets the threads of its workers:
//   own request work: delivered -> worker thread about to be made, plus worker entered ->
//                     library entered (frame check, copy, decode and the glue around them),
//                     without the stop of the operation before;
//   previous stop:    the stop of the operation before, which has ended: its thread joined and
//                     released;
//   thread start:     worker thread about to be made -> worker entered;
//   own answer work:  library returned -> answer handed to the host (encode, message, post);
//   supersede:        a new request while the old one waits in the library, until the
//                     delivery thread returns (old worker cancelled and joined, new one started).
// Each against its floor, measured in the same run and interleaved with it: the same steps done
// bare (a bare thread with the same COM initialisation, started, or joined once it has ended;
// the frame check, copy and decode, or the encode, called directly; a bare thread ended by an
// event and joined, then a new one). Beside them, what one lock and unlock of a kernel mutex
// costs, the unit in which Wine charges the foundation's locks and events (each is a request to
// the Wine server).
// The plug-in is linked in, so that its operation checkpoints can read the clock.
#include <windows.h>
#include <objbase.h>
#include <pthread.h>

#include <atomic>
#include <cstdio>
#include <thread>
#include <vector>

#include "bench/bench_clock.h"
#include "bench/bench_figures.h"
#include "plugin/fido2_client.h"
#include "plugin/fido2_client_plugin.h"
#include "plugin/webauthn_binding.h"
#include "sim/agent_codec.h"
#include "sim/agent_samples.h"
#include "sim/authenticator_client.h"
#include "sim/host_sim.h"
#include "wire/pdu.h"
#include "wire/record_release.h"
#include "wire/request_decoders.h"
#include "wire/response_encoders.h"

namespace {

using bench::Now;
using bench::TicksPerMicrosecond;

// What the operation checkpoints saw of the last operation.
std::atomic<int64_t> stopping{0};
std::atomic<int64_t> stopped{0};
std::atomic<int64_t> startingWorker{0};
std::atomic<int64_t> workerEntered{0};
std::atomic<DWORD> workerId{0};

void Stamp(int point) {
    if (point == kPointStopping) {
        stopping = Now();
    } else if (point == kPointStopped) {
        stopped = Now();
    } else if (point == kPointStartingWorker) {
        startingWorker = Now();
    } else if (point == kPointWorkerEntered) {
        workerEntered = Now();
        workerId = GetCurrentThreadId();
    }
}

// Waits until the last worker has left its thread, so that a round never pays for the end of
// the one before.
bool WaitForWorkerExit() {
    HANDLE thread = OpenThread(SYNCHRONIZE, FALSE, workerId.load());
    if (!thread) return false;
    const bool gone = WaitForSingleObject(thread, 10000) == WAIT_OBJECT_0;
    CloseHandle(thread);
    return gone;
}

// A bare thread with the worker's COM initialisation: ticks from its creation to its first
// step after CoInitializeEx, and of its join once it has left.
struct BareThread {
    int64_t start;
    int64_t join;
};

BareThread BareThreadLife() {
    std::atomic<int64_t> began{0};
    const int64_t start = Now();
    std::thread thread([&] {
        CoInitializeEx(nullptr, COINIT_MULTITHREADED);
        began = Now();
        CoUninitialize();
    });
    HANDLE handle = OpenThread(SYNCHRONIZE, FALSE, GetThreadId(pthread_gethandle(thread.native_handle())));
    while (began == 0) SwitchToThread();
    WaitForSingleObject(handle, INFINITE);
    CloseHandle(handle);
    const int64_t joining = Now();
    thread.join();
    return BareThread{began - start, Now() - joining};
}

// The least a supersede has to do: end a thread that waits, join it and start the next one.
int64_t BareSupersede() {
    HANDLE cancel = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    std::atomic<bool> waiting{false};
    std::thread old([&] {
        CoInitializeEx(nullptr, COINIT_MULTITHREADED);
        waiting = true;
        WaitForSingleObject(cancel, INFINITE);
        CoUninitialize();
    });
    while (!waiting) SwitchToThread();
    std::atomic<bool> running{false};
    const int64_t start = Now();
    SetEvent(cancel);
    old.join();
    std::thread next([&] {
        CoInitializeEx(nullptr, COINIT_MULTITHREADED);
        running = true;
        CoUninitialize();
    });
    while (!running) SwitchToThread();
    const int64_t took = Now() - start;
    next.join();
    CloseHandle(cancel);
    return took;
}

}  // namespace

int main(int argc, char** argv) {
    const bench::Options options = bench::ParseOptions("dispatch_bench", argc, argv, 500);
    if (!options.ok) return 2;
    sim::SoftwareAuthenticator auth;
    sim::Host& host = sim::Host::Get();
    if (!auth.Loaded()) {
        fprintf(stderr, "dispatch_bench: the software authenticator is missing\n");
        return 2;
    }
    auto callTimes = auth.Get<SimAuth_LastCallTimesFn>("SimAuth_LastCallTimes");
    auth.Reset();
    TBXUserData instance = 0;
    if (!TheFido2Client().TBXPluginInit(0, &sim::Host::QueryInterface) ||
        !TheFido2Client().TBXPluginCreateInstance(nullptr, &instance)) {
        fprintf(stderr, "dispatch_bench: the plug-in does not start\n");
        return 2;
    }
    host.BringUp();
    SetOperationCheckpoint(Stamp);

    agent::SampleArena arena;
    const agent::Bytes data = agent::EncodeMakeCredentialData(agent::SampleMakeCredential(arena, 2, true));
    const agent::Bytes pdu = agent::RequestPdu(1, kCmdMakeCredential, data);

    // A real attestation of the authenticator, for the bare encode.
    webauthn::Fido2MakeCredentialRequest* decoded =
        webauthn::Decode_AuthenticatorMakeCredentialRequest(data.data(), data.data() + data.size());
    webauthn::WEBAUTHN_CREDENTIAL_ATTESTATION* attestation = nullptr;
    auto makeCredential = auth.Get<webauthn::MakeCredentialFn>("WebAuthNAuthenticatorMakeCredential");
    auto freeAttestation = auth.Get<webauthn::FreeCredentialAttestationFn>("WebAuthNFreeCredentialAttestation");
    if (!decoded || makeCredential(nullptr, decoded->pRpInformation, decoded->pUserInformation,
                                   decoded->pPubKeyCredParams, decoded->pClientData, decoded->pMakeCredentialOptions,
                                   &attestation) < 0) {
        fprintf(stderr, "dispatch_bench: no attestation to encode\n");
        return 2;
    }

    const double perUs = TicksPerMicrosecond();
    std::vector<double> ownRequest, ownAnswer, previousStop, bareJoin, threadStart, bareStart, requestFloor,
        answerFloor, mutexPair;
    HANDLE kernelMutex = CreateMutexA(nullptr, FALSE, nullptr);
    auth.Mode(SIMAUTH_INSTANT);
    for (int i = 0; i < options.rounds; ++i) {
        const size_t before = host.Messages().size();
        stopping = stopped = startingWorker = workerEntered = 0;
        const int64_t delivered = Now();
        host.DeliverMessage(agent::RequestPdu(static_cast<uint32_t>(i), kCmdMakeCredential, data));
        if (!host.WaitForMessages(before + 1, 10000) || !WaitForWorkerExit()) {
            fprintf(stderr, "dispatch_bench: no answer in round %d\n", i);
            return 1;
        }
        LONGLONG entered = 0, returned = 0;
        callTimes(&entered, &returned);
        const int64_t stopBegan = stopping, stopEnded = stopped, starting = startingWorker, inWorker = workerEntered;
        const int64_t sent = host.Messages()[before].sentTicks;
        if (!(delivered < stopBegan && stopBegan <= stopEnded && stopEnded <= starting && starting < inWorker &&
              inWorker < entered && returned <= sent)) {
            fprintf(stderr, "dispatch_bench: the operation's checkpoints are out of order or missing\n");
            return 1;
        }
        ownRequest.push_back(((stopBegan - delivered) + (starting - stopEnded) + (entered - inWorker)) / perUs);
        previousStop.push_back((stopEnded - stopBegan) / perUs);
        threadStart.push_back((inWorker - starting) / perUs);
        ownAnswer.push_back((sent - returned) / perUs);

        const BareThread bare = BareThreadLife();
        bareStart.push_back(bare.start / perUs);
        bareJoin.push_back(bare.join / perUs);

        int64_t start = Now();
        RequestHeader header{};
        uint64_t total = 0;
        const bool framed = CheckRequestFrame(pdu.data(), static_cast<uint32_t>(pdu.size()), &header, &total) ==
                            FrameCheck::Ok;
        uint8_t* copy = DuplicateRequestPdu(pdu.data());
        webauthn::Fido2MakeCredentialRequest* request =
            webauthn::Decode_AuthenticatorMakeCredentialRequest(copy + kRequestHeaderSize, copy + total);
        requestFloor.push_back((Now() - start) / perUs);
        if (!framed || !request) return 1;
        webauthn::Free_AuthenticatorMakeCredentialRequest(request);
        FreePdu(copy);

        start = Now();
        const uint32_t dataLen = webauthn::Size_AuthenticatorMakeCredentialResponse(attestation);
        uint8_t* answer = AllocResponsePdu(dataLen, 1);
        const bool encoded = answer && webauthn::Encode_AuthenticatorMakeCredentialResponse(
                                           answer + kResponseHeaderSize, answer + kResponseHeaderSize + dataLen, 0,
                                           attestation) != 0;
        answerFloor.push_back((Now() - start) / perUs);
        FreePdu(answer);
        if (!encoded) return 1;

        start = Now();
        WaitForSingleObject(kernelMutex, INFINITE);
        ReleaseMutex(kernelMutex);
        mutexPair.push_back((Now() - start) / perUs);
    }
    CloseHandle(kernelMutex);

    std::vector<double> supersede, bareSupersede;
    for (int i = 0; i < options.rounds / 5 + 1; ++i) {
        auth.Mode(SIMAUTH_BLOCK_UNTIL_CANCEL);
        const size_t before = host.Messages().size();
        host.DeliverMessage(agent::RequestPdu(1, kCmdMakeCredential, data));
        if (!auth.WaitBlocked(1, 10000)) return 1;
        auth.Mode(SIMAUTH_INSTANT);
        const int64_t start = Now();
        host.DeliverMessage(agent::RequestPdu(2, kCmdMakeCredential, data));
        supersede.push_back((Now() - start) / perUs / 1000);
        if (!host.WaitForMessages(before + 1, 10000) || !WaitForWorkerExit()) return 1;
        bareSupersede.push_back(BareSupersede() / perUs / 1000);
    }
    SetOperationCheckpoint(nullptr);
    TheFido2Client().TBXPluginDestroyInstance(instance);
    TheFido2Client().TBXPluginExit();
    freeAttestation(attestation);
    webauthn::Free_AuthenticatorMakeCredentialRequest(decoded);

    bench::Figures figures;
    figures.Add("rounds", options.rounds);
    figures.AddSeries("own_request", "us", ownRequest);
    figures.AddSeries("own_request_floor", "us", requestFloor);
    figures.AddSeries("own_answer", "us", ownAnswer);
    figures.AddSeries("own_answer_floor", "us", answerFloor);
    figures.AddSeries("previous_stop", "us", previousStop);
    figures.AddSeries("bare_join", "us", bareJoin);
    figures.AddSeries("thread_start", "us", threadStart);
    figures.AddSeries("bare_thread_start", "us", bareStart);
    figures.AddSeries("kernel_mutex_pair", "us", mutexPair);
    figures.AddSeries("supersede", "ms", supersede);
    figures.AddSeries("bare_supersede", "ms", bareSupersede);
    figures.Print(options.json);
    return 0;
}
