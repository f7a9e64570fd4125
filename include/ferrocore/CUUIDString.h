// A newly made random (version 4) UUID as text, in upper case:
// "1B4E28BA-2FA1-41D2-883F-0016D3CCA427". Every CUUIDString holds a different
// UUID. Made from the system's random source; safe from any thread.
#pragma once

#include <string>

#include <ferrocore/CString.h>
#include <ferrocore/export.h>

namespace ferrocore {

class FERROCORE_EXPORT CUUIDString final {
public:
    CUUIDString();

    const std::string& str() const noexcept { return _text; }
    CStringRef string() const { return CString::create(_text); }

private:
    std::string _text;
};

inline std::string ferrocoreDescription(const CUUIDString& uuid) { return uuid.str(); }

}  // namespace ferrocore
