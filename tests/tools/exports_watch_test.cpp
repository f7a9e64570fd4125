// quill-exports-watch: a change of the exports file is put in force (the
// stand-in exportfs runs) within a second, whichever way the file changes,
// and nothing else sets it off.
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "support/NotificationBus.h"
#include "support/TestSupport.h"

namespace {

using Clock = std::chrono::steady_clock;

class ExportsWatch : public testing::Test {
protected:
    void SetUp() override {
        _runs = _dir / "runs";
        _exportfs = _dir / "exportfs";
        quilltest::writeFile(_exportfs, "#!/bin/sh\necho \"$*\" >> '" + _runs.string() + "'\n");
        ::chmod(_exportfs.c_str(), 0755);
        std::filesystem::create_directory(_dir / "etc");
        _exports = _dir / "etc" / "exports";
        quilltest::writeFile(_exports, "");
    }

    std::size_t runs() const {
        std::ifstream in(_runs);
        std::size_t count = 0;
        for (std::string line; std::getline(in, line);) {
            EXPECT_EQ(line, "-r");
            ++count;
        }
        return count;
    }
    // How long it took until the stand-in had run `count` times; gives up
    // after two seconds.
    double waitForRuns(std::size_t count) const {
        auto start = Clock::now();
        while (runs() < count && Clock::now() - start < std::chrono::seconds(2)) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return std::chrono::duration<double>(Clock::now() - start).count();
    }

    quilltest::TempDir _dir{"exports-watch"};
    std::filesystem::path _runs, _exportfs, _exports;
};

TEST_F(ExportsWatch, EveryKindOfChangeIsInForceWithinASecond) {
    quilltest::PeerProcess watcher({"--exports", _exports.string(), "--exportfs", _exportfs.string()},
                                   QUILL_TEST_EXPORTS_WATCH);
    waitForRuns(1);
    ASSERT_EQ(runs(), 1u) << "no run at start: " << watcher.output();

    // Replaced by renaming, as the publisher writes it.
    quilltest::writeFile(_dir / "etc" / "exports.new", "/srv/a\n");
    std::filesystem::rename(_dir / "etc" / "exports.new", _exports);
    EXPECT_LT(waitForRuns(2), 1.0);
    EXPECT_EQ(runs(), 2u);

    // Written in place.
    {
        std::ofstream out(_exports, std::ios::app);
        out << "/srv/b\n";
    }
    EXPECT_LT(waitForRuns(3), 1.0);

    std::filesystem::remove(_exports);
    EXPECT_LT(waitForRuns(4), 1.0);

    // Other files of the directory are not the exports file.
    quilltest::writeFile(_dir / "etc" / "exports.d-unrelated", "x\n");
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(runs(), 4u);

    ::kill(watcher.pid(), SIGTERM);
    EXPECT_EQ(watcher.wait(5.0), 0) << watcher.output();
}

TEST_F(ExportsWatch, BadArgumentsAndAMissingDirectoryAreErrors) {
    quilltest::PeerProcess bad({"--bogus"}, QUILL_TEST_EXPORTS_WATCH);
    EXPECT_EQ(bad.wait(5.0), 1);
    EXPECT_NE(bad.output().find("unknown argument \"--bogus\""), std::string::npos) << bad.output();

    quilltest::PeerProcess missing(
        {"--exports", (_dir / "nowhere" / "exports").string(), "--exportfs", _exportfs.string()},
        QUILL_TEST_EXPORTS_WATCH);
    EXPECT_EQ(missing.wait(5.0), 1);
    EXPECT_NE(missing.output().find("can't watch"), std::string::npos) << missing.output();
    EXPECT_EQ(runs(), 0u);
}

}  // namespace
