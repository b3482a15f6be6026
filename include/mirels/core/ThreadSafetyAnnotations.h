#pragma once

// Lock annotations for Clang's thread-safety analysis (`-Wthread-safety`): `MIRELS_CAPABILITY`,
// `MIRELS_GUARDED_BY`, `MIRELS_ACQUIRE`, `MIRELS_RELEASE` and friends.
//
// Example:
//
//     class Counter {
//       public:
//         void increment() {
//             UnfairLockGuard guard(lock_);
//             ++count_;  // without the guard, Clang reports the unguarded write
//         }
//       private:
//         UnfairLock lock_;
//         long count_ MIRELS_GUARDED_BY(lock_) = 0;
//     };

/// Clang checks at compile time that data marked `MIRELS_GUARDED_BY(lock)` is touched only with
/// `lock` held, and that functions marked `MIRELS_REQUIRES(lock)` are called with it held. Other
/// compilers see empty macros: the annotations cost nothing and change no code.
#if defined(__clang__)
#define MIRELS_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define MIRELS_THREAD_ANNOTATION(x)
#endif

/// The class is a lock (`name` appears in the diagnostics).
#define MIRELS_CAPABILITY(name) MIRELS_THREAD_ANNOTATION(capability(name))
/// The class holds a lock for as long as it lives (a guard).
#define MIRELS_SCOPED_CAPABILITY MIRELS_THREAD_ANNOTATION(scoped_lockable)
/// The member is read and written only with `lock` held.
#define MIRELS_GUARDED_BY(lock) MIRELS_THREAD_ANNOTATION(guarded_by(lock))
/// What the pointer member points to is read and written only with `lock` held.
#define MIRELS_PT_GUARDED_BY(lock) MIRELS_THREAD_ANNOTATION(pt_guarded_by(lock))
/// The function must be called with the locks held (and leaves them held).
#define MIRELS_REQUIRES(...) MIRELS_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
/// The function must be called without the locks held (it takes them itself).
#define MIRELS_EXCLUDES(...) MIRELS_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
/// The function takes the locks (its own object when none is named) and returns holding them.
#define MIRELS_ACQUIRE(...) MIRELS_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
/// The function takes the locks when it returns `result`.
#define MIRELS_TRY_ACQUIRE(...) MIRELS_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
/// The function releases the locks (its own object when none is named).
#define MIRELS_RELEASE(...) MIRELS_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
/// The function returns a reference to the lock named.
#define MIRELS_RETURN_CAPABILITY(lock) MIRELS_THREAD_ANNOTATION(lock_returned(lock))
/// The analysis skips this function: for code whose locking it cannot follow, said why beside it.
#define MIRELS_NO_THREAD_SAFETY_ANALYSIS MIRELS_THREAD_ANNOTATION(no_thread_safety_analysis)
