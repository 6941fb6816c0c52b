#include "kelFrameChunks.h"

#include <algorithm>
#include <filesystem>

#include "kelOptions.h"

namespace Zt::KelApp {

std::pair<int, int> FrameChunks::chunk(int index) const {
    const int begin = first + index * size;
    return {begin, std::min(begin + size - 1, last)};
}

std::vector<int> missingFrames(const std::string& outputPattern, int first, int last) {
    std::vector<int> missing;
    std::error_code error;
    for (int frame = first; frame <= last; ++frame)
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
