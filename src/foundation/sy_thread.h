// A named thread that calls a callback again and again, with a wait between two calls, until
// the callback returns false or the thread is stopped. The owner's SyThread may die while the
// thread runs (even from inside the callback): the running thread co-owns SyThreadData.
#pragma once

#include <cstdint>
#include <string>
#include <thread>

#include "foundation/rc_object.h"
#include "foundation/sy_event.h"
#include "foundation/sy_mutex.h"

class SyThread;

// userData, then the SyThread (null on a call after the owner went away). true: call again.
using SyThreadCallback = bool (*)(void* userData, SyThread* thread);

// The calling thread's id, kept in thread-local storage after the first use.
uint32_t CurrentThreadId();

class SyThreadData : public RCObject {
public:
    SyThreadData(const std::string& threadName, SyThread* ownerThread);
    ~SyThreadData() override;

    void Run();
    void MarkDeleted();
    void Join();
    void Detach();
    bool IsThisThread() const;

    std::string name;
    SyThreadCallback callback = nullptr;
    void* userData = nullptr;
    uint32_t waitMs = 0;
    bool waitForMessages = false;
    uint32_t threadId = 0;
    std::thread* thread = nullptr;
    SyThread* owner = nullptr;
    bool deleted = false;
    SyEvent startedEvent{false, false, ""};
    SyEvent stopEvent{true, false, ""};
    SyEvent exitedEvent{true, false, ""};
    SyMutex lock;
    SyEvent handleEvent;
    uint32_t nativeId = 0;  // the platform id of the thread object, for the log and self tests
};

class SyThread : public RCObject {
public:
    explicit SyThread(const std::string& name);
    ~SyThread() override;

    bool Start(SyThreadCallback callback, void* userData, uint32_t waitMs, bool waitForMessages);
    bool Stop(uint32_t timeoutMs);
    bool StopOrTerminate(uint32_t timeoutMs, uint32_t exitCode);
    bool WaitForStop(uint32_t timeoutMs);
    bool Terminate(uint32_t exitCode);
    bool IsRunning() { return !WaitForStop(0); }
    bool HasStopped() { return WaitForStop(0); }
    bool IsCurrentThread();
    SyEvent& GetStopEvent();
    SyEvent& GetHandleEvent();

    SyThread(const SyThread&) = delete;
    SyThread& operator=(const SyThread&) = delete;

private:
    RCPtr<SyThreadData> data;
};
