// CArgsBuilder: the NULL-terminated vector of NUL-terminated strings that
// process creation takes, used both for argument vectors and for environment
// vectors (entries of the form NAME=value).
//
// The builder owns a private copy of every string and keeps the vector
// NULL-terminated after every change, so that getArgs() can be handed to an
// exec call at any moment. When the vector is full it grows to twice its size
// (to 1 from 0); the strings themselves are never copied again.
//
// Threads: not thread-safe; one thread at a time, and the vector handed out
// is valid only until the next change.
//
// Exceptions: operations that add text throw std::bad_alloc when memory runs
// out (the builder is then unchanged); the array conversion throws as stated
// there; nothing else throws.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include <ferrocore/CString.h>
#include <quillcore/export.h>
#include <quillcore/platform/PLObject.h>

namespace quill {

class QUILL_EXPORT CArgsBuilder final {
public:
    // An empty vector with room for `capacity` entries before it grows
    // (callers pass 0, 10 or 25; a negative capacity counts as 0).
    explicit CArgsBuilder(int capacity);
    ~CArgsBuilder();
    CArgsBuilder(const CArgsBuilder&) = delete;
    CArgsBuilder& operator=(const CArgsBuilder&) = delete;

    // Appends a copy of `text`. A null pointer adds nothing (it would end the
    // vector early).
    void addArg(const char* text);
    // Adds each entry of a NULL-terminated list; a null list adds nothing.
    void addArgs(const char* const* list);
    // Adds at most `count` entries, stopping early at a NULL entry; a null
    // list adds nothing.
    void addArgs(unsigned count, const char* const* list);
    // Adds the UTF-8 text of each string in order; null strings are skipped.
    void addArgs(const std::vector<ferrocore::CStringRef>& list);

    // Index of the first entry that begins with `name` followed by "=", or -1
    // when `name` is null or no entry matches. An entry that is just the bare
    // name does not match.
    int findArg(const char* name) const noexcept;
    // Replaces the entry at `index` with a copy of `text` when 0 <= index <
    // size(); otherwise, or when `text` is null, does nothing.
    void replaceArg(int index, const char* text);
    // Frees every entry; the capacity stays, so adding again reuses the array.
    void clear() noexcept;

    std::uint32_t capacity() const noexcept { return _capacity; }
    std::uint32_t size() const noexcept { return _size; }

    // The vector itself (not a copy), always NULL-terminated; valid until the
    // next change.
    const char* const* getArgs() const noexcept { return _vector.get(); }
    operator const char* const*() const noexcept { return _vector.get(); }
    operator char* const*() const noexcept { return _vector.get(); }

    // The entries joined with one space between them, without quoting (for
    // logging a command line); a null string when there are none.
    explicit operator ferrocore::CStringRef() const;
    // One string per entry, in order.
    explicit operator std::vector<ferrocore::CStringRef>() const;
    // A new array with one string value per entry (the program arguments of a
    // job definition). Throws ferrocore::CNullPointerException ("Error: args
    // is null!") when the array cannot be made.
    explicit operator PLHolder<const PLArray>() const;

private:
    void grow();

    std::uint32_t _capacity;
    std::uint32_t _size = 0;
    // _capacity + 1 slots; _vector[_size] is always null. The entries are
    // owned, each allocated with new char[].
    std::unique_ptr<char*[]> _vector;
};

}  // namespace quill
