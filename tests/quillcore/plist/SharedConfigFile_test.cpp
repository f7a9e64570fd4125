// The records that share the one configuration file: concurrent writers in
// several processes, the refresh-then-flush trap under a caller's lock, and a
// damaged file that no record overwrites.
#include "support/ConfigHome.h"
#include "support/TestSupport.h"

#include <quillcore/plist/CQuillConfigFile.h>
#include <quillcore/plist/CServiceCacheFile.h>
#include <quillcore/plist/CServiceConfigFile.h>
#include <quillcore/util/PLUtil.h>

#include <ferrocore/CException.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

namespace {

using quill::CPropertyListBasicFile;
using quill::CQuillConfigFile;
using quill::CServiceCacheEntry;
using quill::CServiceCacheFile;
using quill::CServiceConfigEntry;
using quill::CServiceConfigFile;
using quilltest::keysOf;
using quilltest::plistValue;
using quilltest::readFile;
using quilltest::readPlistFile;
using quilltest::writeFile;

PLHolder<const PLString> str(std::string_view text) { return PLString::create(text); }

std::int64_t numberAt(const PLDictionary* top, std::initializer_list<std::string_view> path) {
    const auto* number = PLDynamicCast<PLNumber>(plistValue(top, path));
    return number ? number->int64Value() : -1;
}

constexpr int kProcesses = 8;
constexpr int kCycles = 250;

std::string kindOf(int process) { return "servicecontroller:com.example.worker" + std::to_string(process); }

// Writes one change of process `index`'s own record through the record
// itself: the cluster configuration (0), the service cache (1) or the service
// configuration of the process's own kind (2 and up).
std::function<void(int cycle)> recordWriter(int index) {
    if (index == 0) {
        auto config = std::make_shared<CQuillConfigFile>();
        return [config](int cycle) {
            config->daemonPort = 3000 + cycle;
            config->flush();
        };
    }
    if (index == 1) {
        auto cache = std::make_shared<CServiceCacheFile>();
        return [cache](int cycle) {
            CServiceCacheEntry entry(str("worker").get(), nullptr);
            entry.setVersion(cycle + 1);
            cache->put(entry);
            cache->flush();
        };
    }
    auto list = std::make_shared<CServiceConfigFile>(str(kindOf(index)).get());
    return [list](int cycle) {
        CServiceConfigEntry entry(str("e").get(), nullptr);
        entry.setConfig(PLNumber::create(cycle).get());
        list->put(entry);
        list->flush();
    };
}

// Adds one to the shared counter as one step between processes: lock,
// refresh, change, write the whole contents, unlock.
void incrementCounter(CPropertyListBasicFile& file) {
    file.lockForRW();
    const auto monitor = ferrocore::makeShared<CPropertyListBasicFile::CFileLockMonitor>(&file);
    file.refresh();
    const PLHolder<PLMutableDictionary> contents = file.toPropertyList();
    std::int32_t count = 0;
    quill::PLUtil::PLDictGetInt(contents.get(), str("counter").get(), &count);
    quill::PLUtil::PLDictSetInt(contents.get(), str("counter").get(), count + 1);
    file.writePropertyList(contents.get());
}

int runWorker(int index, const std::string& path) {
    try {
        const auto writeRecord = recordWriter(index);
        CPropertyListBasicFile counter(str(path).get());
        for (int cycle = 0; cycle < kCycles; ++cycle) {
            writeRecord(cycle);
            incrementCounter(counter);
        }
        return 0;
    } catch (...) {
        return 1;
    }
}

class SharedConfigFileTest : public testing::Test {
protected:
    quilltest::ConfigHome _home;
};

TEST_F(SharedConfigFileTest, EightProcessesKeepEveryRecordAndEveryIncrement) {
    writeFile(_home.configFile(), R"(<plist version="1.0"><dict><key>hostperfscore</key><dict/></dict></plist>)");
    std::vector<pid_t> children;
    for (int index = 0; index < kProcesses; ++index) {
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) _exit(runWorker(index, _home.configFile().string()));
        children.push_back(child);
    }
    for (const pid_t child : children) {
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "worker " << child << " status " << status;
    }

    const auto top = readPlistFile(_home.configFile());
    ASSERT_TRUE(top);
    EXPECT_EQ(numberAt(top.get(), {"counter"}), kProcesses * kCycles);
    EXPECT_EQ(numberAt(top.get(), {"corvaneconfig", "DaemonPort"}), 3000 + kCycles - 1);
    EXPECT_EQ(numberAt(top.get(), {"corvaneservices", "worker", "Version"}), kCycles);
    for (int index = 2; index < kProcesses; ++index)
        EXPECT_EQ(numberAt(top.get(), {"serviceconfig", kindOf(index), "e", "config"}), kCycles - 1) << index;
    EXPECT_TRUE(top->get("hostperfscore"));
}

TEST_F(SharedConfigFileTest, RefreshAndFlushUnderTheCallersLockWriteTheSectionAsTheWholeFile) {
    // Kept on purpose: after a refresh the configuration's contents are its
    // section, and under the caller's lock its flush starts from them. (The
    // list records, the service cache among them, are covered with the list
    // file.)
    writeFile(_home.configFile(), R"(<plist version="1.0"><dict><key>hostperfscore</key><dict/>
        <key>corvaneconfig</key><dict><key>DaemonPort</key><integer>2200</integer></dict></dict></plist>)");
    CQuillConfigFile config;
    config.refresh();
    ASSERT_TRUE(config.lockForRW());
    config.flush();
    config.unlock();
    EXPECT_EQ(keysOf(readPlistFile(_home.configFile()).get()), (std::set<std::string>{"DaemonPort", "corvaneconfig"}));
}

TEST_F(SharedConfigFileTest, NoRecordOverwritesADamagedFileUntilARefreshSucceeds) {
    const std::string valid = R"(<plist version="1.0"><dict><key>hostperfscore</key><dict/></dict></plist>)";
    writeFile(_home.configFile(), valid);
    CQuillConfigFile config;
    CServiceCacheFile cache;
    CServiceConfigFile list(str(kindOf(2)).get());
    cache.put(CServiceCacheEntry(str("svc").get(), nullptr));
    list.put(CServiceConfigEntry(str("e").get(), nullptr));

    const std::string damaged = valid.substr(0, valid.size() / 2);
    writeFile(_home.configFile(), damaged);
    // A flush reads the file again under its lock and stops there...
    EXPECT_THROW(config.flush(), ferrocore::CException);
    EXPECT_THROW(cache.flush(), ferrocore::CException);
    EXPECT_THROW(list.flush(), ferrocore::CException);
    // ... and under the caller's lock, after a failed refresh, it refuses.
    ASSERT_TRUE(cache.lockForRW());
    EXPECT_THROW(cache.refresh(), ferrocore::CException);
    EXPECT_THAT([&] { cache.flush(); }, testing::ThrowsMessage<ferrocore::CException>(
                                            testing::HasSubstr("not proceeding since the last refresh failed")));
    cache.unlock();
    EXPECT_EQ(readFile(_home.configFile()), damaged);

    writeFile(_home.configFile(), valid);
    config.refresh();
    cache.refresh();
    list.refresh();
    config.flush();
    cache.flush();
    list.flush();
    EXPECT_EQ(keysOf(readPlistFile(_home.configFile()).get()),
              (std::set<std::string>{"hostperfscore", "corvaneconfig", "corvaneservices", "serviceconfig"}));
}

}  // namespace
