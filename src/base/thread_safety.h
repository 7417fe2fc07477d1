// clang's thread-safety attributes; empty for other compilers.
#pragma once

#if defined(__clang__)
#define GVUSB_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define GVUSB_THREAD_ATTRIBUTE(x)
#endif

#define GVUSB_CAPABILITY(name) GVUSB_THREAD_ATTRIBUTE(capability(name))
#define GVUSB_SCOPED_CAPABILITY GVUSB_THREAD_ATTRIBUTE(scoped_lockable)
#define GVUSB_GUARDED_BY(mutex) GVUSB_THREAD_ATTRIBUTE(guarded_by(mutex))
#define GVUSB_ACQUIRE(...) GVUSB_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define GVUSB_TRY_ACQUIRE(...) GVUSB_THREAD_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define GVUSB_RELEASE(...) GVUSB_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define GVUSB_REQUIRES(...) GVUSB_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define GVUSB_EXCLUDES(...) GVUSB_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define GVUSB_ACQUIRED_BEFORE(...) GVUSB_THREAD_ATTRIBUTE(acquired_before(__VA_ARGS__))
#define GVUSB_NO_THREAD_SAFETY_ANALYSIS GVUSB_THREAD_ATTRIBUTE(no_thread_safety_analysis)
