// Part 4.6: parameters, the function declaration and FunctionCallNode's overload resolution
// (exact pass, relaxed pass with its `sample` wraps, const rule, used names, result types);
// and FunctionSample of Part 5.3 (coordinates at active columns, the current pixel, short way).
#include <gtest/gtest.h>

#include "kelFunctionTestSupport.h"
#include "kelTreeBuilder.h"

namespace Zt::test {
namespace {

using Row = std::vector<float>;
using Colors = std::vector<Color>;

// A test built-in: overload 0 (float) gives a float, overload 1 (colour) a colour, overload 2
// (float, colour) returns void; eval records the overload and the argument's type it saw.
struct Probe {
    static void declare(FunctionCallNode& node) {
        kelDeclareOverload(node, 0, KelValueTypes::Float, {KelValueTypes::Float});
        kelDeclareOverload(node, 1, KelValueTypes::Color, {KelValueTypes::Color});
        kelDeclareOverload(node, 2, KelValueTypes::Void, {KelValueTypes::Float, KelValueTypes::Color}, 1);
    }
    static RCShdPtr<KelValue> eval(const FunctionCallNode& node, KelContext& context) {
        seenOverload = node.overload();
        KelValuePtr argument = node.argument(0)->eval(context);
        seenType = argument->getType();
        return argument;
    }
    static inline int seenOverload = -1;
    static inline int seenType = 0;
};

// A built-in with no overloads at all (Part 4.6 step 4).
struct Unsigned {
    static void declare(FunctionCallNode&) {}
    static RCShdPtr<KelValue> eval(const FunctionCallNode&, KelContext&) { return nullptr; }
};

KelNodePtr colorOf() { return call<FunctionNewColor>("color", {num(0), num(0), num(0), num(0)}); }

// A check context with the variables of a typical script.
struct CheckScope {
    CheckScope() {
        auto declareAs = [this](const std::string& name, const KelValuePtr& v) { context.setVariable(context.declareVariable(name), v); };
        declareAs("img", context.newImage(0.0f, 0));
        declareAs("c", context.newColor(1));
        declareAs("tint", context.newColor(0));
        declareAs("f", context.newFloat(1));
    }
    KelContext context{checkInterval(), 0};
};

// ---- Resolution ---------------------------------------------------------------------------------

TEST(KelGraphCallCheck, ExactPassWinsAndAnImageStaysAnImageForSample) {
    CheckScope scope;
    auto sample = call<FunctionSample>("sample", {var("img")});
    KelValuePtr type = sample->check(scope.context);
    EXPECT_EQ(sample->overload(), 1);
    EXPECT_TRUE(type->isType(KelValueTypes::Color));
    EXPECT_NE(dynamic_cast<VariableNode*>(sample->argument(0).get()), nullptr);
    EXPECT_EQ(scope.context.usedNames().count("sample1"), 1u);
    auto atCoordinates = call<FunctionSample>("sample", {var("img"), num(1), num(2)});
    atCoordinates->check(scope.context);
    EXPECT_EQ(atCoordinates->overload(), 0);
    EXPECT_EQ(scope.context.usedNames().count("sample0"), 1u);
}

// Part 4.6: after a relaxed match of overload k, _overload is k and eval sees the wrapped argument.
TEST(KelGraphCallCheck, RelaxedPassSamplesAnImageForAColourParameter) {
    auto probe = call<Probe>("probe", {var("src")});
    KelScriptRun run(mainOf(block({assign("out", "=", probe)}), {output("color", "out"), input("image", "src")}));
    run.check();
    EXPECT_EQ(probe->overload(), 1);
    EXPECT_TRUE(run.uses("probe1"));
    EXPECT_TRUE(run.uses("sample1"));
    auto* wrapped = dynamic_cast<FunctionNode<FunctionSample>*>(probe->argument(0).get());
    ASSERT_NE(wrapped, nullptr);
    EXPECT_EQ(wrapped->line(), 1);
    EXPECT_EQ(printed(*probe), "probe( sample( src, ), )");
    run.beginTile(0, 2);
    run.bindColorOutput("out");
    run.bindImage("src", [](int x, int y) { return Color{float(x), float(y), 0.5f, 1.0f}; });
    Probe::seenOverload = -1;
    run.runRow(3);
    EXPECT_EQ(Probe::seenOverload, 1);
    EXPECT_EQ(Probe::seenType, KelValueTypes::Color);
    EXPECT_EQ(run.colors("out"), (Colors{{0, 3, 0.5f, 1}, {1, 3, 0.5f, 1}}));
}

TEST(KelGraphCallCheck, AFloatIsNotAcceptedForAColourParameter) {
    CheckScope scope;
    auto red = call<FunctionR>("r", {num(1)}, 6);
    CheckFailure failure = checkFailure(*red, scope.context);
    EXPECT_EQ(failure.reason, atLine("No overloaded function for 'r' match the argument list", 6));
    EXPECT_EQ(failure.line, 6);
    auto sampled = call<FunctionR>("r", {var("img")});
    EXPECT_TRUE(sampled->check(scope.context)->isType(KelValueTypes::Float));
    EXPECT_EQ(printed(*sampled), "r( sample( img, ), )");
}

TEST(KelGraphCallCheck, ArgumentCountMustMatch) {
    CheckScope scope;
    auto sine = call<FunctionSin>("sin", {num(1), num(2)}, 2);
    EXPECT_EQ(checkFailure(*sine, scope.context).reason, atLine("No overloaded function for 'sin' match the argument list", 2));
}

// Part 4.6: all arguments are checked before any overload is tried.
TEST(KelGraphCallCheck, AVoidArgumentIsReportedBeforeAMismatch) {
    CheckScope scope;
    auto pow = call<FunctionPow>("pow", {call<FunctionSetR>("setR", {var("c"), num(1)}), var("c"), num(3)}, 8);
    CheckFailure failure = checkFailure(*pow, scope.context);
    EXPECT_EQ(failure.reason, atLine("Void type argument is not valid for function 'pow'", 8));
    EXPECT_EQ(failure.line, 8);
    auto late = call<FunctionSin>("sin", {num(1), var("unknown", 4)}, 8);
    EXPECT_EQ(checkFailure(*late, scope.context).reason, atLine("Variable not defined: unknown", 4));
}

TEST(KelGraphCallCheck, AConstInAWrittenPositionIsRefused) {
    CheckScope scope;
    struct Case {
        KelCallPtr node;
        std::string message;
    };
    const Case cases[] = {
        {call<FunctionSetR>("setR", {var("tint"), num(1)}, 3), "The parameter #1 cannot be used in the function setR because it is const."},
        {call<FunctionSetG>("setG", {colorOf(), num(1)}, 3), "The parameter #1 cannot be used in the function setG because it is const."},
        {call<Probe>("probe", {num(1), var("tint")}, 3), "The parameter #2 cannot be used in the function probe because it is const."},
    };
    for (const Case& c : cases) {
        CheckFailure failure = checkFailure(*c.node, scope.context);
        EXPECT_EQ(failure.reason, atLine(c.message, 3));
        EXPECT_EQ(failure.line, 3);
    }
    auto writable = call<FunctionSetR>("setR", {var("c"), num(1)});
    EXPECT_TRUE(writable->check(scope.context).isNull());
}

TEST(KelGraphCallCheck, ResultTypesAndUsedNames) {
    CheckScope scope;
    auto sine = call<FunctionSin>("sin", {var("f")});
    EXPECT_TRUE(sine->check(scope.context)->isType(KelValueTypes::Float));
    EXPECT_EQ(scope.context.usedNames().count("sin0"), 1u);
    auto image = call<FunctionGetOutputImage>("getOutputImage", {});
    KelValuePtr imageType = image->check(scope.context);
    EXPECT_TRUE(imageType->isType(KelValueTypes::Image));
    EXPECT_FALSE(imageType->isUniform());
    EXPECT_TRUE(call<Probe>("probe", {var("f"), var("c")})->check(scope.context).isNull());
    EXPECT_EQ(scope.context.usedNames().count("probe2"), 1u);
}

TEST(KelGraphCallCheck, NoOverloadsAtAllTakesOverloadZero) {
    CheckScope scope;
    auto node = call<Unsigned>("unsigned", {var("img"), num(1)});
    EXPECT_TRUE(node->check(scope.context).isNull());
    EXPECT_EQ(node->overload(), 0);
    EXPECT_EQ(scope.context.usedNames().count("unsigned0"), 1u);
}

TEST(KelGraphCallCheck, OverloadTablesGrowAsDeclared) {
    auto node = call<Probe>("probe", {});
    EXPECT_EQ(node->parameterTypes(), (std::vector<std::vector<int>>{{1}, {4}, {1, 4}}));
    EXPECT_EQ(node->parameterModes(), (std::vector<std::vector<int>>{{0}, {0}, {0, 1}}));
    EXPECT_EQ(node->returnTypes(), (std::vector<int>{1, 4, 5}));
    EXPECT_EQ(node->overload(), -1);
}

// Part 3.4: the factory calls addOverloadParameter once per parameter, so a built-in without
// parameters has no overload at all, only its return type.
TEST(KelGraphCallCheck, BuiltInsWithoutParametersHaveNoOverloads) {
    const std::vector<RCShdPtr<FunctionCallNode>> nodes{call<FunctionRand>("rand", {}),
                                                        call<FunctionGetOutputImage>("getOutputImage", {})};
    for (const auto& node : nodes) {
        EXPECT_TRUE(node->parameterTypes().empty()) << node->getName();
        EXPECT_TRUE(node->parameterModes().empty()) << node->getName();
        EXPECT_EQ(node->returnTypes().size(), 1u) << node->getName();
    }
}

// Part 4.6 step 4 with the real built-ins: arguments are checked, held against no signature, and
// the call takes overload 0 with its return type; a const argument is no fault, since a
// function without overloads writes to no parameter.
TEST(KelGraphCallCheck, RandAndGetOutputImageWithArgumentsTakeOverloadZero) {
    CheckScope scope;
    auto random = call<FunctionRand>("rand", {var("f"), num(1)});
    KelValuePtr type = random->check(scope.context);
    EXPECT_EQ(random->overload(), 0);
    ASSERT_FALSE(type.isNull());
    EXPECT_TRUE(type->isType(KelValueTypes::Float));
    EXPECT_EQ(scope.context.usedNames().count("rand0"), 1u);
    auto output = call<FunctionGetOutputImage>("getOutputImage", {var("img")});
    type = output->check(scope.context);
    EXPECT_EQ(output->overload(), 0);
    ASSERT_FALSE(type.isNull());
    EXPECT_TRUE(type->isType(KelValueTypes::Image));
}

TEST(KelGraphCallCheck, TheSampleWrapReplacesTheLink) {
    CheckScope scope;
    KelNodePtr link = var("img");
    KelSyntaxTree* original = link.get();
    KelValuePtr type = wrapInSample(link, 12, scope.context);
    EXPECT_TRUE(type->isType(KelValueTypes::Color));
    auto* sample = dynamic_cast<FunctionNode<FunctionSample>*>(link.get());
    ASSERT_NE(sample, nullptr);
    EXPECT_EQ(sample->getName(), "sample");
    EXPECT_EQ(sample->line(), 12);
    EXPECT_EQ(sample->overload(), 1);
    EXPECT_EQ(sample->argument(0).get(), original);
}

// ---- Parameters and the declaration -------------------------------------------------------------

TEST(KelGraphParameter, CheckMakesConstInputsAndWritableOutputs) {
    KelContext context(checkInterval(), 0);
    struct Case {
        KelParameterPtr node;
        int type;
        bool isConst;
    };
    const Case cases[] = {{input("float", "a"), KelValueTypes::Float, true},
                          {output("float", "b"), KelValueTypes::Float, false},
                          {input("color", "c"), KelValueTypes::Color, true},
                          {output("color", "d"), KelValueTypes::Color, false},
                          {input("image", "e"), KelValueTypes::Image, true}};
    int expectedId = 3;
    for (const Case& c : cases) {
        KelValuePtr value = c.node->check(context);
        ASSERT_TRUE(value);
        EXPECT_TRUE(value->isType(c.type));
        EXPECT_EQ(value->isConst(), c.isConst);
        EXPECT_EQ(context.getVariableId(c.node->getName()), expectedId++);
        EXPECT_EQ(context.getVariable(context.getVariableId(c.node->getName())).get(), value.get());
    }
    KelValuePtr colour = context.getVariable(context.getVariableId("c"));
    EXPECT_EQ(rcStaticCast<KelColor>(colour)->getScanline()[0], (Color{0, 0, 0, 1}));
    EXPECT_TRUE(KelParameterPtr(new ParameterNode("odd", "vector", false, 1))->check(context).isNull());
    EXPECT_EQ(context.getVariableId("odd"), 8);
}

TEST(KelGraphParameter, TwoParametersOfOneNameAreRefused) {
    auto f = mainOf(block({}), {input("float", "a", 2), output("color", "a", 3)});
    CheckFailure failure = checkFailure(*f);
    EXPECT_EQ(failure.reason, atLine("Variable already defined: a", 3));
    EXPECT_EQ(failure.line, 3);
    auto builtIn = mainOf(block({}), {input("float", "x", 4)});
    EXPECT_EQ(checkFailure(*builtIn).reason, atLine("Variable already defined: x", 4));
}

TEST(KelGraphParameter, EvalAborts) {
    KelContext context(GeInterval<int>(0, 1), 0);
    KelParameterPtr p = input("float", "a");
    try {
        p->eval(context);
        ADD_FAILURE() << "no abort";
    } catch (const ExProgramAborted& e) {
        EXPECT_EQ(e.getReason(), "Parameters cannot be evaluated");
        EXPECT_EQ(e.getSourceLine(), 3020);
        EXPECT_EQ(e.getFile(), "tools/kel/src/kelGraph");
    }
}

TEST(KelGraphDeclaration, DeclareParametersGivesTheIdsOfTheCheck) {
    auto f = mainOf(block({declare("float", "local")}), {output("color", "out"), input("image", "src"), input("float", "gain")});
    KelContext check(checkInterval(), 0);
    EXPECT_TRUE(f->check(check).isNull());
    EXPECT_EQ(check.variableCount(), 7);
    KelContext tile(GeInterval<int>(0, 3), check.variableCount());
    f->declareParameters(tile);
    EXPECT_EQ(tile.getVariableId("out"), 3);
    EXPECT_EQ(tile.getVariableId("src"), 4);
    EXPECT_EQ(tile.getVariableId("gain"), 5);
    EXPECT_TRUE(tile.getVariable(5).isNull());
    EXPECT_TRUE(f->eval(tile).isNull());
    EXPECT_TRUE(tile.getVariable(6)->isType(KelValueTypes::Float));
}

// ---- Part 5.3: FunctionSample ---------------------------------------------------------------------

// Gives (x, y, 7, 1) for the coordinates it is asked, and checks the matrix is the identity.
class CoordinateSampler : public SdTextureSampler {
public:
    void sampleAt(Color& result, const double coords[2], const GeLinearMatrix2<double>& d) const override {
        bool identity = d.m[0][0] == 1 && d.m[0][1] == 0 && d.m[1][0] == 0 && d.m[1][1] == 1;
        result = Color{float(coords[0]), float(coords[1]), identity ? 7.0f : -1.0f, 1.0f};
    }
};

TEST(KelGraphSample, AtCoordinatesReadsTheSamplerAtActiveColumnsOnly) {
    // main(OUT color out, IN image src, IN image other): if (x != 1) out = sample(i, x * 2, y + 0.5)
    // where i is src at columns 0-1 and other (no sampler) at columns 2-3.
    auto f = mainOf(block({declareAs("image", "i", var("src")), ifElse(binary(">", var("x"), num(1)), block({assign("i", "=", var("other"))})),
                           ifElse(binary("!=", var("x"), num(1)),
                                  block({assign("out", "=", call<FunctionSample>("sample", {var("i"), binary("*", var("x"), num(2)),
                                                                                            binary("+", var("y"), num(0.5f))}))}))}),
                    {output("color", "out"), input("image", "src"), input("image", "other")});
    KelScriptRun run(f);
    run.check();
    EXPECT_TRUE(run.uses("sample0"));
    EXPECT_FALSE(run.uses("sample1"));
    run.beginTile(0, 4);
    run.bindColorOutput("out");
    int src = run.bindImage("src", [](int, int) { return Color{}; });
    run.bindImage("other", [](int, int) { return Color{}; });
    run.context().getImage(src).sampler = new CoordinateSampler;
    run.runRow(3);
    EXPECT_EQ(run.colors("out"), (Colors{{0, 3.5f, 7, 1}, {0, 0, 0, 1}, {0, 0, 0, 1}, {0, 0, 0, 1}}));
}

TEST(KelGraphSample, AtCoordinatesLeavesInactiveColumnsUnwritten) {
    CallHarness h(0, 3);
    h.context.addImage(KelImageEntry{});  // id 0, no sampler
    KelNodePtr image = h.image(0.0f);
    auto node = h.call<FunctionSample>("sample", {image, h.constant(1), h.constant(2)});
    node->check(h.context);
    h.narrowTo({1, 0, 1});
    h.prefillColor(Color{9, 9, 9, 9});
    KelValuePtr result = node->eval(h.context);
    EXPECT_EQ(CallHarness::colorRow(result), (Colors{{0, 0, 0, 1}, {9, 9, 9, 9}, {0, 0, 0, 1}}));
}

TEST(KelGraphSample, CurrentPixelShortAndLongWays) {
    CallHarness h(2, 5);
    for (float id : {0.0f, 1.0f, 2.0f}) {
        KelImageEntry entry;
        entry.scanline = new IxScanline<Color>(GeInterval<int>(2, 5), IxPaddingPolicy<Color>{});
        for (int x = 2; x < 5; ++x) (*entry.scanline)[x] = Color{id, float(x), 0, 1};
        h.context.addImage(entry);
    }
    auto uniform = h.call<FunctionSample>("sample", {h.image(2.0f)});
    uniform->check(h.context);
    EXPECT_EQ(uniform->overload(), 1);
    h.narrowTo({0, 1, 0});  // the mask plays no part
    EXPECT_EQ(CallHarness::colorRow(uniform->eval(h.context)), (Colors{{2, 2, 0, 1}, {2, 3, 0, 1}, {2, 4, 0, 1}}));
    auto varying = h.call<FunctionSample>("sample", {h.imageIds({1, 0, 2})});
    varying->check(h.context);
    EXPECT_EQ(CallHarness::colorRow(varying->eval(h.context)), (Colors{{1, 2, 0, 1}, {0, 3, 0, 1}, {2, 4, 0, 1}}));
}

TEST(KelGraphSample, CurrentPixelWithoutARowRaisesTheNullPointerException) {
    CallHarness h(0, 2);
    h.context.addImage(KelImageEntry{});
    auto uniform = h.call<FunctionSample>("sample", {h.image(0.0f)});
    auto varying = h.call<FunctionSample>("sample", {h.imageIds({0, 0})});
    uniform->check(h.context);
    varying->check(h.context);
    EXPECT_THROW(uniform->eval(h.context), ExNullPtr);
    EXPECT_THROW(varying->eval(h.context), ExNullPtr);
}

}  // namespace
}  // namespace Zt::test
