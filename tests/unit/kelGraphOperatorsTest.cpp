// Parts 4.3 and 4.4: the eleven operator tables, and the unary and binary operator nodes: their
// types and messages in `check`, the `sample` wrap of image operands, and their pixels.
#include <gtest/gtest.h>

#include "kelTreeBuilder.h"

namespace Zt::test {
namespace {

using Row = std::vector<float>;
using Colors = std::vector<Color>;

// ---- Part 4.4: a script over one row ------------------------------------------------------------

// main(OUT float f, OUT float g, OUT color out, IN image src, IN image other) over [0, width),
// with src's pixel (x, 1, 0, 1) and other's (x, 1, 0, 1) too (same pixels, different ids).
struct OperatorScript {
    OperatorScript(const KelBlockPtr& body, int width = 4)
        : run(mainOf(body, {output("float", "f"), output("float", "g"), output("color", "out"), input("image", "src"),
                            input("image", "other")})) {
        run.check();
        run.beginTile(0, width);
        run.bindFloatOutput("f");
        run.bindFloatOutput("g");
        run.bindColorOutput("out");
        run.bindImage("src", [](int x, int) { return Color{float(x), 1.0f, 0.0f, 1.0f}; });
        run.bindImage("other", [](int x, int) { return Color{float(x), 1.0f, 0.0f, 1.0f}; });
        run.runRow(0);
    }
    Row f() const { return run.floats("f"); }
    Row g() const { return run.floats("g"); }
    Colors out() const { return run.colors("out"); }
    KelScriptRun run;
};

// The check failure of `statement` in the script above.
CheckFailure failureOf(const KelNodePtr& statement) {
    auto f = mainOf(block({statement}), {output("float", "f"), output("color", "out"), input("image", "src"),
                                         input("float", "gain"), input("color", "tint")});
    return checkFailure(*f);
}

KelNodePtr colorOf(float r, float g, float b, float a) {
    return call<FunctionNewColor>("color", {num(r), num(g), num(b), num(a)});
}

TEST(KelGraphBinary, FloatArithmeticAndComparisons) {
    OperatorScript s(block({assign("f", "=", binary("/", binary("-", binary("*", var("x"), num(3)), num(1)), num(2))),
                            assign("g", "=", binary("+", binary("<=", var("x"), num(1)), binary("!=", var("x"), num(3))))}));
    EXPECT_EQ(s.f(), (Row{-0.5f, 1, 2.5f, 4}));
    EXPECT_EQ(s.g(), (Row{2, 2, 1, 0}));
}

TEST(KelGraphBinary, FloatAndColorMixForTheFourArithmeticOperators) {
    OperatorScript s(block({assign("out", "=", binary("-", num(2), colorOf(1, 0.5f, 0, 1))),
                            assign("out", "*=", binary("/", colorOf(4, 4, 4, 4), num(2)))}),
                     1);
    EXPECT_EQ(s.out()[0], (Color{2, 3, 4, 2}));
}

TEST(KelGraphBinary, ColorsCompareToAFloat) {
    OperatorScript s(block({assign("f", "=", binary("==", colorOf(1, 2, 3, 4), colorOf(1, 2, 3, 4))),
                            assign("g", "=", binary("!=", colorOf(1, 2, 3, 4), colorOf(1, 2, 3, 5)))}),
                     2);
    EXPECT_EQ(s.f(), (Row{1, 1}));
    EXPECT_EQ(s.g(), (Row{1, 1}));
}

// Part 4.4: `a , b` evaluates both and yields b; a void left side passes the check.
TEST(KelGraphBinary, CommaRunsBothAndYieldsTheRight) {
    OperatorScript s(block({assign("f", "=", binary(",", unary("P++", var("g")), num(7)))}), 2);
    EXPECT_EQ(s.f(), (Row{7, 7}));
    EXPECT_EQ(s.g(), (Row{1, 1}));
    KelContext context(checkInterval(), 0);
    KelNodePtr voidLeft = binary(",", KelNodePtr(new KelSyntaxTree(1)), num(1));
    KelValuePtr type = voidLeft->check(context);
    ASSERT_TRUE(type);
    EXPECT_TRUE(type->isType(KelValueTypes::Float));
    KelNodePtr voidRight = binary(",", num(1), KelNodePtr(new KelSyntaxTree(1)));
    EXPECT_TRUE(voidRight->check(context).isNull());
}

// Part 4.4: no short circuit; both sides' side effects take place.
TEST(KelGraphBinary, AndAndOrRunBothSides) {
    OperatorScript s(block({assign("out", "=", call<FunctionNewColor>("color", {binary("&&", unary("P++", var("f")), unary("P++", var("g"))),
                                                                                 num(0), num(0), num(0)})),
                            assign("out", "+=", binary("||", num(1), unary("++", var("g"))))}),
                     1);
    EXPECT_EQ(s.f(), (Row{1}));
    EXPECT_EQ(s.g(), (Row{2}));
    EXPECT_EQ(s.out()[0], (Color{1, 1, 1, 1}));
}

// Part 4.4: `image + 1` becomes `sample(image) + 1`, a colour read at the current pixel.
TEST(KelGraphBinary, AnImageInArithmeticIsReadAtTheCurrentPixel) {
    OperatorScript s(block({assign("out", "=", binary("+", var("src"), num(1)))}));
    EXPECT_EQ(s.out(), (Colors{{1, 2, 1, 2}, {2, 2, 1, 2}, {3, 2, 1, 2}, {4, 2, 1, 2}}));
    EXPECT_TRUE(s.run.uses("sample1"));
    KelContext context(checkInterval(), 0);
    context.declareVariable("i");
    context.setVariable(context.getVariableId("i"), context.newImage(0.0f, 0));
    KelNodePtr sum = binary("+", var("i"), num(1));
    KelValuePtr type = sum->check(context);
    EXPECT_TRUE(type->isType(KelValueTypes::Color));
    EXPECT_EQ(printed(*sum), "( sample( i, ) + 1 )");
}

// Part 4.4: two sampled colours are compared, not the image ids.
TEST(KelGraphBinary, ImageEqualsImageComparesPixels) {
    OperatorScript s(block({assign("f", "=", binary("==", var("src"), var("other"))),
                            assign("g", "=", binary("==", var("src"), binary("+", var("other"), num(0))))}));
    EXPECT_EQ(s.f(), (Row{1, 1, 1, 1}));
    EXPECT_EQ(s.g(), (Row{1, 1, 1, 1}));
}

TEST(KelGraphBinaryCheck, Messages) {
    struct Case {
        KelNodePtr expression;
        std::string message;
    };
    const Case cases[] = {
        {binary("+", KelNodePtr(new KelSyntaxTree(1)), num(1), 4), "void binary operation is not defined"},
        {binary("*", num(1), call<FunctionSetR>("setR", {var("out"), num(1)}), 4), "void binary operation is not defined"},
        {binary("==", var("src"), num(1), 4), "Operator == is not valid between different type"},
        {binary("!=", num(1), var("tint"), 4), "Operator != is not valid between different type"},
        {binary("<", var("tint"), var("tint"), 4), "Operator < not valid on color type"},
        {binary("&&", var("tint"), num(1), 4), "Operator && not valid on color type"},
        {binary(">=", num(1), var("src"), 4), "Operator >= not valid on color type"},
    };
    for (const Case& c : cases) {
        CheckFailure failure = failureOf(assign("f", "=", c.expression, 4));
        EXPECT_EQ(failure.reason, atLine(c.message, 4));
        EXPECT_EQ(failure.line, 4);
    }
}

// Part 4.4 step 1: both sides are checked before any type rule, so a name fault on the right
// comes before a void on the left.
TEST(KelGraphBinaryCheck, BothSidesAreCheckedFirst) {
    CheckFailure failure = failureOf(assign("f", "=", binary("+", KelNodePtr(new KelSyntaxTree(1)), var("nope", 6), 2), 2));
    EXPECT_EQ(failure.reason, atLine("Variable not defined: nope", 6));
}

TEST(KelGraphBinaryCheck, ResultTypes) {
    KelContext context(checkInterval(), 0);
    int c = context.declareVariable("c");
    context.setVariable(c, context.newColor(1));
    EXPECT_TRUE(binary("-", num(1), var("c"))->check(context)->isType(KelValueTypes::Color));
    EXPECT_TRUE(binary("/", var("c"), num(1))->check(context)->isType(KelValueTypes::Color));
    EXPECT_TRUE(binary("==", var("c"), var("c"))->check(context)->isType(KelValueTypes::Float));
    EXPECT_TRUE(binary("||", num(0), num(1))->check(context)->isType(KelValueTypes::Float));
}

// ---- Unary ----------------------------------------------------------------------------------------

// Part 4.4: x++ under a mask yields the old scanline over all pixels and raises only the
// active pixels of the variable.
TEST(KelGraphUnary, PostIncrementUnderAMaskReturnsTheOldScanline) {
    KelContext context(GeInterval<int>(0, 4), 0);
    int a = context.declareVariable("a");
    KelFloatPtr value = context.newFloat(1);
    for (int x = 0; x < 4; ++x) value->getScanline()[x] = float(10 * x);
    context.setVariable(a, value);
    KelNodePtr increment = unary("P++", var("a"));
    ASSERT_TRUE(increment->check(context));
    KelFloatPtr active = context.newFloat(0);
    for (int x = 0; x < 4; ++x) active->getScanline()[x] = x >= 2 ? 1.0f : 0.0f;
    context.getMask().narrow(active, 0);
    KelValuePtr old = increment->eval(context);
    EXPECT_NE(old.get(), value.get());
    EXPECT_EQ(rowOf(rcStaticCast<KelFloat>(old)->getScanline()), (Row{0, 10, 20, 30}));
    EXPECT_EQ(rowOf(value->getScanline()), (Row{0, 10, 21, 31}));
}

TEST(KelGraphUnary, IncrementFormsInAScript) {
    // g = f++ (old), then ++f, --f, f-- under x > 1.
    OperatorScript s(block({ifElse(binary(">", var("x"), num(1)),
                                   block({assign("g", "=", unary("P++", var("f"))), unary("++", var("f")), unary("++", var("f")),
                                          unary("--", var("f")), assign("g", "+=", unary("P--", var("f")))}))}));
    EXPECT_EQ(s.f(), (Row{0, 0, 1, 1}));
    EXPECT_EQ(s.g(), (Row{0, 0, 2, 2}));
}

// The prefix forms and unary "+" deliver the operand's own object; "-" and "!" a temporary.
TEST(KelGraphUnary, PrefixAndPlusReturnTheOperandItself) {
    KelContext context(GeInterval<int>(0, 2), 0);
    int a = context.declareVariable("a");
    KelFloatPtr value = context.newConstantFloat(2.0f, 1);
    context.setVariable(a, value);
    for (const char* op : {"++", "--", "+"}) {
        KelNodePtr node = unary(op, var("a"));
        KelValuePtr type = node->check(context);
        EXPECT_EQ(node->eval(context).get(), value.get()) << op;
        if (std::string(op) != "+") {
            EXPECT_EQ(type.get(), value.get()) << op;
        }
    }
    KelNodePtr minus = unary("-", var("a"));
    minus->check(context);
    KelValuePtr negated = minus->eval(context);
    EXPECT_NE(negated.get(), value.get());
    EXPECT_EQ(rowOf(rcStaticCast<KelFloat>(negated)->getScanline()), (Row{-2, -2}));
    KelNodePtr notNode = unary("!", binary("-", var("a"), num(2)));
    notNode->check(context);
    EXPECT_EQ(rowOf(rcStaticCast<KelFloat>(notNode->eval(context))->getScanline()), (Row{1, 1}));
}

TEST(KelGraphUnary, MinusNegatesAColourAndColourIncrementsTouchAllChannels) {
    OperatorScript s(block({assign("out", "=", unary("-", colorOf(1, -2, 3, -4))), unary("++", var("out"))}), 1);
    EXPECT_EQ(s.out()[0], (Color{0, 3, -2, 5}));
}

TEST(KelGraphUnaryCheck, Messages) {
    struct Case {
        KelNodePtr expression;
        std::string message;
    };
    const Case cases[] = {
        {unary("-", KelNodePtr(new KelSyntaxTree(1)), 3), "void unary operation is not defined"},
        {unary("!", var("tint"), 3), "Color does not support ! operator"},
        {unary("!", var("src"), 3), "Color does not support ! operator"},
        {unary("++", num(1), 3), "Increment operator must be done on non-const value"},
        {unary("P--", var("gain"), 3), "Increment operator must be done on non-const value"},
        {unary("--", var("x"), 3), "Increment operator must be done on non-const value"},
        // The sample wrap gives a temporary, which is const.
        {unary("P++", var("src"), 3), "Increment operator must be done on non-const value"},
    };
    for (const Case& c : cases) {
        CheckFailure failure = failureOf(binary(",", c.expression, num(0), 9));
        EXPECT_EQ(failure.reason, atLine(c.message, 3));
        EXPECT_EQ(failure.line, 3);
    }
}

TEST(KelGraphUnaryCheck, ResultTypes) {
    KelContext context(checkInterval(), 0);
    int i = context.declareVariable("i");
    context.setVariable(i, context.newImage(0.0f, 0));
    KelNodePtr negatedImage = unary("-", var("i"));
    EXPECT_TRUE(negatedImage->check(context)->isType(KelValueTypes::Color));
    EXPECT_EQ(printed(*negatedImage), "( - sample( i, ) )");
    EXPECT_TRUE(unary("!", num(1))->check(context)->isType(KelValueTypes::Float));
}

}  // namespace
}  // namespace Zt::test
