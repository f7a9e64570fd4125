#include <cstdlib>

#include "LogRecord.h"
#include <ferrocore/CException.h>
#include <ferrocore/Format.h>
#include <quillcore/logging/CQuillLogger.h>
#include <quillcore/platform/Host.h>
#include <quillcore/util/CTimeStamp.h>

namespace quill {

using ferrocore::CStringRef;
using ferrocore::CXMLAttributePair;
using ferrocore::CXMLServiceRef;

// ---------------------------------------------------------------------- CMark

CQuillLogger::CMark::CMark(MarkKind kind, const CStringRef& what, const CStringRef& message,
                           const CStringRef& requestID)
    : _document(ferrocore::CXMLService::create("<mrk/>")) {
    const CTimeStamp now(-1.0);
    const CXMLServiceRef mark = element();
    mark->addAttribute({"tms", ferrocore::formatString("%.3lf", now.seconds())});
    mark->addAttribute({"tmt", now.text()});
    mark->addAttribute({"pid", std::to_string(static_cast<std::uint32_t>(platform::host().processID()))});
    if (kind == kMarkBegin) mark->addAttribute({"kind", "begin"});
    if (kind == kMarkEnd) mark->addAttribute({"kind", "end"});
    if (what) mark->addAttribute({"what", what->utf8()});
    if (requestID) mark->addAttribute({"req-id", requestID->utf8()});
    if (message) mark->addAttribute({"msg", message->utf8()});
}

CQuillLogger::CMark::CMark(CXMLServiceRef element) : _document(std::move(element)) {
    if (!_document) throw ferrocore::CNullPointerException("CQuillLogger::CMark: null element");
}

CXMLServiceRef CQuillLogger::CMark::element() const {
    return _document->isDocument() ? _document->childAtIndex(0) : _document;
}

CQuillLogger::CMark::MarkKind CQuillLogger::CMark::markKind() const {
    const CXMLServiceRef mark = element();
    const CStringRef kind = mark ? mark->getAttributeValueAsString("kind") : nullptr;
    if (!kind || kind->empty()) return kMarkPlain;
    if (*kind == "begin") return kMarkBegin;
    if (*kind == "end") return kMarkEnd;
    return kMarkUnknown;
}

namespace {

CStringRef attribute(const CXMLServiceRef& element, std::string_view name) {
    return element ? element->getAttributeValueAsString(name) : nullptr;
}

}  // namespace

CStringRef CQuillLogger::CMark::what() const { return attribute(element(), "what"); }
CStringRef CQuillLogger::CMark::message() const { return attribute(element(), "msg"); }
CStringRef CQuillLogger::CMark::requestID() const { return attribute(element(), "req-id"); }

bool CQuillLogger::CMark::isMark(const ferrocore::CXMLService& node) noexcept { return node.nodeName() == "mrk"; }

CQuillLogger::OStream& CQuillLogger::OStream::operator<<(const CMark& mark) { return *this << mark.document(); }

// -------------------------------------------------------------- CScopeMarker

CQuillLogger::CScopeMarker::CScopeMarker(CStringRef what, OStream& stream, CStringRef message)
    : _what(std::move(what)), _stream(stream), _message(std::move(message)) {
    _stream << CMark(CMark::kMarkBegin, _what, _message, nullptr);
}

CQuillLogger::CScopeMarker::~CScopeMarker() {
    try {
        _stream << CMark(CMark::kMarkEnd, _what, nullptr, nullptr);
    } catch (...) {
        // An unbalanced scope would mislead every reader of the log.
        std::abort();
    }
}

// -------------------------------------------------------------- log queries

CStringRef CQuillLogger::logDataAsString() const {
    if (_activeStream->kind() != OStream::kFileStream) return logErrorDataAsString(kLogErrorNotLoggingToFile);
    return logDataAsString(_activeStream->path());
}

CStringRef CQuillLogger::logDataAsString(const CStringRef& path) {
    std::string text;
    platform::IHost& host = platform::host();
    platform::CFileDescriptor fd;
    std::uint64_t size = 0;
    if (path && !host.openFileForReading(path->fileSystemRepresentation(), fd) && !host.fileLength(fd.get(), size) &&
        size > 0) {
        // Only the bytes there when the length was taken are read; records
        // appended meanwhile are left for the next query.
        text.resize(static_cast<std::size_t>(size));
        std::size_t got = 0;
        (void)host.readFile(fd.get(), text.data(), text.size(), got);
        text.resize(got);
        text.reserve(got + 8);
    }
    if (!text.empty()) text += "</logs>\n";
    return ferrocore::CString::create(std::move(text));
}

CStringRef CQuillLogger::logErrorDataAsString(int kind) {
    static constexpr std::string_view kMessages[] = {
        "Service is down.",     "Logger not available.",      "Get log query not supported.",
        "Not logging to file.", "Log data not XML parsable.",
    };
    const std::string_view message =
        kind >= 0 && static_cast<std::size_t>(kind) < std::size(kMessages) ? kMessages[kind] : "Log error.";
    std::string text = logrecord::fileHeader();
    text += "<log ";
    logrecord::appendTimeFields(text);
    text += ferrocore::formatString(" pid=\"%u\" kind=\"mrk\" sub=\"error\" what=\"get-log\" avail=\"false\"",
                                    static_cast<std::uint32_t>(platform::host().processID()));
    text += " msg=\"";
    text += message;
    text += "\"/>\n</logs>\n";
    return ferrocore::CString::create(std::move(text));
}

}  // namespace quill
