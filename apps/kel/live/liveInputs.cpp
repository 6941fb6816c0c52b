#include "liveInputs.h"

#include <map>
#include <mutex>

#include "kelImageFiles.h"

namespace Zt::KelApp {

namespace {

// An image input whose reduced pictures are kept: the page renders a proxy on every keystroke
// over the same plate, so each scale level is box-filtered once, when a tile first asks for it,
// and later tiles are read from it. The pixels are those of the image at that level, the fill
// colour outside included: a pixel rectangle at level L is the same grid of the kept picture at
// level 0.
class ReducedPictures : public PxImageProtocol {
public:
    explicit ReducedPictures(PxNodePtr<PxMemoryImage> image) : _image(std::move(image)) {}

    PxImageFormat getFormat() const override { return _image->getFormat(); }
    PxRODResult getROD(const PxImageContext& context) const override { return _image->getROD(context); }
    PxImageResult getImage(const PxImageContext& context) const override {
        if (context.scaleLevel == 0) return _image->getImage(context);
        PxImageContext sameGrid = context;
        sameGrid.scaleLevel = 0;
        return reduced(context).getImage(sameGrid);
    }

private:
    // Tiles come on many worker threads at once: the first builds the level, the others wait.
    const PxMemoryImage& reduced(const PxImageContext& context) const {
        std::lock_guard lock(_mutex);
        PxNodePtr<PxMemoryImage>& kept = _levels[context.scaleLevel];
        if (!kept) {
            const GeRectangle<int> rect = _image->pixelRect(context.scaleLevel);
            std::vector<Color> pixels;
            pixels.reserve(std::size_t(rect.width()) * std::size_t(rect.height()));
            for (int y = 0; y < rect.height(); ++y)
                for (int x = 0; x < rect.width(); ++x) pixels.push_back(_image->pixelAt(x, y, context.scaleLevel));
            kept = new PxMemoryImage(rect.width(), rect.height(), std::move(pixels), _image->getFormat(),
                                     _image->getROD(context).validity);
        }
        return *kept;
    }

    PxNodePtr<PxMemoryImage> _image;
    mutable std::mutex _mutex;
    mutable std::map<int, PxNodePtr<PxMemoryImage>> _levels;
};

}  // namespace

LiveInputs::LiveInputs(const Invocation& in) {
    for (const ParameterOption& p : in.parameters) {
        if (p.type != PebInterpreterTypes::Image) continue;
        if (!p.value) throw UsageError("live needs a file for the image input: -i " + p.name + "=FILE");
        Input input{p.name, *p.value, !in.frames.empty() && hasFramePattern(*p.value), 0, nullptr};
        if (input.sequence)
            for (int f : in.frames) checkReadable(expandFramePath(input.path, f));
        const int first = in.frames.empty() ? 0 : in.frames.front();
        input.frame = first - 1;  // nothing read yet
        const PxNodePtr<const PxImageProtocol>& read = image(input, first);
        if (!_firstSize) {
            const GeRectangle<int> rect = PxImageProtocol::nominalToPixelized(
                read->getROD(PxImageContext()).rect, read->getFormat().aspect(), 1.0f);
            _firstSize = std::pair(rect.width(), rect.height());
        }
        _names.push_back(p.name);
        _inputs.push_back(std::move(input));
    }
}

const PxNodePtr<const PxImageProtocol>& LiveInputs::image(Input& input, int frame) {
    if (input.image && (!input.sequence || input.frame == frame)) return input.image;
    if (input.sequence) {
        // A frame of a sequence holds at its own time only, as in `kel render`.
        input.image = new ReducedPictures(readImage(expandFramePath(input.path, frame), PxValidityInterval(frame, 2, frame, 2)));
        input.frame = frame;
    } else {
        input.image = new ReducedPictures(readImage(input.path, PxValidityInterval::getFull()));
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
