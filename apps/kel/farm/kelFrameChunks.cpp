#include "kelFrameChunks.h"

#include <algorithm>
#include <filesystem>

#include "kelOptions.h"

namespace Zt::KelApp {

std::vector<int> FrameChunks::chunk(int index) const {
    const std::size_t begin = std::size_t(index) * std::size_t(size);
    return {frames.begin() + begin, frames.begin() + std::min(frames.size(), begin + std::size_t(size))};
}

std::vector<int> missingFrames(const std::string& outputPattern, const std::vector<int>& frames) {
    std::vector<int> missing;
    std::error_code error;
    for (const int frame : frames)
        if (!std::filesystem::exists(expandFramePath(outputPattern, frame), error)) missing.push_back(frame);
    return missing;
}

std::string numberRanges(const std::vector<int>& numbers) {
    std::string text;
    for (std::size_t i = 0; i < numbers.size();) {
        std::size_t j = i;
        while (j + 1 < numbers.size() && numbers[j + 1] == numbers[j] + 1) ++j;
        text += (text.empty() ? "" : ",") + std::to_string(numbers[i]);
        if (j > i) text += "-" + std::to_string(numbers[j]);
        i = j + 1;
    }
    return text;
}

}  // namespace Zt::KelApp
