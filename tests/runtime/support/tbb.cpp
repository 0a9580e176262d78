// What the thread sanitizer is not to look at.

/// oneTBB is not built for it, so what its threads do to memory of its own seems unordered.
extern "C" const char* __tsan_default_suppressions()  // NOLINT(bugprone-reserved-identifier)
{
    return "called_from_lib:libtbb.so\n";
}
