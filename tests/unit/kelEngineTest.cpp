// What the engine promises its host beyond the pixels: a row in the steady state allocates
// nothing (the value pool and the saved masks are reused), a failed parse leaves the previous
// compilation in place, and a tile's rectangle, fill colour and validity follow the definition
// rectangle, the first input and the use of `t`.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>

#include "kelEvalTestSupport.h"

// Counts the heap allocations of this program. Not under AddressSanitizer, which owns operator
// new there.
#if !defined(__SANITIZE_ADDRESS__)
#define KEL_COUNTS_ALLOCATIONS 1
namespace {
std::atomic<long> gAllocations{0};
void* countedAllocation(std::size_t n, std::size_t alignment) {
    ++gAllocations;
    n = n == 0 ? 1 : n;
    void* p = alignment <= alignof(std::max_align_t) ? std::malloc(n)
                                                     : std::aligned_alloc(alignment, (n + alignment - 1) / alignment * alignment);
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

// A still whose tiles carry the fill colour `fill` and the validity `validity`.
class FilledImage : public PxImageProtocol {
public:
    FilledImage(const Color& fill, const PxValidityInterval& validity)
        : _inner(memoryImage(3, 2, coordinatePixels())), _fill(fill), _validity(validity) {}
    PxImageFormat getFormat() const override { return _inner->getFormat(); }
    PxRODResult getROD(const PxImageContext& c) const override { return _inner->getROD(c); }
    PxImageResult getImage(const PxImageContext& c) const override {
        PxImageResult r = _inner->getImage(c);
        RCShdPtr<IxTile> tile(new IxTile(IxPixelFormat{}, r.getTile()->getRect(), _fill));
        return PxImageResult(tile, _validity);
    }

private:
    PxNodePtr<const PxImageProtocol> _inner;
    Color _fill;
    PxValidityInterval _validity;
};

RCShdPtr<PebRunInfo> compiled(const KelInterpreter& interpreter, const std::string& script) {
    RCShdPtr<PebRunInfo> runInfo = interpreter.createRunInfo({imageInput("src"), floatInput("g"), colorOutput("out")});
    Vector<PebError> errors;
    EXPECT_TRUE(interpreter.parse(script, runInfo, &errors)) << script;
    return runInfo;
}

#if defined(KEL_COUNTS_ALLOCATIONS)
// A tile of 14 rows allocates what a tile of 2 rows does: every row after the first reuses it all.
TEST(KelEngine, RowsAfterTheFirstAllocateNothing) {
    const KelInterpreter interpreter;
    const auto runInfo = compiled(interpreter,
                                  "float k = x * g; color c; image i = src;\n"
                                  "if (k < 4) { out = src * k; } else { out = sample(i, x + 0.5, y) + c; }\n"
                                  "while (k > 6) { k -= 1; if (k > 7) out += 1; }\n"
                                  "for (float j = 0; j < 2; j++) out += sin(j * k) + noise3D(x, y, j);");
    const PxNodePtr<const PxImageProtocol> src = memoryImage(9, 14, coordinatePixels());
    const auto allocations = [&](int rows) {
        const long before = gAllocations.load();
        interpreter.eval(runInfo, {src}, {0.75}, rodOf(9, float(rows)), IxPixelFormat{}, tileContext(0, 0, 9, rows));
        return gAllocations.load() - before;
    };
    allocations(14);  // the first tile fills the caches
    EXPECT_GT(allocations(2), 0);  // the counter is live
    EXPECT_EQ(allocations(14), allocations(2));
}
#endif

TEST(KelEngine, AFailedParseLeavesThePreviousCompilation) {
    const KelInterpreter interpreter;
    const auto runInfo = compiled(interpreter, "out = color(x, g, 0, 1);");
    Vector<PebError> errors;
    EXPECT_FALSE(interpreter.parse("out = ;", runInfo, &errors));
    EXPECT_FALSE(interpreter.parse("", runInfo, &errors));
    ASSERT_EQ(errors.size(), 2u);  // appended to, never cleared
    EXPECT_EQ(errors[1].getMessage(), "Error: The script is empty");
    const PxImageResult r = interpreter.eval(runInfo, {memoryImage(3, 2, coordinatePixels())}, {0.5}, rodOf(3, 2),
                                             IxPixelFormat{}, tileContext(0, 0, 4, 4));
    EXPECT_EQ(pixelOf(r, 2, 1), Color(2, 0.5f, 0, 1));
}

TEST(KelEngine, TheTileFollowsTheDefinitionRectangleTheFirstInputAndTheUseOfT) {
    const KelInterpreter interpreter;
    const auto still = compiled(interpreter, "out = color(x, y, g, 1);");
    const auto moving = compiled(interpreter, "out = color(t, 0, 0, 1);");
    const Color fill(0.25f, 0.5f, 0.75f, 0.125f);
    const PxNodePtr<const PxImageProtocol> src(new FilledImage(fill, PxValidityInterval(-5, 50)));
    const auto eval = [&](const RCShdPtr<PebRunInfo>& runInfo, const PxRODResult& rod, const PxImageContext& c) {
        return interpreter.eval(runInfo, {src}, {1.0}, rod, IxPixelFormat{}, c);
    };
    const PxImageResult clipped = eval(still, rodOf(6, 3, PxValidityInterval(-10, 10)), tileContext(1, 0, 4, 4, 0, 3.0));
    EXPECT_EQ(clipped.getTile()->getRect(), GeRectangle<int>(4, 6, 0, 3));
    EXPECT_EQ(clipped.getFillColor(), fill);
    EXPECT_EQ(clipped.getValidity(), PxValidityInterval(-5, 10));
    EXPECT_TRUE(eval(still, rodOf(6, 3), tileContext(3, 2, 4, 4)).getTile()->getRect().isEmpty());
    const PxImageResult instant = eval(moving, rodOf(2, 2), tileContext(0, 0, 2, 2, 0, 3.0));
    EXPECT_EQ(instant.getValidity(), PxValidityInterval(3.0 - PxValidityInterval::kEpsilon, 3.0 + PxValidityInterval::kEpsilon));
    EXPECT_EQ(pixelOf(instant, 1, 1).r, 3.0f);
}

}  // namespace
