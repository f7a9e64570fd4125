// The reference service as the service manager would run it: installed from
// its bundle, started with the argument vector of its job file, recorded in
// the PID file while it runs, and gone cleanly after SIGTERM.
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/ConfigHome.h"
#include "support/ExamplePrograms.h"
#include "support/NotificationBus.h"
#include <quillcore/control/QuillConfig.h>
#include <quillcore/control/QuillNotification.h>
#include <quillcore/plist/CQuillConfigFile.h>
#include <quillcore/plist/CServiceCacheFile.h>
#include <quillcore/plist/CServicePIDFile.h>
#include <quillcore/servicemanager/CRunwardCtlPList.h>

namespace {

namespace fs = std::filesystem;

PLHolder<const PLString> text(const std::string& value) { return PLString::create(value); }

TEST(ServiceProgram, RunsFromItsJobFileUntilSIGTERM) {
    quilltest::privateBusAddress();
    quilltest::ConfigHome home;
    quilltest::TempDir dir;
    const std::string kind = quilltest::uniqueKind("program");
    const fs::path bundle = dir / "a \"b\" 'c'/Example.bundle";
    quilltest::copyExampleBundle(bundle, kind);
    const std::string hostile = "-Render \"farm\"\n2";
    {
        quill::CQuillConfigFile config;
        config.serverName = text(hostile);
        config.logToFile = true;
        config.flush();
    }
    // Its answer is the cache flush's (false also after a write); the entry
    // tells.
    installService(PLURL::createWithPath(bundle.string(), true).get());

    quill::CServiceCacheEntry entry;
    ASSERT_TRUE(quill::CServiceCacheFile().get(text(kind).get(), entry));
    const quill::CRunwardCtlPList job(quill::CRunwardCtlPList::expandedPListFilePathForService(entry, 0));
    std::vector<std::string> args;
    for (const auto& arg : job.getProgramArguments()) args.push_back(arg->utf8());
    ASSERT_GE(args.size(), 4u);
    EXPECT_EQ(args[0], (bundle / "ExampleService").string());

    quilltest::NotificationCollector startup(quill::QuillNotification::kQuillServiceStartupNotification,
                                             text(kind).get());
    quilltest::PeerProcess service(std::vector<std::string>(args.begin() + 1, args.end()), args[0]);
    ASSERT_TRUE(quilltest::runLoopUntil([&] { return !startup.seen.empty() || service.finished(); }, 20.0))
        << service.output();
    ASSERT_FALSE(service.finished()) << service.output();

    quill::CServicePIDFile pids(text(kind).get());
    std::vector<std::int32_t> recorded;
    pids.get(recorded);
    EXPECT_EQ(recorded, std::vector<std::int32_t>{service.pid()});
    PLHolder<const PLString> recordedKind, name, version;
    ASSERT_TRUE(pids.processAttributes(service.pid(), recordedKind, name, version));
    EXPECT_EQ(recordedKind->str(), kind);
    EXPECT_EQ(name->str(), hostile);
    EXPECT_EQ(version->str(), "1");
    EXPECT_TRUE(isServiceRunning(text(kind).get()));

    ASSERT_EQ(kill(service.pid(), SIGTERM), 0);
    EXPECT_EQ(service.wait(10.0), 0) << service.output();
    pids.get(recorded);
    EXPECT_TRUE(recorded.empty());
    EXPECT_FALSE(isServiceRunning(text(kind).get()));
    // -v: the service logged to its own file.
    const std::string log = quilltest::readFile(home.home() / "Library/Logs/Lumenforge" / (kind + ".log"));
    EXPECT_NE(log.find(" instance 0 started as PID " + std::to_string(service.pid())), std::string::npos) << log;
    EXPECT_NE(log.find("Signal 15: ending"), std::string::npos) << log;
}

}  // namespace
