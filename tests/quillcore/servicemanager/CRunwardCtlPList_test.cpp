// Job definitions: labels and file names, the job dictionary of an instance,
// the keep-alive edits and the trigger files.
#include <gtest/gtest.h>
#include <unistd.h>

#include "support/ConfigHome.h"
#include "support/ServiceFixtures.h"
#include <ferrocore/CException.h>
#include <quillcore/plist/CServiceCacheFile.h>
#include <quillcore/plist/CServiceConfigFile.h>
#include <quillcore/servicemanager/CRunwardCtlPList.h>

namespace {

using quill::CRunwardCtlPList;
using quill::CServiceCacheEntry;
using quilltest::failureOf;
using quilltest::parsePlist;
using quilltest::plistValue;

ferrocore::CStringRef cstr(const std::string& text) { return ferrocore::CString::create(text); }

CServiceCacheEntry service(const std::string& kind, const std::string& hint = "runwardd.RunwardAgent.User") {
    CServiceCacheEntry entry(PLString::create(kind).get(), nullptr);
    if (!hint.empty()) entry.setLaunchHint(PLString::create(hint).get());
    entry.setPath(PLString::create("/opt/svc/bin/service").get());
    return entry;
}

TEST(CRunwardCtlPList, LabelsFilesAndTheirRefusals) {
    quilltest::ConfigHome home;
    const CServiceCacheEntry executor = service("servicecontroller:com.tessaly.corvane.executor");
    // Intended: instance 0 has no suffix and instance 1 is "-2".
    EXPECT_EQ(CRunwardCtlPList::labelForService(executor, 0)->utf8(), "com.tessaly.corvane.executor");
    EXPECT_EQ(CRunwardCtlPList::labelForService(executor, 1)->utf8(), "com.tessaly.corvane.executor-2");
    EXPECT_EQ(CRunwardCtlPList::labelForService(executor, 2)->utf8(), "com.tessaly.corvane.executor-3");
    EXPECT_EQ(CRunwardCtlPList::plistFilePathForService(executor, 1)->utf8(),
              "~/Library/RunwardAgents/com.tessaly.corvane.executor-2.plist");
    EXPECT_EQ(CRunwardCtlPList::expandedPListFilePathForService(executor, 0)->utf8(),
              home.home().string() + "/Library/RunwardAgents/com.tessaly.corvane.executor.plist");
    // The family is everything after the first colon, colons included.
    EXPECT_EQ(CRunwardCtlPList::labelForService(service("a:b:c d \"q\"\n"), 0)->utf8(), "b:c d \"q\"\n");

    EXPECT_EQ(failureOf([] { CRunwardCtlPList::labelForService(service("nocolon"), 0); }),
              "Can't find service family in service kind nocolon");
    // The hint is tested before the kind.
    EXPECT_EQ(failureOf([] { CRunwardCtlPList::labelForService(service("nocolon", "runwardd.render"), 0); }),
              "Unsupported service launch hint: runwardd.render");
    EXPECT_EQ(failureOf([] { CRunwardCtlPList::labelForService(service("a:b", ""), 0); }),
              "Unsupported service launch hint: ");
    for (const char* hostile : {"role:../../etc/x", "role:-x", "role:", "role:.."})
        EXPECT_EQ(failureOf([&] { CRunwardCtlPList::labelForService(service(hostile), 0); }),
                  std::string("Invalid service family in service kind ") + hostile);
}

TEST(CRunwardCtlPList, JobOfAnInstance) {
    quilltest::ConfigHome home;
    const std::string kind = quilltest::uniqueServiceKind("job");
    const std::string family = kind.substr(kind.find(':') + 1);
    // One configured entry for two instances: the second takes a default one.
    quill::CServiceConfigFile configs(PLString::create(kind).get());
    configs.put(quill::CServiceConfigEntry(PLString::create("first").get(), nullptr));
    configs.flush();

    const auto job = CRunwardCtlPList::plistDataForService(service(kind), 1);
    const std::string trigger = "/tmp/" + family + "-2.runwardagent." + std::to_string(geteuid());
    const auto expected = parsePlist("<dict><key>Label</key><string>" + family +
                                     "-2</string><key>KeepAlive</key><dict><key>SuccessfulExit</key><true/>"
                                     "<key>PathState</key><dict><key>" +
                                     trigger +
                                     "</key><true/></dict></dict><key>ExitTimeOut</key><integer>30</integer>"
                                     "<key>ProgramArguments</key><array/></dict>");
    auto withoutArguments = PLDictionaryCreateMutableCopy(job.get());
    withoutArguments->set(PLString::create("ProgramArguments"), PLArray::create(nullptr, 0));
    EXPECT_TRUE(PLEqual(withoutArguments.get(), expected.get()));
    EXPECT_EQ(job->get("RunAtLoad"), nullptr);

    CRunwardCtlPList written(nullptr);
    written.setPListData(job.get());
    const auto arguments = written.getProgramArguments();
    ASSERT_GE(arguments.size(), 5u);
    EXPECT_EQ(arguments[0]->utf8(), "/opt/svc/bin/service");
    EXPECT_EQ(written.getTransientTriggerFilePath(true)->utf8(), trigger);
    EXPECT_EQ(written.getTransientTriggerFilePath(false)->utf8(), "/tmp/" + family + "-2.runwardagent");
    EXPECT_FALSE(written.getPersistentTriggerFilePath(false));
    EXPECT_EQ(written.getPersistentTriggerFilePath(true)->utf8(),
              home.home().string() + "/Library/RunwardAgents/" + family + "-2.runwardagent");
}

TEST(CRunwardCtlPList, KeepAliveEdits) {
    CRunwardCtlPList job(nullptr);
    EXPECT_EQ(failureOf([&] { job.setRunAtLoad(false); }), "Error: plistDict.getObjectRef() is null!");
    job.setPListData(CRunwardCtlPList::plistDataForGenericService().get());
    EXPECT_FALSE(job.getRunAtLoad());
    // Intended asymmetry: clearing the flag removes "RunAtLoad" and keeps the
    // "KeepAlive" dictionary as it was.
    job.setRunAtLoad(false);
    const auto* cleared = PLDynamicCast<PLDictionary>(job.plistData());
    EXPECT_EQ(cleared->get("RunAtLoad"), nullptr);
    EXPECT_TRUE(PLEqual(cleared->get("KeepAlive"), parsePlist("<dict><key>SuccessfulExit</key><true/></dict>").get()));
    job.setRunAtLoad(true);
    EXPECT_TRUE(job.getRunAtLoad());
    EXPECT_EQ(failureOf([&] { job.addKeepAlivePathState(cstr("/tmp/t"), true); }), "Invalid \"KeepAlive\" dictionary");
    job.setPListData(parsePlist("<dict><key>KeepAlive</key><dict><key>PathState</key><true/></dict></dict>").get());
    EXPECT_EQ(failureOf([&] { job.addKeepAlivePathState(cstr("/tmp/t"), true); }), "Invalid \"PathState\" dictionary");
    job.setPListData(parsePlist("<dict/>").get());
    job.addKeepAlivePathState(cstr("/tmp/a b"), false);
    EXPECT_TRUE(
        PLEqual(plistValue(PLDynamicCast<PLDictionary>(job.plistData()), {"KeepAlive", "PathState", "/tmp/a b"}),
                kPLBooleanFalse));
}

TEST(CRunwardCtlPList, TriggerFilesAreMadeAndRemovedOnce) {
    quilltest::TempDir dir;
    const auto path = cstr((dir / "trigger \"x\"\n").string());
    EXPECT_TRUE(CRunwardCtlPList::addTriggerFile(path));
    EXPECT_FALSE(CRunwardCtlPList::addTriggerFile(path));
    EXPECT_EQ(std::filesystem::file_size(dir / "trigger \"x\"\n"), 0u);
    EXPECT_TRUE(CRunwardCtlPList::removeTriggerFile(path));
    EXPECT_FALSE(CRunwardCtlPList::removeTriggerFile(path));
    const std::string missingDir = (dir / "none/trigger").string();
    EXPECT_EQ(failureOf([&] { CRunwardCtlPList::addTriggerFile(cstr(missingDir)); }),
              "CRunwardCtlPList::addTriggerFile: failed to create trigger file " + missingDir +
                  ", error = No such file or directory");
    EXPECT_EQ(
        failureOf([&] {
            CRunwardCtlPList::removeTriggerFile(cstr(dir.str()));
        }).rfind("CRunwardCtlPList::removeTriggerFile: failed to remove trigger file " + dir.str() + ", error = ", 0),
        0u);
}

}  // namespace
