// A log storm: many threads log as fast as they can into the real file writer, with 1 MB
// rolling files of which none is deleted, while the process's committed memory is sampled.
// Afterwards every file of the run is read back, and the run fails (exit 1) unless
//   - every message the logger handed to the file writer (the storm's and the log's own, as a
//     second writer counts them) is in a file, or counted by a line on dropped messages,
//   - every storm line reached the writers, and none stands in a file twice,
//   - each thread's lines stand in the order it logged them, across the rolled files too,
//   - batch mode was announced at most once (exactly once with --expect-batch),
//   - every file but the last rolled at 1 MB,
//   - committed memory grew no further than the queue's batch threshold allows.
// --toggle-ms turns the writer off and on again while the first half of the lines goes out,
// so that lines are also dropped and must be found in the count.
#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "logging/file_writer.h"
#include "logging/logger.h"
#include "sim/process_resources.h"
#include "sysutil/file_utils.h"

namespace {

constexpr const char* kFunction = "LogStorm::Producer()";
constexpr uint64_t kMB = 1024 * 1024;
// What one queued message costs at most: its slot in the pool and its place in the queue.
constexpr uint64_t kBytesPerQueued = 2048;
// Thread stacks, file stream buffers, the loader: what the run needs whatever the queue does.
constexpr uint64_t kFixedSlack = 12 * kMB;

// Counts every message the logger hands out, unbuffered and never turned off, so that the
// file writer's account can be checked against it.
class CountingWriter : public LogWriter {
public:
    CountingWriter() : LogWriter(0) {}
    bool Open() override { return true; }
    bool Write(const RCPtr<LogMessage>& message) override {
        // Its own last line comes through Write too, but the logger never handed it out.
        if (!stopping) ++(strstr(message->text, kFunction) ? storm : other);
        return true;
    }
    bool Close() override { return true; }

    uint64_t storm = 0;
    uint64_t other = 0;
};

struct Options {
    int threads = 8;
    int lines = 100000;
    uint32_t batchThreshold = LogWriter::kBatchThreshold;
    int toggleMs = 0;
    bool expectBatch = false;
    bool json = false;
    bool keep = false;
};

struct Figures {
    uint64_t sent = 0;
    uint64_t inFiles = 0;
    uint64_t handedOut = 0;
    uint64_t othersInFiles = 0;
    uint64_t dropped = 0;
    uint64_t batchBanners = 0;
    uint64_t files = 0;
    uint64_t largestFile = 0;
    uint64_t baseBytes = 0;
    uint64_t peakBytes = 0;
    double seconds = 0;
};

bool ParseOptions(int argc, char** argv, Options* o) {
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        const bool hasValue = i + 1 < argc;
        if (arg == "--threads" && hasValue) o->threads = atoi(argv[++i]);
        else if (arg == "--lines" && hasValue) o->lines = atoi(argv[++i]);
        else if (arg == "--batch-threshold" && hasValue) o->batchThreshold = strtoul(argv[++i], nullptr, 10);
        else if (arg == "--toggle-ms" && hasValue) o->toggleMs = atoi(argv[++i]);
        else if (arg == "--expect-batch") o->expectBatch = true;
        else if (arg == "--json") o->json = true;
        else if (arg == "--keep") o->keep = true;
        else return false;
    }
    return o->threads > 0 && o->lines > 0 && o->batchThreshold > 0 && o->toggleMs >= 0;
}

std::string FreshFolder() {
    char temp[MAX_PATH];
    GetTempPathA(MAX_PATH, temp);
    std::string folder = FileUtils::JoinPath(
        temp, "log-storm-" + std::to_string(GetCurrentProcessId()) + "-" + std::to_string(GetTickCount64()));
    CreateDirectoryA(folder.c_str(), nullptr);
    return folder;
}

// The files of this process, in the order written: the numbers in their names have four
// digits when no rolled file is deleted, so the names sort as they were made.
std::vector<std::string> FilesOf(const std::string& processPrefix) {
    std::vector<std::string> names;
    WIN32_FIND_DATAA found;
    HANDLE find = FindFirstFileA((processPrefix + "*").c_str(), &found);
    if (find == INVALID_HANDLE_VALUE) return names;
    do {
        names.push_back(FileUtils::JoinPath(FileUtils::GetDirName(processPrefix), found.cFileName));
    } while (FindNextFileA(find, &found));
    FindClose(find);
    std::sort(names.begin(), names.end());
    return names;
}

class Storm {
public:
    explicit Storm(const Options& options) : options(options), next(static_cast<size_t>(options.threads), 0) {}

    bool Run() {
        folder = FreshFolder();
        LoggerManager& manager = LoggerManager::GetInstance();
        logger = manager.CreateLogger("LogStorm", "logstorm", true);
        writer = logger ? logger->AddWriter(FileWriter::kType) : nullptr;
        if (!writer || !logger->AttachWriter(counter)) return Broken("no file writer or no counter");
        // Every file stays, so every line can be looked for.
        const char* settings[][2] = {{"folderPath", folder.c_str()}, {"maxFileSizeMB", "1"},
                                     {"maxRollingFiles", "0"},       {"maxNumFiles", "0"},
                                     {"maxDaysKept", "0"}};
        for (const auto& s : settings) writer->SetSetting(s[0], s[1]);
        writer->batchThreshold = options.batchThreshold;
        if (!logger->Start()) return Broken("the logger did not start");
        manager.SetPrimaryLogger(logger);
        prefix = static_cast<FileWriter*>(writer.Get())->GetProcessPrefix();

        // The threads exist before the base is taken: their stacks are not what is judged.
        std::vector<std::thread> producers;
        for (int t = 0; t < options.threads; ++t) producers.emplace_back([this, t] { Produce(t); });
        while (ready < options.threads) Sleep(1);
        figures.baseBytes = figures.peakBytes = sim::PrivateBytes();
        std::atomic<bool> done{false};
        std::thread sampler([&] {
            while (!done) {
                figures.peakBytes = std::max<uint64_t>(figures.peakBytes, sim::PrivateBytes());
                Sleep(20);
            }
        });
        std::thread toggler([&] { Toggle(done); });
        LARGE_INTEGER start, end, frequency;
        QueryPerformanceCounter(&start);
        go = true;
        for (auto& p : producers) p.join();
        QueryPerformanceCounter(&end);
        QueryPerformanceFrequency(&frequency);
        done = true;
        toggler.join();
        sampler.join();
        figures.seconds = static_cast<double>(end.QuadPart - start.QuadPart) / static_cast<double>(frequency.QuadPart);
        figures.sent = sent;
        logger->Shutdown();
        manager.SetPrimaryLogger(nullptr);
        Check(counter->storm == figures.sent, "storm lines lost before the writers");
        figures.handedOut = counter->storm + counter->other;
        return ReadBack();
    }

    bool Judge() {
        Check(figures.inFiles + figures.othersInFiles + figures.dropped == figures.handedOut,
              "messages in the files + dropped != messages handed to the writer");
        Check(figures.batchBanners <= 1, "batch mode announced more than once");
        if (options.expectBatch) Check(figures.batchBanners == 1, "batch mode never engaged");
        const uint64_t allowed = options.batchThreshold * kBytesPerQueued + kFixedSlack;
        Check(figures.peakBytes - figures.baseBytes <= allowed, "memory grew beyond the batch threshold's bound");
        return ok;
    }

    void Print() const {
        const Figures& f = figures;
        if (options.json) {
            printf("{\"threads\": %d, \"lines_sent\": %llu, \"lines_in_files\": %llu, \"dropped\": %llu, "
                   "\"other_messages_in_files\": %llu, \"messages_handed_out\": %llu, \"batch_mode_engaged\": %llu, \"files\": %llu, \"largest_file_bytes\": %llu, "
                   "\"peak_private_bytes\": %llu, \"private_growth_bytes\": %llu, \"seconds\": %.2f}\n",
                   options.threads, U(f.sent), U(f.inFiles), U(f.dropped), U(f.othersInFiles), U(f.handedOut), U(f.batchBanners), U(f.files),
                   U(f.largestFile), U(f.peakBytes), U(f.peakBytes - f.baseBytes), f.seconds);
        } else {
            printf("%d threads x %d lines in %.1f s (%.0f lines/s)\n", options.threads, options.lines, f.seconds,
                   static_cast<double>(f.sent) / f.seconds);
            printf("in %llu files: %llu and %llu of the log's own, dropped (counted): %llu, batch mode engaged: %llu\n",
                   U(f.files), U(f.inFiles), U(f.othersInFiles), U(f.dropped), U(f.batchBanners));
            printf("largest file %llu bytes; committed memory %llu at the start, peak %llu (+%llu)\n",
                   U(f.largestFile), U(f.baseBytes), U(f.peakBytes), U(f.peakBytes - f.baseBytes));
        }
        fflush(stdout);
    }

    ~Storm() {
        if (options.keep || folder.empty()) return;
        for (const std::string& path : FilesOf(prefix)) DeleteFileA(path.c_str());
        RemoveDirectoryA(folder.c_str());
    }

private:
    static unsigned long long U(uint64_t v) { return static_cast<unsigned long long>(v); }

    void Produce(int thread) {
        ++ready;
        while (!go) Sleep(0);
        for (int i = 0; i < options.lines; ++i) {
            SY_LOG(LOG_INFO, kFunction, "storm %d %d\n", thread, i);
            ++sent;
        }
    }

    // Off and on again while the first half of the lines goes out; the rest lets every
    // count of dropped lines reach a flush.
    void Toggle(const std::atomic<bool>& done) {
        if (options.toggleMs == 0) return;
        const uint64_t half = static_cast<uint64_t>(options.threads) * options.lines / 2;
        while (!done && sent < half) {
            Sleep(static_cast<DWORD>(options.toggleMs));
            writer->SetEnabled(false);
            Sleep(static_cast<DWORD>(options.toggleMs));
            writer->SetEnabled(true);
        }
    }

    bool ReadBack() {
        for (const std::string& path : FilesOf(prefix)) {
            FILE* file = fopen(path.c_str(), "rb");
            if (!file) return Broken(("cannot read " + path).c_str());
            ++figures.files;
            char line[2048];
            while (fgets(line, sizeof(line), file)) Count(line);
            _fseeki64(file, 0, SEEK_END);
            lastSize = static_cast<uint64_t>(_ftelli64(file));
            figures.largestFile = std::max(figures.largestFile, lastSize);
            fclose(file);
            if (figures.files > 1) Check(previousSize >= kMB, "a file rolled before it reached 1 MB");
            previousSize = lastSize;
        }
        return figures.files > 0 || Broken("no log file");
    }

    void Count(const char* line) {
        int thread = -1, number = -1, dropped = 0;
        const char* text = strstr(line, kFunction);
        if (text && sscanf(text + strlen(kFunction), ": storm %d %d", &thread, &number) == 2) {
            // A gap is fine (dropped lines), a repeat or a step back is not.
            if (thread < 0 || thread >= options.threads || number < next[static_cast<size_t>(thread)]) {
                Check(false, "a line repeated or out of its thread's order");
                return;
            }
            next[static_cast<size_t>(thread)] = number + 1;
            ++figures.inFiles;
        } else if (IsMessage(line)) {
            ++figures.othersInFiles;
        } else if (sscanf(line, "******* Dropped %d messages", &dropped) == 1) {
            figures.dropped += static_cast<uint64_t>(dropped);
        } else if (strstr(line, "***** BATCH MODE ENABLED *****")) {
            ++figures.batchBanners;
        }
    }

    // The first line of a message: time, thread and process ids, letter, and a function other
    // than the last line's, which the writer writes itself.
    static bool IsMessage(const char* line) {
        int end = 0;
        char letter = 0;
        sscanf(line, "%*4d-%*2d-%*2d %*2d:%*2d:%*2d.%*3d <%*x> [%*x] %c %n", &letter, &end);
        return end > 0 && strncmp(line + end, "Logger Shutdown:", 16) != 0;
    }

    // Each fault is told once, however often it is found.
    void Check(bool holds, const char* what) {
        if (holds || told.count(what)) return;
        told.insert(what);
        fprintf(stderr, "log_storm: %s\n", what);
        ok = false;
    }

    bool Broken(const char* what) {
        Check(false, what);
        return false;
    }

    const Options& options;
    std::vector<int> next;
    std::atomic<uint64_t> sent{0};
    std::atomic<int> ready{0};
    std::atomic<bool> go{false};
    Figures figures;
    std::string folder;
    std::string prefix;
    uint64_t lastSize = 0;
    uint64_t previousSize = 0;
    RCPtr<Logger> logger;
    RCPtr<LogWriter> writer;
    RCPtr<CountingWriter> counter{new CountingWriter};
    bool ok = true;
    std::set<std::string> told;
};

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (!ParseOptions(argc, argv, &options)) {
        fprintf(stderr,
                "usage: log_storm [--threads N] [--lines N] [--batch-threshold N] [--toggle-ms N] "
                "[--expect-batch] [--json] [--keep]\n");
        return 2;
    }
    Storm storm(options);
    const bool ran = storm.Run();
    const bool held = storm.Judge();
    storm.Print();
    return ran && held ? 0 : 1;
}
