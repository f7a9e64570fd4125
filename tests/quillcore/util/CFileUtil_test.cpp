#include <cerrno>

#include <dlfcn.h>
#include <gtest/gtest.h>

#include "support/TestSupport.h"
#include <quillcore/platform/Host.h>
#include <quillcore/util/CFileUtil.h>

namespace {

using quill::CFileUtil;
using quill::platform::CResourceLimit;
using quill::platform::CScopedHost;

// Open-files limits kept in memory, with failures on request.
class CLimitHost final : public quill::platform::CHostWrapper {
public:
    CLimitHost(std::int64_t soft, std::int64_t hard) : limit{soft, hard} {}

    std::int32_t processID() override { return 4242; }
    std::error_code getOpenFilesLimit(CResourceLimit& out) override {
        if (getError) return getError;
        out = limit;
        return {};
    }
    std::error_code setOpenFilesLimit(const CResourceLimit& wanted) override {
        ++sets;
        if (setError) return setError;
        limit = wanted;
        return {};
    }

    CResourceLimit limit;
    std::error_code getError;
    std::error_code setError;
    int sets = 0;
};

std::error_code systemError(int err) { return {err, std::system_category()}; }

TEST(CFileUtilLimits, RaisesUpToTheHardLimitButNeverLowersAndFailuresArePrintedAndGiveMinusOne) {
    CLimitHost unlimited(256, CResourceLimit::kUnlimited);
    CLimitHost finite(256, 1000);
    testing::internal::CaptureStderr();
    {
        CScopedHost scope(unlimited);
        EXPECT_EQ(setMaxOpenFiles(2048), 2048);
        EXPECT_EQ(unlimited.limit.hard, CResourceLimit::kUnlimited);
        EXPECT_EQ(setMaxOpenFiles(1024), 2048);
        EXPECT_EQ(unlimited.sets, 1);
        EXPECT_EQ(getMaxOpenFiles(), 2048);
    }
    CScopedHost scope(finite);
    EXPECT_EQ(setMaxOpenFiles(2048), 256);  // above a finite hard limit: kept,
    EXPECT_EQ(finite.sets, 0);              // not even raised to the hard limit
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(setMaxOpenFiles(1000), 1000);  // up to it is fine
    EXPECT_EQ(finite.limit.hard, 1000);

    CLimitHost limits(256, 4096);
    CScopedHost failing(limits);
    limits.setError = systemError(EPERM);
    testing::internal::CaptureStderr();
    EXPECT_EQ(setMaxOpenFiles(2048), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "[4242]: setrlimit(RLIMIT_NOFILE, 2048/4096) failed: Operation not permitted\n");

    limits.getError = systemError(EFAULT);
    testing::internal::CaptureStderr();
    EXPECT_EQ(setMaxOpenFiles(2048), -1);
    EXPECT_EQ(getMaxOpenFiles(), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "[4242]: getrlimit(RLIMIT_NOFILE) failed: Bad address\n"
              "[4242]: getrlimit(RLIMIT_NOFILE) failed: Bad address\n");
}

TEST(CFileUtilLimits, DefaultAndExportedNames) {
    CLimitHost limits(100, 5000);
    CScopedHost scope(limits);
    EXPECT_EQ(CFileUtil::setDefaultMaxOpenFiles(), 2048);
    EXPECT_EQ(limits.limit.soft, 2048);
    for (const char* name : {"getMaxOpenFiles", "QuillGetMaxOpenFiles", "setMaxOpenFiles", "QuillSetMaxOpenFiles",
                             "QuillSetDefaultMaxOpenFiles", "QuillGetHomeDirectory", "QuillGetTemporaryDirectory",
                             "QuillExpandTildeInPath"}) {
        EXPECT_NE(dlsym(RTLD_DEFAULT, name), nullptr) << name;
    }
}

// ---------------------------------------------------------------- directories

PLHolder<const PLString> expand(const char* path) { return CFileUtil::expandTildeInPath(PLString::create(path).get()); }

TEST(CFileUtilDirectories, HomeAndTildeExpansionWithAndWithoutAHome) {
    quilltest::ScopedEnv home("HOME", "/home/quill");
    EXPECT_EQ(CFileUtil::getHomeDirectory()->utf8(), "/home/quill");
    auto raw = PLHolder<const PLString>::adopt(QuillGetHomeDirectory());
    EXPECT_EQ(raw->retainCount(), 1);  // a new reference, owned by the caller

    EXPECT_EQ(expand("~/x")->utf8(), "/home/quill/x");
    EXPECT_EQ(expand("~/")->utf8(), "/home/quill/");
    for (const char* unchanged : {"~", "~quill/x", "/abs/~/x", "rel/x", ""}) {
        auto path = PLString::create(unchanged);
        auto result = CFileUtil::expandTildeInPath(path.get());
        EXPECT_EQ(result.get(), path.get()) << unchanged;  // the same string, retained
        EXPECT_EQ(path->retainCount(), 2);
    }
    EXPECT_EQ(CFileUtil::expandTildeInPath(nullptr), nullptr);

    quilltest::ScopedEnv tmp("TMPDIR", "/var/scratch");
    EXPECT_EQ(CFileUtil::getTemporaryDirectory()->utf8(), "/var/scratch/");

    // Without a home there is nothing to expand a tilde against.
    struct : quill::platform::CHostWrapper {
        std::string homeDirectory() override { return {}; }
    } homeless;
    CScopedHost scope(homeless);
    EXPECT_EQ(CFileUtil::getHomeDirectory(), nullptr);
    EXPECT_EQ(expand("~/x"), nullptr);
    EXPECT_EQ(expand("/x")->utf8(), "/x");
}

}  // namespace
