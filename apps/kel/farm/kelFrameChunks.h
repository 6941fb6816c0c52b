// A sequence of frames cut into chunks, one farm task each, and which of its frames are done.
// Chunk i holds `size` frames from first + i * size; the last chunk holds what remains. A frame
// is done when its output file exists: `kel render --each-frame` renames each frame into place
// whole, so an existing file is a complete frame.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace Zt::KelApp {

struct FrameChunks {
    int first = 0;
    int last = 0;
    int size = 1;

    int count() const { return (last - first) / size + 1; }
    // The first and last frame of chunk `index`.
    std::pair<int, int> chunk(int index) const;
};

// The frames first..last whose output (`outputPattern` at that frame) does not exist.
std::vector<int> missingFrames(const std::string& outputPattern, int first, int last);

// Ascending numbers (frames, task indices) as ranges: 1-4,9,11-12.
std::string numberRanges(const std::vector<int>& numbers);

}  // namespace Zt::KelApp
