// Places where a test holds or steers an operation, at moments that no test could hit by
// timing, and where a benchmark reads the clock: points on the worker's road and in the stop,
// and the start of the worker thread. Nothing is installed in the product; each place costs
// one atomic load.
#pragma once

#include "foundation/sy_thread.h"

enum OperationPoint : int {
    kPointDecoded = 1,           // worker: right after the decode, before the first stop check
    kPointChecked = 2,           // worker: past the first stop check, before binding and calling
    kPointStartingWorker = 3,    // delivery thread: request copied, the worker's thread about to be made
    kPointWorkerEntered = 4,     // worker: the first step of its callback, before the decode
    kPointStopping = 5,          // delivery thread: a new operation about to stop the one before
    kPointStopped = 6,           // delivery thread: the one before stopped and its thread deleted
    kPointInsideFirstLoad = 7,   // worker: inside the process's one load of webauthn.dll
    kPointStopAwaitsWorker = 8,  // stopping thread: about to wait for the worker's load or its end
    kPointPublishing = 9,        // worker: under the operation lock, no stop seen, its id not yet published
    kPointStopLocking = 10,      // stopping thread: about to take the operation lock
};

using OperationCheckpoint = void (*)(int point);
void SetOperationCheckpoint(OperationCheckpoint checkpoint);
void ReachOperationPoint(int point);

// Starts the worker's SyThread. A replacement may fail the way the platform does: by false or
// by the standard system error exception.
using WorkerStarter = bool (*)(SyThread& thread, SyThreadCallback callback, void* context);
void SetWorkerStarter(WorkerStarter starter);
bool StartWorker(SyThread& thread, SyThreadCallback callback, void* context);
