// The image inputs of a live session: each still read once when the session starts, each frame
// of a sequence (a -i path with a frame pattern, under --frames) read when a render first needs
// it, the last frame read kept. Every image file the live page reads goes through here.
#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "PxImage.h"
#include "kelCommands.h"

namespace Zt::KelApp {

class LiveInputs {
public:
    // Reads the stills and the first frame of each sequence, and checks that every other frame
    // opens: FileError otherwise, before the page is served.
    explicit LiveInputs(const Invocation& in);

    // The image inputs in the parameter list's order, at `frame` (unused without --frames).
    // Render thread only: a sequence reads its frame here.
    Vector<PxNodePtr<const PxImageProtocol>> at(int frame);
    // One of them by name; null for a name that is not an image input.
    PxNodePtr<const PxImageProtocol> find(const std::string& name, int frame);

    const std::vector<std::string>& names() const { return _names; }
    // The first image input's size in pixels, if there is one.
    std::optional<std::pair<int, int>> firstSize() const { return _firstSize; }
    // `list` with each sequence path expanded to `frame`: what `kel render` reads for that frame.
    std::vector<ParameterOption> pathsAt(std::vector<ParameterOption> list, int frame) const;

private:
    struct Input {
        std::string name;
        std::string path;
        bool sequence = false;
        int frame = 0;  // of `image`, for a sequence
        PxNodePtr<const PxImageProtocol> image;
    };
    const PxNodePtr<const PxImageProtocol>& image(Input& input, int frame);

    std::vector<Input> _inputs;
    std::vector<std::string> _names;
    std::optional<std::pair<int, int>> _firstSize;
};

}  // namespace Zt::KelApp
