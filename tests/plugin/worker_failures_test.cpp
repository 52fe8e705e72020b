// A worker short of its thread or of its answer's memory: nothing escapes into the host's
// callback, nothing is kept, and the log says why.
#include <system_error>

#include "plugin_host_fixture.h"
#include "support/counted_allocations.h"
#include "support/log_capture.h"
#include "support/log_wait.h"

namespace {

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
