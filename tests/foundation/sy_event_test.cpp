#include "foundation/sy_event.h"

#include <gtest/gtest.h>
#include <windows.h>

namespace {

TEST(SyEventWaits, SingleWaitsReportSignalTimeoutAndEmpty) {
    SyEvent manual(true, false, "");
    EXPECT_EQ(manual.Wait(0), kWaitTimeout);
    EXPECT_TRUE(manual.Set());
    EXPECT_EQ(manual.Wait(0), 0);
    EXPECT_EQ(manual.Wait(0), 0) << "manual reset stays signalled";
    EXPECT_TRUE(manual.Reset());
    EXPECT_EQ(manual.Wait(0), kWaitTimeout);
    SyEvent autoReset(false, true, "");
    EXPECT_EQ(autoReset.Wait(0), 0);
    EXPECT_EQ(autoReset.Wait(0), kWaitTimeout) << "auto reset clears on a successful wait";
    SyEvent empty;
    EXPECT_FALSE(empty.IsValid());
    EXPECT_FALSE(empty.Set());
    EXPECT_FALSE(empty.Reset());
    EXPECT_EQ(empty.Wait(0), kWaitError);
}

void CALLBACK NoteApc(ULONG_PTR flag) { *reinterpret_cast<bool*>(flag) = true; }

TEST(SyEventWaits, MultipleWaitsReportTheLowestIndexAMessageOrAnApc) {
    SyEvent a(true, false, ""), b(true, false, ""), c(true, false, "");
    std::vector<SyEvent*> list{&a, &b, &c};
    EXPECT_EQ(SyEvent::WaitMultiple(list, false, 0), kWaitTimeout);
    c.Set();
    b.Set();
    EXPECT_EQ(SyEvent::WaitMultiple(list, false, 0), 1);
    a.Set();
    EXPECT_EQ(SyEvent::WaitMultiple(list, false, 0), 0);
    EXPECT_EQ(SyEvent::WaitMultiple(list, true, 0), 0) << "wait for all reports the first index";
    a.Reset();
    EXPECT_EQ(SyEvent::WaitMultiple(list, true, 10), kWaitTimeout);

    SyEvent empty;
    EXPECT_EQ(SyEvent::WaitMultiple({&c, &empty}, false, 0), kWaitError);
    EXPECT_EQ(SyEvent::WaitMultiple({&c, nullptr}, false, 0), kWaitError);
    EXPECT_EQ(SyEvent::WaitMultiple({&empty}, false, 0, true, false), kWaitError);

    MSG msg;
    PeekMessageA(&msg, nullptr, 0, 0, PM_NOREMOVE);  // makes sure this thread has a queue
    ASSERT_TRUE(PostThreadMessageA(GetCurrentThreadId(), WM_USER + 1, 0, 0));
    EXPECT_EQ(SyEvent::WaitMultiple({&a}, false, 1000, true, false), 1) << "a message reports the count";
    while (PeekMessageA(&msg, nullptr, 0, 0, PM_REMOVE)) {
    }
    bool ran = false;
    ASSERT_TRUE(QueueUserAPC(NoteApc, GetCurrentThread(), reinterpret_cast<ULONG_PTR>(&ran)));
    EXPECT_EQ(SyEvent::WaitMultiple({&a}, false, 1000, false, true), kWaitAlerted);
    EXPECT_TRUE(ran);
}

TEST(SyEventOwnership, MovesLeaveTheSourceEmptyAndOnlyOwnedHandlesAreClosed) {
    SyEvent source(true, false, "");
    HANDLE h = source.GetHandle();
    SyEvent target;
    target = std::move(source);
    EXPECT_FALSE(source.IsValid());
    EXPECT_EQ(target.GetHandle(), h);
    target = std::move(target);
    EXPECT_TRUE(target.IsValid()) << "assigning an event to itself changes nothing";
    EXPECT_EQ(target.GetHandleValue(), static_cast<uint32_t>(reinterpret_cast<uintptr_t>(h)));

    HANDLE raw = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    { SyEvent borrowed(raw, false); }
    EXPECT_TRUE(SetEvent(raw)) << "a borrowed handle must survive the wrapper";
    HANDLE copy = nullptr;
    ASSERT_TRUE(DuplicateHandle(GetCurrentProcess(), raw, GetCurrentProcess(), &copy, 0, FALSE, DUPLICATE_SAME_ACCESS));
    { SyEvent owner(copy, true); }
    EXPECT_FALSE(SetEvent(copy)) << "an owned handle is closed with its wrapper";
    CloseHandle(raw);
}

}  // namespace
