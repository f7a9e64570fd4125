// The logger: file sessions, records and their escaping, threads, service
// starts, marks and queries, the global logger; and its fast paths against the
// slow, obvious ones (number formatting against printf, the plain-text check
// and the escaping against the XML parser).
#include <cmath>
#include <cstdio>
#include <random>
#include <regex>
#include <sstream>
#include <thread>

#include <gmock/gmock.h>
#include <unistd.h>

#include "quillcore/logging/LogRecord.h"
#include "support/ConfigHome.h"
#include "support/FixedClockHost.h"
#include "support/LogEscapeReference.h"
#include <ferrocore/CException.h>
#include <quillcore/control/QuillNotification.h>
#include <quillcore/logging/CQuillGlobalLogger.h>
#include <quillcore/platform/RunLoop.h>
#include <quillcore/plist/CServiceCacheFile.h>
#include <quillcore/util/CTimeStamp.h>

namespace {

using ferrocore::CString;
using quill::CQuillGlobalLogger;
using quill::CQuillLogger;
using quill::CQuillLoggerRef;
using quilltest::readFile;
using quilltest::TempDir;
using testing::HasSubstr;
namespace fs = std::filesystem;

std::vector<std::string> linesOf(const fs::path& path) {
    std::vector<std::string> lines;
    std::istringstream in(readFile(path));
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

const std::string kPid = std::to_string(getpid());
const std::string kTimes = R"(tms="\d+\.\d{3}" tmt="\d\d/\d\d/\d{4} \d\d:\d\d:\d\d\.\d{3}")";

bool matches(const std::string& line, const std::string& re) { return std::regex_match(line, std::regex(re)); }

std::string recordPattern(const std::string& escapedMessage, unsigned level = 3) {
    std::string lvl = level == 3 ? "" : " lvl=\"" + std::to_string(level) + "\"";
    return "<log " + kTimes + " pid=\"" + kPid + "\"" + lvl + " msg=\"" + escapedMessage + "\"/>";
}
std::string markPattern(const std::string& attributes) {
    return "<mrk " + kTimes + " pid=\"" + kPid + "\" " + attributes + "/>";
}

unsigned modeOf(const fs::path& path) { return static_cast<unsigned>(fs::status(path).permissions()); }

CQuillLoggerRef fileLogger(const fs::path& path, bool truncate = false) {
    CQuillLoggerRef logger = CQuillLogger::create();
    logger->startupLogging(CString::create(path.string()), truncate);
    return logger;
}

// The records (log elements) of a file, parsed from the document the logger
// itself hands out.
std::vector<ferrocore::CXMLServiceRef> elementsOf(const CQuillLogger& logger) {
    const ferrocore::CXMLServiceRef document = ferrocore::CXMLService::create(logger.logDataAsString()->utf8());
    const ferrocore::CXMLServiceRef logs = document->childAtIndex(0);
    std::vector<ferrocore::CXMLServiceRef> elements;
    for (std::size_t i = 0; i < logs->childCount(); ++i) elements.push_back(logs->childAtIndex(i));
    return elements;
}

// ------------------------------------------------------------ file sessions

TEST(CQuillLogger, NewFileGetsHeaderAndMarksAndAppendingAddsOnlyMarks) {
    TempDir dir;
    const auto path = dir / "a.log";
    {
        CQuillLoggerRef logger = fileLogger(path);
        const auto lines = linesOf(path);
        ASSERT_EQ(lines.size(), 3u);
        EXPECT_EQ(lines[0], R"(<?xml version="1.0" encoding="UTF-8" standalone="yes"?>)");
        EXPECT_TRUE(matches(lines[1], "<logs " + kTimes + R"( pnm="[^"]+">)")) << lines[1];
        EXPECT_TRUE(matches(lines[2], markPattern(R"(kind="begin" what="log-session")"))) << lines[2];
    }
    auto lines = linesOf(path);
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_TRUE(matches(lines[3], markPattern(R"(kind="end" what="log-session")")));
    fileLogger(path).reset();
    lines = linesOf(path);
    ASSERT_EQ(lines.size(), 6u);
    EXPECT_THAT(lines[4], HasSubstr("kind=\"begin\""));

    // Truncating starts the file afresh, header included.
    fileLogger(path, true).reset();
    EXPECT_EQ(linesOf(path).size(), 4u);
    EXPECT_EQ(modeOf(path), 0644u);
}

TEST(CQuillLogger, SecondStartIsRefusedEvenAfterAFailedOpen) {
    TempDir dir;
    CQuillLoggerRef logger = fileLogger(dir / "a.log");
    EXPECT_THAT([&] { logger->startupLogging(CString::create((dir / "b.log").string()), false); },
                testing::ThrowsMessage<ferrocore::CParamException>(testing::StrEq("Logging started already")));

    CQuillLoggerRef failed = CQuillLogger::create();
    const std::string unopenable = (dir / "missing" / "x.log").string();
    testing::internal::CaptureStderr();
    failed->startupLogging(CString::create(unopenable), false);
    failed->log(3) << "to stderr instead" << std::endl;
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_THAT(err, HasSubstr("CQuillLogger::startupLogging[" + kPid + "]: failed to open log file " + unopenable +
                               ". Logging to stderr instead. The file likely already exists with prohibitive "
                               "permissions - try deleting it.\n"));
    EXPECT_THAT(err, HasSubstr("msg=\"to stderr instead\"/>\n"));
    EXPECT_TRUE(failed->isStarted());
    EXPECT_FALSE(failed->isLoggingToFile());
    EXPECT_THROW(failed->startupLogging(CString::create((dir / "c.log").string()), false), ferrocore::CParamException);
}

// ------------------------------------------------------------------ records

TEST(CQuillLogger, RecordsCarryLevelOnlyWhenNotThreeAndDisabledLevelsWriteNothing) {
    TempDir dir;
    const auto path = dir / "a.log";
    CQuillLoggerRef logger = fileLogger(path);
    logger->log(3) << "plain" << std::endl;
    const std::size_t before = readFile(path).size();
    logger->log(5) << "hidden" << 42 << std::endl;
    EXPECT_EQ(readFile(path).size(), before);

    logger->setLogLevel(5);
    logger->setLogLevel(5);  // unchanged: no second record
    logger->log(5) << "detail" << std::endl;
    logger->log(1) << "important" << std::endl;
    const auto lines = linesOf(path);
    ASSERT_EQ(lines.size(), 7u);
    EXPECT_TRUE(matches(lines[3], recordPattern("plain"))) << lines[3];
    EXPECT_TRUE(matches(lines[4], recordPattern("Setting log level = 5", 5))) << lines[4];
    EXPECT_TRUE(matches(lines[5], recordPattern("detail", 5))) << lines[5];
    EXPECT_TRUE(matches(lines[6], recordPattern("important", 1))) << lines[6];
}

TEST(CQuillLogger, PiecesJoinUntilALineFeedAndEveryOperandHasItsText) {
    TempDir dir;
    CQuillLoggerRef logger = fileLogger(dir / "a.log");
    CQuillLogger::OStream& out = logger->log(3);
    out << "a";
    out << "b\n";
    out << "x\n\n\n";
    out << 42 << " items" << std::endl;
    out << ferrocore::CStringRef() << " " << static_cast<const char*>(nullptr) << " " << true << " " << false << "\n";
    out << ferrocore::CURL::create("file:///tmp/a%20b") << " " << ferrocore::CURLRef() << "\n";
    out << std::hex << 255 << std::dec << ' ' << 255 << " " << 2.5 << " " << -7L << '\n';
    out << quill::CTimeStamp(0.0) << "epoch\n";
    out << "\n";  // a record without text writes nothing
    out << "" << std::flush;

    std::vector<std::string> messages;
    for (const auto& element : elementsOf(*logger))
        if (element->nodeName() == "log") messages.push_back(element->getAttributeValueAsString("msg")->utf8());
    EXPECT_THAT(messages, testing::ElementsAre("ab", "x", "42 items", "null null true false", "file:///tmp/a%20b null",
                                               "ff 255 2.5 -7", "01/01/2001 00:00:00.000: epoch"));
}

TEST(CQuillLogger, TimeFieldsAreThoseOfTheTimeStampOfTheFirstPiece) {
    TempDir dir;
    CQuillLoggerRef logger = fileLogger(dir / "a.log");
    quilltest::CFixedClockHost clock(817000123.4567);
    {
        quill::platform::CScopedHost scoped(clock);
        logger->log(3) << "first piece ";
        clock.setNow(817000999.0);
        logger->log(3) << "end" << std::endl;
        // A record begun by a number takes the time of the number, not that
        // of an earlier text.
        logger->log(3) << "whole\n";
        clock.setNow(817000555.25);
        logger->log(3) << 7 << " numbers first" << std::endl;
    }
    const auto record = elementsOf(*logger).at(1);
    EXPECT_EQ(record->getAttributeValueAsString("tms")->utf8(), "817000123.457");
    EXPECT_EQ(record->getAttributeValueAsString("tmt")->utf8(), quill::CTimeStamp(817000123.4567).text());
    EXPECT_EQ(elementsOf(*logger).at(3)->getAttributeValueAsString("tms")->utf8(), "817000555.250");

    // The real clock's text follows a change of time zone at once, even
    // within one second.
    auto hourOf = [&] {
        logger->log(3) << "now" << std::endl;
        return std::stoi(elementsOf(*logger).back()->getAttributeValueAsString("tmt")->utf8().substr(11, 2));
    };
    const int utcHour = hourOf();
    int tokyoHour;
    {
        quilltest::ScopedEnv tokyo("TZ", "JST-9");  // a POSIX zone: no time-zone files needed
        tokyoHour = hourOf();
    }
    const int backHour = hourOf();
    EXPECT_TRUE(tokyoHour == (utcHour + 9) % 24 || tokyoHour == (utcHour + 10) % 24) << utcHour << " " << tokyoHour;
    EXPECT_TRUE(backHour == utcHour || backHour == (utcHour + 1) % 24);
}

TEST(CQuillLogger, EscapingKeepsEveryRecordInsideTheDocument) {
    struct Case {
        std::string message;
        unsigned level;
        std::string expected;  // "": unchanged
    };
    const std::vector<Case> cases = {
        {"a < b", 3, "a %3C b"},
        {"&amp;amp; stays", 3, ""},
        {"Grüße, ünïcödé", 3, ""},
        {"two\nlines", 3, ""},
        {"x\" foo=\"1", 3, ""},               // adds an attribute, which is allowed
        {"x\" tms=\"1", 3, "x%22 tms=%221"},  // would duplicate a head attribute
        {"x\" lvl=\"1", 3, ""},               // level 3 records have no lvl
        {"x\" lvl=\"1", 5, "x%22 lvl=%221"},
        {"\"/><log msg=\"forged", 3, "%22/%3E%3Clog msg=%22forged"},
        {std::string("bad \xff byte"), 3, "bad %FF byte"},
        {"ctl \x01", 3, "ctl %01"},
        {"& alone", 3, "%26 alone"},
    };
    for (const Case& c : cases) {
        const auto message = CString::create(c.message);
        const auto escaped = CQuillLogger::escapedString(message, c.level);
        EXPECT_EQ(escaped->utf8(), c.expected.empty() ? c.message : c.expected) << c.message;
        if (c.expected.empty()) {
            EXPECT_EQ(escaped.get(), message.get()) << "unchanged text is not copied";
        }
    }
    EXPECT_FALSE(CQuillLogger::escapedString(nullptr));

    // Whatever is written, the file stays one document with one element per
    // record.
    TempDir dir;
    CQuillLoggerRef logger = fileLogger(dir / "a.log");
    logger->setLogLevel(5);
    for (const Case& c : cases) logger->log(c.level) << c.message << std::endl;
    std::size_t records = 0;
    for (const auto& element : elementsOf(*logger)) records += element->nodeName() == "log";
    EXPECT_EQ(records, cases.size() + 1);  // and the level change
}

// The fast paths against the slow, obvious ones.
std::string printed(double value, int width) {
    char text[64];
    std::snprintf(text, sizeof text, "%0*.3lf", width, value);
    return text;
}

TEST(LogRecord, MillisecondsAreRoundedExactlyAsPrintfDoes) {
    std::mt19937_64 random(7);
    std::vector<double> values = {0.0, 0.0005, 0.0015, 1.0625, 2.5, 59.9995, 59.99951, 817000000.0005, 1e15, 3e16};
    for (int i = 0; i < 200000; ++i) {
        const double base = std::uniform_real_distribution<double>(0, 1e9)(random);
        values.push_back(base);
        // Values within a few units in the last place of a half millisecond.
        const double half = (std::floor(base * 1000) + 0.5) / 1000;
        double near = half;
        for (int step = 0; step < 3; ++step) near = std::nextafter(near, 0.0);
        for (int step = 0; step < 6; ++step, near = std::nextafter(near, 2e9)) values.push_back(near);
        values.push_back(std::uniform_real_distribution<double>(0, 61)(random));
    }
    for (double value : values) {
        for (int width : {0, 6}) {
            std::string ours;
            quill::logrecord::appendFixed3(ours, value, width);
            ASSERT_EQ(ours, printed(value, width)) << std::hexfloat << value;
        }
    }
}

TEST(LogRecord, RecordHeadsAreTheTimeStampsTextsWithinAndAcrossSeconds) {
    std::mt19937_64 random(5);
    auto check = [](double seconds) {
        for (unsigned level : {3u, 5u}) {
            std::string expected = "<log ";
            quill::logrecord::appendTimeFields(expected, seconds);
            expected += " pid=\"" + kPid + (level == 3 ? "" : "\" lvl=\"5") + "\" msg=\"";
            std::string ours = "x";
            quill::logrecord::appendRecordHead(ours, level, seconds);
            ASSERT_EQ(ours, "x" + expected) << std::hexfloat << seconds;
        }
    };
    // Several times within each second, in order and not, so that heads are
    // made both from the last one and anew: rounding up into the next
    // second, half milliseconds, and the smallest and largest fractions.
    for (int i = 0; i < 20000; ++i) {
        const double second = std::floor(std::uniform_real_distribution<double>(1.6e7, 2.0e9)(random));
        const double half = second + (std::floor(std::uniform_real_distribution<double>(0, 1000)(random)) + 0.5) / 1000;
        for (double seconds : {second, std::nextafter(second + 1, 0.0), second + 0.9995, std::nextafter(half, 0.0),
                               half, std::nextafter(half, 2e9), second + 0.0625,
                               second + std::uniform_real_distribution<double>(0, 1)(random)})
            check(seconds);
    }
    for (double seconds : {0.0, 1.5, 16777215.9996, 16777216.0004, 2147483647.9996, 2147483648.25, 4.1e15})
        check(seconds);
    // A change of time zone shows within the second.
    const double now = std::floor(quill::CTimeStamp(-1.0).seconds()) + 0.25;
    check(now);
    {
        quilltest::ScopedEnv tokyo("TZ", "JST-9");
        check(now);
    }
    check(now);
}

// Messages from a small alphabet that reaches every branch of the check:
// quotes, markup, references of every kind, controls, and UTF-8 both good and
// bad.
std::string randomMessage(std::mt19937_64& random) {
    static const std::vector<std::string> pieces = {"a",
                                                    "Z",
                                                    "0",
                                                    " ",
                                                    "\t",
                                                    "\n",
                                                    "\r",
                                                    "\"",
                                                    "'",
                                                    "<",
                                                    ">",
                                                    "/",
                                                    "=",
                                                    "&",
                                                    ";",
                                                    "#",
                                                    "x",
                                                    "amp",
                                                    "lt",
                                                    "quot",
                                                    "&amp;",
                                                    "&#65;",
                                                    "&#x41;",
                                                    "&#0;",
                                                    "&#xD800;",
                                                    "&#x110000;",
                                                    "&#xFFFE;",
                                                    "&bogus;",
                                                    "\x01",
                                                    "\x7f",
                                                    "\xc3\xa9",
                                                    "\xe2\x82\xac",
                                                    "\xf0\x9f\x98\x80",
                                                    "\xc3",
                                                    "\x80",
                                                    "\xed\xa0\x80",
                                                    "\xef\xbf\xbe",
                                                    "\xef\xbf\xbd",
                                                    "\xf4\x90\x80\x80",
                                                    "\xc0\xaf",
                                                    "\xe0\x80\xaf",
                                                    " tms=\"",
                                                    " foo=\"",
                                                    " lvl=\"",
                                                    "\"/>",
                                                    "x=\"1\" ",
                                                    "<!--",
                                                    "]]>",
                                                    "%",
                                                    "%3C"};
    std::uniform_int_distribution<std::size_t> count(0, 12), pick(0, pieces.size() - 1);
    std::string message;
    for (std::size_t n = count(random); n > 0; --n) message += pieces[pick(random)];
    return message;
}

TEST(LogRecord, FastChecksAgreeWithTheParser) {
    std::mt19937_64 random(11);
    for (int i = 0; i < 100000; ++i) {
        const std::string message = randomMessage(random);
        if (quill::logrecord::isPlainAttributeText(message)) {
            ASSERT_TRUE(ferrocore::CXMLService::isWellFormed(quilltest::recordElement(message, 3))) << message;
        }
        for (unsigned level : {3u, 5u}) {
            std::string escaped;
            const std::string ours = quill::logrecord::escapeMessage(message, level, escaped) ? escaped : message;
            ASSERT_EQ(ours, quilltest::referenceEscape(message, level)) << message;
            ASSERT_TRUE(ferrocore::CXMLService::isWellFormed(quilltest::recordElement(ours, level))) << message;
        }
    }
}

TEST(CQuillLogger, AFailedTargetThrowsKindThree) {
    std::ostringstream target;
    target.setstate(std::ios::failbit);
    CQuillLoggerRef logger = CQuillLogger::create();
    logger->startupLogging(CQuillLogger::OStreamRef(
        ferrocore::makeShared<CQuillLogger::OBufferStream>(CQuillLogger::OStream::kNonFileStream, target, nullptr)));
    EXPECT_THAT([&] { logger->log(3) << "lost"; },
                testing::Throws<ferrocore::CException>(
                    testing::AllOf(testing::Property(&ferrocore::CException::kind, 3),
                                   testing::Property(&ferrocore::CException::message,
                                                     "CQuillLogger::OStream stream error: exception flags = 4"))));
}

TEST(CQuillLogger, ThreadsNeverShareALine) {
    TempDir dir;
    CQuillLoggerRef logger = fileLogger(dir / "a.log");
    constexpr int kThreads = 4, kRecords = 500;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            // One text per record: pieces written in several calls may take
            // in another thread's pieces.
            for (int i = 0; i < kRecords; ++i)
                logger->log(3) << "thread " + std::to_string(t) + " record " + std::to_string(i) + "\n";
        });
    for (auto& thread : threads) thread.join();
    std::vector<int> next(kThreads, 0);
    for (const auto& element : elementsOf(*logger)) {
        if (element->nodeName() != "log") continue;
        int t = -1, i = -1;
        ASSERT_EQ(std::sscanf(element->getAttributeValueAsString("msg")->c_str(), "thread %d record %d", &t, &i), 2);
        EXPECT_EQ(i, next.at(static_cast<std::size_t>(t))++);
    }
    EXPECT_EQ(next, std::vector<int>(kThreads, kRecords));
}

// ---------------------------------------------------------- service starts

void storeService(const char* name, std::int32_t level, bool truncate) {
    quill::CServiceCacheFile cache;
    quill::CServiceCacheEntry entry(PLString::create(name).get(), nullptr);
    entry.setLogLevel(level, false);
    entry.setTruncateLog(truncate, false);
    cache.put(entry);
    cache.flush();
}

// A throw-away home for the service cache and a private notification centre.
class ServiceLogger : public testing::Test {
protected:
    quilltest::ConfigHome home;
    quill::platform::CNotificationCenter center{quill::platform::makeLoopbackNotificationTransport()};
    quill::platform::CScopedNotificationCenter scopedCenter{center};
};

TEST_F(ServiceLogger, ServiceStartReadsTheCacheNamesTheFileAndFollowsPrefsChanges) {
    storeService("com.example.first", 4, false);
    storeService("com.example.render", 5, true);

    const auto directory = home.home() / "Library/Logs/Lumenforge";
    const std::string expected = directory.string() + "//com.example.render-2.log";
    fs::create_directories(directory);
    quilltest::writeFile(directory / "com.example.render-2.log", "old text\n");
    {
        CQuillLoggerRef logger = CQuillLogger::create();
        logger->startupLogging(true, CString::create("com.example.render"), 2);
        EXPECT_EQ(logger->logFilePath()->utf8(), expected);
        EXPECT_EQ(logger->logLevel(), 5u);
        EXPECT_EQ(center.registrationCount(), 1u);
    }
    EXPECT_EQ(center.registrationCount(), 0u);
    EXPECT_EQ(readFile(expected).find("old text"), std::string::npos) << "the entry asks for truncation";
    EXPECT_EQ(modeOf(directory), 0700u);

    // An unknown name takes the first entry; index 0 adds no suffix.
    CQuillLoggerRef other = CQuillLogger::create();
    other->startupLogging(true, CString::create("com.example.unknown"), 0);
    EXPECT_EQ(other->logLevel(), 4u);
    EXPECT_EQ(other->logFilePath()->utf8(), directory.string() + "//com.example.unknown.log");

    // Preference changes re-read the level, unless they come from elsewhere
    // or are about headless mode but not logging.
    storeService("com.example.render", 2, false);
    CQuillLoggerRef logger = CQuillLogger::create();
    logger->startupLogging(true, CString::create("com.example.render"), 0);
    ASSERT_EQ(logger->logLevel(), 2u);
    // Only a logger writing the service's own file knows its service.
    CQuillLoggerRef toStderr = CQuillLogger::create();
    toStderr->startupLogging(false, CString::create("com.example.render"), 0);
    EXPECT_FALSE(toStderr->serviceName());

    namespace qn = quill::QuillNotification;
    auto post = [&](PLDictionaryRef info, PLStringRef sender) {
        center.post(qn::kQuillPrefsChangedNotification, sender, info);
        quill::platform::CRunLoop::current().runFor(0.05);
    };
    storeService("com.example.render", 6, false);
    post(quilltest::parsePlist("<dict><key>headless</key><true/></dict>").get(), qn::kPrefExternalID);
    EXPECT_EQ(logger->logLevel(), 2u) << "headless change without logging";
    post(nullptr, qn::kPrefPaneBundleID);
    EXPECT_EQ(logger->logLevel(), 2u) << "another sender";
    post(quilltest::parsePlist("<dict><key>headless</key><true/><key>logging</key><true/></dict>").get(),
         qn::kPrefExternalID);
    EXPECT_EQ(logger->logLevel(), 6u);
    EXPECT_EQ(toStderr->logLevel(), 2u);
    EXPECT_NE(readFile(logger->logFilePath()->utf8()).find("lvl=\"6\" msg=\"Setting log level = 6\""),
              std::string::npos);

    logger->setPrefsChangedHandler(false);
    storeService("com.example.render", 1, false);
    post(nullptr, qn::kPrefExternalID);
    EXPECT_EQ(logger->logLevel(), 6u);
}

// ------------------------------------------------------------------- marks

TEST(CQuillLoggerMarks, AttributesKindsAndScopes) {
    using Mark = CQuillLogger::CMark;
    auto namesOf = [](const Mark& mark) {
        std::vector<std::string> names;
        for (const auto& attribute : mark.document()->childAtIndex(0)->attributes()) names.push_back(attribute.name);
        return names;
    };
    EXPECT_THAT(namesOf(Mark(Mark::kMarkPlain, CString::create("work"), nullptr, nullptr)),
                testing::ElementsAre("tms", "tmt", "pid", "what"));
    EXPECT_THAT(namesOf(Mark(Mark::kMarkEnd, CString::create("w"), CString::create("m \"q\""), CString::create("r-1"))),
                testing::ElementsAre("tms", "tmt", "pid", "kind", "what", "req-id", "msg"));

    auto read = [](const char* text) { return Mark(ferrocore::CXMLService::create(text)).markKind(); };
    EXPECT_EQ(read(R"(<mrk kind="begin"/>)"), Mark::kMarkBegin);
    EXPECT_EQ(read(R"(<mrk kind=""/>)"), Mark::kMarkPlain);
    EXPECT_EQ(read(R"(<mrk kind="later"/>)"), Mark::kMarkUnknown);
    EXPECT_TRUE(Mark::isMark(*ferrocore::CXMLService::create("<mrk/>")->childAtIndex(0)));
    EXPECT_FALSE(Mark::isMark(*ferrocore::CXMLService::create("<log/>")->childAtIndex(0)));

    TempDir dir;
    CQuillLoggerRef logger = fileLogger(dir / "a.log");
    {
        CQuillLogger::CScopeMarker scope(CString::create("render"), logger->log(3), CString::create("frame 7"));
        logger->log(3) << "inside" << std::endl;
    }
    const auto lines = linesOf(dir / "a.log");
    ASSERT_EQ(lines.size(), 6u);
    EXPECT_TRUE(matches(lines[3], markPattern(R"(kind="begin" what="render" msg="frame 7")"))) << lines[3];
    EXPECT_TRUE(matches(lines[5], markPattern(R"(kind="end" what="render")"))) << lines[5];
}

TEST(CQuillLoggerMarks, LogQueries) {
    TempDir dir;
    CQuillLoggerRef logger = fileLogger(dir / "a.log");
    logger->log(3) << "one" << std::endl;
    EXPECT_EQ(logger->logDataAsString()->utf8(), readFile(dir / "a.log") + "</logs>\n");

    // An empty file stays empty: there is nothing to close.
    EXPECT_EQ(CQuillLogger::logDataAsString(CString::create((dir / "none.log").string()))->utf8(), "");

    CQuillLoggerRef toStderr = CQuillLogger::create();
    toStderr->startupLogging(CString::create("/dev/stderr"), false);
    const auto notFile = ferrocore::CXMLService::create(toStderr->logDataAsString()->utf8())->childAtIndex(0);
    ASSERT_EQ(notFile->childCount(), 1u);
    EXPECT_EQ(notFile->childAtIndex(0)->getAttributeValueAsString("msg")->utf8(), "Not logging to file.");

    const char* texts[] = {"Service is down.",
                           "Logger not available.",
                           "Get log query not supported.",
                           "Not logging to file.",
                           "Log data not XML parsable.",
                           "Log error.",
                           "Log error."};
    for (int kind = 0; kind < 7; ++kind) {
        const std::string text = CQuillLogger::logErrorDataAsString(kind == 6 ? -1 : kind)->utf8();
        EXPECT_THAT(text, HasSubstr(std::string(" msg=\"") + texts[kind] + "\"/>\n</logs>\n")) << kind;
        EXPECT_TRUE(text.starts_with("<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"yes\"?>\n<logs "));
    }
}

// ----------------------------------------------------------- global logger

TEST_F(ServiceLogger, GlobalLoggerIsMadeOnDemandOnStderrAndReplaceable) {
    CQuillGlobalLogger::setLogger(nullptr);
    testing::internal::CaptureStderr();
    CQuillGlobalLogger::log(3) << "first words" << std::endl;
    EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("msg=\"first words\"/>"));
    CQuillLoggerRef onDemand = CQuillGlobalLogger::getLogger();
    EXPECT_EQ(onDemand->retainCount(), 2);

    TempDir dir;
    CQuillGlobalLogger::setLogger(fileLogger(dir / "g.log"));
    EXPECT_EQ(onDemand->retainCount(), 1) << "the stderr logger is let go";
    CQuillGlobalLogger::serviceLog(3) << "to the file" << std::endl;
    EXPECT_THAT(readFile(dir / "g.log"), HasSubstr("msg=\"to the file\"/>"));

    CQuillGlobalLogger::setLogger(nullptr);
    EXPECT_NE(CQuillGlobalLogger::getLogger().get(), onDemand.get());
    CQuillGlobalLogger::setLogger(nullptr);
}

}  // namespace
