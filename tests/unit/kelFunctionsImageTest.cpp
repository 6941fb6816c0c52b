// Part 5.3: image queries (width .. ymax, getPixelAspectRatio, getOutputImage, isSame), driven
// through FunctionNode<F>::eval over a context with a small image table.
#include <gtest/gtest.h>

#include "kelFunctionTestSupport.h"

using namespace Zt;
using namespace Zt::test;

namespace {

const float kSentinel = -555.0f;

KelImageEntry entry(float x0, float x1, float y0, float y1, float aspect) {
    KelImageEntry e;
    e.nominalRect = GeRectangle<float>(x0, x1, y0, y1);
    e.pixelRect = GeRectangle<int>(int(x0), int(x1), int(y0), int(y1));
    e.pixelAspectRatio = aspect;
    return e;
}

// Id 0 no image (all zero), 1 the output, 2 and 3 two inputs.
void addImages(CallHarness& h) {
    h.context.addImage(KelImageEntry());
    h.context.addImage(entry(0, 640, 0, 480, 1.5f));
    h.context.addImage(entry(-10.5f, 100, 20, 70.25f, 2.0f));
    h.context.addImage(entry(3, 5, -7, 11, 0.5f));
}

template <class F>
std::vector<float> query(CallHarness& h, const KelNodePtr& image) {
    auto node = h.call<F>("q", {image});
    h.prefillFloat(kSentinel);
    return CallHarness::row(node->eval(h.context));
}

// The expected rows of all seven queries for one id per column.
struct Expected {
    std::vector<float> width, height, xmin, xmax, ymin, ymax, aspect;
};
Expected expectedFor(CallHarness& h, const std::vector<int>& ids) {
    Expected e;
    for (int id : ids) {
        const KelImageEntry& im = h.context.getImage(id);
        e.width.push_back(im.nominalRect.xMax - im.nominalRect.xMin);
        e.height.push_back(im.nominalRect.yMax - im.nominalRect.yMin);
        e.xmin.push_back(im.nominalRect.xMin);
        e.xmax.push_back(im.nominalRect.xMax);
        e.ymin.push_back(im.nominalRect.yMin);
        e.ymax.push_back(im.nominalRect.yMax);
        e.aspect.push_back(im.pixelAspectRatio);
    }
    return e;
}

void expectAllQueries(CallHarness& h, const KelNodePtr& image, const std::vector<int>& ids) {
    Expected e = expectedFor(h, ids);
    EXPECT_EQ(query<FunctionWidth>(h, image), e.width);
    EXPECT_EQ(query<FunctionHeight>(h, image), e.height);
    EXPECT_EQ(query<FunctionXMin>(h, image), e.xmin);
    EXPECT_EQ(query<FunctionXMax>(h, image), e.xmax);
    EXPECT_EQ(query<FunctionYMin>(h, image), e.ymin);
    EXPECT_EQ(query<FunctionYMax>(h, image), e.ymax);
    EXPECT_EQ(query<FunctionGetPixelAspectRatio>(h, image), e.aspect);
}

}  // namespace

// An image parameter (uniform) passed straight to a query takes the short way.
TEST(KelFunctionsImage, UniformImageGivesItsEntryAtEveryColumn) {
    CallHarness h(2, 6);
    addImages(h);
    expectAllQueries(h, h.image(2.0f), {2, 2, 2, 2});
}

// An image variable assigned under a mask holds different ids at different columns: the queries
// then give a different number at each column, read from the fractional ids by truncation.
TEST(KelFunctionsImage, MixedIdsGoColumnByColumn) {
    CallHarness h(2, 7);
    addImages(h);
    expectAllQueries(h, h.imageIds({2.0f, 3.0f, 1.0f, 0.0f, 3.75f}), {2, 3, 1, 0, 3});
}

// The same image assigned to a local variable (not uniform) gives the same numbers the long way.
TEST(KelFunctionsImage, ShortAndLongWaysAgree) {
    CallHarness h(0, 3);
    addImages(h);
    EXPECT_EQ(query<FunctionWidth>(h, h.image(3.0f)), query<FunctionWidth>(h, h.imageIds({3, 3, 3})));
    EXPECT_EQ(query<FunctionYMin>(h, h.image(2.0f)), query<FunctionYMin>(h, h.imageIds({2, 2, 2})));
}

// The short way reads the id at the first column only: it trusts the uniform flag.
TEST(KelFunctionsImage, ShortWayReadsTheFirstColumn) {
    CallHarness h(0, 3);
    addImages(h);
    auto image = h.imageIds({3, 2, 2});
    h.held(image)->setUniform(true);
    EXPECT_EQ(query<FunctionWidth>(h, image), (std::vector<float>{2, 2, 2}));
    // getPixelAspectRatio has no short way.
    EXPECT_EQ(query<FunctionGetPixelAspectRatio>(h, image), (std::vector<float>{0.5f, 2.0f, 2.0f}));
}

TEST(KelFunctionsImage, QueriesWriteInactiveColumnsAndAreNotUniform) {
    CallHarness h(0, 3);
    addImages(h);
    auto uniform = h.image(1.0f);
    auto mixed = h.imageIds({1, 2, 3});
    h.narrowTo({0, 1, 0});
    EXPECT_EQ(query<FunctionHeight>(h, uniform), (std::vector<float>{480, 480, 480}));
    EXPECT_EQ(query<FunctionHeight>(h, mixed), (std::vector<float>{480, 50.25f, 18}));
    EXPECT_EQ(query<FunctionGetPixelAspectRatio>(h, mixed), (std::vector<float>{1.5f, 2.0f, 0.5f}));
    h.prefillFloat(kSentinel);
    EXPECT_FALSE(h.call<FunctionXMax>("xmax", {uniform})->eval(h.context)->isUniform());
}

// An uninitialised image variable holds id 0: its queries give 0.0 from the all-zero row.
TEST(KelFunctionsImage, IdZeroGivesZeros) {
    CallHarness h(0, 2);
    addImages(h);
    expectAllQueries(h, h.image(0.0f), {0, 0});
    EXPECT_EQ(query<FunctionWidth>(h, h.image(0.0f)), (std::vector<float>{0, 0}));
}

TEST(KelFunctionsImage, GetOutputImageIsAFreshConstantImageOfIdOne) {
    CallHarness h(0, 3);
    addImages(h);
    auto node = h.call<FunctionGetOutputImage>("getOutputImage", {});
    KelValuePtr first = node->eval(h.context);
    KelValuePtr second = node->eval(h.context);
    EXPECT_EQ(first->getType(), KelValueTypes::Image);
    EXPECT_TRUE(first->isUniform());
    EXPECT_TRUE(first->isConst());
    EXPECT_NE(first.get(), second.get());
    EXPECT_EQ(CallHarness::row(first), (std::vector<float>{1, 1, 1}));
}

// getPixelAspectRatio(getOutputImage()) gives the output format's ratio.
TEST(KelFunctionsImage, AspectRatioOfTheOutputImage) {
    CallHarness h(0, 4);
    addImages(h);
    auto output = h.call<FunctionGetOutputImage>("getOutputImage", {});
    auto node = h.call<FunctionGetPixelAspectRatio>("getPixelAspectRatio", {KelNodePtr(output)});
    EXPECT_EQ(CallHarness::row(node->eval(h.context)), (std::vector<float>{1.5f, 1.5f, 1.5f, 1.5f}));
}

// isSame compares the floats: equal ids give 1.0, different inputs 0.0 (even if they are the
// same picture), and 2.0 against 2.5 is not the same though both truncate to 2. All columns.
TEST(KelFunctionsImage, IsSameComparesTheFloatsAtAllColumns) {
    CallHarness h(0, 4);
    addImages(h);
    auto i = h.image(2.0f);
    auto j = h.image(3.0f);
    auto k = h.imageIds({2.0f, 3.0f, 2.5f, 2.0f});
    h.narrowTo({1, 0, 0, 1});
    h.prefillFloat(kSentinel);
    EXPECT_EQ(CallHarness::row(h.call<FunctionIsSame>("isSame", {i, i})->eval(h.context)),
              (std::vector<float>{1, 1, 1, 1}));
    h.prefillFloat(kSentinel);
    EXPECT_EQ(CallHarness::row(h.call<FunctionIsSame>("isSame", {i, j})->eval(h.context)),
              (std::vector<float>{0, 0, 0, 0}));
    h.prefillFloat(kSentinel);
    EXPECT_EQ(CallHarness::row(h.call<FunctionIsSame>("isSame", {i, k})->eval(h.context)),
              (std::vector<float>{1, 0, 0, 1}));
}
