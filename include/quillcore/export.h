// Symbol visibility for the QuillCore library. Exported plain functions also
// get C linkage through QUILL_EXTERN_C so that programs in any language can
// find them by their plain names.
#pragma once

#define QUILL_EXPORT __attribute__((visibility("default")))

#ifdef __cplusplus
#define QUILL_EXTERN_C extern "C"
#else
#define QUILL_EXTERN_C
#endif
