#include "sim/soak.h"

#include <windows.h>

#include <chrono>
#include <cstdio>
#include <fstream>

#include "sim/agent_codec.h"
#include "sim/agent_responses.h"
#include "sim/agent_samples.h"
#include "sim/authenticator_client.h"
#include "sim/host_sim.h"
#include "sim/process_resources.h"
#include "sim/soak_log.h"
#include "sim/soak_trend.h"

namespace sim {

namespace {

using agent::RequestPdu;
using Clock = std::chrono::steady_clock;

constexpr uint32_t kCancelledHr = 0x800704C7;
// Long enough for a loaded machine; only a fault makes the soak wait this long.
constexpr uint32_t kAnswerWaitMs = 10000;
// After the last step of a round: an answer that was not due would come within this.
constexpr uint32_t kSettleMs = 200;

struct ResourceSample {
    double seconds;
    uint64_t iterations;
    double privateBytes;
    double handles;
    double threads;
    double heapBytes;
    double poolBytes;
};

class Soak {
public:
    Soak(const SoakOptions& options, std::ostream& out, std::ostream& err) : options(options), out(out), err(err) {}

    int Run() {
        if (!log.Configure(err)) return 2;
        if (!authenticator.Loaded() || !host.LoadPlugin()) {
            err << "soak: fido2Client.dll or the software authenticator could not be loaded\n";
            return 2;
        }
        csv.open(options.csvPath, std::ios::binary | std::ios::trunc);
        if (!csv) {
            err << "soak: cannot write " << options.csvPath << "\n";
            return 2;
        }
        csv << "seconds,iterations,private_bytes,handles,threads,heap_bytes,log_pool_bytes\n";
        host.strict = true;
        host.Init();
        start = Clock::now();
        Sample();
        double nextSample = options.sampleSeconds;
        bool ok = true;
        while (ok && Elapsed() < options.seconds) {
            ok = Round();
            ++iterations;
            if (Elapsed() >= nextSample) {
                Sample();
                nextSample += options.sampleSeconds;
            }
        }
        host.Exit();
        ok = NoViolations() && ok;
        ok = log.Check(out, err) && ok;
        bool flat = Judge();
        out << iterations << " rounds in " << static_cast<int>(Elapsed()) << " s, " << samples.size()
            << " samples in " << options.csvPath << "\n";
        out << (ok && flat ? "Every answer accounted for; no resource rising.\n" : "The soak failed.\n");
        return ok && flat ? 0 : 1;
    }

private:
    // Beside the CSV.
    std::string LogFolder() const {
        char full[MAX_PATH];
        DWORD length = GetFullPathNameA(options.csvPath.c_str(), MAX_PATH, full, nullptr);
        std::string path = length > 0 && length < MAX_PATH ? full : options.csvPath;
        size_t slash = path.find_last_of("\\/");
        return (slash == std::string::npos ? std::string(".") : path.substr(0, slash)) + "\\soak-log";
    }

    double Elapsed() const { return std::chrono::duration<double>(Clock::now() - start).count(); }

    bool Fail(const std::string& what) {
        err << "soak: round " << iterations + 1 << ": " << what << "\n";
        return false;
    }

    // Sends a request that must be answered, and returns the answer's data; the answer must
    // be the next message and carry the request's id.
    bool Ask(uint32_t command, const Bytes& data, Bytes* answer, const char* what) {
        uint32_t id = nextId++;
        size_t before = host.Messages().size();
        host.DeliverMessage(RequestPdu(id, command, data));
        due.push_back(id);
        uint32_t answered = 0;
        if (!host.WaitForMessages(before + 1, kAnswerWaitMs) ||
            !agent::SplitResponsePdu(host.Messages()[before].params[0], &answered, answer) || answered != id) {
            return Fail(std::string(what) + ": no answer with the request's id");
        }
        return true;
    }

    // Sends a request that stays in the library until something ends it.
    bool Blocked(const char* what, uint32_t* id) {
        authenticator.Mode(SIMAUTH_BLOCK_UNTIL_CANCEL);
        *id = nextId++;
        auto request = agent::SampleMakeCredential(arena, 2, true);
        lastCancellationId = request.pMakeCredentialOptions->pCancellationId;
        host.DeliverMessage(RequestPdu(*id, 3, agent::EncodeMakeCredentialData(request)));
        if (!authenticator.WaitBlocked(1, kAnswerWaitMs)) return Fail(std::string(what) + ": never reached the library");
        return true;
    }

    bool Round() {
        due.clear();
        arena = agent::SampleArena();
        TBXUserData instance = 0;
        if (!host.CreateInstance(&instance)) return Fail("the instance was not created");
        host.BringUp();
        bool ok = Road();
        authenticator.Mode(SIMAUTH_INSTANT);
        host.DestroyInstance(instance);
        ok = Accounted() && ok;
        ok = NoViolations() && ok;
        if (authenticator.LiveRecords() != 0) ok = Fail("records of the library not given back");
        // The authenticator is reset only after a fault, which may have left an operation
        // blocked: a reset also ends its crypto thread, and a thread that used CNG costs memory
        // when it ends. Its store keeps only the newest credentials, so it doesn't grow.
        if (!ok) authenticator.Reset();
        host.Reset();
        return ok;
    }

    bool Road() {
        Bytes data;
        if (!Ask(1, {}, &data, "ready probe") || data.empty()) return Fail("ready probe: empty answer");
        if (!Ask(1, {3, 0, 1, 2}, &data, "client info") || data != Bytes{0, 0, 0, 1}) {
            return Fail("client info: not version 1.0.0");
        }
        if (!Ask(2, {}, &data, "API version") || data != Bytes{4, 0, 0, 0}) return Fail("API version: not 4");

        // The instant variant: both ceremonies answered at once.
        agent::AttestationAnswer attestation;
        auto make = agent::SampleMakeCredential(arena, 4, false);
        if (!Ask(3, agent::EncodeMakeCredentialData(make), &data, "make credential") ||
            !agent::DecodeAttestationAnswer(data, &attestation) || attestation.hr != 0 || !attestation.present) {
            return Fail("make credential: no attestation with hr 0");
        }
        auto get = agent::SampleGetAssertion(arena, 1, false);
        webauthn::WEBAUTHN_CREDENTIAL allow{1, static_cast<uint32_t>(attestation.credentialId.size()),
                                            attestation.credentialId.data(), nullptr};
        get.pGetAssertionOptions->CredentialList = {1, &allow};
        agent::AssertionAnswer assertion;
        if (!Ask(4, agent::EncodeGetAssertionData(get), &data, "get assertion") ||
            !agent::DecodeAssertionAnswer(data, &assertion) || assertion.hr != 0 || !assertion.present) {
            return Fail("get assertion: no assertion with hr 0");
        }

        // The blocking variant, ended by a cancel by id: the operation answers cancelled, the
        // cancel itself is never answered.
        size_t before = host.Messages().size();
        uint32_t cancelled = 0;
        if (!Blocked("cancel", &cancelled)) return false;
        due.push_back(cancelled);
        host.DeliverMessage(RequestPdu(nextId++, 5, agent::EncodeCancelData(lastCancellationId)));
        agent::AttestationAnswer answer;
        uint32_t id = 0;
        if (!host.WaitForMessages(before + 1, kAnswerWaitMs) ||
            !agent::SplitResponsePdu(host.Messages()[before].params[0], &id, &data) || id != cancelled ||
            !agent::DecodeAttestationAnswer(data, &answer) || answer.hr != kCancelledHr) {
            return Fail("cancel: the operation was not answered cancelled");
        }

        // Superseded: the blocked one goes unanswered, the newer one is answered.
        uint32_t superseded = 0;
        if (!Blocked("supersede", &superseded)) return false;
        authenticator.Mode(SIMAUTH_INSTANT);
        if (!Ask(3, agent::EncodeMakeCredentialData(agent::SampleMakeCredential(arena, 2, true)), &data,
                 "superseding make credential")) {
            return false;
        }

        // Channel loss during an operation: the worker stops and nothing is answered.
        uint32_t lost = 0;
        if (!Blocked("channel loss", &lost)) return false;
        host.ReportChannel(TBX_STATE_DISCONNECTED, TBX_STATE_DISCONNECTED);
        if (authenticator.Blocked() != 0) return Fail("channel loss: the operation is still in the library");
        return true;
    }

    // The messages of the round are exactly the answers due, in order: nothing after a
    // cancel's own answer, for a superseded request or after a loss.
    bool Accounted() {
        host.WaitForMessages(due.size() + 1, kSettleMs);
        std::vector<SentMessage> messages = host.Messages();
        bool ok = messages.size() == due.size();
        for (size_t i = 0; ok && i < messages.size(); ++i) {
            uint32_t id = 0;
            Bytes data;
            ok = !messages[i].params.empty() && agent::SplitResponsePdu(messages[i].params[0], &id, &data) &&
                 id == due[i];
        }
        if (!ok) {
            Fail(std::to_string(messages.size()) + " answers sent where " + std::to_string(due.size()) +
                 " were due, or not in their order");
        }
        return ok;
    }

    bool NoViolations() {
        std::vector<std::string> violations = host.TakeViolations();
        for (const auto& v : violations) Fail("host contract: " + v);
        return violations.empty();
    }

    void Sample() {
        ProcessResources now = SampleProcessResources();
        ResourceSample s{Elapsed(), iterations, static_cast<double>(now.privateBytes), static_cast<double>(now.handles),
                         static_cast<double>(now.threads), static_cast<double>(now.heapBytes),
                         static_cast<double>(log.PoolBytes())};
        samples.push_back(s);
        char row[128];
        snprintf(row, sizeof(row), "%.1f,%llu,%.0f,%.0f,%.0f,%.0f,%.0f\n", s.seconds,
                 static_cast<unsigned long long>(s.iterations), s.privateBytes, s.handles, s.threads, s.heapBytes,
                 s.poolBytes);
        // Flushed row by row: a long run stopped early still leaves its figures.
        csv << row << std::flush;
    }

    bool Judge() {
        struct Series {
            const char* name;
            double ResourceSample::*field;
            TrendTolerance tolerance;
            bool lessPool;
        };
        // Memory, committed or in live heap blocks, less the log's message pool, which is judged
        // by its own rules: the allocator and the loader grow in steps of pages and arenas, so
        // 2 % or 512 KiB; handles and threads are counts that a settled process holds still, so
        // a few of slack for a worker caught between its last answer and its exit.
        const Series series[] = {
            {"private_bytes less the log's pool", &ResourceSample::privateBytes, {0.02, 512.0 * 1024}, true},
            {"handles", &ResourceSample::handles, {0, 3}, false},
            {"threads", &ResourceSample::threads, {0, 1}, false},
            {"heap_bytes less the log's pool", &ResourceSample::heapBytes, {0.02, 512.0 * 1024}, true},
        };
        bool flat = true;
        for (const auto& one : series) {
            std::vector<double> values;
            for (const auto& s : samples) values.push_back(s.*one.field - (one.lessPool ? s.poolBytes : 0));
            TrendVerdict verdict = JudgeTrend(values, one.tolerance);
            out << one.name << ": middle third " << static_cast<long long>(verdict.middleMean) << ", last third "
                << static_cast<long long>(verdict.lastMean);
            if (!verdict.decided) {
                out << ": too few samples to tell\n";
                flat = false;
            } else {
                out << (verdict.rising ? ": RISING\n" : ": flat\n");
                flat = flat && !verdict.rising;
            }
        }
        return flat;
    }

    const SoakOptions& options;
    std::ostream& out;
    std::ostream& err;
    Host& host = Host::Get();
    // First of the soak's own parts: the plug-in's log settings are in place before it loads.
    SoakLog log{LogFolder()};
    SoftwareAuthenticator authenticator;
    agent::SampleArena arena;
    const webauthn::GUID* lastCancellationId = nullptr;
    std::vector<uint32_t> due;
    uint32_t nextId = 1;
    uint64_t iterations = 0;
    Clock::time_point start;
    std::vector<ResourceSample> samples;
    std::ofstream csv;
};

}  // namespace

int RunSoak(const SoakOptions& options, std::ostream& out, std::ostream& err) {
    Soak soak(options, out, err);
    return soak.Run();
}

}  // namespace sim
