// Part 1.2: run info and tile evaluation, driven with hand-built trees (no parser).
#include <gtest/gtest.h>

#include "kelInterpreter.h"
#include "kelTreeBuilder.h"

using namespace Zt;
using namespace Zt::test;

namespace {

// Compiles a hand-built `main` into a run info as Part 1.1 steps 11 and 13 would.
RCShdPtr<PebRunInfo> compiled(const KelInterpreter& interpreter, const Vector<PebParameterInfo>& params,
                              const RCShdPtr<FunctionDeclarationNode>& function) {
    RCShdPtr<PebRunInfo> runInfo = interpreter.createRunInfo(params);
    KelRunInfo& info = static_cast<KelRunInfo&>(*runInfo);
    info.function = function;
    KelContext check(GeInterval<int>(0, 1), 0);
    function->check(check);
    info.variableCount = check.variableCount();
    info.usedNames = check.usedNames();
    return runInfo;
}

PxRODResult rodOf(float w, float h) { return {PxValidityInterval::getFull(), GeRectangle<float>(0, w, 0, h)}; }

}  // namespace

TEST(KelInterpreterEval, XCarriesScaleAndAspectAndYOnlyScale) {
    KelInterpreter interpreter;
    Vector<PebParameterInfo> params{{"out", PebInterpreterTypes::Color, true, true}};
    auto body = block({assign("out", "=", call<FunctionNewColor>("color", {var("x"), var("y"), var("t"), num(1)}))});
    auto runInfo = compiled(interpreter, params, mainOf(body, {output("color", "out")}));
    PxImageContext context;
    context.scaleLevel = 1;
    context.time = 7.0;
    context.tileWidth = 8;
    context.tileHeight = 8;
    IxPixelFormat format{2, 1};
    PxImageResult result = interpreter.eval(runInfo, {}, {}, rodOf(32, 16), format, context);
    const IxTile& tile = *result.getTile();
    EXPECT_EQ(tile.getRect(), GeRectangle<int>(0, 8, 0, 8));
    const Color& p = tile.row(3)[3];
    EXPECT_EQ(p.r, 12.0f);
    EXPECT_EQ(p.g, 6.0f);
    EXPECT_EQ(p.b, 7.0f);
    EXPECT_EQ(p.a, 1.0f);
    // Reads t: valid only around that instant.
    EXPECT_NEAR(result.getValidity().begin, 7.0 - PxValidityInterval::kEpsilon, 1e-12);
    EXPECT_NEAR(result.getValidity().end, 7.0 + PxValidityInterval::kEpsilon, 1e-12);
}

TEST(KelInterpreterEval, UnassignedOutputIsOpaqueBlackAndTileIsClipped) {
    KelInterpreter interpreter;
    Vector<PebParameterInfo> params{{"out", PebInterpreterTypes::Color, true, true}};
    auto runInfo = compiled(interpreter, params, mainOf(block({}), {output("color", "out")}));
    PxImageContext context;
    context.tileWidth = 4;
    context.tileHeight = 4;
    context.tileX = 1;
    PxImageResult result = interpreter.eval(runInfo, {}, {}, rodOf(6, 3), IxPixelFormat{1, 1}, context);
    EXPECT_EQ(result.getTile()->getRect(), GeRectangle<int>(4, 6, 0, 3));
    for (int y = 0; y < 3; ++y)
        for (int x = 4; x < 6; ++x) EXPECT_EQ(result.getTile()->row(y)[x - 4], Color(0, 0, 0, 1));
    EXPECT_EQ(result.getValidity(), PxValidityInterval::getFull());
}
