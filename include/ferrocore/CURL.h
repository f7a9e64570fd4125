// URLs as shared objects: CURL holds one absolute URL, CURLRef a reference.
//
// A URL is kept as its parts in encoded form: scheme (lowercase), optional
// authority ("//host:port"), path, query and fragment. Everything a caller
// gets out of it (file-system path, path components, query values) is
// percent-decoded; everything a caller puts in (paths, components, query
// values) is percent-encoded here, so callers deal in plain text only. A path
// ending in "/" names a directory.
//
// Path operations return new URLs and change only the path: scheme,
// authority, query and fragment are carried over. setQueryParameterValue()
// and removeQueryParameter() change the URL in place.
//
// Threads: a CURL may be read from any number of threads at once; the two
// query setters need exclusive access.
#pragma once

#include <string>
#include <string_view>

#include <ferrocore/CSharedObject.h>
#include <ferrocore/CString.h>
#include <ferrocore/export.h>

namespace ferrocore {

class CURL;
using CURLRef = CSharedObjectRef<CURL>;

// Names of the extended attributes (user namespace) that hold a file's
// four-character type and creator codes, each as exactly four bytes.
inline constexpr const char* kFileTypeCodeAttribute = "user.ferrocore.filetype";
inline constexpr const char* kCreatorCodeAttribute = "user.ferrocore.creator";

class FERROCORE_EXPORT CURL final : public CSharedObject {
public:
    // A "file" URL for a file-system path, percent-encoded. A relative path is
    // taken relative to the current working directory. With isDirectory the
    // URL's path ends in "/". Throws CParamException ("CURL::createWithPath:
    // empty path") for an empty path.
    static CURLRef createWithPath(std::string_view path, bool isDirectory);
    // A URL from its text form ("file:///tmp/a%20b", "nfs://host/x?port=2049").
    // Null when the text is not an absolute URL: no scheme, a character that
    // must be percent-encoded (space, non-ASCII, control characters, "\"", "<",
    // ">", "\\", "^", "`", "{", "|", "}"), or a "%" not followed by two
    // hexadecimal digits.
    static CURLRef create(std::string_view text);

    // The scheme in lowercase ("file").
    CStringRef scheme() const;
    // The host of the authority, decoded, without user information and port;
    // empty when the URL has none (as in "file:///tmp").
    CStringRef hostName() const;
    // The decoded path without a trailing "/" (the root stays "/"); empty when
    // the URL has no path.
    CStringRef fileSystemPath() const;
    // The full text form.
    CStringRef string() const;
    const std::string& text() const noexcept { return _text; }
    // The last component of the path, decoded ("b" for ".../a/b/"); "/" for
    // the root; empty when there is no path.
    CStringRef lastPathComponent() const;
    // The text after the last "." of the last component, when that "." is
    // neither its first nor its last character; else empty ("gz" for
    // "a.tar.gz", "" for ".cvsubexp").
    CStringRef pathExtension() const;
    bool isFileURL() const noexcept { return _scheme == "file"; }
    // Whether the path ends in "/".
    bool hasDirectoryPath() const noexcept { return !_path.empty() && _path.back() == '/'; }

    // The URL of the parent: "/a/b/c" and "/a/b/c/" both give "/a/b/" (always
    // a directory). The root stays the root; an empty path stays empty.
    CURLRef copyByDeletingLastPathComponent() const;
    // Without the path extension (and its "."); a directory keeps its "/".
    CURLRef copyByDeletingPathExtension() const;
    // With `component` (one or more components separated by "/") added to the
    // path; with isDirectory the result ends in "/".
    CURLRef copyByAppendingPathComponent(std::string_view component, bool isDirectory) const;
    // With "." and `extension` added to the last component; a directory keeps
    // its "/". Throws CParamException ("CURL::copyByAppendingPathExtension: %s
    // has no last path component") when the path is empty or the root.
    CURLRef copyByAppendingPathExtension(std::string_view extension) const;
    // With the path replaced by the (plain, unencoded) `path`, kept as given
    // (a trailing "/" stays). A relative path gets a leading "/".
    CURLRef copyWithPath(std::string_view path) const;

    // Query parameters: "name=value" pairs separated by "&". Names and values
    // are percent-decoded ("+" is not special). The value of the first
    // parameter called `name`, the empty text for a parameter without "=", or
    // null when there is none.
    CStringRef getQueryParameterValue(std::string_view name) const;
    // Sets the first parameter called `name` to `value` in place (encoding
    // everything but letters, digits and "-._~"), or appends the parameter
    // when there is none; all other parameters stay as they are.
    void setQueryParameterValue(std::string_view name, std::string_view value);
    // Removes every parameter called `name`; the "?" goes when nothing is left.
    void removeQueryParameter(std::string_view name);

    // The four-character type and creator codes of the file at this file URL,
    // kept in the extended attributes named above. A code that is not set
    // reads as the empty text, as does every code on a file system without
    // user extended attributes. Setting the empty text removes the code.
    // Throw CParamException when the URL is not a file URL or a code is neither
    // empty nor four bytes long, and CException of kind 4 (with errno) when the
    // attribute cannot be read or written, e.g. for a missing file.
    std::string getFileTypeCode() const;
    std::string getCreatorCode() const;
    void setFileTypeCode(std::string_view code) const;
    void setCreatorCode(std::string_view code) const;

    friend bool operator==(const CURL& a, const CURL& b) noexcept { return a._text == b._text; }

private:
    CURL() = default;
    ~CURL() override;

    CURLRef copyWithEncodedPath(std::string encodedPath) const;
    void rebuildText();
    std::string readCode(const char* attribute, const char* operation) const;
    void writeCode(const char* attribute, std::string_view code, const char* operation) const;

    std::string _scheme;
    bool _hasAuthority = false;
    std::string _authority;
    std::string _path;  // encoded
    bool _hasQuery = false;
    std::string _query;  // encoded, without "?"
    bool _hasFragment = false;
    std::string _fragment;  // encoded, without "#"
    std::string _text;
};

// For "%@": the text form.
inline std::string ferrocoreDescription(const CURL& url) { return url.text(); }

}  // namespace ferrocore
