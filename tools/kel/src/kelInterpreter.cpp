// Part 1.2: run info and tile evaluation. `eval` prepares one KelContext for a tile, binds the
// node's parameters and input images to the script's variables, and runs `main` once per
// scanline, writing the output variable's row into the tile. The steps are numbered as in the
// spec; the five used-name lookups decide what work a tile pays for.
#include "kelInterpreter.h"

#include <algorithm>

namespace Zt {

namespace {

const Color kOpaqueBlack{0.0f, 0.0f, 0.0f, 1.0f};

// Part 1.2 step 4: the tile clipped by the definition rectangle, axis by axis.
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

// Part 1.2 step 16c: the nominal rectangle to the unit square, pixel centres included.
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

}  // namespace

RCShdPtr<PebRunInfo> KelInterpreter::createRunInfo(const Vector<PebParameterInfo>& params) const {
    return RCShdPtr<PebRunInfo>(new KelRunInfo(params));
}

PxImageResult KelInterpreter::eval(const RCShdPtr<PebRunInfo>& runInfo, const Vector<PxNodePtr<const PxImageProtocol>>& inputs,
                                   const Vector<double>& params, const PxRODResult& rod, const IxPixelFormat& format,
                                   const PxImageContext& context) const {
    // Steps 1 to 5: geometry.
    const float aspect = float(format.aspectNum) / float(format.aspectDen);
    const float scale = 1.0f / float(1 << context.scaleLevel);
    const GeRectangle<int> tileRect = PxImageProtocol::convertTilesToPixels(
        GeRectangle<int>(context.tileX, context.tileX + 1, context.tileY, context.tileY + 1), context);
    const GeRectangle<int> definition = PxImageProtocol::nominalToPixelized(rod.rect, aspect, scale);
    RCShdPtr<IxTile> tile(new IxTile(format, clipTile(tileRect, definition), Color::ZERO));
    const int x0 = tile->getRect().xMin, x1 = tile->getRect().xMax;
    const int y0 = tile->getRect().yMin, y1 = tile->getRect().yMax;

    // Steps 6 to 9: what the run info asks for.
    RCShdPtr<KelRunInfo> info = rcCheckedCast<KelRunInfo>(runInfo);
    const KelRunInfo& run = *info;
    PxValidityInterval validity = PxValidityInterval::getFull();
    validity.begin = std::max(validity.begin, rod.validity.begin);
    validity.end = std::min(validity.end, rod.validity.end);
    auto uses = [&run](const char* name) { return run.usedNames.count(name) != 0; };
    const bool usesT = uses("t"), usesSample0 = uses("sample0"), usesSample1 = uses("sample1");
    const bool usesY = uses("y"), usesX = uses("x");
    if (usesT) validity = PxValidityInterval(context.time, 2, context.time, 2);

    // Steps 10 to 12: the context, the parameters' ids, image rows 0 and 1.
    const GeInterval<int> columns(x0, x1);
    KelContext kc(columns, run.variableCount);
    run.function->declareParameters(kc);
    for (int row = 0; row < 2; ++row) {
        KelImageEntry entry;
        if (row == 1) {
            entry.nominalRect = rod.rect;
            entry.pixelRect = definition;
            entry.pixelAspectRatio = aspect;
        }
        entry.scanline = newRow(columns, 4, kOpaqueBlack);
        IxScanlineUtil::set(*entry.scanline, kOpaqueBlack, nullptr);
        kc.addImage(entry);
    }

    // Step 13: every input is computed for every tile.
    std::vector<PxImageResult> results;
    results.reserve(inputs.size());
    for (const auto& input : inputs) {
        results.push_back(input->getImage(context));
        results.back().reduceVI(validity);
    }
    // Step 14: the absence of inputs is not looked for by the spec; our host tolerates it.
    if (!results.empty()) tile->setFillColor(results.front().getFillColor());

    // Steps 15 and 16: parameters and images.
    std::string outputName;
    std::size_t floatIndex = 0, imageIndex = 0;
    for (const PebParameterInfo& p : run.getParams()) {
        if (p.isOutput()) {
            if (p.isVarying()) outputName = p.getName();
        } else if (p.getType() == PebInterpreterTypes::Float) {
            if (floatIndex >= params.size()) Assertions::throwAssertionFailed(__FILE__, __LINE__, "floatIndex < params.size()");
            kc.setVariable(kc.getVariableId(p.getName()), kc.newConstantFloat(float(params[floatIndex++]), 0));
        } else if (p.getType() == PebInterpreterTypes::Image) {
            const std::size_t i = imageIndex++;
            // Preconditions of Part 1.2 (settled by the controller), checked since an index past
            // the inputs or the numbers would read out of bounds.
            if (i >= inputs.size()) Assertions::throwAssertionFailed(__FILE__, __LINE__, "i < inputs.size()");
            kc.setVariable(kc.getVariableId(p.getName()), kc.newImage(float(i + 2), 0));
            const PxImageFormat inputFormat = inputs[i]->getFormat();
            KelImageEntry entry;
            entry.nominalRect = inputs[i]->getROD(context).rect;
            entry.pixelAspectRatio = float(inputFormat.aspectNum) / float(inputFormat.aspectDen);
            entry.pixelRect = PxImageProtocol::nominalToPixelized(entry.nominalRect, entry.pixelAspectRatio, scale);
            if (usesSample0) {
                SdTextureParams texture;
                texture.textureMatrix = textureMatrix(entry.nominalRect);
                texture.filterMode = 1;
                texture.wrapModeS = 0;
                texture.wrapModeT = 0;
                entry.sampler = PxImageTexture(inputs[i], context.timeScale(), texture).createSampler();
            }
            if (usesSample1) entry.scanline = newRow(columns, 0, results[i].getFillColor());
            kc.addImage(entry);
        }
    }
    // Step 17: link every sampler with every other.
    if (usesSample0) {
        for (std::size_t i = 2; i < kc.imageCount(); ++i)
            for (std::size_t j = 2; j < kc.imageCount(); ++j)
                if (i != j) kc.getImage(int(i)).sampler->linkSampler(kc.getImage(int(j)).sampler);
    }

    // Steps 18 to 21: the output value that lives through the tile, and x, y, t.
    const int outputId = kc.getVariableId(outputName);
    kc.setVariable(outputId, kc.newColor(0));
    const KelColorPtr outputValue = rcStaticCast<KelColor>(kc.getVariable(outputId));
    const int xId = kc.getVariableId("x"), yId = kc.getVariableId("y"), tId = kc.getVariableId("t");
    IxScanline<float>& yRow = rcStaticCast<KelFloat>(kc.getVariable(yId))->getScanline();
    IxScanlineUtil::set(rcStaticCast<KelFloat>(kc.getVariable(tId))->getScanline(), float(context.time), nullptr);
    if (usesX) {
        float* xs = rcStaticCast<KelFloat>(kc.getVariable(xId))->getScanline().data();
        for (int px = x0; px < x1; ++px) xs[px] = float(px) / scale * aspect;
    }

    // Step 22: the row loop.
    PxRequestMgr& requests = PxRequestMgr::getInstance();
    const IxWriteGuard writeGuard(tile);
    // A tile outside the definition rectangle in x keeps its rows in step 4, but a row of no
    // columns has nothing to compute: the loop runs no row (the spec's edge case).
    const int rowEnd = x0 < x1 ? y1 : y0;
    for (int y = y0; y < rowEnd; ++y) {
        requests.checkRequest();
        IxScanlineUtil::set(outputValue->getScanline(), kOpaqueBlack, nullptr);
        if (usesY) IxScanlineUtil::set(yRow, float(y) / scale, nullptr);
        if (usesSample1) {
            for (std::size_t i = 0; i < imageIndex; ++i)
                kc.getImage(int(i + 2)).scanline->readFrom(results[i].getTileGuard(), y);
        }
        run.function->eval(kc);
        outputValue->getScanline().writeTo(writeGuard, y);
    }

    // Step 23.
    return PxImageResult(tile, validity);
}

}  // namespace Zt
