// Thousands of overlapping operations on the plug-in's own code in-process, on the host
// simulator and the software authenticator, with the wire layer's allocations counted. Every
// operation carries a cancellation id of its own, so a cancel that comes late can only hit the
// operation it was meant for, and every answer's HRESULT is checked against what its ending
// must give.
#include <gtest/gtest.h>
#include <windows.h>

#include <atomic>
#include <cstdlib>
#include <map>
#include <random>

#include "channel/rpc_manager.h"
#include "channel/rpc_plugin_instance.h"
#include "plugin/fido2_client.h"
#include "sim/agent_codec.h"
#include "sim/agent_samples.h"
#include "sim/authenticator_client.h"
#include "sim/host_sim.h"
#include "support/counted_allocations.h"
#include "support/host_contract.h"
#include "support/registry_isolation.h"
#include "wire/pdu.h"

namespace {

constexpr uint32_t kOk = 0;
constexpr uint32_t kCancelled = 0x800704C7;
constexpr uint32_t kNotFound = 0x80090011;
constexpr uint32_t kNoAnswer = 0xFFFFFFFF;

class Stress {
public:
    explicit Stress(const sim::SoftwareAuthenticator& lib) : lib(lib) {}

    void Mode(int32_t mode) { lib.Mode(mode); }
    bool Blocked() { return lib.WaitBlocked(1); }

    // A request with (or without) a cancellation id of its own; returns the request id.
    uint32_t Send(uint32_t command, bool withId) {
        const uint32_t id = ++nextId;
        webauthn::GUID* guid = nullptr;
        if (withId) {
            guid = arena.New<webauthn::GUID>();
            guid->Data1 = id;
            guid->Data2 = 0x57;
            guids[id] = guid;
        }
        agent::Bytes data;
        if (command == kCmdMakeCredential) {
            auto sample = agent::SampleMakeCredential(arena, withId ? 5 : 1, withId);
            if (withId) sample.pMakeCredentialOptions->pCancellationId = guid;
            data = agent::EncodeMakeCredentialData(sample);
        } else {
            auto sample = agent::SampleGetAssertion(arena, withId ? 6 : 1, withId);
            if (withId) sample.pGetAssertionOptions->pCancellationId = guid;
            data = agent::EncodeGetAssertionData(sample);
        }
        host.DeliverMessage(agent::RequestPdu(id, command, data));
        return id;
    }
    // What an operation that the library finishes at once answers: a full get-assertion
    // names only credentials the authenticator doesn't have.
    static uint32_t InstantResult(uint32_t command, bool withId) {
        return command == kCmdGetAssertion && withId ? kNotFound : kOk;
    }
    // The agent cancels one operation by its id.
    void Cancel(uint32_t requestId) {
        host.DeliverMessage(agent::RequestPdu(++nextId, kCmdCancelCurrentOperation, agent::EncodeCancelData(guids[requestId])));
    }
    // Waits until `count` answers in all have come, then a little more for strays.
    bool Settle(size_t count) {
        bool ok = host.WaitForMessages(count, 10000);
        return ok && !host.WaitForMessages(count + 1, 20);
    }
    // Request id -> the HRESULTs of its answers, in order.
    std::map<uint32_t, std::vector<uint32_t>> Answers() {
        std::map<uint32_t, std::vector<uint32_t>> answers;
        for (const auto& m : host.Messages()) {
            const agent::Bytes& pdu = m.params[0];
            answers[ReadLe32(pdu.data())].push_back(pdu.size() >= 12 ? ReadLe32(pdu.data() + 8) : kNoAnswer);
        }
        return answers;
    }

    const sim::SoftwareAuthenticator& lib;
    sim::Host& host = sim::Host::Get();
    agent::SampleArena arena;
    std::map<uint32_t, webauthn::GUID*> guids;
    uint32_t nextId = 0;
};

TEST(PluginStress, OverlappingOperationsKeepEveryInvariant) {
    sim::SoftwareAuthenticator lib;
    ASSERT_TRUE(lib.Loaded());
    lib.Reset();
    ScopedHklmOverride isolation;
    sim::Host& host = sim::Host::Get();
    host.Reset();
    StartStrictHost(host);
    CountedAllocations allocations;
    Fido2Client& client = TheFido2Client();
    client.TBXPluginInit(0, &sim::Host::QueryInterface);

    Stress s(lib);
    std::mt19937 random(20261122);
    const int kRounds = 150;
    for (int round = 0; round < kRounds; ++round) {
        std::map<uint32_t, uint32_t> expected;  // request id -> the HRESULT of its one answer, or kNoAnswer
        std::map<uint32_t, uint32_t> maybe;     // raced by the next request: no answer, or this HRESULT
        size_t answers = 0;
        TBXUserData instance = 0;
        ASSERT_TRUE(client.TBXPluginCreateInstance(nullptr, &instance));
        host.BringUp();
        if (round == 0) {  // a credential for the get-assertions without allow list
            s.Mode(SIMAUTH_INSTANT);
            expected[s.Send(kCmdMakeCredential, false)] = kOk;
            ASSERT_TRUE(s.Settle(++answers));
        }
        for (int step = 0; step < 8; ++step) {
            const uint32_t command = random() % 2 ? kCmdMakeCredential : kCmdGetAssertion;
            switch (random() % 5) {
                case 0: {  // instant
                    const bool withId = random() % 2;
                    s.Mode(SIMAUTH_INSTANT);
                    expected[s.Send(command, withId)] = Stress::InstantResult(command, withId);
                    ASSERT_TRUE(s.Settle(++answers));
                    break;
                }
                case 1: {  // blocked, then superseded by an instant one
                    s.Mode(SIMAUTH_BLOCK_UNTIL_CANCEL);
                    expected[s.Send(command, true)] = kNoAnswer;
                    ASSERT_TRUE(s.Blocked());
                    s.Mode(SIMAUTH_INSTANT);
                    expected[s.Send(command, true)] = Stress::InstantResult(command, true);
                    ASSERT_TRUE(s.Settle(++answers));
                    break;
                }
                case 2: {  // blocked, cancelled by the agent: answered with the library's result
                    s.Mode(SIMAUTH_BLOCK_UNTIL_CANCEL);
                    const uint32_t id = s.Send(command, true);
                    expected[id] = kCancelled;
                    ASSERT_TRUE(s.Blocked());
                    s.Cancel(id);
                    ASSERT_TRUE(s.Settle(++answers));
                    break;
                }
                case 3: {  // blocked, then the channel goes and comes back
                    s.Mode(SIMAUTH_BLOCK_UNTIL_CANCEL);
                    expected[s.Send(command, true)] = kNoAnswer;
                    ASSERT_TRUE(s.Blocked());
                    host.ReportChannel(TBX_STATE_DISCONNECTED, TBX_STATE_DISCONNECTED);
                    host.BringUp();
                    ASSERT_TRUE(s.Settle(answers));
                    break;
                }
                default: {  // two instant ones back to back: the stop of the first races its answer
                    s.Mode(SIMAUTH_INSTANT);
                    maybe[s.Send(command, true)] = Stress::InstantResult(command, true);
                    const uint32_t second = s.Send(command, true);
                    expected[second] = Stress::InstantResult(command, true);
                    // The first is joined before the second starts: its answer, if any, comes first.
                    ASSERT_TRUE(host.WaitForMessages(answers + 1, 10000));
                    if (s.Answers()[second].empty()) {
                        ASSERT_TRUE(host.WaitForMessages(answers + 2, 10000));
                    }
                    answers = host.Messages().size();
                    ASSERT_TRUE(s.Settle(answers));
                    break;
                }
            }
        }
        ASSERT_TRUE(client.TBXPluginDestroyInstance(instance));
        EXPECT_EQ(FindInstance(instance).Get(), nullptr) << "instance destroyed once the host let go";
        EXPECT_EQ(lib.RunningCallers(), 0) << "no worker outlives the destroy";
        auto answered = s.Answers();
        for (const auto& e : expected) {
            const std::vector<uint32_t> want =
                e.second == kNoAnswer ? std::vector<uint32_t>{} : std::vector<uint32_t>{e.second};
            ASSERT_EQ(answered[e.first], want) << "request " << e.first << " in round " << round;
        }
        for (const auto& m : maybe) {
            if (!answered[m.first].empty()) {
                ASSERT_EQ(answered[m.first], std::vector<uint32_t>{m.second}) << "request " << m.first;
            }
        }
        host.Reset();
    }
    client.TBXPluginExit();
    ExpectHostContractKept(host);
    EXPECT_EQ(CountedAllocations::Live(), 0) << "every decoded request and every PDU freed";
    EXPECT_EQ(lib.LiveRecords(), 0) << "every library record freed";
    EXPECT_EQ(lib.Killed(), 0) << "every stop cancelled its worker";
    EXPECT_GE(s.nextId, 1000u) << "thousands of requests";
}

}  // namespace
