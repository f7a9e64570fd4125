// The service and daemon verbs of quillctl against the stand-in control
// command, in a throw-away home: what reaches the job files, the trigger
// files and the command lines, and the exit codes and messages.
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <unistd.h>

#include "support/ConfigHome.h"
#include "support/ExamplePrograms.h"
#include "support/NotificationBus.h"
#include "support/ServiceFixtures.h"
#include "tools/QuillctlTest.h"
#include <quillcore/plist/CServiceCacheFile.h>

namespace {

namespace fs = std::filesystem;
using quilltest::readFile;

class QuillctlServices : public quilltest::QuillctlTest {
protected:
    void SetUp() override {
        QuillctlTest::SetUp();
        if (IsSkipped()) return;
        quilltest::privateBusAddress();
        _standin = quilltest::installStandin(_dir.path());
        _env.emplace("QUILL_RUNWARDCTL", _standin.string());
        // A bundle path that a shell or a job file would get wrong.
        _bundle = _dir / "odd dir 'q' \"d\"\nline/-Example.bundle";
        quilltest::copyExampleBundle(_bundle, _kind);
    }
    void TearDown() override { quilltest::removeTriggerFiles(_family, 3); }  // in the shared /tmp
    std::string calls() const {
        const fs::path path = _standin.string() + ".calls";
        return fs::exists(path) ? readFile(path) : "";
    }
    fs::path jobFile(const std::string& suffix = "") const {
        return _home.home() / "Library/RunwardAgents" / (_family + suffix + ".plist");
    }
    fs::path trigger(const std::string& suffix = "") const {
        return "/tmp/" + _family + suffix + ".runwardagent." + std::to_string(geteuid());
    }
    static std::string label(const fs::path& job) {
        const auto plist = quilltest::readPlistFile(job);
        const auto* text = plist ? PLDynamicCast<PLString>(plist->get("Label")) : nullptr;
        return text ? text->str() : "(no label)";
    }
    // The stand-in's record of one argument, as bash's printf %q writes it.
    static std::string quoted(const std::string& arg) {
        return quilltest::runCommand({"bash", "-c", "printf %q \"$1\"", "bash", arg}).out;
    }

    quilltest::ConfigHome _home;
    quilltest::TempDir _dir;
    fs::path _standin;
    std::optional<quilltest::ScopedEnv> _env;
    // A kind that a job file, a command line or the cache could get wrong.
    const std::string _kind = quilltest::uniqueKind("verbs") + " 'q' \"d\" <&>\n-x";
    const std::string _family = _kind.substr(_kind.find(':') + 1);
    fs::path _bundle;
};

TEST_F(QuillctlServices, InstallEnableSyncDisable) {
    auto r = run({"services", "install", _bundle.string()});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out,
              "installed " + _kind + " (kind " + _kind + ", version 1, 1 instance, run by the service manager)\n");
    const std::string job = readFile(jobFile());
    EXPECT_EQ(label(jobFile()), _family) << job;
    EXPECT_EQ(job.find("<!DOCTYPE"), std::string::npos);

    // The same version again leaves the cache alone and says so.
    r = run({"services", "install", _bundle.string()});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_EQ(r.err, "quillctl: \"" + _kind +
                         "\" is installed already at the same or a newer version (1) with the same executable; the "
                         "cache is unchanged\n");

    // ... but writes the job files again (with a new instance identifier).
    const std::string rewritten = readFile(jobFile());
    EXPECT_NE(rewritten, job);
    r = run({"jobs", "show", _kind});
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out, "Job file: " + jobFile().string() + "\n" + rewritten + "Trigger file: " + trigger().string() +
                         " (missing)\n");

    ASSERT_EQ(run({"services", "enable", _kind}).exitCode, 0);
    r = run({"services", "sync", _kind});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out, _kind + ": enabled, 1 instance, run by the service manager\nsynchronised; the daemon was told\n");
    // The job is looked for first, but never reported loaded: it is loaded.
    const std::string listed = "list -x " + quoted(_family) + "\n";
    const std::string loaded = "load " + quoted(jobFile().string()) + "\n";
    EXPECT_EQ(calls(), listed + loaded);
    EXPECT_TRUE(fs::exists(trigger()));
    EXPECT_NE(run({"jobs", "show", _kind}).out.find(trigger().string() + " (exists)"), std::string::npos);

    // Disabling removes the trigger file; nothing is unloaded.
    ASSERT_EQ(run({"services", "disable", _kind}).exitCode, 0);
    ASSERT_EQ(run({"services", "sync", _kind}).exitCode, 0);
    EXPECT_FALSE(fs::exists(trigger()));
    EXPECT_EQ(calls(), listed + loaded + listed);

    ASSERT_EQ(run({"services", "remove", _kind}).exitCode, 0);
    r = run({"services", "enable", _kind});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_EQ(r.err, "quillctl: no service \"" + _kind + "\" installed\n");
}

TEST_F(QuillctlServices, ARefusedLoadFailsWithTheCommandsStatus) {
    ASSERT_EQ(run({"services", "install", _bundle.string(), "--name", _kind}).exitCode, 0);
    ASSERT_EQ(run({"services", "enable", _kind}).exitCode, 0);
    quilltest::writeFile(_standin.string() + ".exit", "3\n");
    quilltest::writeFile(_standin.string() + ".output", "no such domain\n");
    const auto r = run({"services", "sync", _kind});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_EQ(r.err, "quillctl: CRunwardCtlTask exited with error = 3\n");
}

TEST_F(QuillctlServices, DynamicInstancesFollowTheConfiguredOnes) {
    ASSERT_EQ(run({"services", "install", _bundle.string()}).exitCode, 0);
    auto r = run({"services", "dynamic", "install", _kind, "2"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out, "instance 1: " + jobFile("-2").string() + "\ninstance 2: " + jobFile("-3").string() + "\n");
    EXPECT_EQ(label(jobFile("-3")), _family + "-3");

    r = run({"services", "dynamic", "sync", _kind, "1"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_TRUE(fs::exists(trigger("-2")));
    EXPECT_FALSE(fs::exists(trigger("-3")));
    EXPECT_EQ(calls(), "list -x " + quoted(_family + "-2") + "\nload " + quoted(jobFile("-2").string()) + "\n");
    ASSERT_EQ(run({"services", "dynamic", "sync", _kind, "1", "--disable"}).exitCode, 0);
    EXPECT_FALSE(fs::exists(trigger("-2")));

    r = run({"jobs", "show", _kind, "--instance", "2"});
    EXPECT_EQ(r.exitCode, 0);
    r = run({"jobs", "show", _kind, "--instance", "3"});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_NE(r.out.find("(not written: install the service first)"), std::string::npos);
}

TEST_F(QuillctlServices, RefusalsAndUsage) {
    struct Case {
        std::vector<std::string> args;
        int exitCode;
        std::string err;
    } cases[] = {
        {{"services", "install", (_dir / "missing").string()},
         1,
         "quillctl: " + (_dir / "missing").string() + ": not a bundle directory\n"},
        {{"services", "install", _dir.str()},
         1,
         "quillctl: " + _dir.str() + ": no \"CorvaneServiceKind\" string in its Info.plist\n"},
        {{"services", "disable", "no:such"}, 1, "quillctl: no service \"no:such\" installed\n"},
        {{"services", "reset", "no:such"},
         1,
         "quillctl: can't reset \"no:such\": it is not installed or its bundle has no configuration\n"},
        {{"services", "dynamic", "install", "no:such", "1"}, 1, "quillctl: no service \"no:such\" installed\n"},
        {{"jobs", "show", "no:such"}, 1, "quillctl: no service \"no:such\" installed\n"},
        {{"daemon", "start"}, 1, "quillctl: Corvane.framework not found\n"},
        {{"daemon", "restart"}, 1, "quillctl: corvaned is not running\n"},
    };
    for (const Case& c : cases) {
        const auto r = run(c.args);
        EXPECT_EQ(r.exitCode, c.exitCode) << c.args[1];
        EXPECT_EQ(r.err, c.err);
    }
    for (const auto& args :
         std::vector<std::vector<std::string>>{{"services", "enable"},
                                               {"services", "dynamic", "sync", "k", "0"},
                                               {"services", "dynamic", "sync", "k", "1", "--enable", "--disable"},
                                               {"daemon", "stop", "--timeout", "-1"},
                                               {"jobs", "show", "k", "--instance", "x"}}) {
        EXPECT_EQ(run(args).exitCode, 2) << args[1] << " " << args.back();
    }
    const auto help = run({"services", "sync", "--help"});
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_NE(help.out.find("Start the enabled services, stop the disabled ones"), std::string::npos);

    const auto status = run({"daemon", "status"});
    EXPECT_EQ(status.exitCode, 1);
    EXPECT_EQ(status.out.substr(0, status.out.find('\n') + 1), "corvaned: not running\n");
}

TEST_F(QuillctlServices, AReinstallKeepsTheUsersInstanceCountAndResetDropsIt) {
    ASSERT_EQ(run({"services", "install", _bundle.string()}).exitCode, 0);
    {
        quill::CServiceCacheFile cache;
        quill::CServiceCacheEntry entry;
        ASSERT_TRUE(cache.get(PLString::create(_kind).get(), entry));
        entry.setInstances(3);
        cache.put(entry);
        cache.flush();
    }

    // A newer bundle version is installed over the old entry.
    std::string info = readFile(_bundle / "Info.plist");
    info.replace(info.find("<integer>1</integer>"), 20, "<integer>2</integer>");
    quilltest::writeFile(_bundle / "Info.plist", info);
    auto r = run({"services", "install", _bundle.string()});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out,
              "installed " + _kind + " (kind " + _kind + ", version 2, 3 instances, run by the service manager)\n");
    EXPECT_TRUE(fs::exists(jobFile("-3")));

    ASSERT_EQ(run({"services", "reset", _kind}).exitCode, 0);
    r = run({"services", "sync", _kind});
    EXPECT_NE(r.out.find(_kind + ": disabled, 1 instance,"), std::string::npos) << r.out;
}

}  // namespace
