// The targets for the runtime.
#include "fuzz/replay.h"

#include "runtime/fuzz/targets.h"

#include <gtest/gtest.h>

namespace {

using quorval_fuzz::NamedTarget;
using quorval_fuzz::Replay;

INSTANTIATE_TEST_SUITE_P(Targets, Replay,
                         testing::Values(NamedTarget{"graph", quorval_fuzz::fuzz_graph},
                                         NamedTarget{"recording", quorval_fuzz::fuzz_recording},
                                         NamedTarget{"codec", quorval_fuzz::fuzz_codec},
                                         NamedTarget{"saved", quorval_fuzz::fuzz_saved}),
                         quorval_fuzz::name_of);

}  // namespace
