#include <iostream>
#include <streambuf>

#include "LogRecord.h"
#include <ferrocore/CException.h>
#include <ferrocore/Format.h>
#include <quillcore/logging/CQuillLogger.h>
#include <quillcore/platform/Host.h>
#include <quillcore/util/CTimeStamp.h>

namespace quill {

using ferrocore::CAutoMutex;

namespace {

// Holds a stream's lock like CAutoMutex, but first tries for a short while
// without sleeping; taken by the operators that make up records. The holder
// usually lets go within one record's write, and a thread put to sleep costs
// itself and the holder a system call each.
class FERRO_SCOPED_CAPABILITY CRecordLock {
public:
    explicit CRecordLock(ferrocore::CMutex& mutex) FERRO_ACQUIRE(mutex) FERRO_NO_THREAD_SAFETY_ANALYSIS
        : _mutex(mutex) {
        for (int tries = 0; tries < kTries; ++tries) {
            if (_mutex.tryLock()) return;
#if defined(__x86_64__) || defined(__i386__)
            __builtin_ia32_pause();
#elif defined(__aarch64__)
            __asm__ __volatile__("yield");
#endif
        }
        _mutex.lock();
    }
    ~CRecordLock() FERRO_RELEASE() FERRO_NO_THREAD_SAFETY_ANALYSIS { _mutex.unlock(); }
    CRecordLock(const CRecordLock&) = delete;
    CRecordLock& operator=(const CRecordLock&) = delete;

private:
    static constexpr int kTries = 100;

    ferrocore::CMutex& _mutex;
};

// Set when this thread's last record was written and synced without fault;
// std::endl has then nothing left to flush.
thread_local bool tRecordSynced __attribute__((tls_model("initial-exec"))) = false;

// The time of a text operator call that probably starts a record, read before
// the stream's lock is taken so that the clock's latency overlaps the lock's
// (negative: not read; the record's start reads the clock then). A text
// probably starts a record unless this thread's last piece on the same stream
// left one open; a wrong guess costs one clock reading, never a wrong time.
thread_local double tTextTime __attribute__((tls_model("initial-exec"))) = -1.0;
thread_local const void* tOpenRecordStream __attribute__((tls_model("initial-exec"))) = nullptr;

// Reads the time for a text operator of `stream` (see tTextTime) and forgets
// it when the operator returns or throws.
class CTextTime {
public:
    explicit CTextTime(const void* stream) : _outer(tTextTime) {
        tTextTime = tOpenRecordStream != stream ? platform::host().currentTime() : -1.0;
    }
    ~CTextTime() { tTextTime = _outer; }
    CTextTime(const CTextTime&) = delete;
    CTextTime& operator=(const CTextTime&) = delete;

private:
    const double _outer;  // that of a text operator this one runs within
};

}  // namespace

// ------------------------------------------------------------------ OStream

CQuillLogger::OStream::OStream(StreamKind kind) : _kind(kind), _target(&std::cerr) {}

CQuillLogger::OStream::OStream(StreamKind kind, std::ostream& target, ferrocore::CStringRef path)
    : _kind(kind), _target(&target), _path(std::move(path)) {}

CQuillLogger::OStream::~OStream() = default;

CQuillLogger::OStream::StreamKind CQuillLogger::OStream::kind() const {
    return static_cast<StreamKind>(_kind.load(std::memory_order_acquire));
}

std::ostream& CQuillLogger::OStream::target() const {
    CAutoMutex lock(_mutex);
    return *_target;
}

ferrocore::CStringRef CQuillLogger::OStream::path() const {
    CAutoMutex lock(_mutex);
    return _path;
}

void CQuillLogger::OStream::setTarget(StreamKind kind, std::ostream& target, ferrocore::CStringRef path) {
    CAutoMutex lock(_mutex);
    _target = &target;
    _path = std::move(path);
    _kind.store(kind, std::memory_order_release);
}

CQuillLogger::OStream& CQuillLogger::OStream::operator<<(std::string_view text) {
    if (kind() == kNullStream || text.empty()) return *this;
    {
        const CTextTime time(this);
        CRecordLock lock(_mutex);
        writeTextLocked(text);
    }
    tOpenRecordStream = text.back() == '\n' ? nullptr : this;
    return *this;
}

void CQuillLogger::OStream::writeTextLocked(std::string_view text) {
    const std::ios_base::iostate state = _target->rdstate();
    if (state & (std::ios_base::failbit | std::ios_base::badbit))
        throw ferrocore::CException(ferrocore::kExceptionKindIO,
                                    ferrocore::formatString("CQuillLogger::OStream stream error: exception flags = %x",
                                                            static_cast<unsigned>(state)));
    bool endsRecord = false;
    while (!text.empty() && text.back() == '\n') {
        text.remove_suffix(1);
        endsRecord = true;
    }
    appendText(text, endsRecord);
}

CQuillLogger::OStream& CQuillLogger::OStream::operator<<(const char* text) {
    return *this << (text ? std::string_view(text) : std::string_view("null"));
}

CQuillLogger::OStream& CQuillLogger::OStream::operator<<(const ferrocore::CStringRef& text) {
    return *this << (text ? std::string_view(text->utf8()) : std::string_view("null"));
}

CQuillLogger::OStream& CQuillLogger::OStream::operator<<(const ferrocore::CURLRef& url) {
    return *this << (url ? std::string_view(url->text()) : std::string_view("null"));
}

CQuillLogger::OStream& CQuillLogger::OStream::operator<<(bool value) {
    return *this << std::string_view(value ? "true" : "false");
}

CQuillLogger::OStream& CQuillLogger::OStream::operator<<(const CTimeStamp& stamp) {
    if (kind() == kNullStream) return *this;
    std::string text = stamp.text();
    text += ": ";
    return *this << std::string_view(text);
}

CQuillLogger::OStream& CQuillLogger::OStream::operator<<(const ferrocore::CXMLService& element) {
    if (kind() == kNullStream) return *this;
    writeMark(element);
    return *this;
}

CQuillLogger::OStream& CQuillLogger::OStream::operator<<(const ferrocore::CXMLServiceRef& element) {
    if (element) *this << *element;
    return *this;
}

void CQuillLogger::OStream::writeMark(const ferrocore::CXMLService& element) {
    std::string line = element.xmlString();
    if (line.starts_with("<?xml")) {
        const std::size_t end = line.find("?>");
        line.erase(0, end == std::string::npos ? line.size() : end + 2);
    }
    line += '\n';
    CAutoMutex lock(_mutex);
    _target->write(line.data(), static_cast<std::streamsize>(line.size()));
    _target->flush();
}

template <class T>
CQuillLogger::OStream& CQuillLogger::OStream::appendValue(const T& value) {
    if (kind() == kNullStream) return *this;
    {
        CRecordLock lock(_mutex);
        addLogHeaderIfNeeded();
        formatter() << value;
    }
    tOpenRecordStream = this;
    return *this;
}

CQuillLogger::OStream& CQuillLogger::OStream::operator<<(short value) { return appendValue(value); }
CQuillLogger::OStream& CQuillLogger::OStream::operator<<(unsigned short value) { return appendValue(value); }
CQuillLogger::OStream& CQuillLogger::OStream::operator<<(int value) { return appendValue(value); }
CQuillLogger::OStream& CQuillLogger::OStream::operator<<(unsigned int value) { return appendValue(value); }
CQuillLogger::OStream& CQuillLogger::OStream::operator<<(long value) { return appendValue(value); }
CQuillLogger::OStream& CQuillLogger::OStream::operator<<(unsigned long value) { return appendValue(value); }
CQuillLogger::OStream& CQuillLogger::OStream::operator<<(long long value) { return appendValue(value); }
CQuillLogger::OStream& CQuillLogger::OStream::operator<<(unsigned long long value) { return appendValue(value); }
CQuillLogger::OStream& CQuillLogger::OStream::operator<<(float value) { return appendValue(value); }
CQuillLogger::OStream& CQuillLogger::OStream::operator<<(double value) { return appendValue(value); }
CQuillLogger::OStream& CQuillLogger::OStream::operator<<(long double value) { return appendValue(value); }
CQuillLogger::OStream& CQuillLogger::OStream::operator<<(const void* pointer) { return appendValue(pointer); }

CQuillLogger::OStream& CQuillLogger::OStream::operator<<(std::ostream& (*manipulator)(std::ostream&)) {
    using Manipulator = std::ostream& (*)(std::ostream&);
    if (kind() == kNullStream) return *this;
    if (manipulator == static_cast<Manipulator>(std::endl)) {
        CRecordLock lock(_mutex);
        tRecordSynced = false;
        writeTextLocked("\n");
        // Flushing a record synced a moment ago would only sync it again;
        // a tied stream is flushed all the same.
        if (!tRecordSynced || _target->tie()) _target->flush();
        tOpenRecordStream = nullptr;
    } else if (manipulator == static_cast<Manipulator>(std::flush)) {
        flush();
    } else {
        CAutoMutex lock(_mutex);
        manipulator(formatter());
    }
    return *this;
}

CQuillLogger::OStream& CQuillLogger::OStream::operator<<(std::ios_base& (*manipulator)(std::ios_base&)) {
    if (kind() == kNullStream) return *this;
    CAutoMutex lock(_mutex);
    manipulator(formatter());
    return *this;
}

void CQuillLogger::OStream::flush() {
    CAutoMutex lock(_mutex);
    _target->flush();
}

// ------------------------------------------------------------ OBufferStream

// Appends what the formatter writes to the open record.
class CQuillLogger::OBufferStream::RecordBuffer final : public std::streambuf {
public:
    explicit RecordBuffer(std::string& record) : _record(record) {}

protected:
    int_type overflow(int_type c) override {
        if (!traits_type::eq_int_type(c, traits_type::eof())) _record.push_back(traits_type::to_char_type(c));
        return traits_type::not_eof(c);
    }
    std::streamsize xsputn(const char* text, std::streamsize count) override {
        _record.append(text, static_cast<std::size_t>(count));
        return count;
    }

private:
    std::string& _record;
};

CQuillLogger::OBufferStream::OBufferStream() : OBufferStream(kNonFileStream, std::cerr, nullptr) {}

CQuillLogger::OBufferStream::OBufferStream(StreamKind kind, std::ostream& target, ferrocore::CStringRef path)
    : OStream(kind, target, std::move(path)),
      _recordBuffer(std::make_unique<RecordBuffer>(_record)),
      _formatter(std::make_unique<std::ostream>(_recordBuffer.get())) {
    _record.reserve(256);
}

CQuillLogger::OBufferStream::~OBufferStream() = default;

void CQuillLogger::OBufferStream::addLogHeaderIfNeeded() {
    CAutoMutex lock(mutex());
    startRecord();
}

void CQuillLogger::OBufferStream::startRecord() {
    if (!_record.empty() || !_formatter->good()) return;
    _recordLevel = level();
    logrecord::appendRecordHead(_record, _recordLevel, tTextTime);
    _headLength = _record.size();
}

std::ostream& CQuillLogger::OBufferStream::formatter() { return *_formatter; }

void CQuillLogger::OBufferStream::appendText(std::string_view text, bool endsRecord) {
    if (_record.empty()) {
        if (text.empty()) return;  // a record without text writes nothing
        startRecord();
    }
    _record.append(text);
    if (endsRecord) writeRecord();
}

void CQuillLogger::OBufferStream::writeRecord() {
    struct Reset {
        OBufferStream& stream;
        ~Reset() {
            stream._record.clear();
            stream._headLength = 0;
        }
    } reset{*this};
    const std::string_view message = std::string_view(_record).substr(_headLength);
    if (message.empty()) return;
    if (!logrecord::isPlainAttributeText(message) && logrecord::escapeMessage(message, _recordLevel, _escaped)) {
        _record.resize(_headLength);
        _record += _escaped;
    }
    _record += "\"/>\n";
    // Straight to the stream buffer: the target's state was checked when the
    // record's last text came in, and this is exactly write() and flush()
    // without their per-call set-up.
    std::ostream& out = lockedTarget();
    std::streambuf* buffer = out.rdbuf();
    const std::streamsize size = static_cast<std::streamsize>(_record.size());
    const bool synced = buffer && buffer->sputn(_record.data(), size) == size && buffer->pubsync() != -1;
    if (!synced) out.setstate(std::ios_base::badbit);
    tRecordSynced = synced;
}

// -------------------------------------------------------------- ONullStream

CQuillLogger::ONullStream::ONullStream() : OStream(kNullStream) {
    _devNull.open("/dev/null", std::ios::out);
    setTarget(kNullStream, _devNull, nullptr);
}

CQuillLogger::ONullStream::~ONullStream() = default;

void CQuillLogger::ONullStream::addLogHeaderIfNeeded() {}
void CQuillLogger::ONullStream::appendText(std::string_view, bool) {}
std::ostream& CQuillLogger::ONullStream::formatter() { return _devNull; }

}  // namespace quill
