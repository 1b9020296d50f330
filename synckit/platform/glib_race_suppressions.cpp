// GLib synchronises its worker threads (the D-Bus thread libsecret talks
// through) with raw futexes, which ThreadSanitizer cannot see, so every hand
// over of memory between them looks like a race. Linked only into the tests
// that reach libsecret; without ThreadSanitizer nothing reads it.
extern "C" const char* __tsan_default_suppressions();

extern "C" const char* __tsan_default_suppressions() {
  return "race:libglib-2.0.so\n"
         "race:libgio-2.0.so\n"
         "race:libgobject-2.0.so\n"
         "race:libsecret-1.so\n";
}
