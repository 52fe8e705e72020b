#include "plugin/operation_seams.h"

#include <atomic>

namespace {

std::atomic<OperationCheckpoint> checkpoint{nullptr};
std::atomic<WorkerStarter> starter{nullptr};

}  // namespace

void SetOperationCheckpoint(OperationCheckpoint hook) { checkpoint = hook; }

void ReachOperationPoint(int point) {
    if (OperationCheckpoint hook = checkpoint.load()) hook(point);
}

void SetWorkerStarter(WorkerStarter replacement) { starter = replacement; }

bool StartWorker(SyThread& thread, SyThreadCallback callback, void* context) {
    if (WorkerStarter replacement = starter.load()) return replacement(thread, callback, context);
    return thread.Start(callback, context, 0, false);
}
