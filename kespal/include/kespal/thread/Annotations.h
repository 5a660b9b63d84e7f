#pragma once  // since 0.1

// What clang's thread-safety analysis is told: which lock guards what, and who takes it. To any other
// compiler the words say nothing.
//
// A thread that holds several locks of this library has taken them in this order:
//   1. a signal handler's, under which its notifiers are called
//   2. the runtime object's, under which the quit handlers are called
//   3. the one that tells which process collector there is
//   4. the process collector's
//   5. a thread object's own, that of its condition
// Under the last three nothing of the library's user is called.
#ifdef __clang__
#define KES_ANNOTATION(...) __attribute__((__VA_ARGS__))
#else
#define KES_ANNOTATION(...)
#endif

#define KES_CAPABILITY(name) KES_ANNOTATION(capability(name))  ///< a class that is a lock
#define KES_SCOPED_CAPABILITY KES_ANNOTATION(scoped_lockable)  ///< a class that holds one for a scope
#define KES_GUARDED_BY(lock) KES_ANNOTATION(guarded_by(lock))  ///< a member that needs the lock
#define KES_REQUIRES(...) KES_ANNOTATION(requires_capability(__VA_ARGS__))  ///< call it with the lock held
#define KES_EXCLUDES(...) KES_ANNOTATION(locks_excluded(__VA_ARGS__))  ///< call it without: it takes the lock
#define KES_ACQUIRE(...) KES_ANNOTATION(acquire_capability(__VA_ARGS__))  ///< takes the lock
#define KES_TRY_ACQUIRE(...) \
  KES_ANNOTATION(try_acquire_capability(__VA_ARGS__))                     ///< takes it when it gives this
#define KES_RELEASE(...) KES_ANNOTATION(release_capability(__VA_ARGS__))  ///< gives it back
#define KES_RETURNS_LOCK(lock) KES_ANNOTATION(lock_returned(lock))        ///< gives a reference to it
#define KES_UNCHECKED KES_ANNOTATION(no_thread_safety_analysis)           ///< the analysis cannot follow it
