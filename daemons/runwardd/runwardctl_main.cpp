// runwardctl: loads, unloads and lists the user's jobs in runwardd.
#include <iostream>
#include <string>
#include <vector>

#include <climits>
#include <unistd.h>

#include "Control.h"

int main(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    // runwardd is installed beside runwardctl.
    std::string daemonPath = "runwardd";
    char self[PATH_MAX];
    ssize_t n = ::readlink("/proc/self/exe", self, sizeof self - 1);
    if (n > 0) {
        std::string exe(self, static_cast<std::size_t>(n));
        daemonPath = exe.substr(0, exe.find_last_of('/') + 1) + "runwardd";
    }
    return runward::runControlCommand(args, daemonPath, std::cout, std::cerr);
}
