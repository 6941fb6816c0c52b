// Which of a file's channels become red, green, blue and alpha: by name (R, G, B, A in any case,
// `layer.R` within a layer, Y for grey), else by position for files whose channels carry none
// of those names; and which channels are left out. A layer without its own alpha takes the
// file's A, where the alpha of a render usually lives.
#pragma once

#include <OpenImageIO/imageio.h>

#include <string>
#include <vector>

namespace Zt::KelApp {

struct ChannelChoice {
    int source[4] = {-1, -1, -1, -1};  // the file's channel for R, G, B, A; -1: 0 for colour, 1 for alpha
    std::vector<std::string> ignored;  // the file's names of the channels left out
    bool hasAlpha() const { return source[3] >= 0; }
};

// FileError (`what` names the file) for a layer the file doesn't have, or a file whose only
// colour channels are inside layers when no layer is asked for (the message lists them).
ChannelChoice chooseChannels(const OIIO::ImageSpec& spec, const std::string& layer, const std::string& what);

}  // namespace Zt::KelApp
