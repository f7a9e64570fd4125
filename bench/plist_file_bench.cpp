// Locked read-modify-write cycles of the host configuration file (~10 KB,
// all four records, see PlistFileFixture.h), three ways in one run:
//
//   Ours      CPropertyListBasicFile: lockForRW, refresh (read + parse),
//             change one value, writePropertyList (serialise, write,
//             truncate), unlock. The object skips the parse when the file
//             holds exactly the bytes it last wrote, which is what it finds
//             whenever it re-takes the lock before anyone else (flock hands
//             it straight back to the releasing process nearly every time).
//   OursParsing  single process only: two objects take turns, so every read
//             finds the other's write and parses: the cost without that
//             shortcut.
//   Libplist  the same cycle by hand with libplist: open + flock(LOCK_EX) +
//             fstat + read, plist_from_xml, change, plist_to_xml, pwrite,
//             ftruncate, close (as the peer figures are taken).
//   Bare      open + flock + read + lseek + write + ftruncate + close of a
//             file of the same size, no parsing: the floor.
//
// Each cycle increments a counter in the file; every measurement checks that
// the counter ends exactly at the number of cycles run, in the single-process
// case and with 8 processes contending (fork, 500 cycles each). Figures are
// cycles per second (items_per_second). Manual timing: a contended
// measurement covers the start signal to the last child's exit.
//
// usage: plist_file_bench [google benchmark flags]   (works in $TMPDIR)
#include <benchmark/benchmark.h>

#include "bench/PlistFileFixture.h"
#include <quillcore/platform/PLPropertyList.h>
#include <quillcore/plist/CPropertyListBasicFile.h>
#ifdef QUILL_BENCH_HAVE_LIBPLIST
#include <plist/plist.h>
#endif

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using quill::CPropertyListBasicFile;

constexpr int kProcesses = 8;
constexpr long kCyclesPerProcess = 500;

PL_CONSTANT_STRING(kConfigKey, "corvaneconfig");
PL_CONSTANT_STRING(kCounterKey, "BenchCounter");

std::string gDirectory;
std::string gPlistPath;
std::string gBarePath;
std::string gDocument;

using plistbench::fail;
using plistbench::writeWhole;

std::string readWhole(const std::string& path) {
    std::string bytes;
    const int fd = ::open(path.c_str(), O_RDONLY);
    if (fd < 0) fail("open");
    char buffer[65536];
    for (ssize_t n; (n = ::read(fd, buffer, sizeof buffer)) > 0;) bytes.append(buffer, static_cast<size_t>(n));
    ::close(fd);
    return bytes;
}

void resetFiles() {
    writeWhole(gPlistPath, gDocument);
    std::string bare(gDocument.size(), '.');
    std::memcpy(bare.data(), "counter=0000000000\n", 19);
    writeWhole(gBarePath, bare);
}

long plistCounter() {
    const std::string bytes = readWhole(gPlistPath);
    auto plist = PLPropertyListCreateFromBytes(bytes.data(), bytes.size(), PLMutability::Immutable, nullptr);
    const auto* top = PLDynamicCast<PLDictionary>(plist.get());
    const auto* config = top ? PLDynamicCast<PLDictionary>(top->get(kConfigKey)) : nullptr;
    const auto* counter = config ? PLDynamicCast<PLNumber>(config->get(kCounterKey)) : nullptr;
    return counter ? static_cast<long>(counter->int64Value()) : -1;
}

long bareCounter() { return std::strtol(readWhole(gBarePath).c_str() + 8, nullptr, 10); }

// ------------------------------------------------------------ the cycles

void cycleOurs(CPropertyListBasicFile& file) {
    file.lockForRW();
    file.refresh();
    const PLHolder<PLMutableDictionary> top = file.toPropertyList();
    PLHolder<PLMutableDictionary> config =
        PLDictionaryCreateMutableCopy(PLDynamicCast<PLDictionary>(top->get(kConfigKey)));
    const auto* counter = PLDynamicCast<PLNumber>(config->get(kCounterKey));
    config->set(PLHolder<const PLObject>::retain(kCounterKey), PLNumber::create(counter->int64Value() + 1));
    top->set(PLHolder<const PLObject>::retain(kConfigKey), std::move(config));
    file.writePropertyList(top.get());
    file.unlock();
}

// Opens and locks, reads the whole file into `buffer`; returns the
// descriptor.
int lockAndRead(const std::string& path, std::vector<char>& buffer) {
    const int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) fail("open");
    if (::flock(fd, LOCK_EX) != 0) fail("flock");
    struct stat info {};
    if (::fstat(fd, &info) != 0) fail("fstat");
    buffer.resize(static_cast<size_t>(info.st_size));
    size_t got = 0;
    while (got < buffer.size()) {
        const ssize_t n = ::read(fd, buffer.data() + got, buffer.size() - got);
        if (n <= 0) fail("read");
        got += static_cast<size_t>(n);
    }
    return fd;
}

void writeAndClose(int fd, const char* bytes, size_t size) {
    if (::pwrite(fd, bytes, size, 0) != static_cast<ssize_t>(size)) fail("write");
    if (::ftruncate(fd, static_cast<off_t>(size)) != 0) fail("ftruncate");
    ::close(fd);
}

#ifdef QUILL_BENCH_HAVE_LIBPLIST
void cycleLibplist(std::vector<char>& buffer) {
    const int fd = lockAndRead(gPlistPath, buffer);
    plist_t root = nullptr;
    plist_from_xml(buffer.data(), static_cast<uint32_t>(buffer.size()), &root);
    plist_t counter = root ? plist_dict_get_item(plist_dict_get_item(root, "corvaneconfig"), "BenchCounter") : nullptr;
    if (!counter) fail("libplist parse");
    uint64_t value = 0;
    plist_get_uint_val(counter, &value);
    plist_set_uint_val(counter, value + 1);
    char* xml = nullptr;
    uint32_t length = 0;
    plist_to_xml(root, &xml, &length);
    if (!xml) fail("libplist serialise");
    writeAndClose(fd, xml, length);
    plist_to_xml_free(xml);
    plist_free(root);
}
#endif

void cycleBare(std::vector<char>& buffer) {
    const int fd = lockAndRead(gBarePath, buffer);
    char head[32];
    std::snprintf(head, sizeof head, "counter=%010ld\n", std::strtol(buffer.data() + 8, nullptr, 10) + 1);
    std::memcpy(buffer.data(), head, 19);
    if (::lseek(fd, 0, SEEK_SET) != 0) fail("lseek");
    if (::write(fd, buffer.data(), buffer.size()) != static_cast<ssize_t>(buffer.size())) fail("write");
    if (::ftruncate(fd, static_cast<off_t>(buffer.size())) != 0) fail("ftruncate");
    ::close(fd);
}

// Runs `cycles` cycles of one kind in the calling process.
enum class Kind { Ours, OursParsing, Libplist, Bare };

void runCycles(Kind kind, long cycles) {
    std::vector<char> buffer;
    if (kind == Kind::Ours || kind == Kind::OursParsing) {
        const PLHolder<const PLString> path = PLString::create(gPlistPath);
        CPropertyListBasicFile file(path.get());
        for (long i = 0; i < cycles; ++i) cycleOurs(file);
        return;
    }
    for (long i = 0; i < cycles; ++i) {
#ifdef QUILL_BENCH_HAVE_LIBPLIST
        if (kind == Kind::Libplist) {
            cycleLibplist(buffer);
            continue;
        }
#endif
        cycleBare(buffer);
    }
}

long counterOf(Kind kind) { return kind == Kind::Bare ? bareCounter() : plistCounter(); }

double secondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// ------------------------------------------------------------ benchmarks

void singleProcess(benchmark::State& state, Kind kind) {
    resetFiles();
    std::vector<char> buffer;
    const PLHolder<const PLString> path = PLString::create(gPlistPath);
    CPropertyListBasicFile file(path.get());
    CPropertyListBasicFile other(path.get());
    bool turn = false;
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        switch (kind) {
            case Kind::Ours: cycleOurs(file); break;
            case Kind::OursParsing:
                cycleOurs(turn ? other : file);
                turn = !turn;
                break;
#ifdef QUILL_BENCH_HAVE_LIBPLIST
            case Kind::Libplist: cycleLibplist(buffer); break;
#else
            case Kind::Libplist: break;
#endif
            case Kind::Bare: cycleBare(buffer); break;
        }
        state.SetIterationTime(secondsSince(start));
    }
    if (counterOf(kind) != static_cast<long>(state.iterations())) state.SkipWithError("lost updates");
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}

// One iteration = kProcesses processes doing kCyclesPerProcess cycles each,
// started together.
void contended(benchmark::State& state, Kind kind) {
    for (auto _ : state) {
        resetFiles();
        int ready[2];
        int go[2];
        if (::pipe(ready) != 0 || ::pipe(go) != 0) fail("pipe");
        pid_t children[kProcesses];
        for (pid_t& child : children) {
            child = ::fork();
            if (child < 0) fail("fork");
            if (child == 0) {
                ::close(ready[0]);
                ::close(go[1]);
                char c = 'r';
                if (::write(ready[1], &c, 1) != 1 || ::read(go[0], &c, 1) != 0) ::_exit(3);
                try {
                    runCycles(kind, kCyclesPerProcess);
                } catch (...) {
                    ::_exit(4);
                }
                ::_exit(0);
            }
        }
        ::close(ready[1]);
        ::close(go[0]);
        char c;
        for (int k = 0; k < kProcesses; ++k)
            if (::read(ready[0], &c, 1) != 1) fail("ready");
        ::close(ready[0]);
        const auto start = std::chrono::steady_clock::now();
        ::close(go[1]);
        bool ok = true;
        for (pid_t child : children) {
            int status = 0;
            ::waitpid(child, &status, 0);
            ok = ok && WIFEXITED(status) && WEXITSTATUS(status) == 0;
        }
        state.SetIterationTime(secondsSince(start));
        const long counter = counterOf(kind);
        if (!ok || counter != kProcesses * kCyclesPerProcess) {
            std::fprintf(stderr, "contended: counter %ld, expected %ld (children ok: %d)\n", counter,
                         kProcesses * kCyclesPerProcess, ok);
            state.SkipWithError("lost updates or failed children");
            break;
        }
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kProcesses * kCyclesPerProcess);
}

void single(benchmark::internal::Benchmark* b) {
    b->UseManualTime()->Unit(benchmark::kMicrosecond)->MinTime(1.0)->Repetitions(3)->ReportAggregatesOnly(true);
}
void many(benchmark::internal::Benchmark* b) {
    b->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(5)->Repetitions(3)->ReportAggregatesOnly(true);
}

BENCHMARK_CAPTURE(singleProcess, Ours, Kind::Ours)->Apply(single);
BENCHMARK_CAPTURE(singleProcess, OursParsing, Kind::OursParsing)->Apply(single);
#ifdef QUILL_BENCH_HAVE_LIBPLIST
BENCHMARK_CAPTURE(singleProcess, Libplist, Kind::Libplist)->Apply(single);
#endif
BENCHMARK_CAPTURE(singleProcess, Bare, Kind::Bare)->Apply(single);
BENCHMARK_CAPTURE(contended, Ours_8procs, Kind::Ours)->Apply(many);
#ifdef QUILL_BENCH_HAVE_LIBPLIST
BENCHMARK_CAPTURE(contended, Libplist_8procs, Kind::Libplist)->Apply(many);
#endif
BENCHMARK_CAPTURE(contended, Bare_8procs, Kind::Bare)->Apply(many);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;

    std::string pattern = (std::filesystem::temp_directory_path() / "plist_file_bench.XXXXXX").string();
    if (!::mkdtemp(pattern.data())) fail("mkdtemp");
    gDirectory = pattern;
    gPlistPath = gDirectory + "/LumenforgeConfig.plist";
    gBarePath = gDirectory + "/bare.dat";
    if (!PLPropertyListWriteXML(plistbench::makeConfigDocument().get(), gDocument)) fail("serialise");
    std::fprintf(stderr, "plist_file_bench: configuration file %zu bytes\n", gDocument.size());

    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::filesystem::remove_all(gDirectory);
    return 0;
}
