// Process lookup by name and ID, and UUID strings.
#include <algorithm>
#include <regex>
#include <set>
#include <string>

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <ferrocore/CUUIDString.h>
#include <ferrocore/ProcessUtilities.h>

namespace ferrocore {
namespace {

bool contains(const std::vector<pid_t>& pids, pid_t pid) {
    return std::find(pids.begin(), pids.end(), pid) != pids.end();
}

TEST(ProcessUtilitiesTest, FindsThisProcessByItsFullNameAndNoneThatIsNotThere) {
    // The test program's name is longer than the 15 bytes the kernel keeps.
    CStringRef name = ProcessUtilities::processNameForID(getpid());
    ASSERT_TRUE(name);
    EXPECT_EQ(name->utf8(), "ferrocore_tests");
    EXPECT_TRUE(contains(ProcessUtilities::processIDsForName("ferrocore_tests"), getpid()));
    EXPECT_FALSE(contains(ProcessUtilities::processIDsForName("ferrocore_test"), getpid()));
    EXPECT_TRUE(contains(ProcessUtilities::processIDsForName("ferrocore_tests", geteuid()), getpid()));
    EXPECT_FALSE(contains(ProcessUtilities::processIDsForName("ferrocore_tests", geteuid() + 1), getpid()));
    EXPECT_EQ(ProcessUtilities::processEffectiveUserForID(getpid()), geteuid());

    for (const pid_t pid : {0, -1}) EXPECT_FALSE(ProcessUtilities::processNameForID(pid)) << pid;
    EXPECT_FALSE(ProcessUtilities::processEffectiveUserForID(-5));
    for (const char* name : {"no such process name here", ""})
        EXPECT_TRUE(ProcessUtilities::processIDsForName(name).empty()) << name;
}

TEST(ProcessUtilitiesTest, FindsAChildByName) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        execl("/bin/sleep", "sleep", "30", static_cast<char*>(nullptr));
        _exit(127);
    }
    // exec may not have happened yet; until then the child bears our name.
    bool found = false;
    int status = 0;
    for (int i = 0; i < 3000 && !found; ++i) {
        found = contains(ProcessUtilities::processIDsForName("sleep"), child);
        if (found) break;
        ASSERT_EQ(waitpid(child, &status, WNOHANG), 0) << "the child ended early, status " << status;
        usleep(10000);
    }
    ASSERT_TRUE(found);
    const CStringRef name = ProcessUtilities::processNameForID(child);
    ASSERT_TRUE(name);
    EXPECT_EQ(name->utf8(), "sleep");
    const std::vector<pid_t> sleepers = ProcessUtilities::processIDsForName("sleep");
    EXPECT_TRUE(std::is_sorted(sleepers.begin(), sleepers.end()));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    EXPECT_FALSE(ProcessUtilities::processNameForID(child));
    EXPECT_FALSE(contains(ProcessUtilities::processIDsForName("sleep"), child));
}

TEST(UUIDStringTest, UppercaseVersion4AndUnique) {
    std::set<std::string> seen;
    for (int i = 0; i < 100; ++i) {
        CUUIDString uuid;
        const std::string& s = uuid.str();
        EXPECT_TRUE(std::regex_match(s, std::regex("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[0-9A-F]{4}-[0-9A-F]{12}")))
            << s;
        EXPECT_TRUE(seen.insert(s).second);
        EXPECT_EQ(uuid.string()->utf8(), s);
    }
}

}  // namespace
}  // namespace ferrocore
