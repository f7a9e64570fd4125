// Clang thread-safety annotations. With clang and -Wthread-safety the
// compiler checks that guarded fields are only touched under their mutex;
// other compilers ignore the annotations.
#pragma once

#if defined(__clang__)
#define FERRO_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define FERRO_THREAD_ANNOTATION(x)
#endif

#define FERRO_CAPABILITY(x) FERRO_THREAD_ANNOTATION(capability(x))
#define FERRO_SCOPED_CAPABILITY FERRO_THREAD_ANNOTATION(scoped_lockable)
#define FERRO_GUARDED_BY(x) FERRO_THREAD_ANNOTATION(guarded_by(x))
#define FERRO_PT_GUARDED_BY(x) FERRO_THREAD_ANNOTATION(pt_guarded_by(x))
#define FERRO_REQUIRES(...) FERRO_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define FERRO_ACQUIRE(...) FERRO_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define FERRO_RELEASE(...) FERRO_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define FERRO_TRY_ACQUIRE(...) FERRO_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define FERRO_EXCLUDES(...) FERRO_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define FERRO_RETURN_CAPABILITY(x) FERRO_THREAD_ANNOTATION(lock_returned(x))
#define FERRO_NO_THREAD_SAFETY_ANALYSIS FERRO_THREAD_ANNOTATION(no_thread_safety_analysis)
