// A file that libsndfile has open.
#pragma once

#include <sndfile.h>

#include <memory>

namespace sound {

struct CloseSoundFile {
    void operator()(SNDFILE* file) const { sf_close(file); }
};
using SoundFile = std::unique_ptr<SNDFILE, CloseSoundFile>;

}  // namespace sound
