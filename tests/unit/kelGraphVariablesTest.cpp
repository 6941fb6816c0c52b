// Part 4.5: assignment, variables and literals: the masked store by operand types, the reset of
// a declaration on all pixels, image variables holding ids per column, const rules and messages.
#include <gtest/gtest.h>

#include "kelTreeBuilder.h"

namespace Zt::test {
namespace {

using Row = std::vector<float>;
using Colors = std::vector<Color>;

// main(OUT float f, OUT float g, OUT color out, IN image src, IN image other, IN float gain)
// over [0, width); src's pixel is (x, 1, 0, 1), other's (10 x, 2, 0, 1).
struct VariableScript {
    VariableScript(const KelBlockPtr& body, int width = 4)
        : run(mainOf(body, {output("float", "f"), output("float", "g"), output("color", "out"), input("image", "src"),
                            input("image", "other"), input("float", "gain")})) {
        run.check();
        run.beginTile(0, width);
        run.bindFloatOutput("f");
        run.bindFloatOutput("g");
        run.bindColorOutput("out");
        srcId = run.bindImage("src", [](int x, int) { return Color{float(x), 1.0f, 0.0f, 1.0f}; }, GeRectangle<float>(0, 10, 0, 5));
        otherId = run.bindImage("other", [](int x, int) { return Color{10.0f * x, 2.0f, 0.0f, 1.0f}; },
                                GeRectangle<float>(0, 30, 0, 5));
        run.bindFloat("gain", 2.0f);
        run.runRow(0);
    }
    Row f() const { return run.floats("f"); }
    Row g() const { return run.floats("g"); }
    Colors out() const { return run.colors("out"); }
    KelScriptRun run;
    int srcId = 0, otherId = 0;
};

// A test-only statement that copies a float variable's whole scanline when it runs.
class SnapshotNode : public KelSyntaxTree {
public:
    explicit SnapshotNode(std::string name) : KelSyntaxTree(1), _name(std::move(name)) {}
    RCShdPtr<KelValue> check(KelContext& context) override {
        _id = context.getVariableId(_name);
        return nullptr;
    }
    RCShdPtr<KelValue> eval(KelContext& context) const override {
        row = rowOf(rcStaticCast<KelFloat>(context.getVariable(_id))->getScanline());
        return nullptr;
    }
    int id() const { return _id; }
    mutable std::vector<float> row;

private:
    std::string _name;
    int _id = -1;
};

CheckFailure failureOf(const KelBlockPtr& body) {
    auto f = mainOf(body, {output("float", "f"), output("color", "out"), input("image", "src"), input("float", "gain")});
    return checkFailure(*f);
}

KelNodePtr colorOf(float r, float g, float b, float a) {
    return call<FunctionNewColor>("color", {num(r), num(g), num(b), num(a)});
}
KelNodePtr above(float limit) { return binary(">", var("x"), num(limit)); }

// ---- Pixels -----------------------------------------------------------------------------------------

TEST(KelGraphAssign, CompoundOperatorsOnFloats) {
    VariableScript s(block({assign("f", "=", var("x")), assign("f", "+=", num(2)), assign("f", "*=", num(3)),
                            assign("f", "-=", num(1)), assign("f", "/=", num(2))}));
    EXPECT_EQ(s.f(), (Row{2.5f, 4, 5.5f, 7}));
}

TEST(KelGraphAssign, StoresOnlyAtActiveColumns) {
    VariableScript s(block({assign("f", "=", num(1)), ifElse(above(1), block({assign("f", "+=", var("x"))}))}));
    EXPECT_EQ(s.f(), (Row{1, 1, 3, 4}));
}

// Part 4.5: `color c = 1.0` sets all channels through the <C,float> operations.
TEST(KelGraphAssign, ColourFromFloatAndFromColour) {
    VariableScript s(block({declareAs("color", "c", num(1)), assign("c", "*=", colorOf(1, 2, 3, 4)), assign("c", "-=", num(0.5f)),
                            assign("out", "=", var("c"))}),
                     1);
    EXPECT_EQ(s.out()[0], (Color{0.5f, 1.5f, 2.5f, 3.5f}));
}

// Part 4.5: initialising a colour from an image, and "+=" of an image into a colour, sample it.
TEST(KelGraphAssign, AnImageIntoAColourIsSampled) {
    VariableScript s(block({declareAs("color", "c", var("src")), assign("c", "+=", var("other")), assign("out", "=", var("c"))}), 3);
    EXPECT_EQ(s.out(), (Colors{{0, 3, 0, 2}, {11, 3, 0, 2}, {22, 3, 0, 2}}));
    EXPECT_TRUE(s.run.uses("sample1"));
}

// Part 4.5: image variables copy ids per pixel under the mask; two pixels may name different images.
TEST(KelGraphAssign, AnImageVariableAssignedUnderAMaskHoldsIdsPerColumn) {
    VariableScript s(block({declareAs("image", "i", var("src")), ifElse(above(1), block({assign("i", "=", var("other"))})),
                            assign("f", "=", call<FunctionWidth>("width", {var("i")})), assign("out", "=", var("i"))}));
    EXPECT_EQ(s.f(), (Row{10, 10, 30, 30}));
    EXPECT_EQ(s.out(), (Colors{{0, 1, 0, 1}, {1, 1, 0, 1}, {20, 2, 0, 1}, {30, 2, 0, 1}}));
}

// Part 4.5: an assignment clears the uniform flag, so an assigned image goes the long way.
TEST(KelGraphAssign, AssignmentClearsTheUniformFlag) {
    KelContext context(GeInterval<int>(0, 2), 0);
    int a = context.declareVariable("a");
    context.setVariable(a, context.newConstantFloat(1.0f, 1));
    KelNodePtr node = assign("a", "=", num(3));
    node->check(context);
    EXPECT_TRUE(context.getVariable(a)->isUniform());
    KelValuePtr result = node->eval(context);
    EXPECT_EQ(result.get(), context.getVariable(a).get());
    EXPECT_FALSE(result->isUniform());
}

// Part 4.5: a declaration resets all pixels, active or not; only the branch's pixels then get 2.
TEST(KelGraphInitVar, ADeclarationInABranchResetsAllPixels) {
    // if (x > 1) { float a; a = 2; <snapshot of a> }
    RCShdPtr<SnapshotNode> snapshot(new SnapshotNode("a"));
    VariableScript s(block({ifElse(above(1), block({declare("float", "a"), assign("a", "=", num(2)), snapshot}))}));
    EXPECT_EQ(snapshot->row, (Row{0, 0, 2, 2}));
    // The next row finds the value object left over; the declaration clears its inactive columns too.
    IxScanlineUtil::set(rcStaticCast<KelFloat>(s.run.context().getVariable(snapshot->id()))->getScanline(), 9.0f, nullptr);
    s.run.runRow(1);
    EXPECT_EQ(snapshot->row, (Row{0, 0, 2, 2}));
}

TEST(KelGraphInitVar, TheResetTakesNoMask) {
    KelContext context(GeInterval<int>(0, 4), 0);
    context.pushScope();
    KelNodePtr declaration = declare("float", "a");
    declaration->check(context);
    KelNodePtr store = assign("a", "=", num(7));
    store->check(context);
    store->eval(context);
    KelFloatPtr active = context.newFloat(0);
    for (int x = 0; x < 4; ++x) active->getScanline()[x] = x == 0 ? 1.0f : 0.0f;
    context.getMask().narrow(active, 0);
    KelValuePtr reset = declaration->eval(context);
    EXPECT_EQ(rowOf(rcStaticCast<KelFloat>(reset)->getScanline()), (Row{0, 0, 0, 0}));
}

TEST(KelGraphInitVar, DefaultsAndFirstRunInATileContext) {
    auto f = mainOf(block({declare("float", "a"), declare("color", "c"), declare("image", "i", 1, false)}));
    KelScriptRun run(f);
    run.check();
    EXPECT_EQ(run.variableCount(), 6);
    run.beginTile(0, 2);
    EXPECT_TRUE(run.context().getVariable(3).isNull());
    run.runRow(0);
    KelValuePtr a = run.context().getVariable(3), c = run.context().getVariable(4), i = run.context().getVariable(5);
    ASSERT_TRUE(a && c && i);
    EXPECT_TRUE(a->isType(KelValueTypes::Float));
    EXPECT_FALSE(a->isConst());
    EXPECT_EQ(rowOf(rcStaticCast<KelColor>(c)->getScanline()), (Colors{{0, 0, 0, 1}, {0, 0, 0, 1}}));
    EXPECT_TRUE(i->isType(KelValueTypes::Image));
    EXPECT_TRUE(i->isConst());
    EXPECT_EQ(rowOf(rcStaticCast<KelFloat>(i)->getScanline()), (Row{0, 0}));
    // Later rows keep the value objects and only reset them.
    IxScanlineUtil::set(rcStaticCast<KelColor>(c)->getScanline(), Color{5, 5, 5, 5}, nullptr);
    run.runRow(1);
    EXPECT_EQ(run.context().getVariable(4).get(), c.get());
    EXPECT_EQ(rowOf(rcStaticCast<KelColor>(c)->getScanline()), (Colors{{0, 0, 0, 1}, {0, 0, 0, 1}}));
}

TEST(KelGraphLiteral, IsAConstUniformTemporaryAtEachEval) {
    KelContext context(GeInterval<int>(0, 3), 0);
    KelNodePtr literal = num(2.5f);
    KelValuePtr checked = literal->check(context);
    EXPECT_TRUE(checked->isConst());
    KelValuePtr first = literal->eval(context);
    KelValuePtr second = literal->eval(context);
    EXPECT_NE(first.get(), second.get());
    EXPECT_TRUE(first->isUniform());
    EXPECT_TRUE(first->isConst());
    EXPECT_EQ(rowOf(rcStaticCast<KelFloat>(first)->getScanline()), (Row{2.5f, 2.5f, 2.5f}));
}

TEST(KelGraphVariable, EvalDeliversTheVariablesOwnValue) {
    KelContext context(GeInterval<int>(0, 2), 0);
    KelNodePtr v = var("y");
    EXPECT_EQ(v->check(context).get(), context.getVariable(1).get());
    EXPECT_EQ(v->eval(context).get(), context.getVariable(1).get());
    EXPECT_EQ(context.usedNames().count("y"), 1u);
}

// An assignment does not count as a use of the name.
TEST(KelGraphAssign, AnAssignmentIsNoUseOfTheName) {
    KelScriptRun run(mainOf(block({assign("f", "=", num(1))}), {output("float", "f")}));
    run.check();
    EXPECT_FALSE(run.uses("f"));
    EXPECT_FALSE(run.uses("x"));
}

// ---- Check -----------------------------------------------------------------------------------------

TEST(KelGraphAssignCheck, Messages) {
    struct Case {
        KelBlockPtr body;
        std::string message;
    };
    KelNodePtr voidValue = call<FunctionSetR>("setR", {var("out"), num(1)});
    const Case cases[] = {
        {block({assign("nope", "=", num(1), 5)}), "Undefined variable: nope"},
        // The name is looked up before the value is tested for void.
        {block({assign("nope", "=", KelNodePtr(new KelSyntaxTree(1)), 5)}), "Undefined variable: nope"},
        {block({assign("f", "=", KelNodePtr(new KelSyntaxTree(1)), 5)}), "Cannot assign the value of type void"},
        {block({assign("f", "=", voidValue, 5)}), "Cannot assign the value of type void"},
        {block({assign("gain", "=", num(1), 5)}), "Cannot assign a const variable: gain"},
        {block({assign("x", "+=", num(1), 5)}), "Cannot assign a const variable: x"},
        {block({declareAs("float", "a", num(1), 2, false), assign("a", "=", num(2), 5)}), "Cannot assign a const variable: a"},
        {block({declareAs("float", "a", colorOf(1, 1, 1, 1), 5)}), "Cannot assign a float with anything other than float"},
        {block({assign("f", "=", var("src"), 5)}), "Cannot assign a float with anything other than float"},
        {block({declare("image", "i"), assign("i", "+=", var("src"), 5)}), "Cannot assign a image with anything other than image"},
        {block({declare("image", "i"), assign("i", "=", num(1), 5)}), "Cannot assign a image with anything other than image"},
        {block({declareAs("float", "a", num(1)), block({declare("float", "a", 5)})}), "Variable already defined: a"},
        {block({declare("color", "gain", 5)}), "Variable already defined: gain"},
        {block({assign("f", "=", var("missing", 5))}), "Variable not defined: missing"},
    };
    for (const Case& c : cases) {
        CheckFailure failure = failureOf(c.body);
        EXPECT_EQ(failure.reason, atLine(c.message, 5));
        EXPECT_EQ(failure.line, 5);
    }
}

// Part 4.5: `const float a = 1` passes check and run, since the AssignNode inside has checkConst 0.
TEST(KelGraphAssignCheck, AConstTakesItsInitialValue) {
    VariableScript s(block({declareAs("float", "a", num(1), 1, false), assign("f", "=", binary("+", var("a"), var("gain")))}), 2);
    EXPECT_EQ(s.f(), (Row{3, 3}));
}

TEST(KelGraphAssignCheck, AColourTakesAFloatWithNoWrap) {
    KelNodePtr value = num(1);
    KelNodePtr node = assign("out", "=", value);
    auto f = mainOf(block({node}), {output("color", "out")});
    KelContext context(checkInterval(), 0);
    f->check(context);
    EXPECT_EQ(printed(*node), "out = 1");
    KelNodePtr image = assign("out", "-=", var("src"));
    auto g = mainOf(block({image}), {output("color", "out"), input("image", "src")});
    KelContext context2(checkInterval(), 0);
    g->check(context2);
    EXPECT_EQ(printed(*image), "out -= sample( src, )");
}

}  // namespace
}  // namespace Zt::test
