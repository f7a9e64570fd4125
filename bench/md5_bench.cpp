// MD5 of a large page-cached file: CMessageDigest against OpenSSL's EVP loop
// (16 MiB and 64 KiB reads) and the `openssl dgst -md5` command, in one run.
//
// The file is $QUILL_BENCH_MD5_FILE, or a file of $QUILL_BENCH_MD5_MIB MiB
// (default 1024) of random bytes made in $TMPDIR for the run and removed at
// the end. Throughput is bytes/s of the file (Google Benchmark's "bytes_per_second").
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <quillcore/util/CMessageDigest.h>

extern char** environ;

namespace {

std::string gPath;
std::int64_t gSize = 0;
bool gMadeFile = false;

void prepareFile() {
    if (const char* given = std::getenv("QUILL_BENCH_MD5_FILE")) {
        gPath = given;
    } else {
        const char* tmp = std::getenv("TMPDIR");
        gPath = std::string(tmp ? tmp : "/tmp") + "/quill-md5-bench.bin";
        const char* mib = std::getenv("QUILL_BENCH_MD5_MIB");
        const std::size_t bytes = static_cast<std::size_t>(mib ? std::atol(mib) : 1024) << 20;
        std::vector<std::uint64_t> block(1 << 17);
        std::mt19937_64 rng(20261122);
        std::ofstream out(gPath, std::ios::binary | std::ios::trunc);
        for (std::size_t done = 0; done < bytes; done += block.size() * 8) {
            for (auto& w : block) w = rng();
            out.write(reinterpret_cast<const char*>(block.data()),
                      static_cast<std::streamsize>(std::min(bytes - done, block.size() * 8)));
        }
        gMadeFile = true;
    }
    // Page the file in.
    std::vector<char> buf(1 << 20);
    int fd = open(gPath.c_str(), O_RDONLY);
    if (fd < 0) {
        std::perror(gPath.c_str());
        std::exit(1);
    }
    ssize_t n;
    while ((n = read(fd, buf.data(), buf.size())) > 0) gSize += n;
    close(fd);
}

void BM_CMessageDigest(benchmark::State& state) {
    auto url = ferrocore::CURL::createWithPath(gPath, false);
    for (auto _ : state) {
        quill::CMessageDigest md(url);
        benchmark::DoNotOptimize(md.digest().get());
    }
    state.SetBytesProcessed(state.iterations() * gSize);
}

void BM_EVPLoop(benchmark::State& state) {
    const auto chunk = static_cast<std::size_t>(state.range(0));
    std::unique_ptr<unsigned char[]> buf(new unsigned char[chunk]);
    for (auto _ : state) {
        int fd = open(gPath.c_str(), O_RDONLY);
        EVP_MD_CTX* ctx = EVP_MD_CTX_new();
        EVP_DigestInit_ex(ctx, EVP_md5(), nullptr);
        ssize_t got;
        while ((got = read(fd, buf.get(), chunk)) > 0) EVP_DigestUpdate(ctx, buf.get(), static_cast<std::size_t>(got));
        unsigned char md[EVP_MAX_MD_SIZE];
        unsigned len = 0;
        EVP_DigestFinal_ex(ctx, md, &len);
        EVP_MD_CTX_free(ctx);
        close(fd);
        benchmark::DoNotOptimize(md);
    }
    state.SetBytesProcessed(state.iterations() * gSize);
}

void BM_OpensslDgstCommand(benchmark::State& state) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    std::string path = gPath;
    char* argv[] = {const_cast<char*>("openssl"), const_cast<char*>("dgst"), const_cast<char*>("-md5"), path.data(),
                    nullptr};
    for (auto _ : state) {
        pid_t pid;
        if (posix_spawnp(&pid, "openssl", &actions, nullptr, argv, environ) != 0) {
            state.SkipWithError("cannot start openssl");
            break;
        }
        int status = 0;
        waitpid(pid, &status, 0);
    }
    posix_spawn_file_actions_destroy(&actions);
    state.SetBytesProcessed(state.iterations() * gSize);
}

}  // namespace

BENCHMARK(BM_CMessageDigest)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);
BENCHMARK(BM_EVPLoop)
    ->Name("BM_EVPLoop/16MiB")
    ->Arg(16 << 20)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(5);
BENCHMARK(BM_EVPLoop)
    ->Name("BM_EVPLoop/64KiB")
    ->Arg(64 << 10)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(5);
BENCHMARK(BM_OpensslDgstCommand)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    prepareFile();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    if (gMadeFile) std::remove(gPath.c_str());
    return 0;
}
