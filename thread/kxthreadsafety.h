#ifndef VELMO_THREAD_KXTHREADSAFETY_H_
#define VELMO_THREAD_KXTHREADSAFETY_H_

// Attributes for clang's thread-safety analysis (-Wthread-safety): which lock guards a
// member, which functions take and release which lock. Other compilers ignore them.
// A lock held through a std::shared_ptr is named by dereferencing it: GUARDED_BY(*lock_).

#if defined(__clang__)
#define VELMO_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define VELMO_THREAD_ANNOTATION(x)
#endif

#define VELMO_CAPABILITY(name) VELMO_THREAD_ANNOTATION(capability(name))
#define VELMO_SCOPED_CAPABILITY VELMO_THREAD_ANNOTATION(scoped_lockable)
#define VELMO_GUARDED_BY(lock) VELMO_THREAD_ANNOTATION(guarded_by(lock))
#define VELMO_REQUIRES(...) VELMO_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define VELMO_ACQUIRE(...) VELMO_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define VELMO_ACQUIRE_SHARED(...) VELMO_THREAD_ANNOTATION(acquire_shared_capability(__VA_ARGS__))
#define VELMO_RELEASE(...) VELMO_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define VELMO_RELEASE_GENERIC(...) VELMO_THREAD_ANNOTATION(release_generic_capability(__VA_ARGS__))
// For a function that takes a lock its caller releases later through another function.
#define VELMO_NO_THREAD_SAFETY_ANALYSIS VELMO_THREAD_ANNOTATION(no_thread_safety_analysis)

#endif  // VELMO_THREAD_KXTHREADSAFETY_H_
