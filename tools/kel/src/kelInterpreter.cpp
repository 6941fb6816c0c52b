// Running a compiled script over one tile. `eval` prepares one KelContext for the tile, binds the
// node's numbers and input images to the script's parameters, and runs `main` once per row,
// writing the output variable's row into the tile. Five used names (`t`, `x`, `y` and the two
// forms of `sample`) decide what work a tile pays for; a tile pays nothing for what the script
// does not read.
#include "kelInterpreter.h"

#include <algorithm>
#include <iterator>

namespace Zt {

namespace {

const Color kOpaqueBlack{0.0f, 0.0f, 0.0f, 1.0f};

// The tile clipped by the definition rectangle, axis by axis: a tile outside it in one axis keeps
// its extent in the other, with no width (or no height) at its own edge.
GeRectangle<int> clipTile(const GeRectangle<int>& tile, const GeRectangle<int>& definition) {
    if (tile.isEmpty()) return tile;
    if (definition.isEmpty()) return {tile.xMin, tile.xMin, tile.yMin, tile.yMin};
    GeRectangle<int> r;
    r.xMin = std::max(tile.xMin, definition.xMin);
    r.xMax = std::max(r.xMin, std::min(tile.xMax, definition.xMax));
    r.yMin = std::max(tile.yMin, definition.yMin);
    r.yMax = std::max(r.yMin, std::min(tile.yMax, definition.yMax));
    return r;
}

// Maps the nominal rectangle onto the unit square where the sampler reads, shifted by half a
// pixel so that position x reads the centre of pixel x. An empty side counts as one unit.
GeAffineMatrix2<float> textureMatrix(const GeRectangle<float>& nominal) {
    float w = nominal.xMax - nominal.xMin;
    float h = nominal.yMax - nominal.yMin;
    if (w == 0.0f) w = 1.0f;
    if (h == 0.0f) h = 1.0f;
    GeAffineMatrix2<float> m;
    m.m[0][0] = 1.0f / w;
    m.m[1][1] = 1.0f / h;
    m.m[2][0] = (0.5f - nominal.xMin) / w;
    m.m[2][1] = (0.5f - nominal.yMin) / h;
    return m;
}

RCStrongPtr<IxScanline<Color>> newRow(const GeInterval<int>& columns, int mode, const Color& pad) {
    return RCStrongPtr<IxScanline<Color>>(new IxScanline<Color>(columns, IxPaddingPolicy<Color>{mode, pad}));
}

// Each way of reading an image at coordinates: the used name of the call that reads so, and
// the host sampler's wrap mode for it, in the order of KelEdgeMode.
struct EdgeRead {
    KelEdgeMode mode;
    const char* usedName;
    int wrapMode;
};
constexpr EdgeRead kEdgeReads[] = {
    {KelEdgeMode::Transparent, "sample0",       SdTextureParams::kWrapFill},
    {KelEdgeMode::Clamp,       "sampleClamp0",  SdTextureParams::kWrapClamp},
    {KelEdgeMode::Wrap,        "sampleWrap0",   SdTextureParams::kWrapRepeat},
    {KelEdgeMode::Mirror,      "sampleMirror0", SdTextureParams::kWrapMirror},
};
static_assert(std::size(kEdgeReads) == std::size_t(KelEdgeMode::Count), "one row per edge mode");
constexpr bool edgeReadsInOrder() {
    for (std::size_t i = 0; i < std::size(kEdgeReads); ++i)
        if (int(kEdgeReads[i].mode) != int(i)) return false;
    return true;
}
static_assert(edgeReadsInOrder(), "rows in the order of KelEdgeMode");

// The used names that decide what a tile pays for.
struct CostlyNames {
    explicit CostlyNames(const KelRunInfo& run)
        : time(uses(run, "t")), x(uses(run, "x")), y(uses(run, "y")), inputRows(uses(run, "sample1")) {
        for (const EdgeRead& read : kEdgeReads) samplers[int(read.mode)] = uses(run, read.usedName);
    }
    static bool uses(const KelRunInfo& run, const char* name) { return run.usedNames.count(name) != 0; }
    bool anySampler() const { return std::find(std::begin(samplers), std::end(samplers), true) != std::end(samplers); }

    bool time;       // the result is valid at this time only
    bool x, y;       // the coordinate rows are filled
    bool samplers[int(KelEdgeMode::Count)] = {};  // sample(image, x, y) and its edge forms: a sampler per input
    bool inputRows;  // sample(image): each input's row y, read before the script runs on it
};

// One call of `eval`: the tile, the context the script runs in, and the values that pass between
// them. The steps run in the order of `run`; each is one member function.
class TileEvaluation {
public:
    TileEvaluation(const KelRunInfo& run, const PxRODResult& rod, const IxPixelFormat& format, const PxImageContext& context)
        : _run(run),
          _rod(rod),
          _context(context),
          _names(run),
          _aspect(float(format.aspectNum) / float(format.aspectDen)),
          _scale(1.0f / float(1 << context.scaleLevel)),
          _definition(PxImageProtocol::nominalToPixelized(rod.rect, _aspect, _scale)),
          _tile(new IxTile(format, clipTile(tileRectangle(context), _definition), Color::ZERO, context.destination)),
          _columns(_tile->getRect().xMin, _tile->getRect().xMax),
          _kc(_columns, run.variableCount) {}

    PxImageResult run(const Vector<PxNodePtr<const PxImageProtocol>>& inputs, const Vector<double>& params) {
        _validity = validity();
        _kc.random().setFrame(_context.seed, _context.time);
        _run.function->declareParameters(_kc);
        addNoImageAndOutputEntries();
        computeInputs(inputs);
        bindParameters(inputs, params);
        if (_names.anySampler()) linkSamplers();
        makeOutputAndCoordinateRows();
        runRows();
        return PxImageResult(_tile, _validity);
    }

private:
    static GeRectangle<int> tileRectangle(const PxImageContext& context) {
        return PxImageProtocol::convertTilesToPixels(
            GeRectangle<int>(context.tileX, context.tileX + 1, context.tileY, context.tileY + 1), context);
    }

    // What the frame range allows, narrowed to the current time when the script reads `t`.
    PxValidityInterval validity() const {
        if (_names.time) return PxValidityInterval(_context.time, 2, _context.time, 2);
        PxValidityInterval validity = PxValidityInterval::getFull();
        validity.begin = std::max(validity.begin, _rod.validity.begin);
        validity.end = std::min(validity.end, _rod.validity.end);
        return validity;
    }

    // Image id 0 is no image, id 1 the output (for getOutputImage and the image queries); both
    // read as opaque black.
    void addNoImageAndOutputEntries() {
        for (int id = 0; id < 2; ++id) {
            KelImageEntry entry;
            if (id == 1) {
                entry.nominalRect = _rod.rect;
                entry.pixelRect = _definition;
                entry.pixelAspectRatio = _aspect;
            }
            entry.scanline = newRow(_columns, IxPaddingPolicy<Color>::kPadWithValue, kOpaqueBlack);
            IxScanlineUtil::set(*entry.scanline, kOpaqueBlack, nullptr);
            _kc.addImage(entry);
        }
    }

    // Every input is computed for every tile, used or not, and narrows the validity. The tile
    // takes the first input's fill colour; without inputs it stays transparent black.
    void computeInputs(const Vector<PxNodePtr<const PxImageProtocol>>& inputs) {
        _inputTiles.reserve(inputs.size());
        PxImageContext inputContext = _context;
        inputContext.destination = nullptr;  // the caller's pixels are for this node's tile only
        for (const auto& input : inputs) {
            _inputTiles.push_back(input->getImage(inputContext));
            _inputTiles.back().reduceVI(_validity);
        }
        if (!_inputTiles.empty()) _tile->setFillColor(_inputTiles.front().getFillColor());
    }

    // Float parameters take the node's numbers in order, image parameters the inputs in order
    // (image id i + 2 for input i); the varying output parameter names the output variable.
    void bindParameters(const Vector<PxNodePtr<const PxImageProtocol>>& inputs, const Vector<double>& params) {
        std::size_t floatIndex = 0;
        for (const PebParameterInfo& p : _run.getParams()) {
            if (p.isOutput()) {
                if (p.isVarying()) _outputName = p.getName();
            } else if (p.getType() == PebInterpreterTypes::Float) {
                // The controller gives as many numbers and inputs as the script has parameters;
                // checked, since one past the end would read out of bounds.
                if (floatIndex >= params.size()) Assertions::throwAssertionFailed(__FILE__, __LINE__, "floatIndex < params.size()");
                _kc.setVariable(_kc.getVariableId(p.getName()), _kc.newConstantFloat(float(params[floatIndex++]), 0));
            } else if (p.getType() == PebInterpreterTypes::Image) {
                const std::size_t i = _inputCount++;
                if (i >= inputs.size()) Assertions::throwAssertionFailed(__FILE__, __LINE__, "i < inputs.size()");
                _kc.setVariable(_kc.getVariableId(p.getName()), _kc.newImage(float(i + 2), 0));
                _kc.addImage(inputEntry(inputs[i], _inputTiles[i]));
            }
        }
    }

    // An input's geometry, with a sampler or a row when the script reads it that way.
    KelImageEntry inputEntry(const PxNodePtr<const PxImageProtocol>& input, const PxImageResult& tile) const {
        const PxImageFormat inputFormat = input->getFormat();
        KelImageEntry entry;
        entry.nominalRect = input->getROD(_context).rect;
        entry.pixelAspectRatio = float(inputFormat.aspectNum) / float(inputFormat.aspectDen);
        entry.pixelRect = PxImageProtocol::nominalToPixelized(entry.nominalRect, entry.pixelAspectRatio, _scale);
        for (const EdgeRead& read : kEdgeReads) {
            if (!_names.samplers[int(read.mode)]) continue;
            SdTextureParams texture;
            texture.textureMatrix = textureMatrix(entry.nominalRect);
            texture.filterMode = 1;  // bilinear
            texture.wrapModeS = read.wrapMode;
            texture.wrapModeT = read.wrapMode;
            entry.samplerFor(read.mode) = PxImageTexture(input, _context.timeScale(), texture).createSampler();
        }
        if (_names.inputRows) entry.scanline = newRow(_columns, IxPaddingPolicy<Color>::kPadWithFillColor, tile.getFillColor());
        return entry;
    }

    // Each sampler of the tile is linked with every other, so that they share what they have read.
    void linkSamplers() {
        std::vector<RCStrongPtr<const SdTextureSampler>> all;
        for (std::size_t i = 2; i < _kc.imageCount(); ++i)
            for (const EdgeRead& read : kEdgeReads)
                if (_names.samplers[int(read.mode)]) all.push_back(_kc.getImage(int(i)).samplerFor(read.mode));
        for (std::size_t i = 0; i < all.size(); ++i)
            for (std::size_t j = 0; j < all.size(); ++j)
                if (i != j) all[i]->linkSampler(all[j]);
    }

    // The output value lives through the tile. `x` and `y` are nominal coordinates: a column
    // times the aspect ratio, both divided by the scale; `t` is the context's time.
    void makeOutputAndCoordinateRows() {
        const int outputId = _kc.getVariableId(_outputName);
        _kc.setVariable(outputId, _kc.newColor(0));
        _output = rcStaticCast<KelColor>(_kc.getVariable(outputId));
        _yRow = &rcStaticCast<KelFloat>(_kc.getVariable(_kc.getVariableId("y")))->getScanline();
        IxScanlineUtil::set(rcStaticCast<KelFloat>(_kc.getVariable(_kc.getVariableId("t")))->getScanline(), float(_context.time),
                            nullptr);
        if (_names.x) {
            float* xs = rcStaticCast<KelFloat>(_kc.getVariable(_kc.getVariableId("x")))->getScanline().data();
            for (int px = _columns.min; px < _columns.max; ++px) xs[px] = float(px) / _scale * _aspect;
        }
    }

    // A tile outside the definition in x keeps its rows but has no columns: it runs no row.
    // The output value is lent the tile's row (writeTo then has nothing to copy), and each input's
    // row the input tile's row; both are taken back before the tiles can go.
    void runRows() {
        const GeRectangle<int>& rect = _tile->getRect();
        const int rowEnd = rect.xMin < rect.xMax ? rect.yMax : rect.yMin;
        PxRequestMgr& requests = PxRequestMgr::getInstance();
        const IxWriteGuard writeGuard(_tile);
        IxScanline<Color>& output = _output->getScanline();
        for (int y = rect.yMin; y < rowEnd; ++y) {
            requests.checkRequest();
            output.lend(_tile->row(y));
            runRow(y);
            output.writeTo(writeGuard, y);
        }
        output.reclaim();
        for (std::size_t i = 0; _names.inputRows && i < _inputCount; ++i) _kc.getImage(int(i + 2)).scanline->reclaim();
    }

    // The output starts each row opaque black, unless the script writes it all before reading
    // it; the script sees row y of every input.
    void runRow(int y) {
        if (!_run.outputWrittenFirst) IxScanlineUtil::set(_output->getScanline(), kOpaqueBlack, nullptr);
        _kc.random().startRow(y);
        if (_names.y) IxScanlineUtil::set(*_yRow, float(y) / _scale, nullptr);
        if (_names.inputRows) {
            for (std::size_t i = 0; i < _inputCount; ++i) _kc.getImage(int(i + 2)).scanline->lendFrom(_inputTiles[i].getTileGuard(), y);
        }
        _run.function->eval(_kc);
    }

    const KelRunInfo& _run;
    const PxRODResult& _rod;
    const PxImageContext& _context;
    const CostlyNames _names;
    const float _aspect;
    const float _scale;
    const GeRectangle<int> _definition;  // the output's, in pixels at this scale
    const RCShdPtr<IxTile> _tile;
    const GeInterval<int> _columns;
    KelContext _kc;
    PxValidityInterval _validity;
    std::vector<PxImageResult> _inputTiles;
    std::size_t _inputCount = 0;  // image parameters bound, each to the input of its rank
    std::string _outputName;
    KelColorPtr _output;
    IxScanline<float>* _yRow = nullptr;
};

}  // namespace

RCShdPtr<PebRunInfo> KelInterpreter::createRunInfo(const Vector<PebParameterInfo>& params) const {
    return RCShdPtr<PebRunInfo>(new KelRunInfo(params));
}

PxImageResult KelInterpreter::eval(const RCShdPtr<PebRunInfo>& runInfo, const Vector<PxNodePtr<const PxImageProtocol>>& inputs,
                                   const Vector<double>& params, const PxRODResult& rod, const IxPixelFormat& format,
                                   const PxImageContext& context) const {
    RCShdPtr<KelRunInfo> info = rcCheckedCast<KelRunInfo>(runInfo);
    return TileEvaluation(*info, rod, format, context).run(inputs, params);
}

}  // namespace Zt
