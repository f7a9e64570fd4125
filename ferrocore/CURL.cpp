#include <cerrno>
#include <string>
#include <vector>

#include <sys/xattr.h>
#include <unistd.h>

#include <ferrocore/CException.h>
#include <ferrocore/CURL.h>
#include <ferrocore/Format.h>

namespace ferrocore {

namespace {

bool isAlpha(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isHex(char c) { return isDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }
bool isUnreserved(char c) { return isAlpha(c) || isDigit(c) || c == '-' || c == '.' || c == '_' || c == '~'; }
bool isSubDelimiter(char c) { return std::string_view("!$&'()*+,;=").find(c) != std::string_view::npos; }
// Characters that stand for themselves in a path.
bool isPathCharacter(char c) { return isUnreserved(c) || isSubDelimiter(c) || c == ':' || c == '@' || c == '/'; }
// Characters that may appear unencoded anywhere in URL text.
bool isURLCharacter(char c) {
    return isUnreserved(c) || isSubDelimiter(c) || std::string_view(":/?#[]@%").find(c) != std::string_view::npos;
}

int hexValue(char c) {
    if (isDigit(c)) return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return c - 'A' + 10;
}

std::string percentEncode(std::string_view text, bool (*keep)(char)) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        if (keep(c)) {
            out += c;
        } else {
            const auto b = static_cast<unsigned char>(c);
            out += '%';
            out += kHex[b >> 4];
            out += kHex[b & 0xF];
        }
    }
    return out;
}

// Decodes %XX sequences; anything else is copied (URL text is validated when
// it is parsed, and all we encode ourselves is well-formed).
std::string percentDecode(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size() && isHex(text[i + 1]) && isHex(text[i + 2])) {
            out += static_cast<char>(hexValue(text[i + 1]) * 16 + hexValue(text[i + 2]));
            i += 2;
        } else {
            out += text[i];
        }
    }
    return out;
}

std::string encodePath(std::string_view path) { return percentEncode(path, isPathCharacter); }
std::string encodeQueryPart(std::string_view text) { return percentEncode(text, isUnreserved); }

// Splits an encoded path into the part before its last component, the last
// component, and a trailing "/" if any. For "/a/b/" that is "/a/", "b", "/".
struct PathSplit {
    std::string_view parent;
    std::string_view last;
    std::string_view slash;
};

PathSplit splitPath(std::string_view path) {
    PathSplit split;
    std::string_view body = path;
    if (body.size() > 1 && body.back() == '/') {
        split.slash = body.substr(body.size() - 1);
        body.remove_suffix(1);
    }
    const std::size_t cut = body.rfind('/');
    if (cut == std::string_view::npos) {
        split.last = body;
    } else {
        split.parent = body.substr(0, cut + 1);
        split.last = body.substr(cut + 1);
    }
    return split;
}

// Position of the "." that starts the extension of a decoded or encoded
// component, or npos.
std::size_t extensionDot(std::string_view component) {
    const std::size_t dot = component.rfind('.');
    if (dot == std::string_view::npos || dot == 0 || dot + 1 == component.size()) return std::string_view::npos;
    return dot;
}

void checkCode(std::string_view code, const char* operation) {
    if (!code.empty() && code.size() != 4)
        throw CParamException(formatString("CURL::%s: code \"%s\" is not four characters", operation, code));
}

}  // namespace

CURL::~CURL() = default;

CURLRef CURL::createWithPath(std::string_view path, bool isDirectory) {
    if (path.empty()) throw CParamException("CURL::createWithPath: empty path");
    std::string absolute;
    if (path.front() != '/') {
        std::vector<char> buffer(4096);
        while (!getcwd(buffer.data(), buffer.size())) {
            if (errno != ERANGE)
                throw CException(kExceptionKindSystemCall,
                                 formatString("CURL::createWithPath: getcwd failed, error = %s", errorText(errno)),
                                 errno);
            buffer.resize(buffer.size() * 2);
        }
        absolute = buffer.data();
        if (absolute.empty() || absolute.back() != '/') absolute += '/';
    }
    absolute.append(path);
    if (isDirectory && absolute.back() != '/') absolute += '/';

    CURLRef url(new CURL);
    url->_scheme = "file";
    url->_hasAuthority = true;
    url->_path = encodePath(absolute);
    url->rebuildText();
    return url;
}

CURLRef CURL::create(std::string_view text) {
    // scheme = ALPHA *( ALPHA / DIGIT / "+" / "-" / "." ) ":"
    const std::size_t colon = text.find(':');
    if (colon == std::string_view::npos || colon == 0 || !isAlpha(text[0])) return CURLRef();
    for (std::size_t i = 1; i < colon; ++i) {
        const char c = text[i];
        if (!isAlpha(c) && !isDigit(c) && c != '+' && c != '-' && c != '.') return CURLRef();
    }
    for (std::size_t i = colon + 1; i < text.size(); ++i) {
        const char c = text[i];
        if (!isURLCharacter(c)) return CURLRef();
        if (c == '%' && (i + 2 >= text.size() || !isHex(text[i + 1]) || !isHex(text[i + 2]))) return CURLRef();
    }

    CURLRef url(new CURL);
    for (char c : text.substr(0, colon)) url->_scheme += (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
    std::string_view rest = text.substr(colon + 1);
    const std::size_t hash = rest.find('#');
    if (hash != std::string_view::npos) {
        url->_hasFragment = true;
        url->_fragment = rest.substr(hash + 1);
        if (url->_fragment.find('#') != std::string::npos) return CURLRef();
        rest = rest.substr(0, hash);
    }
    const std::size_t question = rest.find('?');
    if (question != std::string_view::npos) {
        url->_hasQuery = true;
        url->_query = rest.substr(question + 1);
        rest = rest.substr(0, question);
    }
    if (rest.starts_with("//")) {
        rest.remove_prefix(2);
        const std::size_t slash = rest.find('/');
        url->_hasAuthority = true;
        url->_authority = rest.substr(0, slash);
        rest = slash == std::string_view::npos ? std::string_view() : rest.substr(slash);
    }
    url->_path = rest;
    url->rebuildText();
    return url;
}

void CURL::rebuildText() {
    _text = _scheme;
    _text += ':';
    if (_hasAuthority) {
        _text += "//";
        _text += _authority;
    }
    _text += _path;
    if (_hasQuery) {
        _text += '?';
        _text += _query;
    }
    if (_hasFragment) {
        _text += '#';
        _text += _fragment;
    }
}

CStringRef CURL::scheme() const { return CString::create(_scheme); }

CStringRef CURL::hostName() const {
    std::string_view host = _authority;
    const std::size_t at = host.rfind('@');
    if (at != std::string_view::npos) host.remove_prefix(at + 1);
    if (host.starts_with('[')) {
        const std::size_t close = host.find(']');
        host = host.substr(0, close == std::string_view::npos ? host.size() : close + 1);
    } else {
        const std::size_t portColon = host.rfind(':');
        if (portColon != std::string_view::npos) host = host.substr(0, portColon);
    }
    return CString::create(percentDecode(host));
}

CStringRef CURL::fileSystemPath() const {
    std::string path = percentDecode(_path);
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return CString::create(std::move(path));
}

CStringRef CURL::string() const { return CString::create(_text); }

CStringRef CURL::lastPathComponent() const {
    if (_path.empty()) return CString::create(std::string_view());
    const PathSplit split = splitPath(_path);
    if (split.last.empty()) return CString::create("/");
    return CString::create(percentDecode(split.last));
}

CStringRef CURL::pathExtension() const {
    const std::string last = lastPathComponent()->utf8();
    const std::size_t dot = extensionDot(last);
    return CString::create(dot == std::string::npos ? std::string_view() : std::string_view(last).substr(dot + 1));
}

CURLRef CURL::copyWithEncodedPath(std::string encodedPath) const {
    CURLRef url(new CURL);
    url->_scheme = _scheme;
    url->_hasAuthority = _hasAuthority;
    url->_authority = _authority;
    url->_path = std::move(encodedPath);
    url->_hasQuery = _hasQuery;
    url->_query = _query;
    url->_hasFragment = _hasFragment;
    url->_fragment = _fragment;
    url->rebuildText();
    return url;
}

CURLRef CURL::copyByDeletingLastPathComponent() const {
    const PathSplit split = splitPath(_path);
    if (split.last.empty()) return copyWithEncodedPath(_path);  // root or empty
    return copyWithEncodedPath(split.parent.empty() ? std::string() : std::string(split.parent));
}

CURLRef CURL::copyByDeletingPathExtension() const {
    const PathSplit split = splitPath(_path);
    const std::size_t dot = extensionDot(split.last);
    if (dot == std::string_view::npos) return copyWithEncodedPath(_path);
    std::string path(split.parent);
    path.append(split.last.substr(0, dot));
    path.append(split.slash);
    return copyWithEncodedPath(std::move(path));
}

CURLRef CURL::copyByAppendingPathComponent(std::string_view component, bool isDirectory) const {
    while (component.starts_with('/')) component.remove_prefix(1);
    std::string path = _path;
    if (path.empty() || path.back() != '/') path += '/';
    path += encodePath(component);
    if (isDirectory && path.back() != '/') path += '/';
    return copyWithEncodedPath(std::move(path));
}

CURLRef CURL::copyByAppendingPathExtension(std::string_view extension) const {
    const PathSplit split = splitPath(_path);
    if (split.last.empty())
        throw CParamException(formatString("CURL::copyByAppendingPathExtension: %s has no last path component", _text));
    std::string path(split.parent);
    path.append(split.last);
    path += '.';
    path += encodePath(extension);
    path.append(split.slash);
    return copyWithEncodedPath(std::move(path));
}

CURLRef CURL::copyWithPath(std::string_view path) const {
    std::string encoded = encodePath(path);
    if (!encoded.empty() && encoded.front() != '/') encoded.insert(encoded.begin(), '/');
    return copyWithEncodedPath(std::move(encoded));
}

CStringRef CURL::getQueryParameterValue(std::string_view name) const {
    if (!_hasQuery) return CStringRef();
    std::string_view query = _query;
    while (true) {
        const std::size_t amp = query.find('&');
        const std::string_view pair = query.substr(0, amp);
        const std::size_t eq = pair.find('=');
        if (percentDecode(pair.substr(0, eq)) == name)
            return CString::create(eq == std::string_view::npos ? std::string() : percentDecode(pair.substr(eq + 1)));
        if (amp == std::string_view::npos) return CStringRef();
        query.remove_prefix(amp + 1);
    }
}

void CURL::setQueryParameterValue(std::string_view name, std::string_view value) {
    const std::string pairText = encodeQueryPart(name) + "=" + encodeQueryPart(value);
    std::string result;
    bool replaced = false;
    if (_hasQuery) {
        std::string_view query = _query;
        bool first = true;
        while (true) {
            const std::size_t amp = query.find('&');
            const std::string_view pair = query.substr(0, amp);
            if (!first) result += '&';
            first = false;
            if (!replaced && percentDecode(pair.substr(0, pair.find('='))) == name) {
                result += pairText;
                replaced = true;
            } else {
                result.append(pair);
            }
            if (amp == std::string_view::npos) break;
            query.remove_prefix(amp + 1);
        }
    }
    if (!replaced) {
        if (!result.empty()) result += '&';
        result += pairText;
    }
    _hasQuery = true;
    _query = std::move(result);
    rebuildText();
}

void CURL::removeQueryParameter(std::string_view name) {
    if (!_hasQuery) return;
    std::string result;
    std::string_view query = _query;
    while (true) {
        const std::size_t amp = query.find('&');
        const std::string_view pair = query.substr(0, amp);
        if (percentDecode(pair.substr(0, pair.find('='))) != name) {
            if (!result.empty()) result += '&';
            result.append(pair);
        }
        if (amp == std::string_view::npos) break;
        query.remove_prefix(amp + 1);
    }
    _hasQuery = !result.empty();
    _query = std::move(result);
    rebuildText();
}

std::string CURL::readCode(const char* attribute, const char* operation) const {
    if (!isFileURL()) throw CParamException(formatString("CURL::%s: %s is not a file URL", operation, _text));
    const std::string path = fileSystemPath()->utf8();
    char value[16];
    const ssize_t n = getxattr(path.c_str(), attribute, value, sizeof(value));
    if (n < 0) {
        const int error = errno;
        if (error == ENODATA || error == ENOTSUP) return std::string();
        throw CException(kExceptionKindSystemCall,
                         formatString("CURL::%s(%s): getxattr failed, error = %s", operation, path, errorText(error)),
                         error);
    }
    return std::string(value, static_cast<std::size_t>(n));
}

void CURL::writeCode(const char* attribute, std::string_view code, const char* operation) const {
    if (!isFileURL()) throw CParamException(formatString("CURL::%s: %s is not a file URL", operation, _text));
    checkCode(code, operation);
    const std::string path = fileSystemPath()->utf8();
    int rc;
    const char* call;
    if (code.empty()) {
        rc = removexattr(path.c_str(), attribute);
        call = "removexattr";
        if (rc != 0 && errno == ENODATA) rc = 0;
    } else {
        rc = setxattr(path.c_str(), attribute, code.data(), code.size(), 0);
        call = "setxattr";
    }
    if (rc != 0) {
        const int error = errno;
        throw CException(kExceptionKindSystemCall,
                         formatString("CURL::%s(%s): %s failed, error = %s", operation, path, call, errorText(error)),
                         error);
    }
}

std::string CURL::getFileTypeCode() const { return readCode(kFileTypeCodeAttribute, "getFileTypeCode"); }
std::string CURL::getCreatorCode() const { return readCode(kCreatorCodeAttribute, "getCreatorCode"); }
void CURL::setFileTypeCode(std::string_view code) const { writeCode(kFileTypeCodeAttribute, code, "setFileTypeCode"); }
void CURL::setCreatorCode(std::string_view code) const { writeCode(kCreatorCodeAttribute, code, "setCreatorCode"); }

}  // namespace ferrocore
