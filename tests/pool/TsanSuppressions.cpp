// Under ThreadSanitizer: a live block's size word is read without the heap's
// lock (by the pools in QzPoolSizeWord, a relaxed atomic load, and by the heap
// when it looks up a block's owner before locking), while the heap, under its
// lock, rewrites bit 0 of that word when the chunk in front changes hands.
// The heap's store is a plain one, so the sanitizer reports the pair although
// the size bits read are never the ones written. Only those readers are
// waived here; every other race still fails the run. A longer history keeps
// the reader's stack available for the match.
#define QZ_TSAN_HOOK extern "C" __attribute__((visibility("default"))) const char*

QZ_TSAN_HOOK __tsan_default_suppressions() {
  return "race:QzPoolSizeWord\n"
         "race:QzBlockOwnerHeap\n";
}

QZ_TSAN_HOOK __tsan_default_options() { return "history_size=7"; }
