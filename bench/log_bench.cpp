// Cost of a log statement, measured and printed, never asserted: a disabled statement, an
// enabled line to a writer that drops it, a traced scope (its two lines) to that writer, an
// enabled line into a buffered writer's queue, and snprintf of the same line into a stack
// buffer for scale. --json prints one object of median nanoseconds per call.
#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>

#include "foundation/sy_mutex.h"
#include "logging/function_trace.h"
#include "logging/logger.h"
#include "logging/proxy_writer.h"
#include "sysutil/string_utils.h"

namespace {

int64_t Now() {
    LARGE_INTEGER t;
    QueryPerformanceCounter(&t);
    return t.QuadPart;
}

double NsPerTick() {
    LARGE_INTEGER f;
    QueryPerformanceFrequency(&f);
    return 1e9 / static_cast<double>(f.QuadPart);
}

// A sink that keeps nothing, made buffered as the file writer makes itself: what is measured
// is the way into the queue; the poll thread drains it once a second.
class QueueSink : public LogWriter {
public:
    QueueSink() : LogWriter(1) { SetBuffered(true); }
    bool Open() override { return true; }
    bool Write(const RCPtr<LogMessage>&) override { return true; }
    bool Close() override { return true; }
};

// Median over rounds of the nanoseconds per call of body, which makes `calls` calls.
template <class Body>
double Median(int rounds, int calls, Body body) {
    std::vector<double> perCall;
    const double nsPerTick = NsPerTick();
    body();  // warm-up: pool, queues, caches
    for (int r = 0; r < rounds; ++r) {
        int64_t start = Now();
        body();
        perCall.push_back(static_cast<double>(Now() - start) * nsPerTick / calls);
    }
    std::sort(perCall.begin(), perCall.end());
    return perCall[perCall.size() / 2];
}

// Keeps the compiler from hoisting the level test out of the loop, as the code around a
// real call site would.
inline void Barrier() { asm volatile("" ::: "memory"); }

RCPtr<Logger> PrimaryWith(const char* name, const RCPtr<LogWriter>& writer) {
    LoggerManager& manager = LoggerManager::GetInstance();
    RCPtr<Logger> logger = manager.CreateLogger(name, name, true);
    logger->AttachWriter(writer);
    logger->Start();
    manager.SetPrimaryLogger(logger);
    return logger;
}

}  // namespace

int main(int argc, char** argv) {
    bool json = false;
    int rounds = 15;
    int calls = 2000;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--json") == 0) json = true;
        else if (strcmp(argv[i], "--rounds") == 0 && i + 1 < argc) rounds = atoi(argv[++i]);
        else if (strcmp(argv[i], "--calls") == 0 && i + 1 < argc) calls = atoi(argv[++i]);
    }
    if (rounds < 1 || calls < 1) {
        fprintf(stderr, "usage: log_bench [--json] [--rounds N] [--calls N]\n");
        return 2;
    }

    // The same statement everywhere: a format with three arguments.
    auto statement = [&](int32_t level) {
        for (int i = 0; i < calls; ++i) {
            Barrier();
            SY_LOG(level, "Bench::Statement()", "call %d of %s with %u\n", i, "a measured burst", 0xBEEFu);
        }
    };

    RCPtr<LogWriter> dropping(new ProxyWriter);  // no function: every message is dropped
    RCPtr<Logger> droppingLogger = PrimaryWith("BenchDropping", dropping);
    const double disabled = Median(rounds, calls * 100, [&] {
        for (int k = 0; k < 100; ++k) statement(LOG_DEBUG);
    });
    const double enabledDropping = Median(rounds, calls, [&] { statement(LOG_INFO); });
    // A traced scope: its "Enter" and "Exit" lines, to the same dropping writer.
    const double tracedScope = Median(rounds, calls, [&] {
        for (int i = 0; i < calls; ++i) {
            Barrier();
            FunctionTrace trace(LOG_INFO, "Bench::Traced()");
        }
    });

    RCPtr<LogWriter> queue(new QueueSink);
    RCPtr<Logger> queueLogger = PrimaryWith("BenchQueue", queue);
    const double enabledQueue = Median(rounds, calls, [&] { statement(LOG_INFO); });
    LoggerManager::GetInstance().SetPrimaryLogger(nullptr);

    char sink[kLogMessageBytes];
    const double snprintfLine = Median(rounds, calls, [&] {
        for (int i = 0; i < calls; ++i) {
            Barrier();
            snprintf(sink, sizeof(sink), "call %d of %s with %u\n", i, "a measured burst", 0xBEEFu);
        }
    });

    // Parts of an enabled line, for the reader of the table.
    SyMutex mutex;
    const double mutexPair = Median(rounds, calls, [&] {
        for (int i = 0; i < calls; ++i) {
            mutex.Acquire();
            mutex.Release();
        }
    });
    char stamp[64];
    const double timeStamp = Median(rounds, calls, [&] {
        for (int i = 0; i < calls; ++i) StringUtils::FormatTimeStamp(stamp, sizeof(stamp), false);
    });

    if (json) {
        printf("{\"disabled\": %.2f, \"enabled_dropping\": %.1f, \"enabled_file_queue\": %.1f, "
               "\"traced_scope_dropping\": %.1f, \"snprintf_same_line\": %.1f}\n",
               disabled, enabledDropping, enabledQueue, tracedScope, snprintfLine);
    } else {
        printf("median ns per call (%d rounds of %d calls)\n", rounds, calls);
        printf("%-34s %10.2f\n", "disabled statement", disabled);
        printf("%-34s %10.1f\n", "enabled, writer drops it", enabledDropping);
        printf("%-34s %10.1f\n", "enabled, into a buffered queue", enabledQueue);
        printf("%-34s %10.1f\n", "traced scope, writer drops both", tracedScope);
        printf("%-34s %10.1f\n", "snprintf of the same line", snprintfLine);
        printf("%-34s %10.1f\n", "  part: SyMutex acquire + release", mutexPair);
        printf("%-34s %10.1f\n", "  part: local time stamp", timeStamp);
        printf("enabled / snprintf: %.1f (dropping), %.1f (queue)\n", enabledDropping / snprintfLine,
               enabledQueue / snprintfLine);
    }
    droppingLogger = nullptr;
    queueLogger = nullptr;
    return 0;
}
