// Clang thread-safety annotations; they expand to nothing elsewhere.
#pragma once

#if defined(__clang__)
#define VS_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define VS_THREAD_ANNOTATION(x)
#endif

#define GUARDED_BY(x) VS_THREAD_ANNOTATION(guarded_by(x))
#define REQUIRES(...) VS_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) VS_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
