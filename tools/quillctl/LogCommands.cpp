// quillctl log write | show | tail: the library's log files from the shell.
//
//   log write FILE [--level N] MESSAGE
//       starts a logger on FILE, writes MESSAGE as one record of level N
//       (default 3) and ends the logger: a begin mark, the record and an end
//       mark, in the log format (a new file gets its header first).
//   log show FILE [--level N] [--pid P] [--marks] [--raw] [--xml]
//       the records as a table: TIME PID LVL MESSAGE. The message is shown as
//       it was logged: XML references resolved, and a message that the
//       logger had to percent-escape decoded again (exactly when escaping the
//       decoded text gives what the file holds; --raw shows the stored text).
//       Continuation lines of a message that holds line feeds are indented
//       under it. Records above level N or of another process are left out. A line marks where each logging session
//       begins and ends; --marks also lists the other marks. --xml prints the
//       whole file as one XML document instead (the file and "</logs>").
//   log tail FILE [--lines K] [--count C]
//       the last K lines of the table (default 10), then each record and
//       session mark as it is appended, until Ctrl-C or SIGTERM (or after C
//       new records). A file that is
//       truncated or replaced is read again from its start.
//
// Records are told apart by parsing, never by lines: a message may hold line
// feeds and even the text "/>".
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <deque>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <sys/stat.h>

#include "Commands.h"
#include <ferrocore/CException.h>
#include <ferrocore/CXMLService.h>
#include <quillcore/logging/CQuillLogger.h>

namespace quillctl {

namespace {

using ferrocore::CStringRef;
using ferrocore::CXMLService;
using ferrocore::CXMLServiceRef;
using quill::CQuillLogger;

// ------------------------------------------------------------------ reading

// One element of a log file.
struct LogEntry {
    bool isMark = false;
    std::string time;  // tmt
    std::string pid;
    unsigned level = 3;
    std::string message;
    std::string kind;  // marks: begin, end, or empty
    std::string what;
    std::string requestID;
};

std::string attributeText(const CXMLService& element, std::string_view name) {
    const CStringRef value = element.getAttributeValueAsString(name);
    return value ? value->utf8() : std::string();
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

// The message before the logger's percent-escaping, when it was escaped.
std::string unescapedMessage(const std::string& stored, unsigned level) {
    if (stored.find('%') == std::string::npos) return stored;
    std::string decoded;
    for (std::size_t i = 0; i < stored.size(); ++i) {
        if (stored[i] == '%' && i + 2 < stored.size() && hexValue(stored[i + 1]) >= 0 && hexValue(stored[i + 2]) >= 0) {
            decoded += static_cast<char>(hexValue(stored[i + 1]) * 16 + hexValue(stored[i + 2]));
            i += 2;
        } else {
            decoded += stored[i];
        }
    }
    if (decoded == stored) return stored;
    const CStringRef again = CQuillLogger::escapedString(ferrocore::CString::create(decoded), level);
    return again->utf8() == stored ? decoded : stored;
}

LogEntry makeEntry(const CXMLService& element) {
    LogEntry entry;
    entry.isMark = CQuillLogger::CMark::isMark(element);
    entry.time = attributeText(element, "tmt");
    entry.pid = attributeText(element, "pid");
    entry.message = attributeText(element, "msg");
    const std::string level = attributeText(element, "lvl");
    if (!level.empty()) entry.level = static_cast<unsigned>(std::strtoul(level.c_str(), nullptr, 10));
    entry.kind = attributeText(element, "kind");
    entry.what = attributeText(element, "what");
    entry.requestID = attributeText(element, "req-id");
    return entry;
}

// Cuts the text of a log file into elements as it arrives. The header (the
// declaration and the <logs> element, which is never closed) is skipped; each
// record ends at the first "/>" at which the text so far parses as one
// element.
class LogSplitter {
public:
    // Adds text; returns the elements completed by it.
    std::vector<LogEntry> feed(std::string_view text) {
        _pending.append(text);
        std::vector<LogEntry> entries;
        std::size_t start = 0;
        while (true) {
            while (start < _pending.size() && std::strchr(" \t\r\n", _pending[start])) ++start;
            const std::string_view rest = std::string_view(_pending).substr(start);
            if (rest.empty()) break;
            if (rest.starts_with("<?xml") || rest.starts_with("<logs")) {
                const std::size_t end = rest.find('>');
                if (end == std::string_view::npos) break;
                start += end + 1;
                continue;
            }
            std::size_t length = 0;
            const CXMLServiceRef element = nextElement(rest, length);
            if (!element) break;
            entries.push_back(makeEntry(*element->childAtIndex(0)));
            start += length;
        }
        _pending.erase(0, start);
        return entries;
    }

    // What is left that is not a whole element, at the end of the file.
    const std::string& pending() const noexcept { return _pending; }
    void clear() { _pending.clear(); }

private:
    // The element that `text` starts with and its length; null when no "/>"
    // completes one yet.
    static CXMLServiceRef nextElement(std::string_view text, std::size_t& length) {
        for (std::size_t end = text.find("/>"); end != std::string_view::npos; end = text.find("/>", end + 2)) {
            try {
                CXMLServiceRef element = CXMLService::create(text.substr(0, end + 2));
                length = end + 2;
                return element;
            } catch (const ferrocore::CException&) {
                // "/>" inside a message: the record goes on.
            }
        }
        return nullptr;
    }

    std::string _pending;
};

// ----------------------------------------------------------------- printing

struct Filter {
    std::optional<unsigned> level;
    std::optional<std::string> pid;
    bool marks = false;
    bool raw = false;
};

// Formats entries as table lines.
class TablePrinter {
public:
    TablePrinter(const Filter& filter, std::size_t pidWidth) : _filter(filter), _pidWidth(pidWidth) {}

    // The line(s) for `entry`, or nothing when the filter leaves it out.
    std::string format(const LogEntry& entry) const {
        if (_filter.pid && entry.pid != *_filter.pid) return {};
        if (entry.isMark) {
            const bool session = entry.what == "log-session";
            if (session && (entry.kind == "begin" || entry.kind == "end"))
                return "---- " + entry.time + "  session of process " + entry.pid +
                       (entry.kind == "begin" ? " begins" : " ends") + " ----\n";
            if (!_filter.marks) return {};
            std::string text = "mark";
            if (!entry.kind.empty()) text += " " + entry.kind;
            if (!entry.what.empty()) text += " " + entry.what;
            if (!entry.requestID.empty()) text += " [" + entry.requestID + "]";
            if (!entry.message.empty()) text += ": " + entry.message;
            return row(entry.time, entry.pid, "-", text);
        }
        if (_filter.level && entry.level > *_filter.level) return {};
        return row(entry.time, entry.pid, std::to_string(entry.level),
                   _filter.raw ? entry.message : unescapedMessage(entry.message, entry.level));
    }

    std::string header() const { return row("TIME", "PID", "LVL", "MESSAGE"); }

private:
    std::string row(const std::string& time, const std::string& pid, const std::string& level,
                    const std::string& message) const {
        std::string line = time;
        if (line.size() < kTimeWidth) line.append(kTimeWidth - line.size(), ' ');
        line += "  ";
        if (pid.size() < _pidWidth) line.append(_pidWidth - pid.size(), ' ');
        line += pid;
        line += "  ";
        if (level.size() < 3) line.append(3 - level.size(), ' ');
        line += level;
        line += "  ";
        const std::size_t indent = line.size();
        for (char c : message) {
            line += c;
            if (c == '\n') line.append(indent, ' ');
        }
        line += '\n';
        return line;
    }

    static constexpr std::size_t kTimeWidth = 23;
    const Filter& _filter;
    std::size_t _pidWidth;
};

void writeOut(const std::string& text) { std::fwrite(text.data(), 1, text.size(), stdout); }

bool readWholeFile(const std::string& path, std::string& text) {
    std::ifstream file(path, std::ios::in | std::ios::binary);
    if (!file) {
        printError(path + ": " + std::strerror(errno));
        return false;
    }
    text.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    return true;
}

void reportLeftover(const std::string& path, const LogSplitter& splitter) {
    const std::string& rest = splitter.pending();
    if (rest.find_first_not_of(" \t\r\n") != std::string::npos)
        printError(path + ": " + std::to_string(rest.size()) + " bytes at the end are not a whole record");
}

// --------------------------------------------------------------------- verbs

struct WriteOptions {
    std::string file;
    unsigned level = CQuillLogger::kDefaultLogLevel;
    std::string message;
};

int writeRecord(const WriteOptions& options) {
    const quill::CQuillLoggerRef logger = CQuillLogger::create();
    logger->startupLogging(ferrocore::CString::create(options.file), false);
    // The logger has said on standard error why it could not open the file.
    if (!logger->isLoggingToFile() && options.file != "/dev/stderr") return 1;
    // Level 0 is always enabled, so this is the active stream; the record
    // then carries the level asked for, with no "Setting log level" record.
    CQuillLogger::OStream& stream = logger->log(0);
    stream.setLevel(options.level);
    stream << options.message << std::endl;
    return 0;
}

struct ShowOptions {
    std::string file;
    Filter filter;
    bool xml = false;
};

int show(const ShowOptions& options) {
    if (options.xml) {
        struct stat status {};
        if (::stat(options.file.c_str(), &status) != 0) {
            printError(options.file + ": " + std::strerror(errno));
            return 1;
        }
        const CStringRef text = CQuillLogger::logDataAsString(ferrocore::CString::create(options.file));
        writeOut(text->utf8());
        return 0;
    }
    std::string text;
    if (!readWholeFile(options.file, text)) return 1;
    LogSplitter splitter;
    const std::vector<LogEntry> entries = splitter.feed(text);
    std::size_t pidWidth = 3;
    for (const LogEntry& entry : entries) pidWidth = std::max(pidWidth, entry.pid.size());
    const TablePrinter printer(options.filter, pidWidth);
    std::string out = printer.header();
    for (const LogEntry& entry : entries) out += printer.format(entry);
    writeOut(out);
    reportLeftover(options.file, splitter);
    return 0;
}

volatile std::sig_atomic_t gStopTail = 0;
extern "C" void stopTail(int) { gStopTail = 1; }

struct TailOptions {
    std::string file;
    long lines = 10;
    long count = 0;
};

int tail(const TailOptions& options) {
    struct sigaction action {};
    action.sa_handler = stopTail;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);

    std::ifstream file(options.file, std::ios::in | std::ios::binary);
    if (!file) {
        printError(options.file + ": " + std::strerror(errno));
        return 1;
    }
    struct stat opened {};
    ::stat(options.file.c_str(), &opened);
    const Filter filter;
    const TablePrinter printer(filter, 7);
    LogSplitter splitter;
    std::uint64_t offset = 0;
    long seen = 0;
    bool first = true;
    char chunk[64 * 1024];
    while (!gStopTail) {
        std::string text;
        file.clear();
        file.seekg(static_cast<std::streamoff>(offset));
        while (file.read(chunk, sizeof chunk) || file.gcount() > 0) {
            text.append(chunk, static_cast<std::size_t>(file.gcount()));
            if (file.eof()) break;
        }
        offset += text.size();
        std::vector<LogEntry> entries = splitter.feed(text);
        std::string out;
        if (first) {
            // Only the last records of what was there already.
            std::deque<std::string> last;
            for (const LogEntry& entry : entries) {
                std::string line = printer.format(entry);
                if (line.empty()) continue;
                last.push_back(std::move(line));
                if (static_cast<long>(last.size()) > options.lines) last.pop_front();
            }
            for (const std::string& line : last) out += line;
            first = false;
        } else {
            for (const LogEntry& entry : entries) {
                std::string line = printer.format(entry);
                if (line.empty()) continue;
                out += line;
                if (entry.isMark) continue;
                if (options.count > 0 && ++seen >= options.count) {
                    gStopTail = 1;
                    break;
                }
            }
        }
        if (!out.empty()) {
            writeOut(out);
            std::fflush(stdout);
        }
        if (gStopTail) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        // Truncated or replaced: start again from the beginning.
        struct stat now {};
        if (::stat(options.file.c_str(), &now) == 0 && (now.st_ino != opened.st_ino || now.st_dev != opened.st_dev ||
                                                        static_cast<std::uint64_t>(now.st_size) < offset)) {
            file.close();
            file.open(options.file, std::ios::in | std::ios::binary);
            opened = now;
            offset = 0;
            splitter.clear();
        }
    }
    return 0;
}

void addLogCommands(CLI::App& app) {
    CLI::App* log = app.add_subcommand("log", "Write and read log files");
    log->require_subcommand(1);

    auto writeOptions = std::make_shared<WriteOptions>();
    CLI::App* writeVerb = log->add_subcommand("write", "Write one record, framed by session marks");
    writeVerb->add_option("file", writeOptions->file, "Log file")->required();
    writeVerb->add_option("message", writeOptions->message, "Message of the record")->required();
    writeVerb->add_option("--level", writeOptions->level, "Level of the record (default 3)");
    setAction(writeVerb, [writeOptions] { return writeRecord(*writeOptions); });

    auto showOptions = std::make_shared<ShowOptions>();
    CLI::App* showVerb = log->add_subcommand("show", "Print the records as a table");
    showVerb->add_option("file", showOptions->file, "Log file")->required();
    CLI::Option* levelOption = showVerb->add_option("--level", "Only records up to this level");
    CLI::Option* pidOption = showVerb->add_option("--pid", "Only records of this process");
    showVerb->add_flag("--marks", showOptions->filter.marks, "Also list the marks");
    showVerb->add_flag("--raw", showOptions->filter.raw, "Show messages as stored, percent-escapes included");
    showVerb->add_flag("--xml", showOptions->xml, "Print the file as one XML document");
    setAction(showVerb, [showOptions, levelOption, pidOption] {
        if (levelOption->count()) showOptions->filter.level = levelOption->as<unsigned>();
        if (pidOption->count()) showOptions->filter.pid = std::to_string(pidOption->as<unsigned>());
        return show(*showOptions);
    });

    auto tailOptions = std::make_shared<TailOptions>();
    CLI::App* tailVerb = log->add_subcommand("tail", "Follow a growing log");
    tailVerb->add_option("file", tailOptions->file, "Log file")->required();
    tailVerb->add_option("--lines,-n", tailOptions->lines, "Records shown from before (default 10)")
        ->check(CLI::NonNegativeNumber);
    tailVerb->add_option("--count", tailOptions->count, "Stop after this many new records")->check(CLI::PositiveNumber);
    setAction(tailVerb, [tailOptions] { return tail(*tailOptions); });
}

}  // namespace

QUILLCTL_COMMANDS(addLogCommands);

}  // namespace quillctl
