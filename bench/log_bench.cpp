// Log records per second written to a file: our logger (every record
// escape-checked, written in one write and flushed) against spdlog's file
// sink flushed after every record (the same work: each record has reached the
// kernel when the call returns), spdlog's file sink buffered (flushed at the
// end of a batch only, so not the same work), and a bare write() per
// preformatted line.
//
// Each benchmark iteration writes kBatch records; items/s is records/s, and
// "bytes" the length of one line. The message is about 100 bytes of ASCII at
// level 3 ("plain"), or the same line put together from text and numbers
// ("composed"). Every peer writes lines exactly as long as ours.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <ferrocore/CMutex.h>
#include <quillcore/logging/CQuillLogger.h>
#include <quillcore/platform/Host.h>

#if QUILL_BENCH_HAVE_SPDLOG
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#endif

namespace {

constexpr long kBatch = 100000;
// 100 bytes.
const std::string kMessage =
    "job 0000001 frame 00001 state=rendering host=node-07 queue=default priority=normal tries=1 ok=yes!!";

std::string logPath(const char* name) {
    static const std::filesystem::path directory = [] {
        char pattern[] = "/tmp/quill-log-bench.XXXXXX";
        const char* made = ::mkdtemp(pattern);
        if (!made) std::abort();
        return std::filesystem::path(made);
    }();
    return (directory / name).string() + ".log";
}

quill::CQuillLoggerRef startLogger(const std::string& path) {
    std::filesystem::remove(path);
    quill::CQuillLoggerRef logger = quill::CQuillLogger::create();
    logger->startupLogging(ferrocore::CString::create(path), true);
    return logger;
}

// The last line of a file that starts with `prefix` (read from its last
// 4 KiB), with its line feed.
std::string lastLine(const std::string& path, std::string_view prefix = "") {
    std::ifstream in(path, std::ios::binary | std::ios::ate);
    const std::streamoff size = in.tellg();
    in.seekg(std::max<std::streamoff>(0, size - 4096));
    std::string line, last;
    while (std::getline(in, line))
        if (line.starts_with(prefix)) last = line + "\n";
    return last;
}

// One line of ours for kMessage, with its line feed, as our logger writes it.
const std::string& ourLine() {
    static const std::string line = [] {
        const std::string path = logPath("probe");
        startLogger(path)->log(3) << kMessage << std::endl;
        const std::string record = lastLine(path, "<log ");
        std::filesystem::remove(path);
        if (record.empty()) std::abort();
        return record;
    }();
    return line;
}

// Runs `body(from, to)` for kBatch records on `threads` threads at once.
template <class Body>
void runBatch(int threads, Body body) {
    if (threads == 1) {
        body(0, kBatch);
        return;
    }
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) workers.emplace_back(body, kBatch * t / threads, kBatch * (t + 1) / threads);
    for (std::thread& worker : workers) worker.join();
}

void BM_OursPlain(benchmark::State& state) {
    const int threads = static_cast<int>(state.range(0));
    const std::string path = logPath("ours-plain");
    quill::CQuillLoggerRef logger = startLogger(path);
    for (auto _ : state) {
        runBatch(threads, [&](long from, long to) {
            for (long i = from; i < to; ++i) logger->log(3) << kMessage << std::endl;
        });
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
    logger.reset();
    state.counters["bytes"] = static_cast<double>(lastLine(path, "<log ").size());
    std::filesystem::remove(path);
}

void BM_OursComposed(benchmark::State& state) {
    const int threads = static_cast<int>(state.range(0));
    const std::string path = logPath("ours-composed");
    quill::CQuillLoggerRef logger = startLogger(path);
    for (auto _ : state) {
        runBatch(threads, [&](long from, long to) {
            for (long i = from; i < to; ++i)
                logger->log(3) << "job " << i << " frame " << i % 100000 << " state=rendering host=node-07"
                               << std::endl;
        });
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
    logger.reset();
    std::filesystem::remove(path);
}

#if QUILL_BENCH_HAVE_SPDLOG
std::shared_ptr<spdlog::logger> spdlogFileLogger(int threads, const std::string& path, const std::string& pattern) {
    std::filesystem::remove(path);
    std::shared_ptr<spdlog::logger> logger;
    if (threads == 1)
        logger =
            std::make_shared<spdlog::logger>("bench", std::make_shared<spdlog::sinks::basic_file_sink_st>(path, true));
    else
        logger =
            std::make_shared<spdlog::logger>("bench", std::make_shared<spdlog::sinks::basic_file_sink_mt>(path, true));
    logger->set_pattern(pattern);
    return logger;
}

// spdlog's line for our record: the same fields in the same places. Its
// seconds count from 1970 rather than 2001 and may take a digit more; the
// closing of the element is cut or padded so that its lines are exactly as
// long as ours.
const std::string& spdlogPattern() {
    static const std::string pattern = [] {
        const std::string open = "<log tms=\"%E.%e\" tmt=\"%m/%d/%Y %H:%M:%S.%e\" pid=\"%P\" msg=\"%v";
        const std::string path = logPath("spdlog-probe");
        {
            std::shared_ptr<spdlog::logger> probe = spdlogFileLogger(1, path, open);
            probe->info("{}", kMessage);
            probe->flush();
        }
        const std::size_t openLength = lastLine(path).size();
        std::filesystem::remove(path);
        if (openLength > ourLine().size()) std::abort();
        std::string close = "\"/>";
        close.resize(ourLine().size() - openLength, ' ');
        return open + close;
    }();
    return pattern;
}

// flushEveryRecord: flush_on(trace), one write() per record, as ours does;
// else the sink's buffer is flushed at the end of each batch.
void spdlogFileSink(benchmark::State& state, bool flushEveryRecord) {
    const int threads = static_cast<int>(state.range(0));
    const std::string path = logPath(flushEveryRecord ? "spdlog-flushed" : "spdlog");
    std::shared_ptr<spdlog::logger> logger = spdlogFileLogger(threads, path, spdlogPattern());
    logger->flush_on(flushEveryRecord ? spdlog::level::trace : spdlog::level::off);
    for (auto _ : state) {
        runBatch(threads, [&](long from, long to) {
            for (long i = from; i < to; ++i) logger->info("{}", kMessage);
        });
        logger->flush();
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
    logger.reset();
    state.counters["bytes"] = static_cast<double>(lastLine(path).size());
    std::filesystem::remove(path);
}

void BM_SpdlogFlushedFileSink(benchmark::State& state) { spdlogFileSink(state, true); }
void BM_SpdlogFileSink(benchmark::State& state) { spdlogFileSink(state, false); }
#endif

// Everything but the system call: the records go to a stream buffer that
// drops them. What this costs per record is our share of a file record.
class CDiscardBuffer final : public std::streambuf {
protected:
    int_type overflow(int_type c) override { return traits_type::not_eof(c); }
    std::streamsize xsputn(const char*, std::streamsize count) override { return count; }
};

void BM_OursWithoutWrite(benchmark::State& state) {
    CDiscardBuffer discard;
    std::ostream sink(&discard);
    quill::CQuillLoggerRef logger = quill::CQuillLogger::create();
    logger->startupLogging(quill::CQuillLogger::OStreamRef(ferrocore::makeShared<quill::CQuillLogger::OBufferStream>(
        quill::CQuillLogger::OStream::kFileStream, sink, ferrocore::CString::create("discard"))));
    for (auto _ : state) {
        for (long i = 0; i < kBatch; ++i) logger->log(3) << kMessage << std::endl;
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
}

// The part of "without write" that no record of ours can skip, whatever its
// code: reading the host's clock, looking up TZ (a record's time text follows
// a change of time zone at once), taking the stream's lock in each of the two
// calls of `log(3) << message << std::endl`, and putting the line together.
void BM_RecordFloorWithoutWrite(benchmark::State& state) {
    quill::platform::IHost& host = quill::platform::host();
    ferrocore::CRecursiveMutex mutex;
    const std::string& line = ourLine();
    std::string record;
    record.reserve(256);
    for (auto _ : state) {
        for (long i = 0; i < kBatch; ++i) {
            {
                ferrocore::CAutoMutex lock(mutex);
                benchmark::DoNotOptimize(host.currentTime());
                benchmark::DoNotOptimize(std::getenv("TZ"));
                record.assign(line.data(), line.size() - kMessage.size() - 4);
                record.append(kMessage);
            }
            {
                ferrocore::CAutoMutex lock(mutex);
                record.append("\"/>\n");
                benchmark::DoNotOptimize(record.data());
                record.clear();
            }
        }
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
}

// The floor: one write() per record of a line of ours, preformatted.
void BM_BareWrite(benchmark::State& state) {
    const std::string path = logPath("bare");
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
    const std::string& line = ourLine();
    for (auto _ : state) {
        for (long i = 0; i < kBatch; ++i)
            if (::write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size())) std::abort();
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
    state.counters["bytes"] = static_cast<double>(line.size());
    ::close(fd);
    std::filesystem::remove(path);
}

}  // namespace

BENCHMARK(BM_OursPlain)->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_OursComposed)->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);
#if QUILL_BENCH_HAVE_SPDLOG
BENCHMARK(BM_SpdlogFlushedFileSink)->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SpdlogFileSink)->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);
#endif
BENCHMARK(BM_OursWithoutWrite)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RecordFloorWithoutWrite)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_BareWrite)->UseRealTime()->Unit(benchmark::kMillisecond);

// Every benchmark runs in a process that has had a second thread, as any
// service that logs has: the C library takes cheaper, non-atomic paths for
// locks (ours, spdlog's and stdio's) in a process that never had one, and the
// first two-thread benchmark would otherwise decide which benchmarks get them.
int main(int argc, char** argv) {
    std::thread([] {}).join();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
