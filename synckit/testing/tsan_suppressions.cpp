// Races ThreadSanitizer reports inside libraries that are not built with it.
// GLib hands memory between its worker threads (the D-Bus thread libsecret
// talks through) with raw futexes, and the test HTTP server library's thread
// pool works inside its own uninstrumented code, so every hand-over there
// looks like a race. Linked into the library's test executables that reach
// either (the devserver's tests keep every report, since its handlers run
// on that library's threads); without ThreadSanitizer nothing reads it.
extern "C" const char* __tsan_default_suppressions();

extern "C" const char* __tsan_default_suppressions() {
  return "race:libglib-2.0.so\n"
         "race:libgio-2.0.so\n"
         "race:libgobject-2.0.so\n"
         "race:libsecret-1.so\n"
         "race:libcpp-httplib.so\n";
}
