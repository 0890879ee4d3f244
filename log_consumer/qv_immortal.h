// Globals that are constructed before main() and never destroyed.
#ifndef LOG_CONSUMER_QV_IMMORTAL_H
#define LOG_CONSUMER_QV_IMMORTAL_H

/// Storage of such a global. When the process ends, a serving thread may still be in its last poll,
/// and a signal may call exit() on any thread: what they use must not be torn down under them.
///
/// The header of a global declares the object itself. Its source defines the storage, and makes the
/// object another name of it:
///
///     extern "C" {
///     Immortal<Record> recordStorage;
///     }
///     extern Record record [[gnu::alias("recordStorage")]];
template <typename T>
union Immortal {
  T object;
  Immortal() : object() {}
  Immortal(const Immortal&) = delete;
  Immortal& operator=(const Immortal&) = delete;
  ~Immortal() {}
};

#endif
