#pragma once

// Clang's thread-safety attributes, so that the compiler checks which lock guards what
// (-Wthread-safety); other compilers ignore them.
#if defined(__clang__)
#define SIGNDB_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define SIGNDB_THREAD_ATTRIBUTE(x)
#endif

#define SIGNDB_CAPABILITY(x) SIGNDB_THREAD_ATTRIBUTE(capability(x))
#define SIGNDB_SCOPED_CAPABILITY SIGNDB_THREAD_ATTRIBUTE(scoped_lockable)
#define SIGNDB_GUARDED_BY(x) SIGNDB_THREAD_ATTRIBUTE(guarded_by(x))
#define SIGNDB_PT_GUARDED_BY(x) SIGNDB_THREAD_ATTRIBUTE(pt_guarded_by(x))
#define SIGNDB_ACQUIRED_BEFORE(...) SIGNDB_THREAD_ATTRIBUTE(acquired_before(__VA_ARGS__))
#define SIGNDB_ACQUIRED_AFTER(...) SIGNDB_THREAD_ATTRIBUTE(acquired_after(__VA_ARGS__))
#define SIGNDB_REQUIRES(...) SIGNDB_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define SIGNDB_REQUIRES_SHARED(...) SIGNDB_THREAD_ATTRIBUTE(requires_shared_capability(__VA_ARGS__))
#define SIGNDB_ACQUIRE(...) SIGNDB_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define SIGNDB_ACQUIRE_SHARED(...) SIGNDB_THREAD_ATTRIBUTE(acquire_shared_capability(__VA_ARGS__))
#define SIGNDB_RELEASE(...) SIGNDB_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define SIGNDB_RELEASE_SHARED(...) SIGNDB_THREAD_ATTRIBUTE(release_shared_capability(__VA_ARGS__))
#define SIGNDB_RELEASE_GENERIC(...) SIGNDB_THREAD_ATTRIBUTE(release_generic_capability(__VA_ARGS__))
#define SIGNDB_TRY_ACQUIRE(...) SIGNDB_THREAD_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define SIGNDB_EXCLUDES(...) SIGNDB_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define SIGNDB_ASSERT_CAPABILITY(x) SIGNDB_THREAD_ATTRIBUTE(assert_capability(x))
#define SIGNDB_ASSERT_SHARED_CAPABILITY(x) SIGNDB_THREAD_ATTRIBUTE(assert_shared_capability(x))
#define SIGNDB_RETURN_CAPABILITY(x) SIGNDB_THREAD_ATTRIBUTE(lock_returned(x))
#define SIGNDB_NO_THREAD_SAFETY_ANALYSIS SIGNDB_THREAD_ATTRIBUTE(no_thread_safety_analysis)
