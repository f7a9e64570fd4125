// The exports-file escaping against the real parser: Debian's exportfs reads
// a file of generated hostile paths in a private mount namespace (a tmpfs
// over /var/lib/nfs, the file bound over /etc/exports) and the table it
// writes (etab) must name exactly the intended directories. Needs root,
// unshare and exportfs; the kernel NFS server is not needed, since exportfs
// -ra writes etab without it.
#include <algorithm>
#include <filesystem>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <unistd.h>

#include "quillcore/storage/ExportsFileSyntax.h"
#include "support/RunCommand.h"
#include "support/TestSupport.h"

namespace {

namespace fs = std::filesystem;
using namespace quill::storage::exportsfile;

constexpr const char* kUnshare = "/usr/bin/unshare";
constexpr const char* kExportfs = "/usr/sbin/exportfs";

// Directory names that the exports-file syntax has a reason to fear, then
// random ones drawn from the same bytes.
std::vector<std::string> hostileNames() {
    std::vector<std::string> names = {
        "new\nline",     "\n",           "quo\"te",        "\"",      "sp ace",   " lead",   "trail ",
        "#hash",         "a#b",          "-dash",          "--all",   "-o",       "tab\tx",  "cr\rx",
        "back\\slash",   "\\",           "\\12",           "oct\\0x", "\x7f",     "\x01ctl", "\xff\xfe",
        "caf\xc3\xa9",   "\xc3\x28",     "opt(rw)",        "*",       "host(rw)", "a,b=c",   "'single'",
        "semi;colon",    "dollar$HOME",  "brace{x}",       "eq=uals", "@group",   "::1",     "10.0.0.0/8",
        "x\n/etc *(rw)", "y\" *(rw) \"", "z\\040escaped?",
    };
    const std::string alphabet = std::string("\n\t\r \"#\\-*(),=@:;'$\x7f\x01\x80\xa0\xc3\xa9\xff", 25) + "abcXYZ019";
    std::mt19937 random(20261124);
    std::uniform_int_distribution<std::size_t> length(1, 24);
    std::uniform_int_distribution<std::size_t> pick(0, alphabet.size() - 1);
    for (int i = 0; i < 160; ++i) {
        std::string name;
        for (std::size_t n = length(random); n > 0; --n) name += alphabet[pick(random)];
        names.push_back(name);
    }
    return names;
}

std::string shown(const std::string& path) {
    std::ostringstream out;
    for (unsigned char c : path) {
        if (c < 0x20 || c >= 0x7f) {
            out << "\\x" << std::hex << static_cast<int>(c) << std::dec;
        } else {
            out << c;
        }
    }
    return out.str();
}

class ExportsFileAgainstExportfs : public testing::Test {
protected:
    void SetUp() override {
        if (::geteuid() != 0) GTEST_SKIP() << "needs root for a private mount namespace (unshare -m)";
        if (::access(kUnshare, X_OK) != 0) GTEST_SKIP() << kUnshare << " is not installed";
        if (::access(kExportfs, X_OK) != 0) GTEST_SKIP() << kExportfs << " is not installed (nfs-kernel-server)";
        if (!fs::exists("/etc/exports")) GTEST_SKIP() << "/etc/exports is missing, so nothing can be bound over it";
        if (quilltest::runCommand({"/usr/bin/timeout", "10", kUnshare, "-m", "true"}).exitCode != 0)
            GTEST_SKIP() << "unshare -m is not permitted here";
    }

    // Runs exportfs -ra over `exports` in a private mount namespace and
    // returns the etab it wrote.
    std::string exportfsTable(const fs::path& exports) {
        const fs::path etab = _dir / "etab";
        const std::string script =
            "set -e\n"
            "mount --make-rprivate /\n"
            "mount -t tmpfs quilltest /var/lib/nfs\n"
            "mount --bind \"$1\" /etc/exports\n"
            "if [ -d /etc/exports.d ]; then mount -t tmpfs quilltest /etc/exports.d; fi\n"
            "exportfs -ra\n"
            "cat /var/lib/nfs/etab > \"$2\"\n";
        auto result = quilltest::runCommand(
            {"/usr/bin/timeout", "60", kUnshare, "-m", "/bin/sh", "-c", script, "sh", exports.string(), etab.string()});
        EXPECT_EQ(result.exitCode, 0) << result.err;
        return fs::exists(etab) ? quilltest::readFile(etab) : "";
    }

    quilltest::TempDir _dir{"exportfs"};
};

TEST_F(ExportsFileAgainstExportfs, EveryHostilePathIsExportedAsItselfAndNothingElse) {
    const fs::path root = _dir / "d";
    fs::create_directory(root);
    std::vector<std::string> written;
    std::vector<std::string> refused;
    auto consider = [&](const std::string& path) {
        if (!isFaithfullyExportable(path)) {
            refused.push_back(path);
            return;
        }
        std::error_code ignored;
        fs::create_directories(fs::path(path), ignored);
        ASSERT_TRUE(fs::is_directory(fs::path(path))) << shown(path);
        written.push_back(path);
    };
    std::set<std::string> distinct;
    for (const std::string& name : hostileNames()) {
        if (name == "." || name == ".." || name.find('/') != std::string::npos) continue;
        if (distinct.insert(name).second) consider(root.string() + "/" + name);
    }
    // Nested hostile components, and paths at and beyond the tools' limit.
    consider(root.string() + "/-nested\n/#deeper \"/\\/x");
    std::string longest = root.string();
    while (longest.size() + 1 < kMaxExportPathLength) {
        longest += "/" + std::string(std::min<std::size_t>(200, kMaxExportPathLength - longest.size() - 1), 'L');
    }
    ASSERT_EQ(longest.size(), kMaxExportPathLength);
    std::string fourKiB = root.string() + "/k";
    while (fourKiB.size() < 4096 - 201) fourKiB += "/" + std::string(200, 'K');
    consider(longest);
    consider(fourKiB);
    consider(root.string() + "/oct\\101al");

    EXPECT_NE(std::find(refused.begin(), refused.end(), fourKiB), refused.end());
    EXPECT_NE(std::find(written.begin(), written.end(), longest), written.end());
    EXPECT_LE(refused.size(), 5u);
    EXPECT_GT(written.size(), 150u);

    // Half the lines as the publisher writes them (the path alone), half with
    // the options of a host setting; a foreign line last, which a broken line
    // before it would take down with it.
    std::string text;
    for (std::size_t i = 0; i < written.size(); ++i) {
        text += escapePath(written[i]) + (i % 2 == 0 ? "\n" : "\t*(rw,no_subtree_check,insecure)\n");
    }
    const std::string foreign = root.string() + "/foreign";
    fs::create_directory(foreign);
    text += foreign + " 127.0.0.1(ro,no_subtree_check)\n";
    const fs::path exports = _dir / "exports";
    quilltest::writeFile(exports, text);

    std::multiset<std::string> exported;
    std::istringstream etab(exportfsTable(exports));
    for (std::string line; std::getline(etab, line);) {
        const std::size_t tab = line.find('\t');
        ASSERT_NE(tab, std::string::npos) << line;
        exported.insert(unescapePath(line.substr(0, tab)));
    }
    std::multiset<std::string> intended(written.begin(), written.end());
    intended.insert(foreign);

    std::vector<std::string> missing, extra;
    std::set_difference(intended.begin(), intended.end(), exported.begin(), exported.end(),
                        std::back_inserter(missing));
    std::set_difference(exported.begin(), exported.end(), intended.begin(), intended.end(), std::back_inserter(extra));
    for (const auto& path : missing) ADD_FAILURE() << "not exported: " << shown(path);
    for (const auto& path : extra) ADD_FAILURE() << "exported but not intended: " << shown(path);
    EXPECT_EQ(exported.size(), intended.size());
}

TEST_F(ExportsFileAgainstExportfs, APathBeyondTheLimitWouldTakeLaterLinesDown) {
    // Why the limit is refused rather than written: exportfs drops such a
    // line and every one after it, without a word.
    const fs::path root = _dir / "d";
    std::string tooLong = root.string() + "/t";
    while (tooLong.size() <= kMaxExportPathLength) tooLong += "/" + std::string(100, 'T');
    fs::create_directories(tooLong);
    fs::create_directories(root / "after");
    quilltest::writeFile(_dir / "exports", escapePath(tooLong) + "\n" + (root / "after").string() + "\n");
    EXPECT_EQ(exportfsTable(_dir / "exports"), "");
}

}  // namespace
