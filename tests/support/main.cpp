// Test entry point: every test program runs in a throw-away home with a pinned
// time zone and its console log in a file, and never sees the developer's
// session bus.
#include <cstdlib>
#include <filesystem>

#include <gtest/gtest.h>
#include <time.h>

#include "support/NotificationBus.h"
#include "support/TestSupport.h"

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
    // Without a bus the library would start a per-user bus daemon that
    // outlives a crashed test program; tests that need a bus start their own
    // (support/NotificationBus.h).
    setenv("QUILL_DBUS_DAEMON", (root / "no-dbus-daemon").c_str(), 1);
    fs::create_directories(root / "run");

    // Paths of this build, compiled in so that no test depends on how it is
    // started (ctest, a debugger, by hand); the environment still wins.
    setenv("QUILL_TEST_SOURCE_DIR", QUILL_TEST_SOURCE_DIR, 0);
    setenv("QUILL_TEST_BUILD_DIR", QUILL_TEST_BUILD_DIR, 0);
    setenv("QUILL_TEST_CMAKE", QUILL_TEST_CMAKE, 0);
#ifdef QUILL_TEST_QUILLCTL
    setenv("QUILLCTL", QUILL_TEST_QUILLCTL, 0);
#endif

    testing::InitGoogleTest(&argc, argv);
    int rc = RUN_ALL_TESTS();
    // A test that posted without a bus of its own got the library's private
    // per-user bus below the throw-away runtime directory; end it too.
    quilltest::killPerUserBus(root / "run");
    std::error_code ec;
    fs::remove_all(root, ec);
    return rc;
}
