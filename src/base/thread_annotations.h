// Clang thread-safety attributes under names of our own; nothing on other compilers.
// Reference: https://clang.llvm.org/docs/ThreadSafetyAnalysis.html
#pragma once

#if defined(__clang__)
#define VESKO_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define VESKO_THREAD_ATTRIBUTE(x)
#endif

#define VESKO_CAPABILITY(name) VESKO_THREAD_ATTRIBUTE(capability(name))
#define VESKO_SCOPED_CAPABILITY VESKO_THREAD_ATTRIBUTE(scoped_lockable)
#define VESKO_GUARDED_BY(x) VESKO_THREAD_ATTRIBUTE(guarded_by(x))
#define VESKO_REQUIRES(...) VESKO_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define VESKO_ACQUIRE(...) VESKO_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define VESKO_RELEASE(...) VESKO_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define VESKO_EXCLUDES(...) VESKO_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define VESKO_ASSERT_CAPABILITY(x) VESKO_THREAD_ATTRIBUTE(assert_capability(x))
