#include "registry/sy_reg_watcher.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/child_process.h"
#include "support/log_capture.h"
#include "support/log_wait.h"
#include "support/registry_isolation.h"
#include "support/session_fakes.h"
#include "sysutil/string_utils.h"

namespace {

const uint32_t kBoundMs = 60000;  // a limit for waits that end on their own far sooner

// Records each report: whether the key itself was there; a gate, when set, holds the report.
class RecordingWatcher : public SyRegKeyWatcher {
public:
    explicit RecordingWatcher(const std::string& path) : SyRegKeyWatcher(path, RegView::Win32Default, false) {}
    // For the session given, set as a class that follows another session's key would.
    RecordingWatcher(const std::string& path, int32_t session) : RecordingWatcher(path) {
        sessionId = session;
        displayName = FormatName(sessionId, keyPath, sessionName);
        OpenRegKey();
    }
    bool OnKeyChanged() override {
        {
            std::lock_guard<std::mutex> lock(mutex);
            reports.push_back(IsWatchingKey());
        }
        if (gate) {
            entered.Set();
            gate->Wait(kBoundMs);
        }
        return true;
    }
    std::vector<bool> Reports() {
        std::lock_guard<std::mutex> lock(mutex);
        return reports;
    }
    bool WaitForReports(size_t count) { return WaitUntil([&] { return Reports().size() >= count; }, kBoundMs); }

    SyEvent* gate = nullptr;
    SyEvent entered{true, false, ""};

private:
    std::mutex mutex;
    std::vector<bool> reports;
};

class RegistryWatch : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(isolation.IsActive());
        const DWORD one = 1;
        ASSERT_TRUE(WriteHklmValue(L"Software\\Orvane Test", L"base", REG_DWORD, &one, sizeof(one)));
        poll = new SyPollThread("WatchTest");
        poll->StartScheduler();
    }
    void TearDown() override {
        poll->RemoveAllItems(true);
        poll->StopScheduler();
    }

    // A separate process changes the key, as the private key that HKLM is mapped onto here.
    void Reg(const std::wstring& verb, const std::wstring& below, const std::wstring& rest = L"") {
        DWORD code = 1;
        const std::wstring line = L"reg.exe " + verb + L" \"HKCU\\" + isolation.PrivatePath() +
                                  L"\\Software\\Orvane Test\\" + below + L"\" " + rest + L" /f";
        ASSERT_TRUE(RunProcess(line, &code)) << "reg didn't run";
        ASSERT_EQ(code, 0u) << StringUtils::WideToUtf8(line);
    }
    void SetHere(const std::wstring& key, const std::wstring& name, DWORD value) {
        ASSERT_TRUE(WriteHklmValue(L"Software\\Orvane Test\\" + key, name, REG_DWORD, &value, sizeof(value)));
    }
    // The first run arms the notification; a change before that would go unseen.
    void StartArmed(SyRegKeyWatcher& watcher) {
        capture->ClearLines();
        ASSERT_TRUE(watcher.Start(poll));
        ASSERT_TRUE(WaitForLog(*capture, "Exit", kBoundMs, 1, "SyRegKeyWatcher::WatchRegKey()"));
    }
    // Returns once a run of the item in progress has ended and the scheduler has dealt with its result.
    void WaitForRunToEnd(SyPollItem* item) {
        SyMutexGuard guard(poll->GetLock());
        poll->WaitForItemToComplete(item);
    }

    ScopedHklmOverride isolation;
    ScopedLogCapture capture{LOG_NEVER};
    RCPtr<SyPollThread> poll;
};

TEST_F(RegistryWatch, TheWalkFollowsAnotherProcessDownAndUpAndPastASibling) {
    RCPtr<RecordingWatcher> watcher(new RecordingWatcher("HKLM\\Software\\Orvane Test\\Live\\Target"));
    EXPECT_EQ(capture->Count("Watching \"HKLM\\Software\\Orvane Test\" ... \"Live\\Target\""), 1u);
    StartArmed(*watcher);

    Reg(L"add", L"Live\\Target");  // two steps down at once
    ASSERT_TRUE(watcher->WaitForReports(1));
    EXPECT_EQ(capture->Count("Watching \"HKLM\\Software\\Orvane Test\\Live\\Target\""), 1u);

    const std::string onLive = "Watching \"HKLM\\Software\\Orvane Test\\Live\" ... \"Target\"";
    Reg(L"delete", L"Live\\Target");
    ASSERT_TRUE(watcher->WaitForReports(2));
    EXPECT_EQ(capture->Count(onLive), 1u);

    // A sibling under the ancestor: looked at again after settling, and not reported.
    Reg(L"add", L"Live\\Other");
    ASSERT_TRUE(WaitForLog(*capture, onLive, kBoundMs, 2));
    WaitForRunToEnd(watcher.Get());
    EXPECT_EQ(watcher->Reports().size(), 2u);

    // Still heard after the wait for that run.
    Reg(L"add", L"Live\\Target", L"/v level /t REG_SZ /d debug");
    ASSERT_TRUE(watcher->WaitForReports(3));
    EXPECT_EQ(watcher->Reports(), (std::vector<bool>{true, false, true}));
}

TEST_F(RegistryWatch, ABurstSettlesIntoOneReportAndStopWaitsForAReportInProgress) {
    SetHere(L"Burst", L"first", 1);
    RCPtr<RecordingWatcher> watcher(new RecordingWatcher("HKLM\\Software\\Orvane Test\\Burst"));
    StartArmed(*watcher);
    const auto changed = std::chrono::steady_clock::now();
    for (DWORD i = 0; i < 5; ++i) SetHere(L"Burst", L"n" + std::to_wstring(i), i);
    ASSERT_TRUE(watcher->WaitForReports(1));
    // The report waits out the settling time after the first change (less a tick of the clock).
    const auto waited = std::chrono::steady_clock::now() - changed;
    EXPECT_GE(std::chrono::duration_cast<std::chrono::milliseconds>(waited).count(), SyRegKeyWatcher::kSettleMs - 50);

    // One more change after the report: its report is the second one, not the sixth; held there.
    SyEvent gate(true, false, "");
    watcher->gate = &gate;
    SetHere(L"Burst", L"later", 1);
    ASSERT_EQ(watcher->entered.Wait(kBoundMs), 0);
    EXPECT_EQ(watcher->Reports().size(), 2u);
    std::atomic<bool> stopped{false};
    std::thread stopper([&] {
        EXPECT_TRUE(watcher->Stop());
        stopped = true;
    });
    // However long this look takes, Stop can't have returned while the report is held.
    ASSERT_TRUE(WaitForLog(*capture, "Enter", kBoundMs, 1, "SyRegKeyWatcher::Stop()"));
    Sleep(300);
    EXPECT_FALSE(stopped);
    gate.Set();
    stopper.join();
    EXPECT_FALSE(poll->HasItem(watcher.Get()));
}

TEST_F(RegistryWatch, APathThatCanNeverOpenIsNotWatchedAndLeavesThePollThread) {
    // The walk up ends at the bare root, which isn't a key path.
    RCPtr<RecordingWatcher> watcher(new RecordingWatcher("HKLM\\Nowhere\\At\\All"));
    const std::string line = "Not watching \"HKLM\\Nowhere\\At\\All\"";
    EXPECT_EQ(capture->Count(line), 1u);
    ASSERT_TRUE(watcher->Start(poll));
    ASSERT_TRUE(WaitForLog(*capture, line, kBoundMs, 2, "SyRegKeyWatcher::OpenRegKey()"));
    WaitForRunToEnd(watcher.Get());
    EXPECT_FALSE(poll->HasItem(watcher.Get()));
}

TEST_F(RegistryWatch, AWatcherOfAnotherSessionFollowsThatUsersKey) {
    ScopedSessionFake fake;
    ScopedRegistryOverride users(HKEY_USERS);
    ASSERT_TRUE(users.IsActive());
    // The key below the session user's SID in HKEY_USERS.
    const std::string below = "Software\\Fido2WatchSession-" + std::to_string(GetCurrentProcessId());
    char* sid = nullptr;
    ASSERT_TRUE(ProcessUtils::GetUserSIDForSession(ProcessUtils::kCurrentSession, &sid, LOG_ERROR));
    const std::wstring underUsers = StringUtils::Utf8ToWide(std::string(sid) + "\\" + below);
    free(sid);
    ScopedSessionFake::userTokenCalls = 0;
    auto put = [&](DWORD value) {
        ASSERT_EQ(RegSetKeyValueW(HKEY_USERS, underUsers.c_str(), L"n", REG_DWORD, &value, sizeof(value)), ERROR_SUCCESS);
    };
    put(7);
    const std::string path = "HKCU\\" + below;

    // Here the current user's hive is the session user's too; what tells them apart is that only
    // the session's watcher asks for the session's user.
    RCPtr<RecordingWatcher> own(new RecordingWatcher(path));
    EXPECT_EQ(own->GetValue("n", true)->GetUInt32(0), 7u);
    EXPECT_EQ(fake.userTokenCalls, 0);
    RCPtr<RecordingWatcher> watcher(new RecordingWatcher(path, 2));
    EXPECT_TRUE(watcher->IsWatchingKey());
    EXPECT_EQ(fake.userTokenCalls, 1) << "the key opened below the session user's SID";
    EXPECT_EQ(capture->Count("Watching \"Session\\2\\" + path + "\""), 1u);
    EXPECT_EQ(watcher->GetValue("n", true)->GetUInt32(0), 7u);
    EXPECT_EQ(fake.userTokenCalls, 2) << "and so is the value";
    StartArmed(*watcher);
    put(8);
    ASSERT_TRUE(watcher->WaitForReports(1));
    EXPECT_EQ(watcher->Reports(), std::vector<bool>{true});

    // Without the session user's token the value falls back to the current user, and says why.
    ScopedSessionFake::userTokenOk = false;
    EXPECT_EQ(watcher->GetValue("n", true)->GetUInt32(0), 8u);
    EXPECT_EQ(capture->Count("Unable to get user token of session (id: 2)"), 1u);

    // A session that isn't there: nothing is watched, and a value stays on its default.
    ScopedSessionFake::connectStateOk = false;
    RCPtr<RecordingWatcher> invalid(new RecordingWatcher(path, 3));
    EXPECT_FALSE(invalid->IsWatchingKey());
    EXPECT_EQ(capture->Count("Not watching \"Session\\3\\" + path + "\""), 1u);
    capture->ClearLines();
    EXPECT_FALSE(invalid->GetValue("n", true)->HasData());
    EXPECT_EQ(capture->Count("key " + path + " - invalid session ID 3"), 1u);
}

}  // namespace
