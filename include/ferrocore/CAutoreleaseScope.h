// Marks a stretch of code after which temporary values of the host object
// runtime may be reclaimed.
//
// On hosts whose runtime keeps autoreleased values in a pool, such a scope
// drains the pool when it ends; code that makes many temporary values in a
// loop or on a thread of its own opens one. On Linux the host runtime has no
// autorelease pool: every value is released by its holder when the holder
// goes away, so this scope does nothing and costs nothing. Keep using it where
// the host's rules ask for one, so that the code stays correct on hosts that
// do have a pool.
#pragma once

namespace ferrocore {

class CAutoreleaseScope final {
public:
    // User-provided (though empty) so that a scope variable that is never
    // named again does not count as unused.
    CAutoreleaseScope() noexcept {}
    ~CAutoreleaseScope() {}
    CAutoreleaseScope(const CAutoreleaseScope&) = delete;
    CAutoreleaseScope& operator=(const CAutoreleaseScope&) = delete;
};

}  // namespace ferrocore
