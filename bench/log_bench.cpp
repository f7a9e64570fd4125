// Log records per second written to a file: our logger (every record
// escaped-checked, written in one write and flushed) against spdlog's file
// sink (buffered, flushed at the end) and a bare write() per preformatted line.
//
// Each benchmark iteration writes kBatch records; items/s is records/s. The
// message is about 100 bytes of ASCII at level 3 ("plain"), or the same line
// put together from text and numbers ("composed").
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <quillcore/logging/CQuillLogger.h>

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
void BM_SpdlogFileSink(benchmark::State& state) {
    const int threads = static_cast<int>(state.range(0));
    const std::string path = logPath("spdlog");
    std::filesystem::remove(path);
    std::shared_ptr<spdlog::logger> logger;
    if (threads == 1)
        logger =
            std::make_shared<spdlog::logger>("bench", std::make_shared<spdlog::sinks::basic_file_sink_st>(path, true));
    else
        logger =
            std::make_shared<spdlog::logger>("bench", std::make_shared<spdlog::sinks::basic_file_sink_mt>(path, true));
    logger->set_pattern("<r t=\"%Y-%m-%dT%H:%M:%S.%f\" l=\"%l\" p=\"%P\" n=\"%n\">%v</r>");
    logger->flush_on(spdlog::level::off);
    for (auto _ : state) {
        runBatch(threads, [&](long from, long to) {
            for (long i = from; i < to; ++i) logger->info("{}", kMessage);
        });
        logger->flush();
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
    logger.reset();
    std::filesystem::remove(path);
}
BENCHMARK(BM_SpdlogFileSink)->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);
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

// The floor: one write() of a preformatted line of our length per record.
void BM_BareWrite(benchmark::State& state) {
    const std::string path = logPath("bare");
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
    const std::string line =
        "<log tms=\"817000000.123\" tmt=\"11/22/2026 06:00:00.123\" pid=\"12345\" msg=\"" + kMessage + "\"/>\n";
    for (auto _ : state) {
        for (long i = 0; i < kBatch; ++i)
            if (::write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size())) std::abort();
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
    ::close(fd);
    std::filesystem::remove(path);
}

}  // namespace

BENCHMARK(BM_OursPlain)->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_OursComposed)->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_OursWithoutWrite)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_BareWrite)->UseRealTime()->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
