// Thousands of overlapping operations on the plug-in's own code in-process, on the host
// simulator and the software authenticator, with the wire layer's allocations counted.
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
#include "support/registry_isolation.h"
#include "wire/pdu.h"

namespace {

class Stress {
public:
    explicit Stress(const sim::SoftwareAuthenticator& lib) : lib(lib) {}

    void Mode(int32_t mode) { lib.Mode(mode); }
    bool Blocked() { return lib.WaitBlocked(1); }

    uint32_t Send(uint32_t command, bool withId) {
        const uint32_t id = ++nextId;
        agent::Bytes data = command == kCmdMakeCredential
                                ? agent::EncodeMakeCredentialData(agent::SampleMakeCredential(arena, withId ? 5 : 1, withId))
                                : agent::EncodeGetAssertionData(agent::SampleGetAssertion(arena, withId ? 6 : 1, withId));
        host.DeliverMessage(agent::RequestPdu(id, command, data));
        return id;
    }
    // Cancels the running request: every sample with an id carries the same one.
    void Cancel() {
        host.DeliverMessage(agent::RequestPdu(++nextId, kCmdCancelCurrentOperation, agent::EncodeCancelData(agent::SampleGuid(arena))));
    }
    // Waits until `count` answers in all have come, then a little more for strays.
    bool Settle(size_t count) {
        bool ok = host.WaitForMessages(count, 10000);
        return ok && !host.WaitForMessages(count + 1, 20);
    }
    std::map<uint32_t, int> AnswerCounts() {
        std::map<uint32_t, int> counts;
        for (const auto& m : host.Messages()) ++counts[ReadLe32(m.params[0].data())];
        return counts;
    }

    const sim::SoftwareAuthenticator& lib;
    sim::Host& host = sim::Host::Get();
    agent::SampleArena arena;
    uint32_t nextId = 0;
};

TEST(PluginStress, OverlappingOperationsKeepEveryInvariant) {
    sim::SoftwareAuthenticator lib;
    ASSERT_TRUE(lib.Loaded());
    lib.Reset();
    ScopedHklmOverride isolation;
    sim::Host& host = sim::Host::Get();
    host.Reset();
    CountedAllocations allocations;
    Fido2Client& client = TheFido2Client();
    client.TBXPluginInit(0, &sim::Host::QueryInterface);

    Stress s(lib);
    std::mt19937 random(20261122);
    const int kRounds = 150;
    for (int round = 0; round < kRounds; ++round) {
        std::map<uint32_t, int> expected;  // request id -> answers it must get (0 or 1)
        std::vector<uint32_t> maybe;       // raced by the next request: 0 or 1 answer
        size_t answers = 0;
        TBXUserData instance = 0;
        ASSERT_TRUE(client.TBXPluginCreateInstance(nullptr, &instance));
        host.BringUp();
        for (int step = 0; step < 8; ++step) {
            const uint32_t command = random() % 2 ? kCmdMakeCredential : kCmdGetAssertion;
            switch (random() % 5) {
                case 0: {  // instant
                    s.Mode(SIMAUTH_INSTANT);
                    expected[s.Send(command, random() % 2)] = 1;
                    ASSERT_TRUE(s.Settle(++answers));
                    break;
                }
                case 1: {  // blocked, then superseded by an instant one
                    s.Mode(SIMAUTH_BLOCK_UNTIL_CANCEL);
                    expected[s.Send(command, true)] = 0;
                    ASSERT_TRUE(s.Blocked());
                    s.Mode(SIMAUTH_INSTANT);
                    expected[s.Send(command, true)] = 1;
                    ASSERT_TRUE(s.Settle(++answers));
                    break;
                }
                case 2: {  // blocked, cancelled by the agent: answered with the library's result
                    s.Mode(SIMAUTH_BLOCK_UNTIL_CANCEL);
                    expected[s.Send(command, true)] = 1;
                    ASSERT_TRUE(s.Blocked());
                    s.Cancel();
                    ASSERT_TRUE(s.Settle(++answers));
                    break;
                }
                case 3: {  // blocked, then the channel goes and comes back
                    s.Mode(SIMAUTH_BLOCK_UNTIL_CANCEL);
                    expected[s.Send(command, true)] = 0;
                    ASSERT_TRUE(s.Blocked());
                    host.ReportChannel(TBX_STATE_DISCONNECTED, TBX_STATE_DISCONNECTED);
                    host.BringUp();
                    ASSERT_TRUE(s.Settle(answers));
                    break;
                }
                default: {  // two instant ones back to back: the first races the second
                    s.Mode(SIMAUTH_INSTANT);
                    maybe.push_back(s.Send(command, true));
                    expected[s.Send(command, true)] = 1;
                    host.WaitForMessages(answers + 1, 10000);
                    Sleep(5);
                    answers = host.Messages().size();
                    break;
                }
            }
        }
        ASSERT_TRUE(client.TBXPluginDestroyInstance(instance));
        for (int i = 0; i < 500 && FindInstance(instance); ++i) Sleep(2);
        EXPECT_EQ(FindInstance(instance).Get(), nullptr) << "instance destroyed once the host let go";
        std::map<uint32_t, int> counts = s.AnswerCounts();
        for (const auto& e : expected) {
            ASSERT_EQ(counts[e.first], e.second) << "request " << e.first << " in round " << round;
        }
        for (uint32_t id : maybe) ASSERT_LE(counts[id], 1) << "request " << id;
        host.Reset();
    }
    client.TBXPluginExit();
    EXPECT_EQ(CountedAllocations::Live(), 0) << "every decoded request and every PDU freed";
    EXPECT_EQ(lib.LiveRecords(), 0) << "every library record freed";
    EXPECT_GE(s.nextId, 1000u) << "thousands of requests";
}

}  // namespace
