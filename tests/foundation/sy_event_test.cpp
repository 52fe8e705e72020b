#include "foundation/sy_event.h"

#include <gtest/gtest.h>
#include <windows.h>

namespace {

TEST(SyEventWaits, ResetModesEmptyEventsAndTheIndexOfAMultipleWait) {
    SyEvent manual(true, true), autoReset(false, true), empty;
    EXPECT_EQ(manual.Wait(0), 0);
    EXPECT_EQ(manual.Wait(0), 0) << "manual reset stays signalled";
    EXPECT_EQ(autoReset.Wait(0), 0);
    EXPECT_EQ(autoReset.Wait(0), kWaitTimeout) << "auto reset clears on a successful wait";
    EXPECT_FALSE(empty.Set());
    EXPECT_EQ(empty.Wait(0), kWaitError);
    EXPECT_EQ(SyEvent::WaitMultiple({&autoReset, &manual}, false, 0), 1);
    EXPECT_EQ(SyEvent::WaitMultiple({&manual, &empty}, false, 0), kWaitError);
    MSG msg;
    PeekMessageA(&msg, nullptr, 0, 0, PM_NOREMOVE);  // makes sure this thread has a queue
    ASSERT_TRUE(PostThreadMessageA(GetCurrentThreadId(), WM_USER + 1, 0, 0));
    EXPECT_EQ(SyEvent::WaitMultiple({&autoReset}, false, 1000, true, false), 1) << "a message reports the count";
    while (PeekMessageA(&msg, nullptr, 0, 0, PM_REMOVE)) {
    }
}

TEST(SyEventOwnership, OnlyOwnedHandlesAreClosed) {
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
