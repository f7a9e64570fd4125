// quillctl notify post | watch: cluster notifications from the shell.
//
//   notify post NAME [--sender S] [--info FILE] [KEY=VALUE ...]
//       posts NAME; the user information is the dictionary in FILE (a
//       property list) with each KEY set to the string VALUE on top; without
//       either there is none. Without --sender the notification has no
//       sender (which differs from --sender "").
//   notify watch [--name N] [--sender S] [--count K]
//       prints one line per notification until Ctrl-C (or SIGTERM) or after
//       K of them:  TIME NAME SENDER USERINFO
//       TIME is local "MM/DD/YYYY hh:mm:ss.sss", SENDER is quoted or "-" when
//       there is none, USERINFO is a one-line form of the dictionary ("-"
//       when there is none): {"key": value, ...} with keys sorted, [..] for
//       arrays, quoted strings, numbers, true/false, dates as @ISO-8601 and
//       data as <hex>.
#include <algorithm>
#include <charconv>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <string>
#include <vector>

#include <sys/signalfd.h>
#include <unistd.h>

#include "Commands.h"
#include "ToolSupport.h"
#include <quillcore/platform/FileDescriptor.h>
#include <quillcore/platform/NotificationCenter.h>
#include <quillcore/platform/RunLoop.h>
#include <quillcore/util/CTimeStamp.h>

namespace quillctl {

namespace {

using quill::platform::CNotification;
using quill::platform::CRunLoop;
using quill::platform::notificationCenter;

void appendQuoted(std::string& out, std::string_view text) {
    static constexpr char kHex[] = "0123456789abcdef";
    out += '"';
    for (unsigned char c : text) {
        switch (c) {
            case '"': out += "\\\""; break;
            case '\\': out += "\\\\"; break;
            case '\n': out += "\\n"; break;
            case '\r': out += "\\r"; break;
            case '\t': out += "\\t"; break;
            default:
                if (c < 0x20 || c == 0x7f) {
                    out += "\\u00";
                    out += kHex[c >> 4];
                    out += kHex[c & 15];
                } else {
                    out += static_cast<char>(c);
                }
        }
    }
    out += '"';
}

void appendCompact(std::string& out, const PLObject* value) {
    switch (value->typeID()) {
        case PLTypeID::String: appendQuoted(out, static_cast<const PLString*>(value)->utf8()); break;
        case PLTypeID::Number: {
            auto* number = static_cast<const PLNumber*>(value);
            char buf[64];
            if (!number->isFloat()) {
                auto end = std::to_chars(buf, buf + sizeof buf, number->int64Value()).ptr;
                out.append(buf, end);
            } else if (std::isnan(number->doubleValue())) {
                out += "nan";
            } else if (std::isinf(number->doubleValue())) {
                out += number->doubleValue() < 0 ? "-inf" : "inf";
            } else {
                auto end = std::to_chars(buf, buf + sizeof buf, number->doubleValue()).ptr;
                out.append(buf, end);
                if (std::string_view(buf, static_cast<std::size_t>(end - buf)).find_first_of(".e") == std::string::npos)
                    out += ".0";
            }
            break;
        }
        case PLTypeID::Boolean: out += static_cast<const PLBoolean*>(value)->value() ? "true" : "false"; break;
        case PLTypeID::Date: out += "@" + isoDate(static_cast<const PLDate*>(value)->absoluteTime()); break;
        case PLTypeID::Data: {
            static constexpr char kHex[] = "0123456789abcdef";
            auto* data = static_cast<const PLData*>(value);
            out += '<';
            for (std::size_t i = 0; i < data->size(); ++i) {
                out += kHex[data->bytes()[i] >> 4];
                out += kHex[data->bytes()[i] & 15];
            }
            out += '>';
            break;
        }
        case PLTypeID::URL: out += static_cast<const PLURL*>(value)->text(); break;
        case PLTypeID::Array: {
            auto* array = static_cast<const PLArray*>(value);
            out += '[';
            for (std::size_t i = 0; i < array->count(); ++i) {
                if (i) out += ", ";
                appendCompact(out, array->at(i));
            }
            out += ']';
            break;
        }
        case PLTypeID::Dictionary: {
            std::vector<const PLDictionaryEntry*> entries;
            for (const PLDictionaryEntry& entry : static_cast<const PLDictionary*>(value)->entries())
                entries.push_back(&entry);
            auto keyText = [](const PLDictionaryEntry* e) {
                auto* key = PLDynamicCast<PLString>(e->first.get());
                return key ? key->utf8() : std::string_view();
            };
            std::sort(entries.begin(), entries.end(), [&](auto* a, auto* b) { return keyText(a) < keyText(b); });
            out += '{';
            for (std::size_t i = 0; i < entries.size(); ++i) {
                if (i) out += ", ";
                appendCompact(out, entries[i]->first.get());
                out += ": ";
                appendCompact(out, entries[i]->second.get());
            }
            out += '}';
            break;
        }
    }
}

std::string formatNotification(const CNotification& n) {
    std::string line = quill::CTimeStamp(-1.0).text();
    line += ' ';
    line += n.name->utf8();
    line += ' ';
    if (n.sender) {
        appendQuoted(line, n.sender->utf8());
    } else {
        line += '-';
    }
    line += ' ';
    if (n.userInfo) {
        appendCompact(line, n.userInfo.get());
    } else {
        line += '-';
    }
    line += '\n';
    return line;
}

struct PostOptions {
    std::string name;
    std::string sender;
    bool hasSender = false;
    std::string infoFile;
    std::vector<std::string> pairs;
};

int post(const PostOptions& options) {
    PLHolder<PLMutableDictionary> info;
    if (!options.infoFile.empty()) {
        std::string error;
        PLHolder<const PLObject> plist = loadPropertyList(options.infoFile, &error);
        if (!plist) {
            printError(options.infoFile + ": " + error);
            return 1;
        }
        auto* dict = PLDynamicCast<PLDictionary>(plist.get());
        if (!dict) {
            printError(options.infoFile +
                       ": the user information must be a dictionary (found: " + PLTypeName(plist->typeID()) + ")");
            return 1;
        }
        info = PLDictionaryCreateMutableCopy(dict);
    }
    for (const std::string& pair : options.pairs) {
        std::size_t equals = pair.find('=');
        if (equals == std::string::npos || equals == 0) {
            printError("expected KEY=VALUE, got \"" + pair + "\"");
            return 2;
        }
        if (!info) info = PLMutableDictionary::create();
        info->set(PLString::create(pair.substr(0, equals)), PLString::create(pair.substr(equals + 1)));
    }
    auto name = PLString::create(options.name);
    auto sender = options.hasSender ? PLString::create(options.sender) : nullptr;
    if (std::error_code ec = notificationCenter().post(name.get(), sender.get(), info.get())) {
        printError("can't post " + options.name + ": " + ec.message());
        return 1;
    }
    return 0;
}

struct WatchOptions {
    std::string name;
    bool hasName = false;
    std::string sender;
    bool hasSender = false;
    long count = 0;
};

int watch(const WatchOptions& options) {
    // Ctrl-C and SIGTERM end the watch through the run loop. They are blocked
    // before the bus thread exists, so that it inherits the mask.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    const quill::platform::CFileDescriptor signalFd(signalfd(-1, &stopSignals, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!signalFd) {
        printError("can't watch for Ctrl-C");
        return 1;
    }

    CRunLoop& loop = CRunLoop::current();
    bool done = false;
    auto stopSource = loop.addFileDescriptorSource(signalFd.get(), CRunLoop::kReadable, [&](int, unsigned) {
        done = true;
        loop.stop();
    });
    long seen = 0;
    auto name = options.hasName ? PLString::create(options.name) : nullptr;
    auto sender = options.hasSender ? PLString::create(options.sender) : nullptr;
    int token = 0;
    notificationCenter().addObserver(&token, quill::platform::NotificationHandler([&](const CNotification& n) {
        std::string line = formatNotification(n);
        std::fwrite(line.data(), 1, line.size(), stdout);
        std::fflush(stdout);
        if (options.count > 0 && ++seen >= options.count) {
            done = true;
            loop.stop();
        }
    }),
                                     name.get(), sender.get());
    while (!done) loop.runFor(3600.0);
    notificationCenter().removeObserver(&token);
    stopSource.remove();
    return 0;
}

void addNotifyCommands(CLI::App& app) {
    CLI::App* notify = app.add_subcommand("notify", "Post and watch cluster notifications");
    notify->require_subcommand(1);

    auto postOptions = std::make_shared<PostOptions>();
    CLI::App* postVerb = notify->add_subcommand("post", "Post a notification to every process of this user");
    postVerb->add_option("name", postOptions->name, "Notification name")->required();
    CLI::Option* senderOption = postVerb->add_option("--sender", postOptions->sender, "Sender identity");
    postVerb->add_option("--info", postOptions->infoFile, "Property-list file with the user information dictionary");
    postVerb->add_option("pairs", postOptions->pairs, "KEY=VALUE strings added to the user information");
    setAction(postVerb, [postOptions, senderOption] {
        postOptions->hasSender = senderOption->count() > 0;
        return post(*postOptions);
    });

    auto watchOptions = std::make_shared<WatchOptions>();
    CLI::App* watchVerb = notify->add_subcommand("watch", "Print notifications as they arrive");
    CLI::Option* nameOption = watchVerb->add_option("--name", watchOptions->name, "Only this name");
    CLI::Option* watchSender = watchVerb->add_option("--sender", watchOptions->sender, "Only this sender");
    watchVerb->add_option("--count", watchOptions->count, "Stop after this many notifications")
        ->check(CLI::PositiveNumber);
    setAction(watchVerb, [watchOptions, nameOption, watchSender] {
        watchOptions->hasName = nameOption->count() > 0;
        watchOptions->hasSender = watchSender->count() > 0;
        return watch(*watchOptions);
    });
}

}  // namespace

QUILLCTL_COMMANDS(addNotifyCommands);

}  // namespace quillctl
