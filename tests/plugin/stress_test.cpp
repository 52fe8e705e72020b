// Thousands of overlapping operations with the wire layer's allocations counted. Each carries a
// cancellation id of its own, so a late cancel can only hit the operation it was meant for, and
// each answer's HRESULT is checked against what its ending must give.
#include <map>
#include <random>

#include "plugin_host_fixture.h"
#include "support/counted_allocations.h"

namespace {

constexpr uint32_t kNotFound = 0x80090011;
constexpr uint32_t kNoAnswer = 0xFFFFFFFF;

class PluginStress : public PluginOnHost {
protected:
    // A request with (or without) a cancellation id of its own; returns the request id.
    uint32_t Send(uint32_t command, bool withId) {
        const uint32_t id = ++nextId;
        webauthn::GUID* guid = withId ? guids[id] = arena.New<webauthn::GUID>() : nullptr;
        if (guid) guid->Data1 = id;
        if (command == kCmdMakeCredential) {
            host.DeliverMessage(MakeCredential(id, guid, withId ? 5 : 1, withId));
        } else {
            auto sample = agent::SampleGetAssertion(arena, withId ? 6 : 1, withId);
            if (withId) sample.pGetAssertionOptions->pCancellationId = guid;
            host.DeliverMessage(agent::RequestPdu(id, command, agent::EncodeGetAssertionData(sample)));
        }
        return id;
    }
    // What an operation that the library finishes at once answers: a full get-assertion names
    // only credentials the authenticator doesn't have.
    static uint32_t Instant(uint32_t command, bool withId) { return command == kCmdGetAssertion && withId ? kNotFound : 0; }
    // Waits until `count` answers in all have come, then a little more for strays.
    bool Settle(size_t count) { return host.WaitForMessages(count, 10000) && !host.WaitForMessages(count + 1, 20); }
    // Request id -> the HRESULTs of its answers, in order.
    std::map<uint32_t, std::vector<uint32_t>> Answered() {
        std::map<uint32_t, std::vector<uint32_t>> answers;
        for (const auto& [id, hr] : AnswerIds()) answers[id].push_back(hr);
        return answers;
    }

    std::map<uint32_t, webauthn::GUID*> guids;
    uint32_t nextId = 0;
};

TEST_F(PluginStress, OverlappingOperationsKeepEveryInvariant) {
    CountedAllocations allocations;
    std::mt19937 random(20261122);
    for (int round = 0; round < 150; ++round) {
        std::map<uint32_t, uint32_t> expected;  // request id -> the HRESULT of its one answer, or kNoAnswer
        std::map<uint32_t, uint32_t> maybe;     // raced by the next request: no answer, or this HRESULT
        size_t answers = 0;
        host.Reset();
        const TBXUserData instance = NewInstance();
        if (round == 0) {  // a credential for the get-assertions without allow list
            library.Mode(SIMAUTH_INSTANT);
            expected[Send(kCmdMakeCredential, false)] = 0;
            ASSERT_TRUE(Settle(++answers));
        }
        for (int step = 0; step < 8; ++step) {
            const uint32_t command = random() % 2 ? kCmdMakeCredential : kCmdGetAssertion;
            const int kind = random() % 5;
            if (kind == 0) {  // instant
                const bool withId = random() % 2;
                library.Mode(SIMAUTH_INSTANT);
                expected[Send(command, withId)] = Instant(command, withId);
                ASSERT_TRUE(Settle(++answers));
            } else if (kind == 4) {  // two instant ones back to back: the stop of the first races its answer
                library.Mode(SIMAUTH_INSTANT);
                maybe[Send(command, true)] = Instant(command, true);
                const uint32_t second = Send(command, true);
                expected[second] = Instant(command, true);
                // The first is joined before the second starts: its answer, if any, comes first.
                ASSERT_TRUE(host.WaitForMessages(answers + 1, 10000));
                if (Answered()[second].empty()) {
                    ASSERT_TRUE(host.WaitForMessages(answers + 2, 10000));
                }
                answers = host.Messages().size();
                ASSERT_TRUE(Settle(answers));
            } else {  // blocked in the library, then ended three ways
                library.Mode(SIMAUTH_BLOCK_UNTIL_CANCEL);
                const uint32_t id = Send(command, true);
                ASSERT_TRUE(library.WaitBlocked(1));
                if (kind == 1) {  // superseded by an instant one
                    expected[id] = kNoAnswer;
                    library.Mode(SIMAUTH_INSTANT);
                    expected[Send(command, true)] = Instant(command, true);
                    ++answers;
                } else if (kind == 2) {  // cancelled by the agent: answered with the library's result
                    expected[id] = kCancelledHr;
                    Cancel(++nextId, guids[id]);
                    ++answers;
                } else {  // the channel goes and comes back
                    expected[id] = kNoAnswer;
                    host.ReportChannel(TBX_STATE_DISCONNECTED, TBX_STATE_DISCONNECTED);
                    host.BringUp();
                }
                ASSERT_TRUE(Settle(answers));
            }
        }
        Destroy(instance);
        EXPECT_EQ(FindInstance(instance).Get(), nullptr) << "instance destroyed once the host let go";
        EXPECT_EQ(library.RunningCallers(), 0) << "no worker outlives the destroy";
        auto answered = Answered();
        for (const auto& [id, hr] : expected) {
            ASSERT_EQ(answered[id], hr == kNoAnswer ? std::vector<uint32_t>{} : std::vector<uint32_t>{hr})
                << "request " << id << " in round " << round;
        }
        for (const auto& [id, hr] : maybe) {
            if (!answered[id].empty()) {
                ASSERT_EQ(answered[id], std::vector<uint32_t>{hr}) << "request " << id;
            }
        }
    }
    EXPECT_EQ(CountedAllocations::Live(), 0) << "every decoded request and every PDU freed";
    EXPECT_EQ(library.Killed(), 0) << "every stop cancelled its worker";
    EXPECT_GE(nextId, 1000u) << "thousands of requests";
}

}  // namespace
