// The worker's resources when something it needs can't be had: its thread, or the memory of
// its answer. Nothing escapes into the host's callback, nothing is kept, and the log says why.
#include <atomic>
#include <cstdlib>
#include <system_error>

#include "channel/rpc_plugin_instance.h"
#include "in_process_plugin.h"
#include "support/log_capture.h"
#include "wire/pdu.h"

namespace {

// The wire layer's allocations, counted; those of one armed thread are refused.
std::atomic<long> liveBlocks{0};
std::atomic<DWORD> refusingThread{0};
HANDLE refused = CreateEventA(nullptr, TRUE, FALSE, nullptr);

void* Allocate(size_t count, size_t size) {
    if (refusingThread != 0 && refusingThread == GetCurrentThreadId()) {
        SetEvent(refused);
        return nullptr;
    }
    void* block = calloc(count, size);
    if (block) ++liveBlocks;
    return block;
}
void Release(void* block) {
    if (block) --liveBlocks;
    free(block);
}

bool ThrowsAsThePlatformDoes(SyThread&, SyThreadCallback, void*) {
    throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again));
}
bool ReportsFailure(SyThread&, SyThreadCallback, void*) { return false; }

class WorkerFailures : public InProcessPlugin {
protected:
    void SetUp() override {
        liveBlocks = 0;
        refusingThread = 0;
        ResetEvent(refused);
        SetWireAllocator(Allocate, Release);
        InProcessPlugin::SetUp();
    }
    void TearDown() override {
        InProcessPlugin::TearDown();
        SetWireAllocator(nullptr, nullptr);
    }
    size_t ErrorLines(const LogCapture& log, const std::string& text) {
        size_t n = 0;
        for (const CapturedLine& line : log.Lines()) n += line.level == LOG_ERROR && line.text == text ? 1 : 0;
        return n;
    }
};

TEST_F(WorkerFailures, ThreadThatCantBeCreatedReleasesTheRequestAndTheInstance) {
    const struct {
        const char* how;
        WorkerStarter starter;
    } cases[] = {{"system error", ThrowsAsThePlatformDoes}, {"false", ReportsFailure}};
    DestroyInstance();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.how);
        host.Reset();
        TBXUserData doomed = 0;
        ASSERT_TRUE(TheFido2Client().TBXPluginCreateInstance(nullptr, &doomed));
        host.BringUp();
        ScopedLogCapture log;
        SetWorkerStarter(c.starter);
        host.DeliverMessage(MakeCredential(7, NewGuid(7)));
        SetWorkerStarter(nullptr);
        EXPECT_EQ(ErrorLines(*log, "Failed to start thread\n"), 1u);
        EXPECT_EQ(liveBlocks, 0) << "the request's copy is freed";
        EXPECT_TRUE(host.Messages().empty());
        ASSERT_TRUE(TheFido2Client().TBXPluginDestroyInstance(doomed));
        EXPECT_EQ(FindInstance(doomed).Get(), nullptr) << "no reference of a worker is left on the instance";
    }
    host.Reset();
    ASSERT_TRUE(TheFido2Client().TBXPluginCreateInstance(nullptr, &instance));
    host.BringUp();
    host.DeliverMessage(MakeCredential(8, NewGuid(8)));
    ASSERT_TRUE(host.WaitForMessages(1, 5000)) << "the next worker starts as usual";
    EXPECT_EQ(ReadLe32(host.Messages()[0].params[0].data()), 8u);
}

void RefuseFromTheLibraryCallOn(int point) {
    if (point == kPointChecked) refusingThread = GetCurrentThreadId();
}

TEST_F(WorkerFailures, CutRequestsAreAnsweredWithEFailAndAnErrorLineEach) {
    ScopedLogCapture log;
    host.DeliverMessage(agent::RequestPdu(10, kCmdMakeCredential, {1, 2, 3, 4}));
    ASSERT_TRUE(host.WaitForMessages(1, 5000));
    host.DeliverMessage(agent::RequestPdu(11, kCmdGetAssertion, {1, 2, 3, 4}));
    ASSERT_TRUE(host.WaitForMessages(2, 5000));
    for (const sim::SentMessage& answer : host.Messages()) {
        ASSERT_EQ(answer.params.size(), 1u);
        const sim::Bytes data(answer.params[0].begin() + kResponseHeaderSize, answer.params[0].end());
        EXPECT_EQ(data, (sim::Bytes{0x05, 0x40, 0x00, 0x80, 0, 0, 0, 0})) << "E_FAIL and no record";
    }
    size_t decodeErrors = 0;
    for (const CapturedLine& line : log->Lines()) {
        decodeErrors += line.level == LOG_ERROR && line.text.find("Fail to decode") != std::string::npos;
    }
    EXPECT_EQ(decodeErrors, 2u) << "one error line for each worker's failed decode";
    EXPECT_EQ(library.Calls(), 0);
    DestroyInstance();
    EXPECT_EQ(liveBlocks, 0) << "the requests and their copies are freed";
}

TEST_F(WorkerFailures, AnswerThatCantBeAllocatedIsLostWithItsOwnLine) {
    ScopedLogCapture log;
    SetOperationCheckpoint(RefuseFromTheLibraryCallOn);
    host.DeliverMessage(MakeCredential(9, NewGuid(9)));
    ASSERT_EQ(WaitForSingleObject(refused, 10000), WAIT_OBJECT_0) << "the answer's allocation was asked for";
    DestroyInstance();  // joins the worker

    size_t allocationLines = 0;
    for (const CapturedLine& line : log->Lines()) {
        allocationLines += line.level == LOG_ERROR && line.text == "Fail to allocate response pdu.\n" &&
                           line.function == "Fido2ClientPlugin::AuthenticatorMakeCredentialThread()";
    }
    EXPECT_EQ(allocationLines, 1u);
    EXPECT_EQ(log->Count("Fail to encode"), 0u) << "nothing was encoded";
    EXPECT_TRUE(host.Messages().empty());
    EXPECT_EQ(library.Calls(), 1);
    EXPECT_EQ(library.LiveRecords(), 0) << "the library's record went back";
    EXPECT_EQ(liveBlocks, 0) << "the request and its copy are freed";
}

}  // namespace
