// Test entry point: every test program runs in a throw-away home with a pinned
// time zone and its console log in a file, and never sees the developer's
// session bus.
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <time.h>

int main(int argc, char** argv) {
    namespace fs = std::filesystem;
    const fs::path& root = quilltest::testRoot();
    fs::create_directories(root / "home");
    setenv("HOME", (root / "home").c_str(), 1);
    if (!getenv("TZ")) setenv("TZ", "UTC", 1);
    tzset();
    setenv("QUILL_CONSOLE_LOG", quilltest::consoleLogPath().c_str(), 1);
    unsetenv("DBUS_SESSION_BUS_ADDRESS");
    setenv("XDG_RUNTIME_DIR", (root / "run").c_str(), 1);
    fs::create_directories(root / "run");

    testing::InitGoogleTest(&argc, argv);
    int rc = RUN_ALL_TESTS();
    std::error_code ec;
    fs::remove_all(root, ec);
    return rc;
}
