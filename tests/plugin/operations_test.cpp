// Credential operations on the host simulator and the software authenticator: answers,
// cancellation by id, supersedes, stops, and the log lines of each ending.
#include <map>
#include <thread>

#include "plugin_host_fixture.h"

namespace {

class Operations : public PluginOnHost {
protected:
    void SetUp() override {
        PluginOnHost::SetUp();
        NewInstance();
    }
};

// One instance's road through every ending of an operation, with the lines that the delivery
// thread logs (stop and cancel) in their order, and those of the workers in theirs: the two
// interleave as the threads run.
TEST_F(Operations, CancelSupersedeAndStopLogTheirLinesInOrder) {
    ScopedLogCapture log(LOG_DEBUG);
    library.Mode(SIMAUTH_BLOCK_UNTIL_CANCEL);
    const webauthn::GUID* a = NewGuid(0x10);  // 251E1710-332C-413A-484F-565D646B7279
    const webauthn::GUID* b = NewGuid(0x20);  // 352E2720-433C-514A-585F-666D747B8289
    const webauthn::GUID* c = NewGuid(0x30);  // 453E3730-534C-615A-686F-767D848B9299
    host.DeliverMessage(MakeCredential(1, a));  // the first of the instance: nothing to stop
    ASSERT_TRUE(library.WaitBlocked(1));
    Cancel(90, a);
    ASSERT_TRUE(host.WaitForMessages(1, 5000)) << "the cancelled operation answers";
    host.DeliverMessage(MakeCredential(2, b));  // stops the ended worker
    ASSERT_TRUE(library.WaitBlocked(1));
    library.Mode(SIMAUTH_INSTANT);
    host.DeliverMessage(MakeCredential(3, nullptr));  // supersedes the blocked one
    ASSERT_TRUE(host.WaitForMessages(2, 5000));
    Cancel(91, b);  // nothing runs
    Cancel(92, nullptr);
    ASSERT_TRUE(StartBlocked(4, c));
    host.ReportChannel(TBX_STATE_DISCONNECTED, TBX_STATE_DISCONNECTED);  // stops it
    // The cancel requests themselves, the superseded and the stopped operation get no answer.
    EXPECT_EQ(AnswerIds(), (std::vector<std::pair<uint32_t, uint32_t>>{{1, kCancelledHr}, {3, 0}}));
    EXPECT_EQ(library.Killed(), 0) << "every stop cancelled its worker";
    // A line as "<function> <level letter> <text>".
    const std::map<std::string, std::string> tags = {
        {"StopCurrentOperation()", "stop"}, {"Process_CancelCurrentOperation()", "cancel"},
        {"OperationShouldStop()", "check"}, {"AuthenticatorMakeCredentialThread()", "worker"}};
    const std::vector<std::string> stopEnded = {"stop D Stopping current operation if any.",
                                                "stop D No pending fido2 operation!", "stop D Stopping worker thread.",
                                                "stop D worker thread stopped."};
    auto stopRunning = [](const std::string& guid) {
        return std::vector<std::string>{"stop D Stopping current operation if any.", "stop D Cancelling fido2 operation.",
                                        "stop D CancelGuid=" + guid, "stop D hr=0x0", "stop D fido2 operation cancelled.",
                                        "stop D Stopping worker thread.", "stop D worker thread stopped."};
    };
    std::vector<std::string> delivery = {"stop D There is no worker thread running!",
                                         "cancel E CancelGuid=251E1710-332C-413A-484F-565D646B7279", "cancel I hr=0x0"};
    for (const auto& part : {stopEnded, stopRunning("352E2720-433C-514A-585F-666D747B8289"),
                             {"cancel E CancelGuid=352E2720-433C-514A-585F-666D747B8289", "cancel I hr=0x0",
                              "cancel E CancelGuid=NULL", "cancel I hr=0x80070057"},
                             stopEnded, stopRunning("453E3730-534C-615A-686F-767D848B9299")}) {
        delivery.insert(delivery.end(), part.begin(), part.end());
    }
    const std::vector<std::string> workers = {
        "worker I hr=0x800704c7",                                                  // cancelled by the agent: answered
        "worker I hr=0x800704c7", "check D Current operation is being stopped.",  // superseded: no answer
        "worker I hr=0x0",
        "worker I hr=0x800704c7", "check D Current operation is being stopped.",  // stopped by the channel loss
    };
    std::vector<std::string> seenDelivery, seenWorkers;
    for (const CapturedLine& line : log->Lines()) {
        const std::string plugin = "Fido2ClientPlugin::";
        const auto tag = line.function.rfind(plugin, 0) == 0 ? tags.find(line.function.substr(plugin.size())) : tags.end();
        if (line.text == "Enter\n" || line.text == "Exit\n" || tag == tags.end()) continue;  // handlers' traces
        const std::string text = tag->second + " " + "AEWIDTVN"[line.level] + " " + line.text.substr(0, line.text.size() - 1);
        if (tag->second == "stop" || tag->second == "cancel") seenDelivery.push_back(text);
        if (tag->second == "check" || (tag->second == "worker" && line.text.rfind("hr=", 0) == 0)) seenWorkers.push_back(text);
    }
    EXPECT_EQ(seenDelivery, delivery);
    EXPECT_EQ(seenWorkers, workers);
}

// The worker is held in its send, past its second check: the stop finds nothing to cancel and
// waits for the answer to go out.
TEST_F(Operations, StopAfterTheLibraryReturnedStillAnswers) {
    host.HoldInvokes(true);
    host.DeliverMessage(MakeCredential(80, NewGuid(1)));
    ASSERT_TRUE(host.WaitForHeldInvokes(1, 5000));
    SetOperationCheckpoint([](int point) {  // a faulty stop that never waits mustn't hang the test
        if (point == kPointStopAwaitsWorker || point == kPointStartingWorker) {
            sim::Host::Get().HoldInvokes(false);
        }
    });
    host.DeliverMessage(MakeCredential(81, NewGuid(2)));
    ASSERT_TRUE(host.WaitForMessages(2, 5000));
    EXPECT_EQ(AnswerIds(), (std::vector<std::pair<uint32_t, uint32_t>>{{80, 0}, {81, 0}}));
}

// The host's destroy and exit leave no worker behind, one still running could return into the
// DLL after the host has unloaded it: the destroy's of an instance that isn't ready, the exit's
// of one that the host never destroyed. The destroy disconnects before it stops, so only the
// exit could still let the cancelled worker's answer out.
TEST_F(Operations, DestroyAndExitStopTheOperationOfAnyInstance) {
    ASSERT_TRUE(host.SetObjectState("fido2ControlObj", TBX_STATE_DISCONNECTED));
    ASSERT_TRUE(StartBlocked(100, NewGuid(1))) << "the data object still delivers";
    Destroy(instances[0]);
    EXPECT_EQ(library.RunningCallers(), 0) << "the worker is over when the destroy returns";
    host.Reset();
    NewInstance();
    ASSERT_TRUE(StartBlocked(110, NewGuid(2)));
    ASSERT_TRUE(host.Exit());
    EXPECT_EQ(library.RunningCallers(), 0) << "no worker runs on once the host may unload the DLL";
    EXPECT_EQ(library.Killed(), 0) << "both were cancelled, not killed";
    EXPECT_TRUE(host.Messages().empty()) << "the stopped worker's answer";
}

}  // namespace
