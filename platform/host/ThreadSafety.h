#pragma once

// Clang's thread-safety annotations under short names; empty for other compilers.
// https://clang.llvm.org/docs/ThreadSafetyAnalysis.html

#if defined(__clang__)
#define BTN_TSA(x) __attribute__((x))
#else
#define BTN_TSA(x)
#endif

#define CAPABILITY(x) BTN_TSA(capability(x))
#define SCOPED_CAPABILITY BTN_TSA(scoped_lockable)
#define GUARDED_BY(x) BTN_TSA(guarded_by(x))
#define PT_GUARDED_BY(x) BTN_TSA(pt_guarded_by(x))
#define REQUIRES(...) BTN_TSA(requires_capability(__VA_ARGS__))
#define ACQUIRE(...) BTN_TSA(acquire_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) BTN_TSA(try_acquire_capability(__VA_ARGS__))
#define RELEASE(...) BTN_TSA(release_capability(__VA_ARGS__))
#define EXCLUDES(...) BTN_TSA(locks_excluded(__VA_ARGS__))
#define NO_THREAD_SAFETY_ANALYSIS BTN_TSA(no_thread_safety_analysis)
