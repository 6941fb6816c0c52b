#include "liveInputs.h"

#include "kelImageFiles.h"

namespace Zt::KelApp {

LiveInputs::LiveInputs(const Invocation& in) {
    for (const ParameterOption& p : in.parameters) {
        if (p.type != PebInterpreterTypes::Image) continue;
        if (!p.value) throw UsageError("live needs a file for the image input: -i " + p.name + "=FILE");
        Input input{p.name, *p.value, in.frames && hasFramePattern(*p.value), 0, nullptr};
        if (input.sequence)
            for (int f = in.frames->first + 1; f <= in.frames->second; ++f) checkReadable(expandFramePath(input.path, f));
        const int first = in.frames ? in.frames->first : 0;
        input.frame = first - 1;  // nothing read yet
        const PxNodePtr<const PxImageProtocol>& read = image(input, first);
        if (!_firstSize) {
            const auto* memory = dynamic_cast<const PxMemoryImage*>(read.get());
            _firstSize = std::pair(memory->width(), memory->height());
        }
        _names.push_back(p.name);
        _inputs.push_back(std::move(input));
    }
}

const PxNodePtr<const PxImageProtocol>& LiveInputs::image(Input& input, int frame) {
    if (input.image && (!input.sequence || input.frame == frame)) return input.image;
    if (input.sequence) {
        // A frame of a sequence holds at its own time only, as in `kel render`.
        input.image = readImage(expandFramePath(input.path, frame), PxValidityInterval(frame, 2, frame, 2));
        input.frame = frame;
    } else {
        input.image = readImage(input.path, PxValidityInterval::getFull());
    }
    return input.image;
}

Vector<PxNodePtr<const PxImageProtocol>> LiveInputs::at(int frame) {
    Vector<PxNodePtr<const PxImageProtocol>> result;
    for (Input& input : _inputs) result.push_back(image(input, frame));
    return result;
}

PxNodePtr<const PxImageProtocol> LiveInputs::find(const std::string& name, int frame) {
    for (Input& input : _inputs)
        if (input.name == name) return image(input, frame);
    return nullptr;
}

std::vector<ParameterOption> LiveInputs::pathsAt(std::vector<ParameterOption> list, int frame) const {
    for (ParameterOption& p : list)
        for (const Input& input : _inputs)
            if (input.sequence && p.name == input.name) p.value = expandFramePath(input.path, frame);
    return list;
}

}  // namespace Zt::KelApp
