#pragma once

// Clang's thread-safety attributes under the names that its manual gives them ("Thread Safety Analysis"). They state
// which mutex guards what; builds with clang check it. Macros, because no function can carry an attribute.

#if defined(__clang__)
#define BORVEN_THREAD_ATTRIBUTE(attribute) __attribute__((attribute))
#else
#define BORVEN_THREAD_ATTRIBUTE(attribute)
#endif

#define CAPABILITY(name) BORVEN_THREAD_ATTRIBUTE(capability(name))
#define SCOPED_CAPABILITY BORVEN_THREAD_ATTRIBUTE(scoped_lockable)
#define GUARDED_BY(mutex) BORVEN_THREAD_ATTRIBUTE(guarded_by(mutex))
#define PT_GUARDED_BY(mutex) BORVEN_THREAD_ATTRIBUTE(pt_guarded_by(mutex))
#define ACQUIRED_BEFORE(...) BORVEN_THREAD_ATTRIBUTE(acquired_before(__VA_ARGS__))
#define ACQUIRED_AFTER(...) BORVEN_THREAD_ATTRIBUTE(acquired_after(__VA_ARGS__))
#define REQUIRES(...) BORVEN_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) BORVEN_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) BORVEN_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) BORVEN_THREAD_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define RELEASE(...) BORVEN_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define NO_THREAD_SAFETY_ANALYSIS BORVEN_THREAD_ATTRIBUTE(no_thread_safety_analysis)
