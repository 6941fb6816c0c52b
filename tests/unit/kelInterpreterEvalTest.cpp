// Part 1.2: run info and tile evaluation, driven with hand-built trees (no parser) and memory
// images. A ProbeNode at the end of `main` looks into the tile's context after each row.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <new>
#include <thread>

#include "kelEvalTestSupport.h"
#include "kelTreeBuilder.h"

// Counts the heap allocations of this program, to show that a row in the steady state makes
// none. Not under AddressSanitizer, which owns operator new there.
#if !defined(__SANITIZE_ADDRESS__)
#define KEL_COUNTS_ALLOCATIONS 1
namespace {
std::atomic<long> gAllocations{0};
void* countedAllocation(std::size_t n, std::size_t alignment) {
    ++gAllocations;
    n = n == 0 ? 1 : n;
    void* p = alignment <= alignof(std::max_align_t) ? std::malloc(n) : std::aligned_alloc(alignment, (n + alignment - 1) / alignment * alignment);
    if (!p) throw std::bad_alloc();
    return p;
}
}  // namespace
void* operator new(std::size_t n) { return countedAllocation(n, 0); }
void* operator new(std::size_t n, std::align_val_t a) { return countedAllocation(n, std::size_t(a)); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete(void* p, std::align_val_t) noexcept { std::free(p); }
void operator delete(void* p, std::size_t, std::align_val_t) noexcept { std::free(p); }
#endif

using namespace Zt;
using namespace Zt::test;

namespace {

const Color kOpaqueBlack(0, 0, 0, 1);

// A statement that calls `probe` with the context at each evaluation; checks to nothing.
class ProbeNode : public KelSyntaxTree {
public:
    explicit ProbeNode(std::function<void(KelContext&)> probe) : _probe(std::move(probe)) {}
    RCShdPtr<KelValue> eval(KelContext& context) const override {
        _probe(context);
        return nullptr;
    }

private:
    std::function<void(KelContext&)> _probe;
};
KelNodePtr probe(std::function<void(KelContext&)> f) { return new ProbeNode(std::move(f)); }

// A still whose tiles carry the fill colour `fill` (the memory image's is transparent black).
class FilledImage : public PxImageProtocol {
public:
    FilledImage(PxNodePtr<const PxImageProtocol> inner, const Color& fill, const PxValidityInterval& validity)
        : _inner(std::move(inner)), _fill(fill), _validity(validity) {}
    PxImageFormat getFormat() const override { return _inner->getFormat(); }
    PxRODResult getROD(const PxImageContext& c) const override { return _inner->getROD(c); }
    PxImageResult getImage(const PxImageContext& c) const override {
        PxImageResult r = _inner->getImage(c);
        r.getTile()->setFillColor(_fill);
        return PxImageResult(r.getTile(), _validity);
    }

private:
    PxNodePtr<const PxImageProtocol> _inner;
    Color _fill;
    PxValidityInterval _validity;
};

KelNodePtr colorOf(const KelNodePtr& r, const KelNodePtr& g, const KelNodePtr& b, const KelNodePtr& a) {
    return call<FunctionNewColor>("color", {r, g, b, a});
}
KelNodePtr samplePixel(const KelNodePtr& image) { return call<FunctionSample>("sample", {image}); }
KelNodePtr outputImage() { return call<FunctionGetOutputImage>("getOutputImage", {}); }

// The common run info of these tests: `out = <value>` plus optional probe, over `params`.
RCShdPtr<PebRunInfo> scriptOf(const KelInterpreter& interpreter, const Vector<PebParameterInfo>& params,
                              std::initializer_list<KelParameterPtr> parameters, std::initializer_list<KelNodePtr> statements) {
    return compiledRunInfo(interpreter, params, mainOf(block(statements), parameters));
}

}  // namespace

// ---- Geometry and implicit variables ---------------------------------------------------------

TEST(KelInterpreterEval, CreateRunInfoHoldsTheParametersAndNothingElse) {
    KelInterpreter interpreter;
    RCShdPtr<PebRunInfo> info = interpreter.createRunInfo({floatInput("gain"), colorOutput("out")});
    const KelRunInfo& run = static_cast<const KelRunInfo&>(*info);
    ASSERT_EQ(run.getParams().size(), 2u);
    EXPECT_EQ(run.getParams()[0].getName(), "gain");
    EXPECT_EQ(run.getParams()[1].getName(), "out");
    EXPECT_TRUE(run.function.isNull());
    EXPECT_TRUE(run.usedNames.empty());
}

TEST(KelInterpreterEval, AtScaleLevel1WithAspect2Column3HasX12AndRow3HasY6) {
    KelInterpreter interpreter;
    auto runInfo = scriptOf(interpreter, {colorOutput("out")}, {output("color", "out")},
                            {assign("out", "=", colorOf(var("x"), var("y"), var("t"), num(1)))});
    PxImageResult result = interpreter.eval(runInfo, {}, {}, rodOf(32, 16), IxPixelFormat{2, 1}, tileContext(0, 0, 8, 8, 1, 7.0));
    EXPECT_EQ(result.getTile()->getRect(), GeRectangle<int>(0, 8, 0, 8));
    EXPECT_EQ(pixelOf(result, 3, 3), Color(12, 6, 7, 1));
    EXPECT_EQ(pixelOf(result, 0, 0), Color(0, 0, 7, 1));
    EXPECT_EQ(pixelOf(result, 7, 5), Color(28, 10, 7, 1));
}

TEST(KelInterpreterEval, TileIsClippedToTheDefinitionRectangleAxisByAxis) {
    KelInterpreter interpreter;
    auto runInfo = scriptOf(interpreter, {colorOutput("out")}, {output("color", "out")}, {});
    PxImageResult result = interpreter.eval(runInfo, {}, {}, rodOf(6, 3), IxPixelFormat{}, tileContext(1, 0, 4, 4));
    EXPECT_EQ(result.getTile()->getRect(), GeRectangle<int>(4, 6, 0, 3));
}

// Outside in x only: step 4 keeps the rows (12, 12, 0, 4), but a row of no columns runs nothing.
// Outside in both axes: the rectangle is empty both ways.
TEST(KelInterpreterEval, TileOutsideTheDefinitionRectangleIsEmptyYetEveryInputIsComputed) {
    KelInterpreter interpreter;
    RCShdPtr<CountingImage> a(new CountingImage(memoryImage(4, 4, coordinatePixels())));
    RCShdPtr<CountingImage> b(new CountingImage(memoryImage(4, 4, coordinatePixels())));
    const Vector<PxNodePtr<const PxImageProtocol>> inputs{PxNodePtr<const PxImageProtocol>(a.get()),
                                                          PxNodePtr<const PxImageProtocol>(b.get())};
    int rows = 0;
    // The script reads neither input.
    auto runInfo = scriptOf(interpreter, {imageInput("a"), imageInput("b"), colorOutput("out")},
                            {input("image", "a"), input("image", "b"), output("color", "out")},
                            {probe([&](KelContext&) { ++rows; })});
    PxRequestMgr::getInstance().setCheckBudget(0);  // a row would throw
    PxImageResult beside = interpreter.eval(runInfo, inputs, {}, rodOf(4, 4), IxPixelFormat{}, tileContext(3, 0, 4, 4));
    PxImageResult above = interpreter.eval(runInfo, inputs, {}, rodOf(4, 4), IxPixelFormat{}, tileContext(3, 2, 4, 4));
    PxRequestMgr::getInstance().setCheckBudget(-1);
    EXPECT_EQ(beside.getTile()->getRect(), GeRectangle<int>(12, 12, 0, 4));
    EXPECT_EQ(above.getTile()->getRect(), GeRectangle<int>(12, 12, 8, 8));
    EXPECT_TRUE(beside.getTile()->getRect().isEmpty());
    EXPECT_EQ(rows, 0);
    EXPECT_EQ(a->imageCalls.load(), 2);
    EXPECT_EQ(b->imageCalls.load(), 2);
}

TEST(KelInterpreterEval, EmptyDefinitionRectangleGivesTheEmptyRectangleAtTheTilesCorner) {
    KelInterpreter interpreter;
    auto runInfo = scriptOf(interpreter, {colorOutput("out")}, {output("color", "out")}, {});
    PxImageResult result = interpreter.eval(runInfo, {}, {}, rodOf(0, 5), IxPixelFormat{}, tileContext(1, 2, 4, 4));
    EXPECT_EQ(result.getTile()->getRect(), GeRectangle<int>(4, 4, 8, 8));
}

TEST(KelInterpreterEval, UnassignedOutputIsOpaqueBlackWithTheFirstInputsFillColour) {
    KelInterpreter interpreter;
    const Color fill(0.25f, 0.5f, 0.75f, 0.125f);
    PxNodePtr<const PxImageProtocol> src(new FilledImage(memoryImage(3, 2, coordinatePixels()), fill, PxValidityInterval::getFull()));
    PxNodePtr<const PxImageProtocol> other(
        new FilledImage(memoryImage(3, 2, coordinatePixels()), Color(1, 1, 1, 1), PxValidityInterval::getFull()));
    auto runInfo = scriptOf(interpreter, {imageInput("src"), imageInput("other"), colorOutput("out")},
                            {input("image", "src"), input("image", "other"), output("color", "out")}, {});
    PxImageResult result = interpreter.eval(runInfo, {src, other}, {}, rodOf(3, 2), IxPixelFormat{}, tileContext(0, 0, 4, 4));
    EXPECT_EQ(result.getTile()->getRect(), GeRectangle<int>(0, 3, 0, 2));
    for (int y = 0; y < 2; ++y)
        for (int x = 0; x < 3; ++x) EXPECT_EQ(pixelOf(result, x, y), kOpaqueBlack);
    EXPECT_EQ(result.getFillColor(), fill);
}

// ---- Validity --------------------------------------------------------------------------------

TEST(KelInterpreterEval, WithoutTTheIntervalIsRodsNarrowedByTheInputs) {
    KelInterpreter interpreter;
    PxNodePtr<const PxImageProtocol> a(new FilledImage(memoryImage(2, 2, coordinatePixels()), Color::ZERO, PxValidityInterval(-5, 50)));
    PxNodePtr<const PxImageProtocol> b(new FilledImage(memoryImage(2, 2, coordinatePixels()), Color::ZERO, PxValidityInterval(-20, 8)));
    auto runInfo = scriptOf(interpreter, {imageInput("a"), imageInput("b"), colorOutput("out")},
                            {input("image", "a"), input("image", "b"), output("color", "out")}, {});
    PxImageResult result =
        interpreter.eval(runInfo, {a, b}, {}, rodOf(2, 2, PxValidityInterval(-10, 10)), IxPixelFormat{}, tileContext(0, 0, 2, 2, 0, 3.0));
    EXPECT_EQ(result.getValidity(), PxValidityInterval(-5, 8));
}

TEST(KelInterpreterEval, WithTTheIntervalIsAnInstantAroundTimeNarrowedByTheInputs) {
    KelInterpreter interpreter;
    auto runInfo = scriptOf(interpreter, {colorOutput("out")}, {output("color", "out")},
                            {assign("out", "=", colorOf(var("t"), num(0), num(0), num(1)))});
    PxImageResult result = interpreter.eval(runInfo, {}, {}, rodOf(2, 2, PxValidityInterval(-10, 10)), IxPixelFormat{},
                                            tileContext(0, 0, 2, 2, 0, 3.0));
    EXPECT_EQ(result.getValidity(), PxValidityInterval(3.0 - PxValidityInterval::kEpsilon, 3.0 + PxValidityInterval::kEpsilon));
    EXPECT_NEAR(result.getValidity().end - result.getValidity().begin, 1.0 / 96000000.0, 1e-15);
    EXPECT_EQ(pixelOf(result, 1, 1).r, 3.0f);

    // An input valid until just after time narrows the instant's end.
    PxNodePtr<const PxImageProtocol> a(
        new FilledImage(memoryImage(2, 2, coordinatePixels()), Color::ZERO, PxValidityInterval(0.0, 3.0 + 1e-9)));
    auto withInput = scriptOf(interpreter, {imageInput("a"), colorOutput("out")}, {input("image", "a"), output("color", "out")},
                              {assign("out", "=", colorOf(var("t"), num(0), num(0), num(1)))});
    PxImageResult narrowed = interpreter.eval(withInput, {a}, {}, rodOf(2, 2), IxPixelFormat{}, tileContext(0, 0, 2, 2, 0, 3.0));
    EXPECT_EQ(narrowed.getValidity(), PxValidityInterval(3.0 - PxValidityInterval::kEpsilon, 3.0 + 1e-9));
}

// ---- Parameters ------------------------------------------------------------------------------

TEST(KelInterpreterEval, TwoFloatsAroundAnImageTakeParams0And1AndTheImageTakesInputs0) {
    KelInterpreter interpreter;
    PxNodePtr<const PxImageProtocol> src = memoryImage(2, 1, coordinatePixels(5));
    auto runInfo = scriptOf(interpreter, {floatInput("p"), imageInput("src"), floatInput("q"), colorOutput("out")},
                            {input("float", "p"), input("image", "src"), input("float", "q"), output("color", "out")},
                            {assign("out", "=", colorOf(var("p"), var("q"), call<FunctionB>("b", {samplePixel(var("src"))}), num(1)))});
    PxImageResult result = interpreter.eval(runInfo, {src}, {1.5, 2.5}, rodOf(2, 1), IxPixelFormat{}, tileContext(0, 0, 2, 1));
    EXPECT_EQ(pixelOf(result, 1, 0), Color(1.5f, 2.5f, 5.0f, 1.0f));
}

TEST(KelInterpreterEval, ADoubleParameterLosesPrecisionToSingleFloat) {
    KelInterpreter interpreter;
    auto runInfo = scriptOf(interpreter, {floatInput("g"), colorOutput("out")}, {input("float", "g"), output("color", "out")},
                            {assign("out", "=", colorOf(var("g"), var("g"), var("g"), num(1)))});
    PxImageResult result = interpreter.eval(runInfo, {}, {0.1}, rodOf(1, 1), IxPixelFormat{}, tileContext(0, 0, 1, 1));
    EXPECT_EQ(pixelOf(result, 0, 0).r, 0.1f);
    EXPECT_NE(double(pixelOf(result, 0, 0).r), 0.1);
}

TEST(KelInterpreterEval, ParametersAreConstAndUniformAndImagesHoldTheirIds) {
    KelInterpreter interpreter;
    PxNodePtr<const PxImageProtocol> a = memoryImage(2, 2, coordinatePixels());
    PxNodePtr<const PxImageProtocol> b = memoryImage(2, 2, coordinatePixels());
    bool probed = false;
    auto runInfo = scriptOf(interpreter, {imageInput("a"), floatInput("g"), imageInput("b"), colorOutput("out")},
                            {input("image", "a"), input("float", "g"), input("image", "b"), output("color", "out")},
                            {probe([&](KelContext& c) {
                                probed = true;
                                KelValuePtr g = c.getVariable(c.getVariableId("g"));
                                EXPECT_TRUE(g->isConst());
                                EXPECT_TRUE(g->isUniform());
                                KelValuePtr ia = c.getVariable(c.getVariableId("a"));
                                KelValuePtr ib = c.getVariable(c.getVariableId("b"));
                                EXPECT_TRUE(ia->isType(KelValueTypes::Image));
                                EXPECT_TRUE(ia->isConst());
                                EXPECT_TRUE(ia->isUniform());
                                EXPECT_EQ(rcStaticCast<KelImage>(ia)->getScanline()[0], 2.0f);
                                EXPECT_EQ(rcStaticCast<KelImage>(ib)->getScanline()[1], 3.0f);
                                KelValuePtr out = c.getVariable(c.getVariableId("out"));
                                EXPECT_TRUE(out->isType(KelValueTypes::Color));
                                EXPECT_FALSE(out->isUniform());
                                for (const char* name : {"x", "y", "t"}) {
                                    KelValuePtr v = c.getVariable(c.getVariableId(name));
                                    EXPECT_TRUE(v->isConst()) << name;
                                    EXPECT_FALSE(v->isUniform()) << name;
                                }
                            })});
    interpreter.eval(runInfo, {a, b}, {4.0}, rodOf(2, 2), IxPixelFormat{}, tileContext(0, 0, 2, 1));
    EXPECT_TRUE(probed);
}

TEST(KelInterpreterEval, ColourInputsGetNoValue) {
    KelInterpreter interpreter;
    bool probed = false;
    auto runInfo = scriptOf(interpreter, {{"tint", PebInterpreterTypes::Color, false, false}, colorOutput("out")},
                            {input("color", "tint"), output("color", "out")}, {probe([&](KelContext& c) {
                                probed = true;
                                EXPECT_TRUE(c.getVariable(c.getVariableId("tint")).isNull());
                            })});
    interpreter.eval(runInfo, {}, {}, rodOf(1, 1), IxPixelFormat{}, tileContext(0, 0, 1, 1));
    EXPECT_TRUE(probed);
}

TEST(KelInterpreterEval, OfSeveralVaryingOutputsTheLastWinsAndOtherOutputsAreIgnored) {
    KelInterpreter interpreter;
    auto runInfo = scriptOf(interpreter,
                            {colorOutput("first"), colorOutput("second"), {"note", PebInterpreterTypes::Float, true, false}},
                            {output("color", "first"), output("color", "second"), output("float", "note")},
                            {assign("second", "=", colorOf(num(0.5f), num(0.5f), num(0.5f), num(1))), probe([](KelContext& c) {
                                 // Only the output gets a value.
                                 EXPECT_TRUE(c.getVariable(c.getVariableId("first")).isNull());
                                 EXPECT_TRUE(c.getVariable(c.getVariableId("note")).isNull());
                             })});
    PxImageResult result = interpreter.eval(runInfo, {}, {}, rodOf(1, 1), IxPixelFormat{}, tileContext(0, 0, 1, 1));
    EXPECT_EQ(pixelOf(result, 0, 0), Color(0.5f, 0.5f, 0.5f, 1.0f));
}

TEST(KelInterpreterEval, AnUnknownOutputNameFiresTheContextsAssertion) {
    KelInterpreter interpreter;
    auto runInfo = scriptOf(interpreter, {colorOutput("out")}, {output("color", "out")}, {});
    RCShdPtr<PebRunInfo> renamed = interpreter.createRunInfo({colorOutput("elsewhere")});
    static_cast<KelRunInfo&>(*renamed).function = static_cast<KelRunInfo&>(*runInfo).function;
    static_cast<KelRunInfo&>(*renamed).variableCount = static_cast<KelRunInfo&>(*runInfo).variableCount;
    try {
        interpreter.eval(renamed, {}, {}, rodOf(1, 1), IxPixelFormat{}, tileContext(0, 0, 1, 1));
        ADD_FAILURE() << "no assertion";
    } catch (const ExAssertionFailed& e) {
        EXPECT_EQ(e.getReason(), "id < _variables.size()");
    }
}

TEST(KelInterpreterEval, ARunInfoOfAnotherClassIsACastFailureAndNullANullPointer) {
    KelInterpreter interpreter;
    RCShdPtr<PebRunInfo> foreign(new PebRunInfo({colorOutput("out")}));
    EXPECT_THROW(interpreter.eval(foreign, {}, {}, rodOf(1, 1), IxPixelFormat{}, tileContext(0, 0, 1, 1)), ExCastFailed);
    EXPECT_THROW(interpreter.eval(RCShdPtr<PebRunInfo>(), {}, {}, rodOf(1, 1), IxPixelFormat{}, tileContext(0, 0, 1, 1)), ExNullPtr);
}

// ---- The image table -------------------------------------------------------------------------

TEST(KelInterpreterEval, ImageRows0And1AreNoImageAndTheOutput) {
    KelInterpreter interpreter;
    PxNodePtr<const PxImageProtocol> src = memoryImage(3, 3, coordinatePixels(), IxPixelFormat{1, 2});
    bool probed = false;
    auto runInfo = scriptOf(interpreter, {imageInput("src"), colorOutput("out")}, {input("image", "src"), output("color", "out")},
                            {probe([&](KelContext& c) {
                                probed = true;
                                ASSERT_EQ(c.imageCount(), 3u);
                                const KelImageEntry& none = c.getImage(0);
                                EXPECT_EQ(none.pixelRect, GeRectangle<int>());
                                EXPECT_EQ(none.nominalRect, GeRectangle<float>());
                                EXPECT_EQ(none.pixelAspectRatio, 0.0f);
                                EXPECT_TRUE(none.sampler.isNull());
                                ASSERT_FALSE(none.scanline.isNull());
                                EXPECT_EQ((*none.scanline)[4], kOpaqueBlack);
                                EXPECT_EQ(none.scanline->getPolicy().mode, 4);
                                const KelImageEntry& output = c.getImage(1);
                                EXPECT_EQ(output.nominalRect, GeRectangle<float>(0, 20, 0, 10));
                                EXPECT_EQ(output.pixelRect, GeRectangle<int>(0, 5, 0, 5));  // aspect 2, level 1
                                EXPECT_EQ(output.pixelAspectRatio, 2.0f);
                                EXPECT_EQ((*output.scanline)[4], kOpaqueBlack);
                                const KelImageEntry& in = c.getImage(2);
                                EXPECT_EQ(in.nominalRect, GeRectangle<float>(0, 1.5f, 0, 3));
                                EXPECT_EQ(in.pixelAspectRatio, 0.5f);
                                EXPECT_EQ(in.pixelRect, GeRectangle<int>(0, 2, 0, 2));  // level 1
                                // The script uses neither sample: no sampler, no row.
                                EXPECT_TRUE(in.sampler.isNull());
                                EXPECT_TRUE(in.scanline.isNull());
                            })});
    interpreter.eval(runInfo, {src}, {}, rodOf(20, 10), IxPixelFormat{2, 1}, tileContext(0, 0, 8, 1, 1));
    EXPECT_TRUE(probed);
}

TEST(KelInterpreterEval, GetOutputImageGivesId1AndTheOutputsDimensionsAndNeverItsPixels) {
    KelInterpreter interpreter;
    int probed = 0;
    auto runInfo = scriptOf(interpreter, {colorOutput("out")}, {output("color", "out")},
                            {assign("out", "=", colorOf(call<FunctionWidth>("width", {outputImage()}),
                                                        call<FunctionHeight>("height", {outputImage()}),
                                                        call<FunctionGetPixelAspectRatio>("getPixelAspectRatio", {outputImage()}),
                                                        num(1))),
                             declareAs("color", "seen", samplePixel(outputImage())),
                             assign("out", "+=", colorOf(num(0), num(0), num(0), call<FunctionR>("r", {var("seen")}))),
                             declareAs("image", "o", outputImage()), probe([&](KelContext& c) {
                                 // Locals by the check's ids: x, y, t, out, seen, o.
                                 auto o = rcStaticCast<KelImage>(c.getVariable(5));
                                 for (float id : rowOf(o->getScanline())) EXPECT_EQ(id, 1.0f);
                                 EXPECT_EQ((*c.getImage(1).scanline)[0], kOpaqueBlack);
                                 ++probed;
                             })});
    PxImageResult result = interpreter.eval(runInfo, {}, {}, rodOf(6, 4), IxPixelFormat{3, 2}, tileContext(0, 0, 2, 2));
    EXPECT_EQ(probed, 2);
    // seen is opaque black: its red adds nothing to alpha.
    EXPECT_EQ(pixelOf(result, 1, 1), Color(6, 4, 1.5f, 1));
}

TEST(KelInterpreterEval, AReadOfTheCurrentPixelOfImage0GivesOpaqueBlack) {
    KelInterpreter interpreter;
    auto runInfo = scriptOf(interpreter, {colorOutput("out")}, {output("color", "out")},
                            {declare("image", "none"), assign("out", "=", colorOf(num(5), num(5), num(5), num(5))),
                             assign("out", "=", samplePixel(var("none")))});
    PxImageResult result = interpreter.eval(runInfo, {}, {}, rodOf(3, 1), IxPixelFormat{}, tileContext(0, 0, 3, 1));
    for (int x = 0; x < 3; ++x) EXPECT_EQ(pixelOf(result, x, 0), kOpaqueBlack);
}

TEST(KelInterpreterEval, CurrentPixelReadsGiveEachRowOfTheInputAndItsFillOutside) {
    KelInterpreter interpreter;
    PxNodePtr<const PxImageProtocol> src = memoryImage(3, 2, coordinatePixels(1));
    auto runInfo = scriptOf(interpreter, {imageInput("src"), colorOutput("out")}, {input("image", "src"), output("color", "out")},
                            {assign("out", "=", samplePixel(var("src")))});
    // The output is larger than the input: its pixels outside the input read transparent black.
    PxImageResult result = interpreter.eval(runInfo, {src}, {}, rodOf(4, 3), IxPixelFormat{}, tileContext(0, 0, 4, 4));
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 4; ++x)
            EXPECT_EQ(pixelOf(result, x, y), (x < 3 && y < 2) ? Color(float(x), float(y), 1, 1) : Color::ZERO) << x << "," << y;
}

TEST(KelInterpreterEval, SampleAtTheLanguagesXAndYReadsTheCurrentPixelAtAnyScaleAndAspect) {
    KelInterpreter interpreter;
    PxNodePtr<const PxImageProtocol> src = memoryImage(8, 6, coordinatePixels(), IxPixelFormat{2, 1});
    auto runInfo = scriptOf(interpreter, {imageInput("src"), colorOutput("out")}, {input("image", "src"), output("color", "out")},
                            {assign("out", "=", call<FunctionSample>("sample", {var("src"), var("x"), var("y")}))});
    const PxMemoryImage& mem = static_cast<const PxMemoryImage&>(*src);
    for (int level : {0, 1}) {
        PxImageResult result = interpreter.eval(runInfo, {src}, {}, src->getROD(PxImageContext()), IxPixelFormat{2, 1},
                                                tileContext(0, 0, 16, 16, level));
        const GeRectangle<int> r = result.getTile()->getRect();
        EXPECT_EQ(r, mem.pixelRect(level));
        for (int y = r.yMin; y < r.yMax; ++y)
            for (int x = r.xMin; x < r.xMax; ++x) EXPECT_EQ(pixelOf(result, x, y), mem.pixelAt(x, y, level)) << level;
    }
}

TEST(KelInterpreterEval, SamplersAndRowsAreMadeOnlyWhenTheScriptUsesThem) {
    KelInterpreter interpreter;
    PxNodePtr<const PxImageProtocol> src = memoryImage(2, 2, coordinatePixels());
    int probed = 0;
    auto both = scriptOf(interpreter, {imageInput("src"), colorOutput("out")}, {input("image", "src"), output("color", "out")},
                         {assign("out", "=", call<FunctionSample>("sample", {var("src"), num(0), num(0)})),
                          assign("out", "+=", samplePixel(var("src"))), probe([&](KelContext& c) {
                              ++probed;
                              EXPECT_FALSE(c.getImage(2).sampler.isNull());
                              ASSERT_FALSE(c.getImage(2).scanline.isNull());
                              EXPECT_EQ(c.getImage(2).scanline->getPolicy().mode, 0);
                              EXPECT_TRUE(c.getImage(0).sampler.isNull());
                              EXPECT_TRUE(c.getImage(1).sampler.isNull());
                          })});
    interpreter.eval(both, {src}, {}, rodOf(2, 2), IxPixelFormat{}, tileContext(0, 0, 2, 2));
    EXPECT_EQ(probed, 2);
}

// ---- The row loop ----------------------------------------------------------------------------

TEST(KelInterpreterEval, TheOutputValueLivesThroughTheTileAndStartsEachRowOpaqueBlack) {
    KelInterpreter interpreter;
    const KelValue* first = nullptr;
    int rows = 0;
    auto runInfo = scriptOf(interpreter, {colorOutput("out")}, {output("color", "out")},
                            {probe([&](KelContext& c) {
                                KelValuePtr out = c.getVariable(c.getVariableId("out"));
                                if (!first) first = out.get();
                                EXPECT_EQ(out.get(), first);
                                // Written at the previous row, reset before this one.
                                EXPECT_EQ(rcStaticCast<KelColor>(out)->getScanline()[1], kOpaqueBlack);
                                IxScanlineUtil::set(rcStaticCast<KelColor>(out)->getScanline(), Color(9, 9, 9, 9), nullptr);
                                ++rows;
                            })});
    PxImageResult result = interpreter.eval(runInfo, {}, {}, rodOf(3, 4), IxPixelFormat{}, tileContext(0, 0, 3, 4));
    EXPECT_EQ(rows, 4);
    EXPECT_EQ(pixelOf(result, 2, 3), Color(9, 9, 9, 9));
}

TEST(KelInterpreterEval, ThePoolIssuesNoNewValueAfterTheFirstRowOfATile) {
    KelInterpreter interpreter;
    PxNodePtr<const PxImageProtocol> src = memoryImage(5, 6, coordinatePixels());
    std::vector<std::size_t> poolSizes;
    // Temporaries, a declaration, control flow and both samples in one script.
    auto runInfo = scriptOf(
        interpreter, {imageInput("src"), floatInput("g"), colorOutput("out")},
        {input("image", "src"), input("float", "g"), output("color", "out")},
        {declareAs("float", "k", binary("*", var("x"), var("g"))),
         ifElse(binary("<", var("k"), num(4)), block({assign("out", "=", binary("*", samplePixel(var("src")), var("k")))}),
                block({assign("out", "=", call<FunctionSample>("sample", {var("src"), binary("+", var("x"), num(0.5f)), var("y")}))})),
         probe([&](KelContext& c) { poolSizes.push_back(c.poolSize()); })});
    interpreter.eval(runInfo, {src}, {0.75}, rodOf(5, 6), IxPixelFormat{}, tileContext(0, 0, 5, 6));
    ASSERT_EQ(poolSizes.size(), 6u);
    for (std::size_t row = 1; row < poolSizes.size(); ++row) EXPECT_EQ(poolSizes[row], poolSizes[0]) << "row " << row;
}

TEST(KelInterpreterEval, XAndTAreFilledOnceATileAndYOnceARow) {
    KelInterpreter interpreter;
    std::vector<float> seen;
    auto runInfo = scriptOf(interpreter, {colorOutput("out")}, {output("color", "out")},
                            {assign("out", "=", colorOf(var("x"), var("y"), var("t"), num(1))), probe([&](KelContext& c) {
                                auto& x = rcStaticCast<KelFloat>(c.getVariable(0))->getScanline();
                                auto& t = rcStaticCast<KelFloat>(c.getVariable(2))->getScanline();
                                seen.push_back(x[5]);
                                seen.push_back(t[5]);
                                // Overwritten here: only y is set again before the next row.
                                x[5] = -1.0f;
                                t[5] = -2.0f;
                            })});
    PxImageResult result = interpreter.eval(runInfo, {}, {}, rodOf(8, 2), IxPixelFormat{}, tileContext(0, 0, 8, 2, 0, 4.0));
    EXPECT_EQ(seen, (std::vector<float>{5.0f, 4.0f, -1.0f, -2.0f}));
    EXPECT_EQ(pixelOf(result, 5, 0), Color(5, 0, 4, 1));
    EXPECT_EQ(pixelOf(result, 5, 1), Color(-1, 1, -2, 1));
}

TEST(KelInterpreterEval, EveryRowReachesTheCancellationPointFirst) {
    KelInterpreter interpreter;
    int rows = 0;
    auto runInfo = scriptOf(interpreter, {colorOutput("out")}, {output("color", "out")}, {probe([&](KelContext&) { ++rows; })});
    PxRequestMgr::getInstance().setCheckBudget(2);
    EXPECT_THROW(interpreter.eval(runInfo, {}, {}, rodOf(2, 5), IxPixelFormat{}, tileContext(0, 0, 2, 5)), ExCancelled);
    PxRequestMgr::getInstance().setCheckBudget(-1);
    EXPECT_EQ(rows, 2);
}

TEST(KelInterpreterEval, TilesOfOneRunInfoMayBeEvaluatedConcurrently) {
    KelInterpreter interpreter;
    PxNodePtr<const PxImageProtocol> src = memoryImage(64, 64, coordinatePixels());
    auto runInfo = scriptOf(interpreter, {imageInput("src"), colorOutput("out")}, {input("image", "src"), output("color", "out")},
                            {assign("out", "=", binary("+", samplePixel(var("src")),
                                                       call<FunctionSample>("sample", {var("src"), var("x"), var("y")})))});
    std::vector<std::thread> threads;
    std::atomic<int> wrong{0};
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (int tileY = 0; tileY < 4; ++tileY) {
                PxImageResult r = interpreter.eval(runInfo, {src}, {}, rodOf(64, 64), IxPixelFormat{}, tileContext(t, tileY, 16, 16));
                for (int y = tileY * 16; y < tileY * 16 + 16; ++y)
                    for (int x = t * 16; x < t * 16 + 16; ++x)
                        if (!(pixelOf(r, x, y) == Color(2.0f * x, 2.0f * y, 0, 2))) ++wrong;
            }
        });
    for (auto& th : threads) th.join();
    EXPECT_EQ(wrong.load(), 0);
}

TEST(KelInterpreterEval, MissingInputsOrNumbersAreAssertionsNotOutOfBoundsReads) {
    KelInterpreter interpreter;
    auto images = scriptOf(interpreter, {imageInput("src"), colorOutput("out")}, {input("image", "src"), output("color", "out")}, {});
    EXPECT_THROW(interpreter.eval(images, {}, {}, rodOf(1, 1), IxPixelFormat{}, tileContext(0, 0, 1, 1)), ExAssertionFailed);
    auto floats = scriptOf(interpreter, {floatInput("g"), colorOutput("out")}, {input("float", "g"), output("color", "out")}, {});
    EXPECT_THROW(interpreter.eval(floats, {}, {}, rodOf(1, 1), IxPixelFormat{}, tileContext(0, 0, 1, 1)), ExAssertionFailed);
}

#if defined(KEL_COUNTS_ALLOCATIONS)
TEST(KelInterpreterEval, RowsAfterTheFirstAllocateNothing) {
    KelInterpreter interpreter;
    PxNodePtr<const PxImageProtocol> src = memoryImage(9, 7, coordinatePixels());
    std::vector<long> counts;
    counts.reserve(16);
    auto runInfo = scriptOf(
        interpreter, {imageInput("src"), floatInput("g"), colorOutput("out")},
        {input("image", "src"), input("float", "g"), output("color", "out")},
        {declareAs("float", "k", binary("*", var("x"), var("g"))),
         ifElse(binary("<", var("k"), num(4)), block({assign("out", "=", binary("*", samplePixel(var("src")), var("k")))}),
                block({assign("out", "=", call<FunctionSample>("sample", {var("src"), binary("+", var("x"), num(0.5f)), var("y")}))})),
         loopWhile(binary(">", var("k"), num(6)), block({assign("k", "-=", num(1))})),
         probe([&](KelContext&) { counts.push_back(gAllocations.load()); })});
    interpreter.eval(runInfo, {src}, {0.75}, rodOf(9, 7), IxPixelFormat{}, tileContext(0, 0, 9, 7));
    ASSERT_EQ(counts.size(), 7u);
    EXPECT_GT(counts[0], 0);  // the counter is live: the first row fills the pool
    for (std::size_t row = 1; row < counts.size(); ++row) EXPECT_EQ(counts[row], counts[row - 1]) << "row " << row;
}
#endif
