// Locations of the cluster's frameworks as found at run time, from where this
// library itself is loaded.
//
// Layout. The library is the executable of the bundle
// "com.tessaly.corvane.QuillCore", whose directory is
//   <Frameworks>/Corvane.framework/Versions/A/Frameworks/QuillCore.framework
// and "Lumenforge.framework" (the client application's framework) lies beside
// "Corvane.framework" in the same directory, which must be named "Frameworks".
// docs/bundles.md describes the bundle layout and how `cmake --install`
// produces it. A library loaded from anywhere else (the build tree, a plain
// lib/ directory without the framework behind it) has no frameworks: the
// lookups below return null.
//
// The framework URLs are looked up afresh at every call (the loaded objects
// and the file system are consulted each time); callers that need them for
// many paths look them up once and use the three-argument getRuntimePath.
//
// Ownership. The plain functions return new references, which the caller owns
// and adopts (PLHolder<const PLURL>::adopt(getCorvaneFrameworkURL())).
//
// Threads. All functions may be called from any thread; they keep no state.
#pragma once

#include <quillcore/export.h>
#include <quillcore/platform/PLObject.h>

// A file URL of "Corvane.framework" (directory form, canonical path: symbolic
// links, "." and ".." resolved), or null when this library's bundle is not
// loaded from inside ".../Frameworks/Corvane.framework/Versions/A/Frameworks/"
// or that directory does not exist. New reference. Never throws.
QUILL_EXTERN_C QUILL_EXPORT const PLURL* getCorvaneFrameworkURL() noexcept;

// "Lumenforge.framework" beside the URL of getCorvaneFrameworkURL (null when
// that is null). Whether it exists is not checked. New reference. Never
// throws.
QUILL_EXTERN_C QUILL_EXPORT const PLURL* getLumenforgeFrameworkURL() noexcept;

namespace quill {

// The identifier of this library's own bundle.
inline constexpr const char* kQuillCoreBundleIdentifier = "com.tessaly.corvane.QuillCore";
// Directory names of the layout above.
inline constexpr const char* kCorvaneFrameworkName = "Corvane.framework";
inline constexpr const char* kLumenforgeFrameworkName = "Lumenforge.framework";
inline constexpr const char* kFrameworksDirectoryName = "Frameworks";

// The path at which a stored path is found at run time. Paths recorded in
// configuration files (a service's executable and bundle paths) name the place
// where a framework was when they were written; the frameworks may since have
// moved (a new install, another volume):
// - when `path` has a component exactly "Corvane.framework" (the last such
//   component when there are several), the part up to and including that
//   component is replaced by the file-system path of `corvaneFrameworkURL`,
//   and the rest ("/Resources/corvaned", or nothing) is kept as it is;
//   "Lumenforge.framework" and `lumenforgeFrameworkURL` likewise;
// - when the path has components of both names, the one that comes later in
//   the path decides;
// - a path inside neither framework, and a path inside a framework whose URL
//   is null, is returned unchanged.
// The result is a new string (a copy when unchanged); null for a null path.
// Throws only std::bad_alloc.
QUILL_EXPORT PLHolder<const PLString> getRuntimePath(PLStringRef path, PLURLRef corvaneFrameworkURL,
                                                     PLURLRef lumenforgeFrameworkURL);

// The same with the frameworks looked up now (getCorvaneFrameworkURL and
// getLumenforgeFrameworkURL).
QUILL_EXPORT PLHolder<const PLString> getRuntimePath(PLStringRef path);

}  // namespace quill
