// Places where a tracer of the system can hook in: a no-op each, with a note in the library.
#pragma once

#ifdef QUORVAL_HAS_PROBES
#include <sys/sdt.h>
#endif

namespace Quorval::runtime {

#ifdef QUORVAL_HAS_PROBES

inline void probe_wave_begin()
{
    STAP_PROBE(quorval, wave_begin);
}

inline void probe_wave_end()
{
    STAP_PROBE(quorval, wave_end);
}

inline void probe_run_begin(const char* path)
{
    STAP_PROBE1(quorval, run_begin, path);
}

inline void probe_run_end(const char* path, int failed)
{
    STAP_PROBE2(quorval, run_end, path, failed);
}

#else

inline void probe_wave_begin() {}
inline void probe_wave_end() {}
inline void probe_run_begin(const char* /*path*/) {}
inline void probe_run_end(const char* /*path*/, int /*failed*/) {}

#endif

}  // namespace Quorval::runtime
