// A stop meeting the worker at each point of its road, held there until the stop waits, with the
// library blocking until cancelled: a stop that fails to cancel leaves a kill the authenticator
// counts. Each case in a fresh process, the library's one load still to come. And a worker short
// of its thread or answer memory: nothing escapes into the host's callback, nothing is kept.
#include <atomic>
#include <system_error>

#include "foundation/sy_timer.h"
#include "plugin_host_fixture.h"
#include "plugin/webauthn_binding.h"
#include "support/counted_allocations.h"

namespace {

std::atomic<int> holdAt{0};
HANDLE reached = CreateEventA(nullptr, TRUE, FALSE, nullptr);
HANDLE release = CreateEventA(nullptr, TRUE, FALSE, nullptr);
HANDLE stopAtLock = CreateEventA(nullptr, TRUE, FALSE, nullptr);

// The worker waits once at its point; the stop lets it go once it has cancelled what it could.
// Under the operation lock the worker can't wait for that: a stop that honours the lock stays
// outside until the worker lets go of it, so there the worker goes on after a bound that only
// a stop slipping past the lock beats.
void HoldUntilTheStopWaits(int point) {
    int expected = point;
    if (point == kPointStopAwaitsWorker) {
        SetEvent(release);
    } else if (point == kPointStopLocking) {
        SetEvent(stopAtLock);
    } else if (holdAt.compare_exchange_strong(expected, 0)) {
        SetEvent(reached);
        const bool underLock = point == kPointPublishing;
        if (underLock) WaitForSingleObject(stopAtLock, 30000);
        WaitForSingleObject(release, underLock ? 2000 : 30000);
    }
}

class StopRaces : public PluginOnHost, public ::testing::WithParamInterface<int> {
protected:
    void SetUp() override {
        PluginOnHost::SetUp();
        NewInstance();
        for (HANDLE event : {reached, release, stopAtLock}) ResetEvent(event);
        SetOperationCheckpoint(HoldUntilTheStopWaits);
    }
    void TearDown() override {
        holdAt = 0;
        SetEvent(release);
        PluginOnHost::TearDown();
    }
};

TEST_P(StopRaces, ChannelLossCancelsTheWorkerWhereverItIs) {
    const int point = GetParam();
    if (point == kPointInsideFirstLoad && webauthn::WebauthnUsable()) {
        GTEST_SKIP() << "the library's one load is over in this process; run this case alone";
    }
    const bool loadedBefore = webauthn::WebauthnUsable();
    holdAt = point;
    library.Mode(SIMAUTH_BLOCK_UNTIL_CANCEL);
    ScopedLogCapture log;
    host.DeliverMessage(MakeCredential(1, NewGuid(1)));
    ASSERT_EQ(WaitForSingleObject(reached, 10000), WAIT_OBJECT_0) << "the worker reached point " << point;
    host.ReportChannel(TBX_STATE_DISCONNECTED, TBX_STATE_DISCONNECTED);
    EXPECT_EQ(library.Killed(), 0) << "the stop cancelled the worker instead of killing it";
    EXPECT_EQ(log->Count(") terminated"), 0u);
    EXPECT_EQ(library.RunningCallers(), 0) << "the worker is over when the stop returns";
    EXPECT_EQ(library.Calls(), point == kPointDecoded ? 0 : 1)
        << "a stop before the first check keeps the worker out of the library";
    EXPECT_TRUE(host.Messages().empty()) << "a stopped operation is never answered";
    if (point == kPointDecoded && !loadedBefore) {
        EXPECT_FALSE(webauthn::WebauthnUsable()) << "the stop itself never loads the library";
    }
}

INSTANTIATE_TEST_SUITE_P(WorkerPoints, StopRaces,
                         ::testing::Values(kPointDecoded, kPointChecked, kPointInsideFirstLoad, kPointPublishing));

using StopKill = PluginOnHost;

TEST_F(StopKill, WorkerWithoutIdIsKilledAfterFiveSecondsAndKeepsItsInstance) {
    const uint64_t handle = NewInstance();
    ScopedLogCapture log;
    ASSERT_TRUE(StartBlocked(1, nullptr)) << "no id: nothing can tell the library to give up";
    SyElapsedTimer stopping;
    host.ReportChannel(TBX_STATE_DISCONNECTED, TBX_STATE_DISCONNECTED);
    EXPECT_GE(stopping.ElapsedMs(), 4900) << "the stop gives the worker its five seconds";
    EXPECT_EQ(library.Killed(), 1);
    const auto lines = log->Lines();
    EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [](const CapturedLine& line) {
        return line.level == LOG_WARN && line.function == "SyThread::Terminate()" &&
               line.text.rfind("Thread AuthenticatorMakeCredential_Thread(0x", 0) == 0 &&
               line.text.find(") terminated") != std::string::npos;
    })) << "the killed worker is named in the log";
    EXPECT_TRUE(host.Messages().empty());
    library.Mode(SIMAUTH_INSTANT);
    host.BringUp();
    host.DeliverMessage(MakeCredential(2, NewGuid(2)));
    ASSERT_TRUE(host.WaitForMessages(1, 5000)) << "the next operation runs normally";
    EXPECT_EQ(ReadLe32(host.Messages()[0].params[0].data()), 2u);
    Destroy(handle);
    EXPECT_NE(FindInstance(handle).Get(), nullptr) << "the killed worker never released its instance";
}

bool ThrowsAsThePlatformDoes(SyThread&, SyThreadCallback, void*) {
    throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again));
}
bool ReportsFailure(SyThread&, SyThreadCallback, void*) { return false; }
void RefuseFromTheLibraryCallOn(int point) {
    if (point == kPointChecked) CountedAllocations::RefuseOnThisThread();
}

size_t ErrorLines(const LogCapture& log, const std::string& function, const std::string& text) {
    size_t n = 0;
    for (const CapturedLine& line : log.Lines()) n += line.level == LOG_ERROR && line.function == function && line.text == text;
    return n;
}

using WorkerFailures = PluginOnHost;

TEST_F(WorkerFailures, NoThreadOrNoMemoryForTheAnswerLeavesNothingBehind) {
    CountedAllocations allocations;
    for (WorkerStarter starter : {ThrowsAsThePlatformDoes, ReportsFailure}) {
        host.Reset();
        const TBXUserData doomed = NewInstance();
        ScopedLogCapture log;
        SetWorkerStarter(starter);
        host.DeliverMessage(MakeCredential(7, NewGuid(7)));
        SetWorkerStarter(nullptr);
        EXPECT_EQ(ErrorLines(*log, "Fido2ClientPlugin::ProcessReqInNewThread()", "Failed to start thread\n"), 1u);
        EXPECT_EQ(CountedAllocations::Live(), 0) << "the request's copy is freed";
        EXPECT_TRUE(host.Messages().empty());
        Destroy(doomed);
        EXPECT_EQ(FindInstance(doomed).Get(), nullptr) << "no reference of a worker is left on the instance";
    }
    // The next worker starts as usual, and its answer is lost to a refused allocation.
    host.Reset();
    const TBXUserData instance = NewInstance();
    ScopedLogCapture log;
    SetOperationCheckpoint(RefuseFromTheLibraryCallOn);
    host.DeliverMessage(MakeCredential(9, NewGuid(9)));
    const char* const worker = "Fido2ClientPlugin::AuthenticatorMakeCredentialThread()";
    ASSERT_TRUE(WaitForLog(*log, "Fail to allocate response pdu.\n", 10000, 1, worker));
    Destroy(instance);  // joins the worker
    EXPECT_EQ(ErrorLines(*log, worker, "Fail to allocate response pdu.\n"), 1u);
    EXPECT_EQ(log->Count("Fail to encode"), 0u) << "nothing was encoded";
    EXPECT_TRUE(host.Messages().empty());
    EXPECT_EQ(library.Calls(), 1);
    EXPECT_EQ(CountedAllocations::Live(), 0) << "the request and its copy are freed";
}

}  // namespace
