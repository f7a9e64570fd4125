// XML property-list throughput: our reader and writer against libplist
// (plist_from_xml / plist_to_xml) and a bare expat pass with empty handlers,
// the floor for any expat-based reader. All in one binary, on one document.
//
// The document: the file named by the environment variable
// QUILL_BENCH_PLIST, or else the ~1 MB reference document, generated at
// startup by running `python3 bench/gen_plist.py <temporary file>` (the script
// is deterministic, so every run measures the same bytes).
//
// What is timed (manual timing, as the peer figures are taken): parsing
// covers the parse call only, not freeing the tree; serialising covers the
// call that produces the text, not freeing it. MB/s are relative to the
// reference document's size for every figure (SetBytesProcessed), so they
// read as documents per second, comparable between tools.
//
// Before measuring, the program checks that our output reads back to a value
// equal to the one parsed, and aborts if not.
#include <benchmark/benchmark.h>
#include <expat.h>

#include <quillcore/platform/PLPropertyList.h>
#ifdef QUILL_BENCH_HAVE_LIBPLIST
#include <plist/plist.h>
#endif

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <unistd.h>

namespace {

std::string gDocument;
PLHolder<const PLObject> gTree;

std::string readWholeFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "plist_bench: cannot open %s\n", path.c_str());
        std::exit(1);
    }
    return std::string(std::istreambuf_iterator<char>(in), {});
}

std::string loadDocument() {
    if (const char* path = std::getenv("QUILL_BENCH_PLIST"); path && *path) return readWholeFile(path);
    const std::string file =
        (std::filesystem::temp_directory_path() / ("plist_bench." + std::to_string(getpid()) + ".plist")).string();
    const std::string command = std::string("python3 '") + QUILL_BENCH_SOURCE_DIR + "/gen_plist.py' '" + file + "'";
    if (std::system(command.c_str()) != 0) {
        std::fprintf(stderr, "plist_bench: %s failed\n", command.c_str());
        std::exit(1);
    }
    std::string doc = readWholeFile(file);
    std::filesystem::remove(file);
    return doc;
}

double seconds(std::chrono::steady_clock::time_point since) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

void checkRoundTrip() {
    std::string error;
    gTree = PLPropertyListCreateFromBytes(gDocument.data(), gDocument.size(), PLMutability::Immutable, &error);
    if (!gTree) {
        std::fprintf(stderr, "plist_bench: our reader refused the document: %s\n", error.c_str());
        std::exit(1);
    }
    std::string text;
    if (!PLPropertyListWriteXML(gTree.get(), text, &error)) {
        std::fprintf(stderr, "plist_bench: our writer failed: %s\n", error.c_str());
        std::exit(1);
    }
    const auto again = PLPropertyListCreateFromBytes(text.data(), text.size(), PLMutability::Immutable, &error);
    if (!again || !again->equals(*gTree)) {
        std::fprintf(stderr, "plist_bench: our output does not read back to an equal value: %s\n", error.c_str());
        std::exit(1);
    }
    std::fprintf(stderr, "plist_bench: document %zu bytes, our XML %zu bytes, round trip equal\n", gDocument.size(),
                 text.size());
}

void BM_ParseOurs(benchmark::State& state) {
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        auto tree = PLPropertyListCreateFromBytes(gDocument.data(), gDocument.size(), PLMutability::Immutable, nullptr);
        state.SetIterationTime(seconds(start));
        if (!tree) std::abort();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * gDocument.size()));
}

void BM_SerialiseOurs(benchmark::State& state) {
    for (auto _ : state) {
        std::string text;
        const auto start = std::chrono::steady_clock::now();
        const bool ok = PLPropertyListWriteXML(gTree.get(), text);
        state.SetIterationTime(seconds(start));
        if (!ok) std::abort();
        benchmark::DoNotOptimize(text.data());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * gDocument.size()));
}

void BM_SerialiseOursToData(benchmark::State& state) {
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        auto data = PLPropertyListCreateXMLData(gTree.get());
        state.SetIterationTime(seconds(start));
        if (!data) std::abort();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * gDocument.size()));
}

void XMLCALL onStart(void*, const XML_Char*, const XML_Char**) {}
void XMLCALL onEnd(void*, const XML_Char*) {}
void XMLCALL onText(void*, const XML_Char*, int) {}

void BM_ParseBareExpat(benchmark::State& state) {
    XML_Parser parser = XML_ParserCreate(nullptr);
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        XML_ParserReset(parser, nullptr);
        XML_SetElementHandler(parser, onStart, onEnd);
        XML_SetCharacterDataHandler(parser, onText);
        const XML_Status status = XML_Parse(parser, gDocument.data(), static_cast<int>(gDocument.size()), 1);
        state.SetIterationTime(seconds(start));
        if (status != XML_STATUS_OK) std::abort();
    }
    XML_ParserFree(parser);
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * gDocument.size()));
}

#ifdef QUILL_BENCH_HAVE_LIBPLIST
void BM_ParseLibplist(benchmark::State& state) {
    for (auto _ : state) {
        plist_t tree = nullptr;
        const auto start = std::chrono::steady_clock::now();
        plist_from_xml(gDocument.data(), static_cast<std::uint32_t>(gDocument.size()), &tree);
        state.SetIterationTime(seconds(start));
        if (!tree) std::abort();
        plist_free(tree);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * gDocument.size()));
}

void BM_SerialiseLibplist(benchmark::State& state) {
    plist_t tree = nullptr;
    plist_from_xml(gDocument.data(), static_cast<std::uint32_t>(gDocument.size()), &tree);
    if (!tree) std::abort();
    for (auto _ : state) {
        char* text = nullptr;
        std::uint32_t length = 0;
        const auto start = std::chrono::steady_clock::now();
        plist_to_xml(tree, &text, &length);
        state.SetIterationTime(seconds(start));
        if (!text || !length) std::abort();
        plist_to_xml_free(text);
    }
    plist_free(tree);
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * gDocument.size()));
}
#endif

void configure(benchmark::internal::Benchmark* b) {
    b->UseManualTime()->Unit(benchmark::kMillisecond)->MinTime(0.5)->Repetitions(5)->ReportAggregatesOnly(true);
}

BENCHMARK(BM_ParseOurs)->Apply(configure);
#ifdef QUILL_BENCH_HAVE_LIBPLIST
BENCHMARK(BM_ParseLibplist)->Apply(configure);
#endif
BENCHMARK(BM_ParseBareExpat)->Apply(configure);
BENCHMARK(BM_SerialiseOurs)->Apply(configure);
BENCHMARK(BM_SerialiseOursToData)->Apply(configure);
#ifdef QUILL_BENCH_HAVE_LIBPLIST
BENCHMARK(BM_SerialiseLibplist)->Apply(configure);
#endif

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    gDocument = loadDocument();
    checkRoundTrip();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    gTree.reset();
    return 0;
}
