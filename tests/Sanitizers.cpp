// What sanitizers are not to tell of: the doings of the system's libraries, which are not built for them.

#ifdef __SANITIZE_THREAD__
// Pango reads the fonts on a thread of its own and waits for it with GLib's locks, which are system calls that the
// sanitizer does not know.
extern "C" const char* __tsan_default_suppressions() { return "race:libfontconfig.so\n"; }
#endif

#ifdef __SANITIZE_ADDRESS__
// Both keep, to the end of the process and where nobody finds it, what they have read once.
extern "C" const char* __lsan_default_suppressions() { return "leak:libfontconfig.so\nleak:libdbus-1.so\n"; }
#endif
