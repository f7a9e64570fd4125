// printf-style formatting with "%@" for objects, checked by the compiler's
// type system instead of by the varargs convention.
//
//   formatString("CRunwardCtlTask exited with error = %d", status)
//   formatString("Path [%@] not a directory", pathRef)       // a CStringRef
//   formatString("Invalid sessionType: 0x%lx", type)
//
// Conversions follow printf: flags (-+ #0'), a field width and precision
// (digits or "*", taken from the next argument), length modifiers and the
// conversions d i u o x X c s p e E f F g G a A %. Because every argument
// carries its own type, length modifiers only say how wide a negative value is
// when it is printed by an unsigned conversion ("%x" of -1 gives "ffffffff",
// "%lx" of -1 gives "ffffffffffffffff"); otherwise the value is printed as it
// is, never truncated. Numbers given to "%s" or "%@" print in decimal, integers
// given to a floating conversion print as that number, and so on: a mismatch
// prints the value sensibly instead of reading garbage.
//
// "%@" stands for a string object: anything for which an unqualified call
// ferrocoreDescription(value) finds (by argument-dependent lookup) a function
// returning text. The base library provides it for CString, CURL, CXMLService
// and for CSharedObjectRef handles to them, which print as "(null)" when
// empty; other layers add it for their own value types. Plain text (const
// char*, std::string, std::string_view) is accepted by "%@" too. A null
// const char* prints as "(null)".
//
// A conversion without an argument left is copied to the output as written;
// arguments beyond the last conversion are ignored; an unknown conversion is
// copied as written and consumes nothing; "%n" consumes its argument and
// writes nothing.
//
// Threads: pure functions; safe from any thread.
#pragma once

#include <array>
#include <concepts>
#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>

#include <ferrocore/export.h>

namespace ferrocore {

template <class T>
concept Describable = requires(const T& value) {
    { ferrocoreDescription(value) } -> std::convertible_to<std::string>;
};

// One argument of formatString(), with its type recorded. Made implicitly by
// formatString(); refers to (does not copy) text arguments, so it must not
// outlive the argument it was made from.
class FERROCORE_EXPORT CFormatArgument {
public:
    enum class Type : unsigned char { Signed, Unsigned, Floating, Text, Pointer };

    template <class T>
    CFormatArgument(const T& value) {  // NOLINT(google-explicit-constructor)
        using D = std::remove_cvref_t<T>;
        if constexpr (std::is_same_v<D, bool>) {
            setSigned(value ? 1 : 0, sizeof(int));
        } else if constexpr (std::is_enum_v<D>) {
            setInteger(static_cast<std::underlying_type_t<D>>(value));
        } else if constexpr (std::is_integral_v<D>) {
            setInteger(value);
        } else if constexpr (std::is_floating_point_v<D>) {
            _type = Type::Floating;
            _floating = static_cast<double>(value);
        } else if constexpr (std::is_array_v<D> && std::is_same_v<std::remove_cv_t<std::remove_extent_t<D>>, char>) {
            setText(std::string_view(value, strnlen(value, std::extent_v<D>)));
        } else if constexpr (std::is_same_v<D, const char*> || std::is_same_v<D, char*>) {
            if (value)
                setText(std::string_view(value));
            else
                setNullText();
        } else if constexpr (std::is_convertible_v<const D&, std::string_view>) {
            setText(std::string_view(value));
        } else if constexpr (std::is_same_v<D, std::nullptr_t>) {
            _type = Type::Pointer;
            _pointer = nullptr;
        } else if constexpr (std::is_pointer_v<D>) {
            _type = Type::Pointer;
            _pointer = static_cast<const void*>(value);
        } else if constexpr (Describable<D>) {
            _description = ferrocoreDescription(value);
            setText(_description);
        } else {
            static_assert(sizeof(D) == 0, "formatString: no way to print this type (give it a ferrocoreDescription)");
        }
    }

    CFormatArgument(const CFormatArgument&) = delete;
    CFormatArgument& operator=(const CFormatArgument&) = delete;

    Type type() const noexcept { return _type; }
    long long signedValue() const noexcept { return _signed; }
    unsigned long long unsignedValue() const noexcept { return _unsigned; }
    double floatingValue() const noexcept { return _floating; }
    const void* pointerValue() const noexcept { return _pointer; }
    // Size in bytes of an integer argument's own type.
    std::size_t integerSize() const noexcept { return _size; }
    // Text of a text argument; isNullText() for a null const char*.
    std::string_view text() const noexcept { return _text; }
    bool isNullText() const noexcept { return _nullText; }

private:
    template <class I>
    void setInteger(I value) {
        if constexpr (std::is_signed_v<I>)
            setSigned(static_cast<long long>(value), sizeof(I));
        else {
            _type = Type::Unsigned;
            _unsigned = static_cast<unsigned long long>(value);
            _size = sizeof(I);
        }
    }
    void setSigned(long long value, std::size_t size) {
        _type = Type::Signed;
        _signed = value;
        _size = size;
    }
    void setText(std::string_view text) {
        _type = Type::Text;
        _text = text;
    }
    void setNullText() {
        _type = Type::Text;
        _nullText = true;
    }

    Type _type = Type::Signed;
    bool _nullText = false;
    std::size_t _size = 0;
    union {
        long long _signed = 0;
        unsigned long long _unsigned;
        double _floating;
        const void* _pointer;
    };
    std::string_view _text;
    std::string _description;
};

// Formats `format` with `count` arguments; see the top of this file.
FERROCORE_EXPORT std::string formatStringWithArguments(std::string_view format, const CFormatArgument* arguments,
                                                       std::size_t count);

template <class... Args>
std::string formatString(std::string_view format, const Args&... args) {
    if constexpr (sizeof...(Args) == 0) {
        return formatStringWithArguments(format, nullptr, 0);
    } else {
        const CFormatArgument arguments[] = {CFormatArgument(args)...};
        return formatStringWithArguments(format, arguments, sizeof...(Args));
    }
}

}  // namespace ferrocore
