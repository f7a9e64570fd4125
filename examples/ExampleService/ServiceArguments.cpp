#include "ServiceArguments.h"

#include <cerrno>
#include <cstdlib>

#include <climits>

namespace example {

namespace {

// Shows an argument in a message: quoted, with control characters escaped so
// that a line feed in a hostile value cannot split the message.
std::string shown(const std::string& text) {
    std::string out = "\"";
    for (const unsigned char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c == '\n') {
            out += "\\n";
        } else if (c < 0x20 || c == 0x7f) {
            static constexpr char kHex[] = "0123456789abcdef";
            out += "\\x";
            out += kHex[c >> 4];
            out += kHex[c & 15];
        } else {
            out += static_cast<char>(c);
        }
    }
    return out + "\"";
}

bool parseInstance(const std::string& text, long& value) {
    if (text.empty() || text.size() > 19) return false;
    for (const char c : text) {
        if (c < '0' || c > '9') return false;
    }
    if (text.size() > 1 && text[0] == '0') return false;
    errno = 0;
    const long long parsed = std::strtoll(text.c_str(), nullptr, 10);
    if (errno == ERANGE || parsed > LONG_MAX) return false;
    value = static_cast<long>(parsed);
    return true;
}

}  // namespace

const char* serviceUsage() {
    return "usage: ExampleService [-d] [-l] [-v] [-adv dn|mc|rv] -idx N [-name NAME] [-id ID] [-ak KEY] [-ck KEY] "
           "[-pu]";
}

std::optional<ServiceArguments> parseServiceArguments(const std::vector<std::string>& args, std::string& error) {
    if (args.empty()) {
        error = "no arguments, not even the program's path";
        return std::nullopt;
    }
    ServiceArguments parsed;
    parsed.executable = args[0];

    // The options in the one order the builder writes them; `position` is the
    // first option still allowed.
    enum Option { kDetach, kLocalAds, kVerbose, kAdvertising, kIndex, kName, kID, kAccessKey, kCaptureKey, kPerUser };
    struct OptionShape {
        const char* text;
        bool takesValue;
    };
    static constexpr OptionShape kOptions[] = {{"-d", false},  {"-l", false},   {"-v", false}, {"-adv", true},
                                               {"-idx", true}, {"-name", true}, {"-id", true}, {"-ak", true},
                                               {"-ck", true},  {"-pu", false}};
    constexpr int kCount = sizeof kOptions / sizeof kOptions[0];

    int position = 0;
    bool haveIndex = false;
    for (std::size_t i = 1; i < args.size(); ++i) {
        const std::string& arg = args[i];
        int option = -1;
        for (int candidate = 0; candidate < kCount; ++candidate) {
            if (arg == kOptions[candidate].text) option = candidate;
        }
        if (option < 0) {
            error = "unknown argument " + shown(arg);
            return std::nullopt;
        }
        if (option < position) {
            error = "option " + arg + " is repeated or out of order";
            return std::nullopt;
        }
        if (option > kIndex && !haveIndex) {
            error = "option " + arg + " before the instance number (-idx)";
            return std::nullopt;
        }
        position = option + 1;
        std::string value;
        if (kOptions[option].takesValue) {
            if (i + 1 >= args.size()) {
                error = "option " + arg + " needs a value";
                return std::nullopt;
            }
            value = args[++i];
            if (value.empty()) {
                error = "option " + arg + " has an empty value";
                return std::nullopt;
            }
        }
        switch (option) {
            case kDetach: parsed.detachDaemon = true; break;
            case kLocalAds: parsed.localAds = true; break;
            case kVerbose: parsed.verbose = true; break;
            case kAdvertising:
                if (value != "dn" && value != "mc" && value != "rv") {
                    error = "-adv takes dn, mc or rv, not " + shown(value);
                    return std::nullopt;
                }
                parsed.advertising = value;
                break;
            case kIndex:
                if (!parseInstance(value, parsed.instance)) {
                    error = "-idx takes a decimal instance number, not " + shown(value);
                    return std::nullopt;
                }
                haveIndex = true;
                break;
            case kName: parsed.name = value; break;
            case kID: parsed.identifier = value; break;
            case kAccessKey: parsed.accessKey = value; break;
            case kCaptureKey: parsed.captureKey = value; break;
            case kPerUser: parsed.perUser = true; break;
        }
    }
    if (!haveIndex) {
        error = "the instance number (-idx) is missing";
        return std::nullopt;
    }
    return parsed;
}

}  // namespace example
