// quillctl schedule check FILE [--key KEYPATH] [--at "YYYY-MM-DD HH:MM:SS"]
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <memory>
#include <optional>

#include "Commands.h"
#include "ToolSupport.h"
#include <ferrocore/CSharedObject.h>
#include <quillcore/platform/Host.h>
#include <quillcore/schedule/CServiceSchedule.h>

namespace quillctl {

namespace {

constexpr const char* kLocalTimeFormat = "YYYY-MM-DD HH:MM:SS";

// Makes one chosen moment "now" for everything that reads the host clock, so
// that the schedule's day arithmetic, which counts from today, counts from
// that moment.
class CFixedClockHost final : public quill::platform::CHostWrapper {
public:
    explicit CFixedClockHost(PLAbsoluteTime now) noexcept : _now(now) {}
    PLAbsoluteTime currentTime() override { return _now; }

private:
    const PLAbsoluteTime _now;
};

bool parseField(const std::string& text, std::size_t at, std::size_t width, int& out) {
    const char* begin = text.data() + at;
    for (std::size_t i = 0; i < width; ++i) {
        if (begin[i] < '0' || begin[i] > '9') return false;
    }
    return std::from_chars(begin, begin + width, out).ec == std::errc{};
}

// A local time in exactly the form kLocalTimeFormat, checked against the
// calendar; nullopt when the text is anything else.
std::optional<PLAbsoluteTime> parseLocalTime(const std::string& text) {
    if (text.size() != 19 || text[4] != '-' || text[7] != '-' || text[10] != ' ' || text[13] != ':' || text[16] != ':')
        return std::nullopt;
    int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
    if (!parseField(text, 0, 4, year) || !parseField(text, 5, 2, month) || !parseField(text, 8, 2, day) ||
        !parseField(text, 11, 2, hour) || !parseField(text, 14, 2, minute) || !parseField(text, 17, 2, second))
        return std::nullopt;
    const std::chrono::year_month_day date{std::chrono::year(year), std::chrono::month(static_cast<unsigned>(month)),
                                           std::chrono::day(static_cast<unsigned>(day))};
    if (!date.ok() || hour > 23 || minute > 59 || second > 59) return std::nullopt;

    quill::platform::CCalendarDate local;
    local.year = year;
    local.month = month;
    local.day = day;
    local.hour = hour;
    local.minute = minute;
    local.second = second;
    const PLAbsoluteTime at = quill::platform::host().absoluteTime(local);
    if (std::isnan(at)) return std::nullopt;
    return at;
}

std::string formatLocalTime(PLAbsoluteTime at) {
    const quill::platform::CCalendarDate date = quill::platform::host().calendarDate(at);
    char text[64];
    std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d", date.year, date.month, date.day, date.hour,
                  date.minute, static_cast<int>(std::floor(date.second)));
    return text;
}

bool holdsAnyDay(const PLDictionary& dict) {
    for (std::string_view day : quill::kScheduleDayNames) {
        if (dict.get(day)) return true;
    }
    return false;
}

struct CheckOptions {
    std::string file;
    std::string keyPath;
    std::optional<std::string> at;
};

int check(const CheckOptions& options) {
    std::optional<PLAbsoluteTime> now;
    if (options.at) {
        now = parseLocalTime(*options.at);
        if (!now) {
            printError("invalid --at time \"" + *options.at + "\": expected a local time " + kLocalTimeFormat);
            return 1;
        }
    }

    std::string error;
    PLHolder<const PLObject> plist = loadPropertyList(options.file, &error);
    if (!plist) {
        printError(options.file + ": " + error);
        return 1;
    }
    const PLObject* value = plist.get();
    if (!options.keyPath.empty()) {
        value = resolveKeyPath(plist.get(), options.keyPath, &error);
        if (!value) {
            printError(options.file + ": " + error);
            return 1;
        }
    }
    const std::string where = options.keyPath.empty() ? std::string("the root") : options.keyPath;
    const PLDictionary* dict = PLDynamicCast<PLDictionary>(value);
    if (!dict) {
        printError(options.file + ": " + where + " is not a schedule dictionary (found " + PLTypeName(value->typeID()) +
                   ")");
        return 1;
    }
    // An empty dictionary is the all-day "On" schedule; a dictionary with
    // other keys only is most likely the wrong one.
    if (dict->count() != 0 && !holdsAnyDay(*dict)) {
        printError(options.file + ": " + where +
                   " holds none of the keys Sunday ... Saturday; name the schedule with --key");
        return 1;
    }

    std::optional<CFixedClockHost> clock;
    std::optional<quill::platform::CScopedHost> scope;
    if (now) {
        clock.emplace(*now);
        scope.emplace(*clock);
    }
    const quill::CServiceScheduleRef schedule = ferrocore::makeShared<quill::CServiceSchedule>(dict);
    const bool onLine = schedule->isOnLine();
    const PLAbsoluteTime next = schedule->nextTransition();
    std::printf("%s\n", onLine ? "on line" : "off line");
    std::printf("next transition: %s\n", next == schedule->distantFuture() ? "never" : formatLocalTime(next).c_str());
    return 0;
}

void addScheduleCommands(CLI::App& app) {
    CLI::App* schedule = app.add_subcommand("schedule", "Evaluate weekly service schedules");
    schedule->require_subcommand(1);

    auto options = std::make_shared<CheckOptions>();
    CLI::App* checkCmd =
        schedule->add_subcommand("check", "Print whether the schedule in FILE is on line, and its next transition");
    checkCmd->add_option("FILE", options->file, "Property-list file (XML or binary)")->required();
    checkCmd
        ->add_option("--key", options->keyPath,
                     std::string("Key path of the schedule dictionary when it is not the root. ") + keyPathHelp())
        ->type_name("KEYPATH");
    CLI::Option* at = checkCmd->add_option("--at", "Evaluate at this local time instead of now")
                          ->type_name("\"YYYY-MM-DD HH:MM:SS\"");
    checkCmd->footer(
        "The schedule is a dictionary with the keys Sunday ... Saturday, each holding\n"
        "\"type\" (On, Off, OnBetween, OffBetween), \"timeFrom\" and \"timeTo\" (seconds after\n"
        "local midnight). Prints \"on line\" or \"off line\", then \"next transition: \"\n"
        "with a local time, or \"never\" for a schedule that never changes. Times are\n"
        "those of the system time zone (TZ).");
    setAction(checkCmd, [options, at] {
        if (at->count() != 0) options->at = at->as<std::string>();
        return check(*options);
    });
}

}  // namespace

QUILLCTL_COMMANDS(addScheduleCommands);

}  // namespace quillctl
