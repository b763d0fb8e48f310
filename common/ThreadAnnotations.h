// Macros for clang's thread-safety analysis (-Wthread-safety): they state which lock guards a
// member, which locks a function needs or takes, and the order in which locks nest, so that
// the compiler checks what would otherwise be comments. Other compilers see nothing.
//
//   CAPABILITY(name)          a class whose objects are locks ("mutex", "semaphore")
//   SCOPED_CAPABILITY         a class that holds a lock for its lifetime (RAII)
//   GUARDED_BY(lock)          a member read and written only with `lock` held
//   PT_GUARDED_BY(lock)       what a pointer member points to is guarded by `lock`
//   ACQUIRED_AFTER(locks...)  this lock is taken only while `locks` may already be held
//   ACQUIRED_BEFORE(locks...) this lock is never taken while `locks` are held
//   REQUIRES(locks...)        the caller holds `locks` exclusively
//   REQUIRES_SHARED(locks...) the caller holds `locks` at least shared
//   ACQUIRE(locks...)         the function takes `locks` (nothing: the object itself)
//   RELEASE(locks...)         the function gives `locks` back
//   TRY_ACQUIRE(ok, locks...) the function takes `locks` when it returns `ok`
//   EXCLUDES(locks...)        the caller must not hold `locks` (the function takes them)
//   ASSERT_CAPABILITY(lock)   the function returns only when `lock` is held
//   RETURN_CAPABILITY(lock)   the function returns (a reference to) `lock`
//   NO_THREAD_SAFETY_ANALYSIS the function is not checked; say why where it is used
#ifndef TAVO_COMMON_THREAD_ANNOTATIONS_H
#define TAVO_COMMON_THREAD_ANNOTATIONS_H

#if defined(__clang__)
#define TAVO_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define TAVO_THREAD_ANNOTATION(x)
#endif

#define CAPABILITY(name) TAVO_THREAD_ANNOTATION(capability(name))
#define SCOPED_CAPABILITY TAVO_THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(lock) TAVO_THREAD_ANNOTATION(guarded_by(lock))
#define PT_GUARDED_BY(lock) TAVO_THREAD_ANNOTATION(pt_guarded_by(lock))
#define ACQUIRED_AFTER(...) TAVO_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))
#define ACQUIRED_BEFORE(...) TAVO_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
#define REQUIRES(...) TAVO_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define REQUIRES_SHARED(...) TAVO_THREAD_ANNOTATION(requires_shared_capability(__VA_ARGS__))
#define ACQUIRE(...) TAVO_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RELEASE(...) TAVO_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) TAVO_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define EXCLUDES(...) TAVO_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ASSERT_CAPABILITY(lock) TAVO_THREAD_ANNOTATION(assert_capability(lock))
#define RETURN_CAPABILITY(lock) TAVO_THREAD_ANNOTATION(lock_returned(lock))
#define NO_THREAD_SAFETY_ANALYSIS TAVO_THREAD_ANNOTATION(no_thread_safety_analysis)

#endif  // TAVO_COMMON_THREAD_ANNOTATIONS_H
