// The command line of a cluster service instance, as the service manager's
// job definition or the daemon passes it: the executable path, then
//
//   [-d] [-l] [-v] [-adv dn|mc|rv] -idx N [-name NAME] [-id ID]
//   [-ak ACCESSKEY] [-ck CAPTUREKEY] [-pu]
//
// in exactly this order, each option at most once. This is the vector that
// the library builds for every service (CServiceUtil::buildServiceArgs), and a
// service accepts nothing else: an option out of order, repeated or unknown,
// a missing or empty value, an "-adv" other than the three advertising words
// and an instance number that is not plain decimal are refused. Values are
// taken as they are (a name may begin with "-", hold spaces, quotes or line
// feeds), because the builder never adds an option with an empty value.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace example {

struct ServiceArguments {
    std::string executable;     // argument 0
    bool detachDaemon = false;  // -d
    bool localAds = false;      // -l
    bool verbose = false;       // -v: log to the service's log file
    std::string advertising;    // -adv: "dn", "mc", "rv", or "" when absent
    long instance = 0;          // -idx
    std::string name;           // -name, "" when absent
    std::string identifier;     // -id, "" when absent
    std::string accessKey;      // -ak, "" when absent
    std::string captureKey;     // -ck, "" when absent
    bool perUser = false;       // -pu
};

// Parses `args` (argument 0 first). Returns the arguments, or nothing with a
// one-line reason in `error` that names the offending argument.
std::optional<ServiceArguments> parseServiceArguments(const std::vector<std::string>& args, std::string& error);

// The usage line printed with a refusal.
const char* serviceUsage();

}  // namespace example
