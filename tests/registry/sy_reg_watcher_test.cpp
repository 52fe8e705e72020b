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

using Clock = std::chrono::steady_clock;

const char kWatchRegKey[] = "SyRegKeyWatcher::WatchRegKey()";
const char kOpenRegKey[] = "SyRegKeyWatcher::OpenRegKey()";
const uint32_t kBoundMs = 60000;  // a limit for waits that end on their own far sooner

// What the watchers report, in order: "key" with where it sat, or "value:<name>".
struct Journal {
    void Add(const std::string& entry) {
        std::lock_guard<std::mutex> lock(mutex);
        entries.push_back(entry);
    }
    std::vector<std::string> Entries() {
        std::lock_guard<std::mutex> lock(mutex);
        return entries;
    }
    bool WaitForCount(size_t count) { return WaitUntil([&] { return Entries().size() >= count; }, kBoundMs); }
    std::mutex mutex;
    std::vector<std::string> entries;
};

class RecordingWatcher : public SyRegKeyWatcher {
public:
    RecordingWatcher(const std::string& path, Journal& log) : SyRegKeyWatcher(path, RegView::Win32Default, false), journal(log) {}
    // For the session given, set as a class that follows another session's key would.
    RecordingWatcher(const std::string& path, Journal& log, int32_t session) : RecordingWatcher(path, log) {
        sessionId = session;
        displayName = FormatName(sessionId, keyPath, sessionName);
        OpenRegKey();
    }
    bool OnKeyChanged() override {
        journal.Add(IsWatchingKey() ? "key:present" : "key:missing");
        if (gate) {
            entered.Set();
            gate->Wait(kBoundMs);
        }
        return keepWatching;
    }

    Journal& journal;
    std::atomic<bool> keepWatching{true};
    SyEvent* gate = nullptr;
    SyEvent entered{true, false, ""};
};

class RecordingValue : public SyRegValueWatcher {
public:
    RecordingValue(const std::string& keyPath, const std::string& name, Journal& log)
        : SyRegValueWatcher(keyPath, name, RegView::Win32Default), journal(log) {}
    void OnValueChanged() override { journal.Add("value:" + GetValueName()); }
    Journal& journal;
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
        const std::wstring line = L"reg.exe " + verb + L" \"HKCU\\" + isolation.PrivatePath() + L"\\Software\\Orvane Test\\" +
                                  below + L"\" " + rest + L" /f";
        ASSERT_TRUE(RunProcess(line, &code)) << "reg didn't run";
        ASSERT_EQ(code, 0u) << StringUtils::WideToUtf8(line);
    }
    void SetHere(const std::wstring& key, const std::wstring& name, DWORD value) {
        ASSERT_TRUE(WriteHklmValue(L"Software\\Orvane Test\\" + key, name, REG_DWORD, &value, sizeof(value)));
    }
    // The first run arms the notification; a change before that would go unseen.
    void StartArmed(SyRegKeyWatcher& watcher) {
        const size_t before = ArmedCount();
        ASSERT_TRUE(watcher.Start(poll));
        ASSERT_TRUE(WaitForLog(*capture, "Exit", kBoundMs, before + 1, kWatchRegKey));
    }
    // Returns once a run of the item in progress has ended and the scheduler has dealt with its result.
    void WaitForRunToEnd(SyPollItem* item) {
        SyMutexGuard guard(poll->GetLock());
        poll->WaitForItemToComplete(item);
    }
    size_t ArmedCount() {
        size_t n = 0;
        for (const CapturedLine& line : capture->Lines()) n += line.function == kWatchRegKey && line.text.rfind("Exit", 0) == 0;
        return n;
    }

    ScopedHklmOverride isolation;
    ScopedLogCapture capture{LOG_NEVER};
    RCPtr<SyPollThread> poll;
    Journal journal;
};

TEST_F(RegistryWatch, TheWalkFollowsAnotherProcessDownAndUpAndPastASibling) {
    RCPtr<RecordingWatcher> watcher(new RecordingWatcher("HKLM\\Software\\Orvane Test\\Live\\Target", journal));
    EXPECT_FALSE(watcher->IsWatchingKey());
    EXPECT_EQ(capture->Count("Watching \"HKLM\\Software\\Orvane Test\" ... \"Live\\Target\""), 1u);
    StartArmed(*watcher);

    Reg(L"add", L"Live\\Target");  // two steps down at once
    ASSERT_TRUE(journal.WaitForCount(1));
    EXPECT_TRUE(watcher->IsWatchingKey());
    EXPECT_EQ(capture->Count("Watching \"HKLM\\Software\\Orvane Test\\Live\\Target\""), 1u);

    const std::string onLive = "Watching \"HKLM\\Software\\Orvane Test\\Live\" ... \"Target\"";
    Reg(L"delete", L"Live\\Target");
    ASSERT_TRUE(journal.WaitForCount(2));
    EXPECT_FALSE(watcher->IsWatchingKey());
    EXPECT_EQ(capture->Count(onLive), 1u);

    // A sibling under the ancestor: looked at again after settling, and not reported.
    Reg(L"add", L"Live\\Other");
    ASSERT_TRUE(WaitForLog(*capture, onLive, kBoundMs, 2));
    WaitForRunToEnd(watcher.Get());
    EXPECT_EQ(journal.Entries().size(), 2u);

    // Still heard after the wait for that run.
    Reg(L"add", L"Live\\Target", L"/v level /t REG_SZ /d debug");
    ASSERT_TRUE(journal.WaitForCount(3));
    EXPECT_EQ(journal.Entries(), (std::vector<std::string>{"key:present", "key:missing", "key:present"}));
}

// A burst of changes settles into one report; Stop waits for a report in progress.
TEST_F(RegistryWatch, ABurstSettlesIntoOneReportAndStopWaitsForAReportInProgress) {
    SetHere(L"Burst", L"first", 1);
    RCPtr<RecordingWatcher> watcher(new RecordingWatcher("HKLM\\Software\\Orvane Test\\Burst", journal));
    StartArmed(*watcher);
    EXPECT_TRUE(watcher->IsWatchingKey());
    const Clock::time_point changed = Clock::now();
    for (DWORD i = 0; i < 5; ++i) SetHere(L"Burst", L"n" + std::to_wstring(i), i);
    ASSERT_TRUE(journal.WaitForCount(1));
    // The report waits out the settling time after the first change (less a tick of the clock).
    auto waited = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - changed).count();
    EXPECT_GE(waited, SyRegKeyWatcher::kSettleMs - 50);

    // One more change after the report: its report is the second one, not the sixth; held there.
    SyEvent gate(true, false, "");
    watcher->gate = &gate;
    SetHere(L"Burst", L"later", 1);
    ASSERT_EQ(watcher->entered.Wait(kBoundMs), 0);
    EXPECT_EQ(journal.Entries().size(), 2u);
    std::atomic<bool> stopped{false};
    bool result = false;
    std::thread stopper([&] {
        result = watcher->Stop();
        stopped = true;
    });
    // However long this look takes, Stop can't have returned while the report is held.
    ASSERT_TRUE(WaitForLog(*capture, "Enter", kBoundMs, 1, "SyRegKeyWatcher::Stop()"));
    Sleep(300);
    EXPECT_FALSE(stopped);
    gate.Set();
    stopper.join();
    EXPECT_TRUE(result);
    EXPECT_FALSE(poll->HasItem(watcher.Get()));
    EXPECT_FALSE(watcher->Stop()) << "a second Stop finds nothing to remove";
    EXPECT_EQ(capture->Count("Failed to remove SyRegKeyWatcher(HKLM\\Software\\Orvane Test\\Burst)"), 1u);
}

TEST_F(RegistryWatch, ValueWatchersReportTheirOwnValueAheadOfTheKeyAndAFalseEndsTheWatcher) {
    SetHere(L"Values", L"alpha", 1);
    SetHere(L"Values", L"beta", 1);
    const std::string key = "HKLM\\Software\\Orvane Test\\Values";
    RCPtr<RecordingWatcher> watcher(new RecordingWatcher(key, journal));
    RCPtr<RecordingValue> alpha(new RecordingValue(key, "alpha", journal));
    RCPtr<RecordingValue> beta(new RecordingValue(key, "beta", journal));
    RCPtr<RecordingValue> detached(new RecordingValue(key, "alpha", journal));
    RCPtr<RecordingValue> dropped(new RecordingValue(key, "alpha", journal));
    for (auto* value : {alpha.Get(), beta.Get(), detached.Get(), dropped.Get()}) watcher->AddValueWatcher(value);
    detached->Detach();
    dropped = nullptr;
    StartArmed(*watcher);

    SetHere(L"Values", L"alpha", 2);
    ASSERT_TRUE(journal.WaitForCount(2));
    EXPECT_EQ(capture->Count(key + " - deleted value watcher found in list"), 1u);
    EXPECT_EQ(capture->Count(key + "\\alpha - already detached"), 1u);

    SetHere(L"Values", L"gamma", 1);  // no watcher of its own: the key alone reports
    ASSERT_TRUE(journal.WaitForCount(3));

    watcher->keepWatching = false;
    Reg(L"delete", L"Values", L"/v beta");  // a value that vanishes has changed too
    ASSERT_TRUE(journal.WaitForCount(5));
    EXPECT_EQ(journal.Entries(),
              (std::vector<std::string>{"value:alpha", "key:present", "key:present", "value:beta", "key:present"}));
    // The dead entry went with the first report.
    EXPECT_EQ(capture->Count("deleted value watcher found in list"), 1u);
    EXPECT_EQ(capture->Count(key + "\\beta - value changed"), 1u);
    EXPECT_EQ(capture->Count(key + "\\alpha - value not changed"), 2u);
    WaitForRunToEnd(watcher.Get());
    EXPECT_FALSE(poll->HasItem(watcher.Get())) << "the false of the report took it off";
}

TEST_F(RegistryWatch, PathsThatCanNeverOpenAreNotWatched) {
    const char* const paths[] = {
        "HKXX\\Software\\Orvane Test\\X",  // unknown root: the walk stops at once
        "HKLM\\Nowhere\\At\\All",          // up to the bare root, which isn't a key path
    };
    for (const char* path : paths) {
        SCOPED_TRACE(path);
        capture->ClearLines();
        RCPtr<RecordingWatcher> watcher(new RecordingWatcher(path, journal));
        const std::string line = std::string("Not watching \"") + path + "\"";
        EXPECT_EQ(capture->Count(line), 1u);
        ASSERT_TRUE(watcher->Start(poll));
        ASSERT_TRUE(WaitForLog(*capture, line, kBoundMs, 2, kOpenRegKey));
        // The failed first run takes the item off the poll thread.
        WaitForRunToEnd(watcher.Get());
        EXPECT_FALSE(poll->HasItem(watcher.Get()));
    }
    EXPECT_TRUE(journal.Entries().empty());
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
        HKEY k = nullptr;
        ASSERT_EQ(RegCreateKeyExW(HKEY_USERS, underUsers.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &k, nullptr),
                  ERROR_SUCCESS);
        RegSetValueExW(k, L"n", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value), sizeof(value));
        RegCloseKey(k);
    };
    put(7);
    const std::string path = "HKCU\\" + below;

    // Here the current user's hive is the session user's too; what tells them apart is that only
    // the session's watcher asks for the session's user.
    RCPtr<RecordingWatcher> own(new RecordingWatcher(path, journal));
    EXPECT_EQ(own->GetValue("n", true)->GetUInt32(0), 7u);
    EXPECT_EQ(fake.userTokenCalls, 0);
    RCPtr<RecordingWatcher> watcher(new RecordingWatcher(path, journal, 2));
    EXPECT_TRUE(watcher->IsWatchingKey());
    EXPECT_EQ(fake.userTokenCalls, 1) << "the key opened below the session user's SID";
    EXPECT_EQ(capture->Count("Watching \"Session\\2\\" + path + "\""), 1u);
    EXPECT_EQ(watcher->GetValue("n", true)->GetUInt32(0), 7u);
    EXPECT_EQ(fake.userTokenCalls, 2) << "and so is the value";
    StartArmed(*watcher);
    put(8);
    ASSERT_TRUE(journal.WaitForCount(1));
    EXPECT_EQ(journal.Entries(), std::vector<std::string>{"key:present"});

    // A session that isn't there: nothing is watched, and a value stays on its default.
    ScopedSessionFake::connectStateOk = false;
    RCPtr<RecordingWatcher> invalid(new RecordingWatcher(path, journal, 3));
    EXPECT_FALSE(invalid->IsWatchingKey());
    EXPECT_EQ(capture->Count("Not watching \"Session\\3\\" + path + "\""), 1u);
    capture->ClearLines();
    EXPECT_FALSE(invalid->GetValue("n", true)->HasData());
    EXPECT_EQ(capture->Count("key " + path + " - invalid session ID 3"), 1u);
}

}  // namespace
