// Kill report: how often the host configuration file still parses after a
// writer is killed (SIGKILL) at a random moment. The file is written in place
// (write from the start, then truncate), so a writer killed between its write
// and its truncate leaves the new document followed by the old one's tail
// whenever the new document is the shorter one; this program measures how
// often that happens in practice.
//
// Each round forks a writer that flushes the ~10 KB configuration file of
// PlistFileFixture.h in a loop (lockForRW, refresh, change, writePropertyList,
// unlock), alternately growing and shrinking it by a padding value so that
// every other write is shorter than the file it replaces. After a random
// delay the parent kills it, then reads the file through
// CPropertyListBasicFile. A damaged file is counted and restored.
//
// usage: plist_kill_report [KILLS=300] [MAX_DELAY_US=3000]
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bench/PlistFileFixture.h"
#include <ferrocore/CException.h>
#include <quillcore/platform/PLPropertyList.h>
#include <quillcore/plist/CPropertyListBasicFile.h>

namespace {

using quill::CPropertyListBasicFile;

PL_CONSTANT_STRING(kConfigKey, "corvaneconfig");
PL_CONSTANT_STRING(kCounterKey, "BenchCounter");
PL_CONSTANT_STRING(kPaddingKey, "Padding");

using plistbench::fail;
using plistbench::writeWhole;

// The writer: flushes forever, alternating a long and no padding value.
[[noreturn]] void writeForever(PLStringRef path, int ready) {
    try {
        CPropertyListBasicFile file(path);
        const PLHolder<const PLString> padding = PLString::create(std::string(300, 'p'));
        const char c = 'r';
        if (::write(ready, &c, 1) != 1) ::_exit(3);
        for (long round = 0;; ++round) {
            file.lockForRW();
            file.refresh();
            const PLHolder<PLMutableDictionary> top = file.toPropertyList();
            PLHolder<PLMutableDictionary> config =
                PLDictionaryCreateMutableCopy(PLDynamicCast<PLDictionary>(top->get(kConfigKey)));
            const auto* counter = PLDynamicCast<PLNumber>(config->get(kCounterKey));
            config->set(PLHolder<const PLObject>::retain(kCounterKey), PLNumber::create(counter->int64Value() + 1));
            if (round % 2 == 0)
                config->set(PLHolder<const PLObject>::retain(kPaddingKey), padding);
            else
                config->remove(kPaddingKey);
            top->set(PLHolder<const PLObject>::retain(kConfigKey), std::move(config));
            file.writePropertyList(top.get());
            file.unlock();
        }
    } catch (...) {
        ::_exit(4);
    }
}

}  // namespace

int main(int argc, char** argv) {
    const long kills = argc > 1 ? std::strtol(argv[1], nullptr, 10) : 300;
    const long maxDelay = argc > 2 ? std::strtol(argv[2], nullptr, 10) : 3000;
    if (kills <= 0 || maxDelay < 0) {
        std::fprintf(stderr, "usage: %s [KILLS=300] [MAX_DELAY_US=3000]\n", argv[0]);
        return 2;
    }

    std::string pattern = (std::filesystem::temp_directory_path() / "plist_kill_report.XXXXXX").string();
    if (!::mkdtemp(pattern.data())) fail("mkdtemp");
    const std::string file = pattern + "/LumenforgeConfig.plist";
    const PLHolder<const PLString> path = PLString::create(file);
    // The file class logs every refused read to the console; keep that out of
    // the system log.
    ::setenv("QUILL_CONSOLE_LOG", (pattern + "/console.log").c_str(), 1);
    std::string xml;
    if (!PLPropertyListWriteXML(plistbench::makeConfigDocument().get(), xml)) fail("serialise");
    writeWhole(file, xml);

    std::mt19937 random(20261122);
    std::uniform_int_distribution<long> delay(0, maxDelay);
    long parsed = 0;
    long damaged = 0;
    long writes = 0;
    long lastCounter = 0;
    for (long k = 0; k < kills; ++k) {
        int ready[2];
        if (::pipe(ready) != 0) fail("pipe");
        const pid_t writer = ::fork();
        if (writer < 0) fail("fork");
        if (writer == 0) {
            ::close(ready[0]);
            writeForever(path.get(), ready[1]);
        }
        ::close(ready[1]);
        char c;
        if (::read(ready[0], &c, 1) != 1) fail("writer did not start");
        ::close(ready[0]);
        ::usleep(static_cast<useconds_t>(delay(random)));
        ::kill(writer, SIGKILL);
        int status = 0;
        ::waitpid(writer, &status, 0);
        if (!WIFSIGNALED(status)) {
            std::fprintf(stderr, "round %ld: the writer ended by itself (status %d)\n", k, status);
            return 1;
        }
        try {
            CPropertyListBasicFile check(path.get());
            ++parsed;
            const auto* config = PLDynamicCast<PLDictionary>(check.toPropertyList()->get(kConfigKey));
            const auto* counter = config ? PLDynamicCast<PLNumber>(config->get(kCounterKey)) : nullptr;
            const long now = counter ? static_cast<long>(counter->int64Value()) : lastCounter;
            writes += now - lastCounter;
            lastCounter = now;
        } catch (const ferrocore::CException& e) {
            ++damaged;
            std::fprintf(stderr, "round %ld: damaged: %s\n", k, e.what());
            writeWhole(file, xml);
            lastCounter = 0;
        }
    }
    std::printf("kills: %ld (random delay 0-%ld us after the writer started)\n", kills, maxDelay);
    std::printf("completed writes seen: %ld (%.1f per kill)\n", writes, static_cast<double>(writes) / kills);
    std::printf("file parsed afterwards: %ld of %ld (%.2f%%); damaged: %ld (%.2f%%)\n", parsed, kills,
                100.0 * parsed / kills, damaged, 100.0 * damaged / kills);
    std::filesystem::remove_all(pattern);
    return 0;
}
