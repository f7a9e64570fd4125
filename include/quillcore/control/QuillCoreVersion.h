// The library's version, as plain exported data with C linkage so that any
// program can find it by name.
#pragma once

#include <quillcore/export.h>

#ifdef __cplusplus
extern "C" {
#endif

// "@(#)PROGRAM:QuillCore  PROJECT:QuillCore-303" and a line feed, NUL-terminated
// (the "@(#)" prefix lets what(1)-style tools find it in the binary).
QUILL_EXPORT extern const char QuillCoreVersionString[];
// 303.0
QUILL_EXPORT extern const double QuillCoreVersionNumber;

#ifdef __cplusplus
}
#endif
