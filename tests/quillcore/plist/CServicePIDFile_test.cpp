// The PID file: process lists per service key and the shared process
// attributes, pruned of processes that are gone.
#include "support/ConfigHome.h"
#include "support/TestSupport.h"

#include <quillcore/plist/CServicePIDFile.h>

#include <ferrocore/CException.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

namespace {

using quill::CServicePIDFile;
using quilltest::plistValue;
using quilltest::readPlistFile;
using quilltest::writeFile;

PLHolder<const PLString> str(std::string_view text) { return PLString::create(text); }

// The ID of a process that has ended and been reaped.
std::int32_t endedProcessID() {
    const pid_t child = fork();
    if (child == 0) _exit(0);
    waitpid(child, nullptr, 0);
    return child;
}

class ServicePIDFileTest : public testing::Test {
protected:
    quilltest::ConfigHome _home;
};

TEST_F(ServicePIDFileTest, ListsSkipZerosAndUnconvertibleNumbersAndVanishWhenEmpty) {
    writeFile(_home.pidFile(), R"(<plist version="1.0"><dict><key>other</key><array><integer>1</integer></array>
        <key>corvaned</key><array><integer>7</integer><real>1.5</real><integer>4294967296</integer>
        <string>8</string><real>9</real><integer>-3</integer></array></dict></plist>)");
    CServicePIDFile daemon(str("corvaned").get());
    std::vector<std::int32_t> pids;
    EXPECT_TRUE(daemon.get(pids));
    EXPECT_EQ(pids, (std::vector<std::int32_t>{7, 9, -3}));

    std::vector<std::int32_t> none = {1};
    EXPECT_TRUE(CServicePIDFile(str("absent").get()).get(none));
    EXPECT_TRUE(none.empty());

    daemon.put({0, 12});
    const auto top = readPlistFile(_home.pidFile());
    const auto* stored = PLDynamicCast<PLArray>(top->get("corvaned"));
    ASSERT_TRUE(stored);
    ASSERT_EQ(stored->count(), 1u);
    EXPECT_EQ(PLDynamicCast<PLNumber>(stored->at(0))->int32Value(), 12);
    EXPECT_TRUE(top->get("other"));

    daemon.put({});
    EXPECT_FALSE(readPlistFile(_home.pidFile())->get("corvaned"));
    daemon.put({0});
    EXPECT_FALSE(readPlistFile(_home.pidFile())->get("corvaned"));
}

TEST_F(ServicePIDFileTest, RecordingAProcessDropsTheAttributesOfEndedOnes) {
    const std::int32_t self = getpid();
    const std::int32_t ended = endedProcessID();
    CServicePIDFile first(str("corvaned").get());
    first.setProcessAttributes(ended, str("daemon").get(), str("corvaned").get(), str("2").get());
    EXPECT_FALSE(first.fileLock()) << "the lock it took is given back";

    CServicePIDFile second(str("servicecontroller:x").get());
    second.setProcessAttributes(self, str("servicecontroller:x").get(), str("svc").get(), nullptr);

    PLHolder<const PLString> kind, name, version;
    EXPECT_FALSE(first.processAttributes(ended, kind, name, version)) << "pruned by the second record";
    EXPECT_TRUE(first.processAttributes(self, kind, name, version));
    EXPECT_EQ(kind->str(), "servicecontroller:x");
    EXPECT_EQ(name->str(), "svc");
    EXPECT_FALSE(version);

    first.clearProcessAttributes(self);
    EXPECT_FALSE(readPlistFile(_home.pidFile())->get("attributes")) << "the last record takes the key with it";
}

TEST_F(ServicePIDFileTest, ADamagedFileIsLeftAlone) {
    CServicePIDFile daemon(str("corvaned").get());
    writeFile(_home.pidFile(), "<plist><dict>");
    EXPECT_THROW(daemon.put({42}), ferrocore::CException);
    EXPECT_THROW(daemon.setProcessAttributes(42, nullptr, nullptr, nullptr), ferrocore::CException);
    EXPECT_EQ(quilltest::readFile(_home.pidFile()), "<plist><dict>");
}

}  // namespace
