// The service manager's control command as a stand-in sees it: the command
// lines, the kept output, and the refusals that come before any process.
#include <gtest/gtest.h>

#include "support/ServiceFixtures.h"
#include <ferrocore/CException.h>
#include <quillcore/platform/ProcessSpawner.h>
#include <quillcore/servicemanager/CRunwardCtl.h>

namespace {

using quill::CRunwardCtl;
using Args = std::vector<std::string>;

ferrocore::CStringRef cstr(const std::string& text) { return ferrocore::CString::create(text); }

std::string outputOf(const CRunwardCtl& ctl) {
    const auto data = ctl.getTaskOutput();
    return data ? std::string(data->view()) : "(null)";
}

TEST(CRunwardCtl, LoadAndUnloadCommandLines) {
    quilltest::StandInRunwardCtl standIn;
    const std::string path = "/home/u/Library/RunwardAgents/-job \"x\"\n.plist";
    CRunwardCtl(cstr(path), 0, 0).load();
    CRunwardCtl(cstr(path), 1, 4).unload();
    CRunwardCtl(cstr(path), 5, 0).load();
    CRunwardCtl(cstr(path), 0, 3).unload();
    const std::vector<Args> expected = {
        {"load", path},
        {"unload", "-S", "Aqua", "-D", "user", path},
        {"load", "-S", "System", path},
        {"unload", "-D", "network", path},
    };
    EXPECT_EQ(standIn.calls(), expected);

    const CRunwardCtl ctl(nullptr, 0, 0);
    const char* sessions[] = {"Aqua", "LoginWindow", "Background", "StandardIO", "System"};
    const char* domains[] = {"system", "local", "network", "user", "all"};
    for (unsigned long type = 1; type <= 5; ++type) {
        EXPECT_EQ(ctl.getSessionTypeString(type)->utf8(), sessions[type - 1]);
        EXPECT_EQ(ctl.getDomainTypeString(type)->utf8(), domains[type - 1]);
    }
    EXPECT_FALSE(ctl.getSessionTypeString(0));
}

TEST(CRunwardCtl, RefusalsComeBeforeAnyProcess) {
    quilltest::StandInRunwardCtl standIn;
    const auto refuse = [](CRunwardCtl ctl, void (CRunwardCtl::*command)()) {
        return quilltest::failureOf([&] { (ctl.*command)(); });
    };
    EXPECT_EQ(refuse(CRunwardCtl(cstr("/j.plist"), 6, 0), &CRunwardCtl::load), "Invalid sessionType: 0x6");
    EXPECT_EQ(refuse(CRunwardCtl(cstr("/j.plist"), 0, 0x1f), &CRunwardCtl::unload), "Invalid domainType: 0x1f");
    EXPECT_EQ(refuse(CRunwardCtl(nullptr, 6, 6), &CRunwardCtl::load), "Error: _plistPath is null!");
    CRunwardCtl noLabel(nullptr, 0, 0);
    try {
        noLabel.isLoaded(nullptr);
        ADD_FAILURE() << "no exception";
    } catch (const ferrocore::CNullPointerException& e) {
        EXPECT_STREQ(e.what(), "Error: label is null!");
    }
    EXPECT_TRUE(standIn.calls().empty());
}

TEST(CRunwardCtl, IsLoadedNeverReportsALoadedJob) {
    quilltest::StandInRunwardCtl standIn;
    standIn.respondWith("{\n\t\"Label\" = \"com.quilltest.job\";\n\t\"PID\" = 4711;\n};\n", 0);
    CRunwardCtl ctl(nullptr, 3, 3);
    EXPECT_FALSE(ctl.isLoaded(cstr("com.quilltest.job")));  // intended, whatever the command says
    EXPECT_EQ(standIn.calls(), (std::vector<Args>{{"list", "-x", "com.quilltest.job"}}));
    EXPECT_NE(outputOf(ctl).find("\"PID\" = 4711;"), std::string::npos);
    // A failing list is no error either.
    standIn.respondWith("Could not find service\n", 113);
    EXPECT_FALSE(ctl.isLoaded(cstr("-leading dash")));
    EXPECT_EQ(standIn.calls().back(), (Args{"list", "-x", "-leading dash"}));
}

TEST(CRunwardCtl, RefusedLoadKeepsWhatTheCommandPrinted) {
    quilltest::StandInRunwardCtl standIn;
    standIn.respondWith("nothing found to load\n", 3);
    CRunwardCtl ctl(cstr("/jobs/a.plist"), 0, 0);
    try {
        ctl.load();
        ADD_FAILURE() << "no exception";
    } catch (const ferrocore::CParamException& e) {
        EXPECT_STREQ(e.what(), "CRunwardCtlTask exited with error = 3");
    }
    EXPECT_EQ(outputOf(ctl), "nothing found to load\n");
    // The next run drops it first; a silent command leaves none.
    standIn.respondWith("", 0);
    ctl.unload();
    EXPECT_EQ(outputOf(ctl), "(null)");
}

// A fork the system refuses.
class RefusingSpawner final : public quill::platform::CProcessSpawnerWrapper {
public:
    quill::platform::CSpawnResult spawn(const char*, const char* const*, const char* const*,
                                        quill::platform::CChildSetup, quill::platform::ChildMemory) override {
        return {-1, EAGAIN};
    }
};

TEST(CRunwardCtl, ACommandThatCannotStartIsAHostRuntimeFailure) {
    quilltest::StandInRunwardCtl standIn;
    RefusingSpawner spawner;
    quill::platform::CScopedProcessSpawner installed(spawner);
    try {
        CRunwardCtl(cstr("/jobs/a.plist"), 0, 0).load();
        ADD_FAILURE() << "no exception";
    } catch (const ferrocore::CException& e) {
        EXPECT_EQ(e.kind(), 255);
        EXPECT_EQ(e.errorNumber(), EAGAIN);
        EXPECT_EQ(e.message(), std::string("CRunwardCtlTask failed to launch, error = ") + std::strerror(EAGAIN));
    }
}

}  // namespace
