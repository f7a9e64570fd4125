// The logger every program of the cluster writes with, and the streams,
// marks and scope markers that go with it. docs/log-format.md describes the
// file it writes.
//
// A log file is an XML document that is never closed: an XML declaration, an
// opening <logs> element, then one element per record. A reader appends
// "</logs>\n" and parses; it must split records by parsing, not by lines,
// because a message may hold line feeds. Records of enabled levels are
// written and flushed one by one, each in a single write, so several
// processes may append to one file.
//
//   CQuillLoggerRef logger = CQuillLogger::create();
//   logger->startupLogging(true, serviceName, 0);      // the service's file
//   logger->log(3) << "Serving " << count << " clients" << std::endl;
//
// Threads: a logger and its streams may be used from any number of threads at
// once. Records are assembled per stream; a record written in several pieces
// (several operator calls) may take in pieces of another thread writing to
// the same stream between two of them, so write a whole record in one chain.
#pragma once

#include <atomic>
#include <cstdint>
#include <fstream>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>

#include <ferrocore/CMutex.h>
#include <ferrocore/CSharedObject.h>
#include <ferrocore/CString.h>
#include <ferrocore/CURL.h>
#include <ferrocore/CXMLService.h>
#include <ferrocore/ThreadAnnotations.h>
#include <quillcore/export.h>
#include <quillcore/platform/NotificationCenter.h>

namespace quill {

class CTimeStamp;
class CQuillLogger;
using CQuillLoggerRef = ferrocore::CSharedObjectRef<CQuillLogger>;

class QUILL_EXPORT CQuillLogger : public virtual ferrocore::CSharedObject {
public:
    class OStream;
    class OBufferStream;
    class ONullStream;
    class CMark;
    class CScopeMarker;
    using OStreamRef = ferrocore::CSharedObjectRef<OStream>;

    // Why a log cannot be handed out; logErrorDataAsString() puts the text
    // of the kind into its record.
    enum LogErrorKind : int {
        kLogErrorServiceDown = 0,         // "Service is down."
        kLogErrorLoggerNotAvailable = 1,  // "Logger not available."
        kLogErrorQueryNotSupported = 2,   // "Get log query not supported."
        kLogErrorNotLoggingToFile = 3,    // "Not logging to file."
        kLogErrorNotParsable = 4,         // "Log data not XML parsable."
        // Any other value gives "Log error.".
    };

    // The ordinary level: its records carry no "lvl" attribute. Higher levels
    // are more detailed.
    static constexpr unsigned kDefaultLogLevel = 3;

    // A logger that is not started: records of levels up to 3 go to standard
    // error until one of the starts below chooses a target.
    CQuillLogger();
    static CQuillLoggerRef create() { return ferrocore::makeShared<CQuillLogger>(); }
    CQuillLogger(const CQuillLogger&) = delete;
    CQuillLogger& operator=(const CQuillLogger&) = delete;

    // The usual start of a service. Reads the level and the truncation
    // setting of the service cache entry named `serviceName` (or, when the
    // name is null or unknown, of the first entry; without any entry level 3
    // and no truncation; the user's own settings come before the entry's).
    // With `toFile` it logs to "<log directory>/" + name (+ "-<index>" when
    // index is not 0) + ".log", the directory being "~/Library/Logs/
    // Lumenforge/" made with mode 0700; the path keeps the double slash that
    // joining gives. Without `toFile` it logs to standard error. Then sets the
    // level and follows preference changes (setPrefsChangedHandler(true)).
    // Throws ferrocore::CParamException ("Logging started already") on a
    // second start, and what reading the cache file throws.
    virtual void startupLogging(bool toFile, ferrocore::CStringRef serviceName, unsigned index);
    // Starts on `path` ("/dev/stderr" means standard error), appending, or
    // emptying the file first when `truncate` is set; a new file gets mode
    // 0644. A file that is empty at start gets the header first; every start
    // on a file writes a session begin mark, and the destructor the end mark.
    // A file that cannot be opened is reported once on standard error and the
    // records go there instead (the logger counts as started all the same).
    // Throws ferrocore::CParamException ("Logging started already") on a
    // second start.
    virtual void startupLogging(ferrocore::CStringRef path, bool truncate);
    // Starts on a stream made by the caller: the active stream takes over its
    // kind, target and path (so the caller keeps the target alive as long as
    // the logger). Throws as above; ferrocore::CNullPointerException for a
    // null stream.
    virtual void startupLogging(OStreamRef stream);

    // The stream to write a record of `level` to: the active stream when the
    // level is enabled (not above logLevel()), else a stream that writes and
    // formats nothing. Either way the stream's record level is set to
    // `level`. End the record with a line feed (std::endl).
    virtual OStream& log(unsigned level);

    // Changes the level; a change is logged ("Setting log level = N") at the
    // new level, so it is always written.
    void setLogLevel(unsigned level);
    unsigned logLevel() const;

    // true: follows "prefs changed" notifications from the external
    // preferences editor, re-reading the level from the service cache file
    // (only for a logger started for a service); false: stops following.
    // Notifications are handled on the run loop of the thread that called
    // this, so a logger must not be destroyed while that loop is handling one.
    void setPrefsChangedHandler(bool observe);

    bool isStarted() const;
    bool isLoggingToFile() const;
    // The log file's path, or null when not logging to a file.
    ferrocore::CStringRef logFilePath() const;
    // The service name given to the start, or null.
    ferrocore::CStringRef serviceName() const;

    // The message in a form that may stand inside the "msg" attribute of a
    // record of `level`: unchanged when it already parses there (entity
    // references included, and also when it adds further attributes of other
    // names: that is allowed), else percent-escaped ("a < b" becomes
    // "a %3C b"), else its attribute-safe copy. Null stays null. Never
    // throws.
    static ferrocore::CStringRef escapedString(const ferrocore::CStringRef& message, unsigned level = kDefaultLogLevel);

    // The whole log file as one parsable document: its text followed by
    // "</logs>\n" (nothing is added to an empty file). When the logger does
    // not write to a file: logErrorDataAsString(kLogErrorNotLoggingToFile).
    ferrocore::CStringRef logDataAsString() const;
    // The same for the log file at `path`, whoever writes it: its text and
    // "</logs>\n", or the empty text for an empty, missing or unreadable file.
    static ferrocore::CStringRef logDataAsString(const ferrocore::CStringRef& path);
    // A complete document of a header and one record telling that the log is
    // unavailable, and why.
    static ferrocore::CStringRef logErrorDataAsString(int kind);

protected:
    // Removes the logger's observers, writes the session end mark when
    // logging to a file, then lets go of its streams and file.
    ~CQuillLogger() override;

    // Called after a successful start; does nothing here. For subclasses.
    virtual void initLogging();

    // The prefs-changed handler (a notification-centre callback; `observer`
    // is the logger).
    static void quillPrefsChanged(PLNotificationCenterRef center, void* observer, PLStringRef name, PLStringRef object,
                                  PLDictionaryRef userInfo);

private:
    class LogFile;

    // Reads the level and truncation of `serviceName`'s cache entry (see the
    // service start).
    static void readServiceSettings(const ferrocore::CStringRef& serviceName, unsigned& level, bool& truncate);
    void beginFileSession(OStream& stream, bool emptyFile);

    mutable ferrocore::CRecursiveMutex _mutex;
    std::uint8_t _started FERRO_GUARDED_BY(_mutex) = 0;
    ferrocore::CStringRef _serviceName FERRO_GUARDED_BY(_mutex);
    std::unique_ptr<LogFile> _logFile FERRO_GUARDED_BY(_mutex);
    OStreamRef _activeStream;  // made by the constructor, never replaced
    OStreamRef _nullStream;    // likewise
    std::uint8_t _loggingToFile FERRO_GUARDED_BY(_mutex) = 0;
    ferrocore::CStringRef _logFilePath FERRO_GUARDED_BY(_mutex);
    std::atomic<unsigned> _logLevel{kDefaultLogLevel};
    bool _observingPrefs FERRO_GUARDED_BY(_mutex) = false;
};

// The stream records are written to. Output operators work like those of
// standard streams; text ends a record when it ends with a line feed, and
// numbers never do. Every operator does nothing on a stream of kind 0.
//
// Threads: every operator holds the stream's recursive mutex for its own
// duration; see the top of this file for records written in pieces.
class QUILL_EXPORT CQuillLogger::OStream : public virtual ferrocore::CSharedObject {
public:
    enum StreamKind : std::int32_t {
        kNullStream = 0,     // discards everything
        kNonFileStream = 1,  // standard error or another non-file target
        kFileStream = 2,     // a log file: header, session marks, log queries
    };

    OStream(const OStream&) = delete;
    OStream& operator=(const OStream&) = delete;

    StreamKind kind() const;
    // The level of the record being written (set by CQuillLogger::log).
    unsigned level() const noexcept { return _level.load(std::memory_order_relaxed); }
    void setLevel(unsigned level) noexcept { _level.store(level, std::memory_order_relaxed); }
    // The standard stream that receives the records; valid while the stream
    // and its owner live.
    std::ostream& target() const;
    // The file's path for kind 2, else null.
    ferrocore::CStringRef path() const;
    // Redirects the stream (the logger's starts use this). The target must
    // outlive its use by the stream.
    void setTarget(StreamKind kind, std::ostream& target, ferrocore::CStringRef path);

    // Text: the first text of a record stamps it with the time, the process
    // and the level; text that ends with one or more line feeds ends the
    // record, which is then escaped and written with its end in one write and
    // flushed. A null pointer is written as "null"; empty text is ignored.
    // Throws ferrocore::CException (kind 3, "CQuillLogger::OStream stream
    // error: exception flags = <hex>") when the target is in a failed state.
    OStream& operator<<(const char* text);
    OStream& operator<<(std::string_view text);
    OStream& operator<<(const std::string& text) { return *this << std::string_view(text); }
    // The UTF-8 text, or "null".
    OStream& operator<<(const ferrocore::CStringRef& text);
    // The URL's full text, or "null".
    OStream& operator<<(const ferrocore::CURLRef& url);
    // A mark line: the element's XML (without a leading declaration) and a
    // line feed, written straight to the target and flushed; never escaped,
    // never wrapped in a record.
    OStream& operator<<(const ferrocore::CXMLService& element);
    OStream& operator<<(const ferrocore::CXMLServiceRef& element);
    // Writes the mark's element as above.
    OStream& operator<<(const CMark& mark);
    // "true" or "false", as text.
    OStream& operator<<(bool value);
    // One character, as text (as standard streams print characters; a line
    // feed ends the record).
    OStream& operator<<(char value) { return *this << std::string_view(&value, 1); }
    OStream& operator<<(signed char value) { return *this << static_cast<char>(value); }
    OStream& operator<<(unsigned char value) { return *this << static_cast<char>(value); }
    // The time text and ": ", as text.
    OStream& operator<<(const CTimeStamp& stamp);
    // Numbers and pointers: standard stream formatting, appended to the
    // record (which they start when none is open).
    OStream& operator<<(short value);
    OStream& operator<<(unsigned short value);
    OStream& operator<<(int value);
    OStream& operator<<(unsigned int value);
    OStream& operator<<(long value);
    OStream& operator<<(unsigned long value);
    OStream& operator<<(long long value);
    OStream& operator<<(unsigned long long value);
    OStream& operator<<(float value);
    OStream& operator<<(double value);
    OStream& operator<<(long double value);
    OStream& operator<<(const void* pointer);
    // std::endl writes "\n" as text (ending the record) and flushes the
    // target; std::flush flushes it; other manipulators (std::hex, ...) change
    // how later numbers are formatted.
    OStream& operator<<(std::ostream& (*manipulator)(std::ostream&));
    OStream& operator<<(std::ios_base& (*manipulator)(std::ios_base&));

    // Flushes the target under the stream's lock.
    void flush();

    // Starts a record (stamps its head with the time, the process and the
    // current level) when none is open; else does nothing.
    virtual void addLogHeaderIfNeeded() = 0;

protected:
    explicit OStream(StreamKind kind);
    OStream(StreamKind kind, std::ostream& target, ferrocore::CStringRef path);
    ~OStream() override;

    // The record machinery, implemented by OBufferStream. Each is called
    // with the stream's mutex held and only on streams of kind 1 or 2.
    // appendText: `text` has no trailing line feed; `endsRecord` says one was
    // there. formatter: the standard stream that numbers are formatted into,
    // after addLogHeaderIfNeeded().
    virtual void appendText(std::string_view text, bool endsRecord) FERRO_REQUIRES(_mutex) = 0;
    virtual std::ostream& formatter() FERRO_REQUIRES(_mutex) = 0;

    ferrocore::CMutex& mutex() const noexcept FERRO_RETURN_CAPABILITY(_mutex) { return _mutex; }
    // The target, for callers that hold the mutex.
    std::ostream& lockedTarget() const noexcept FERRO_REQUIRES(_mutex) { return *_target; }

private:
    template <class T>
    OStream& appendValue(const T& value);
    // The text operator's work, with the mutex held.
    void writeTextLocked(std::string_view text) FERRO_REQUIRES(_mutex);
    void writeMark(const ferrocore::CXMLService& element);

    mutable ferrocore::CRecursiveMutex _mutex;
    std::atomic<std::int32_t> _kind;
    std::atomic<unsigned> _level{kDefaultLogLevel};
    std::ostream* _target FERRO_GUARDED_BY(_mutex);
    ferrocore::CStringRef _path FERRO_GUARDED_BY(_mutex);
};

// Assembles records in memory and writes each finished one to its target.
// Made with kind 1 on standard error unless told otherwise.
class QUILL_EXPORT CQuillLogger::OBufferStream final : public CQuillLogger::OStream {
public:
    OBufferStream();
    OBufferStream(StreamKind kind, std::ostream& target, ferrocore::CStringRef path);
    static ferrocore::CSharedObjectRef<OBufferStream> create() { return ferrocore::makeShared<OBufferStream>(); }

    void addLogHeaderIfNeeded() override;

protected:
    ~OBufferStream() override;
    void appendText(std::string_view text, bool endsRecord) override FERRO_REQUIRES(mutex());
    std::ostream& formatter() override FERRO_REQUIRES(mutex());

private:
    class RecordBuffer;
    // addLogHeaderIfNeeded() and the end of a record, with the mutex held.
    void startRecord() FERRO_REQUIRES(mutex());
    void writeRecord() FERRO_REQUIRES(mutex());

    // The open record: its head (time, process, level) and then its text.
    std::string _record FERRO_GUARDED_BY(mutex());
    std::size_t _headLength FERRO_GUARDED_BY(mutex()) = 0;
    unsigned _recordLevel FERRO_GUARDED_BY(mutex()) = kDefaultLogLevel;  // the level in the head
    std::string _escaped FERRO_GUARDED_BY(mutex());                      // scratch for records that need escaping
    std::unique_ptr<RecordBuffer> _recordBuffer FERRO_PT_GUARDED_BY(mutex());
    std::unique_ptr<std::ostream> _formatter FERRO_PT_GUARDED_BY(mutex());
};

// The stream of disabled levels: kind 0, writes and formats nothing. Its
// target is "/dev/null", which it never writes to either.
class QUILL_EXPORT CQuillLogger::ONullStream final : public CQuillLogger::OStream {
public:
    ONullStream();
    static ferrocore::CSharedObjectRef<ONullStream> create() { return ferrocore::makeShared<ONullStream>(); }

    void addLogHeaderIfNeeded() override;

protected:
    ~ONullStream() override;
    void appendText(std::string_view text, bool endsRecord) override FERRO_REQUIRES(mutex());
    std::ostream& formatter() override FERRO_REQUIRES(mutex());

private:
    std::ofstream _devNull;
};

// A mark: an "mrk" element that tells a reader where a piece of work began or
// ended, under which name ("what") and for which request ("req-id").
// Attributes, in this order: tms, tmt, pid, then kind (begin and end marks
// only), what, req-id and msg (each only when given).
//
// Threads: a mark may be read from any number of threads at once.
class QUILL_EXPORT CQuillLogger::CMark final {
public:
    enum MarkKind : int {
        kMarkUnknown = 0,  // a "kind" attribute of another text
        kMarkPlain = 1,    // no "kind" attribute
        kMarkBegin = 2,    // kind="begin"
        kMarkEnd = 3,      // kind="end"
    };

    // A new mark stamped now with this process's ID. Null arguments are left
    // out.
    CMark(MarkKind kind, const ferrocore::CStringRef& what, const ferrocore::CStringRef& message,
          const ferrocore::CStringRef& requestID);
    // Wraps an element read from a log (a document whose first child is the
    // element, or the element itself). Throws ferrocore::CNullPointerException
    // for a null reference.
    explicit CMark(ferrocore::CXMLServiceRef element);

    MarkKind markKind() const;
    ferrocore::CStringRef what() const;
    ferrocore::CStringRef message() const;
    ferrocore::CStringRef requestID() const;
    // The document holding the element.
    const ferrocore::CXMLServiceRef& document() const noexcept { return _document; }

    // Whether `node` is a mark (an element named "mrk").
    static bool isMark(const ferrocore::CXMLService& node) noexcept;

private:
    ferrocore::CXMLServiceRef element() const;

    ferrocore::CXMLServiceRef _document;
};

// Writes a begin mark when made and the matching end mark (kind end, `what`
// only) when destroyed. The stream must outlive the marker.
class QUILL_EXPORT CQuillLogger::CScopeMarker final {
public:
    CScopeMarker(ferrocore::CStringRef what, OStream& stream, ferrocore::CStringRef message = nullptr);
    // Ends the process when the end mark cannot be made.
    ~CScopeMarker();
    CScopeMarker(const CScopeMarker&) = delete;
    CScopeMarker& operator=(const CScopeMarker&) = delete;

private:
    ferrocore::CStringRef _what;
    OStream& _stream;
    ferrocore::CStringRef _message;
};

}  // namespace quill
