// Linked into every program of a ThreadSanitizer build, which calls this function.
//
// The scheduler refreshes the state text without the record's lock, by design. All texts stored
// there have at most 15 characters, so they stay inside the string object: nothing is allocated or
// freed under a reader, and a mixed text counts as the error state.
extern "C" const char* __tsan_default_suppressions();

extern "C" const char*
__tsan_default_suppressions() {  // NOLINT(bugprone-reserved-identifier,cert-*): its given name
  return "race:refreshAapState\n";
}
