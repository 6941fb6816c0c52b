// A sequence of frames cut into chunks, one farm task each, and which of its frames are done.
// Chunk i holds the `size` frames of the list from position i * size, the last chunk what
// remains. A frame is done when its output file exists: `kel render --each-frame` renames each
// frame into place whole, so an existing file is a complete frame.
#pragma once

#include <string>
#include <vector>

namespace Zt::KelApp {

struct FrameChunks {
    std::vector<int> frames;  // in the order of --frames
    int size = 1;

    int count() const { return int((frames.size() + std::size_t(size) - 1) / std::size_t(size)); }
    std::vector<int> chunk(int index) const;
};

// The frames whose output (`outputPattern` at that frame) does not exist.
std::vector<int> missingFrames(const std::string& outputPattern, const std::vector<int>& frames);

// Numbers (frames, task indices) with each run of consecutive ones as a range: 1-4,9,11-12,
// as --frames and sbatch --array read them.
std::string numberRanges(const std::vector<int>& numbers);

}  // namespace Zt::KelApp
