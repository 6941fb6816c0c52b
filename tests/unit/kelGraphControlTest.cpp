// Part 4.2: control flow over a scanline. Conditions narrow the mask, branches and bodies store
// only at the active columns, every statement restores the mask as it found it, and the checks
// of the conditions and of the scopes. Also the project's deliberate cancellation point in loops.
#include <gtest/gtest.h>

#include "kelTreeBuilder.h"

namespace Zt::test {
namespace {

// A statement that counts how often it runs and records whether any column was active then.
class CountingNode : public KelSyntaxTree {
public:
    CountingNode() : KelSyntaxTree(1) {}
    RCShdPtr<KelValue> eval(KelContext& context) const override {
        ++runs;
        if (context.getMask().noneActive()) ++runsWithNoActiveColumn;
        return nullptr;
    }
    mutable int runs = 0;
    mutable int runsWithNoActiveColumn = 0;
};

// A float condition that gives the next of its rows at each evaluation, the last one for ever.
class PassConditionNode : public KelSyntaxTree {
public:
    explicit PassConditionNode(std::vector<std::vector<float>> rows) : KelSyntaxTree(1), _rows(std::move(rows)) {}
    RCShdPtr<KelValue> check(KelContext& context) override { return context.newFloat(0); }
    RCShdPtr<KelValue> eval(KelContext& context) const override {
        const std::vector<float>& row = _rows[std::min(_pass++, _rows.size() - 1)];
        KelFloatPtr value = context.newFloat(0);
        for (std::size_t i = 0; i < row.size(); ++i) value->getScanline().begin()[i] = row[i];
        return value;
    }

private:
    std::vector<std::vector<float>> _rows;
    mutable std::size_t _pass = 0;
};

// A statement that records the mask under which it runs, at each run.
class MaskProbeNode : public KelSyntaxTree {
public:
    MaskProbeNode() : KelSyntaxTree(1) {}
    RCShdPtr<KelValue> eval(KelContext& context) const override {
        const IxScanline<float>& mask = context.getMask().getScanline();
        masks.emplace_back(mask.begin(), mask.begin() + mask.getInterval().size());
        return nullptr;
    }
    mutable std::vector<std::vector<float>> masks;
};

// Runs `body` as main(OUT float f, OUT float g) over columns [0, width) for one row.
struct FloatScript {
    FloatScript(const KelBlockPtr& body, int width) : run(mainOf(body, {output("float", "f"), output("float", "g")})) {
        run.check();
        run.beginTile(0, width);
        run.bindFloatOutput("f");
        run.bindFloatOutput("g");
        run.runRow(0);
    }
    std::vector<float> f() const { return run.floats("f"); }
    std::vector<float> g() const { return run.floats("g"); }
    KelScriptRun run;
};

using Row = std::vector<float>;

TEST(KelGraphControlIf, ColumnsTakeDifferentPaths) {
    FloatScript s(block({ifElse(binary("<", var("x"), num(2)), block({assign("f", "=", num(1))}),
                                block({assign("f", "=", num(2))}))}),
                  4);
    EXPECT_EQ(s.f(), (Row{1, 1, 2, 2}));
    EXPECT_TRUE(s.run.context().getMask().allActive());
}

TEST(KelGraphControlIf, WithoutElseStoresOnlyWhereTheConditionHolds) {
    FloatScript s(block({assign("f", "=", num(5)), ifElse(binary(">", var("x"), num(1)), block({assign("f", "+=", num(1))}))}), 4);
    EXPECT_EQ(s.f(), (Row{5, 5, 6, 6}));
}

// Part 4.2: an `if` without `_else` prints and runs with one narrowing only. Its `_then` runs
// once, under the entry mask narrowed by the condition; nothing runs under the inverted
// condition; the mask on exit is the entry mask with its flags; and nothing is allocated, not
// even a copy of a writable condition (a variable's own object), which only an `_else` would
// need to see unchanged.
TEST(KelGraphControlIf, WithoutElseRunsWithOneNarrowingOnly) {
    KelContext context(GeInterval<int>(2, 8), 0);  // absolute columns 2..7
    {
        KelFloatPtr entry = context.newFloat(0);
        const float entryRow[] = {1, 1, 1, 0, 1, 1};
        for (int x = 2; x < 8; ++x) entry->getScanline()[x] = entryRow[x - 2];
        context.getMask().narrow(entry, 0);
    }
    const int a = context.declareVariable("a");
    KelFloatPtr condition = context.newFloat(1);
    const float conditionRow[] = {1, 0, 2, 1, 0, -1};
    for (int x = 2; x < 8; ++x) condition->getScanline()[x] = conditionRow[x - 2];
    context.setVariable(a, condition);
    RCShdPtr<MaskProbeNode> probe(new MaskProbeNode);
    KelNodePtr statement = ifElse(var("a"), block({probe}));
    statement->check(context);
    EXPECT_EQ(printed(*statement), "if ( a ) \n{\n}\n");

    const std::size_t poolBefore = context.poolSize();
    statement->eval(context);
    ASSERT_EQ(probe->masks.size(), 1u);
    EXPECT_EQ(probe->masks[0], (Row{1, 0, 1, 0, 0, 1}));
    EXPECT_EQ(rowOf(context.getMask().getScanline()), (Row{1, 1, 1, 0, 1, 1}));
    EXPECT_FALSE(context.getMask().allActive());
    EXPECT_FALSE(context.getMask().noneActive());
    EXPECT_EQ(context.poolSize(), poolBefore);
    EXPECT_EQ(rowOf(condition->getScanline()), (Row{1, 0, 2, 1, 0, -1}));

    // Again from a full mask: the flags come back as they were too.
    KelContext full(GeInterval<int>(0, 3), 0);
    const int b = full.declareVariable("a");
    KelFloatPtr c = full.newFloat(1);
    for (int x = 0; x < 3; ++x) c->getScanline()[x] = x == 1 ? 1.0f : 0.0f;
    full.setVariable(b, c);
    RCShdPtr<MaskProbeNode> fullProbe(new MaskProbeNode);
    KelNodePtr fullStatement = ifElse(var("a"), block({fullProbe}));
    fullStatement->check(full);
    const std::size_t fullPoolBefore = full.poolSize();
    fullStatement->eval(full);
    ASSERT_EQ(fullProbe->masks.size(), 1u);
    EXPECT_EQ(fullProbe->masks[0], (Row{0, 1, 0}));
    EXPECT_TRUE(full.getMask().allActive());
    EXPECT_EQ(rowOf(full.getMask().getScanline()), (Row{1, 1, 1}));
    EXPECT_EQ(full.poolSize(), fullPoolBefore);
}

// Part 4.2: the branch is not skipped when the mask is empty; an assignment in it changes nothing.
TEST(KelGraphControlIf, AFalseConditionStillRunsThenWithNoActiveColumn) {
    RCShdPtr<CountingNode> counter(new CountingNode);
    FloatScript s(block({assign("f", "=", num(3)), ifElse(num(0), block({counter, assign("f", "=", num(9))}))}), 4);
    EXPECT_EQ(counter->runs, 1);
    EXPECT_EQ(counter->runsWithNoActiveColumn, 1);
    EXPECT_EQ(s.f(), (Row{3, 3, 3, 3}));
}

TEST(KelGraphControlIf, ATrueConditionStillRunsElseWithNoActiveColumn) {
    RCShdPtr<CountingNode> counter(new CountingNode);
    FloatScript s(block({ifElse(num(1), block({assign("f", "=", num(1))}), block({counter, assign("f", "=", num(2))}))}), 3);
    EXPECT_EQ(counter->runsWithNoActiveColumn, 1);
    EXPECT_EQ(s.f(), (Row{1, 1, 1}));
}

// Part 4.2: a change to the condition's variables inside _then does not affect which pixels
// _else sees, even though `a` delivers the variable's own value object.
TEST(KelGraphControlIf, ThenChangingTheConditionVariableDoesNotMoveElse) {
    FloatScript s(block({declareAs("float", "a", binary("<", var("x"), num(2))),
                         ifElse(var("a"), block({assign("a", "=", num(0)), assign("f", "=", num(1))}),
                                block({assign("f", "=", num(2))}))}),
                  4);
    EXPECT_EQ(s.f(), (Row{1, 1, 2, 2}));
}

TEST(KelGraphControlIf, ThenSettingTheConditionThroughAnAssignmentDoesNotMoveElse) {
    // if (g = x < 1) { g = 0 } else { f = 7 }: the else sees the columns where g was 0 before.
    FloatScript s(block({ifElse(assign("g", "=", binary("<", var("x"), num(1))), block({assign("g", "=", num(0))}),
                                block({assign("f", "=", num(7))}))}),
                  3);
    EXPECT_EQ(s.g(), (Row{0, 0, 0}));
    EXPECT_EQ(s.f(), (Row{0, 7, 7}));
}

TEST(KelGraphControlIf, NestedIfsRestoreTheOuterMask) {
    // if (x > 0) { if (x > 2) { f = 1 } g = 1 }
    FloatScript s(block({ifElse(binary(">", var("x"), num(0)),
                                block({ifElse(binary(">", var("x"), num(2)), block({assign("f", "=", num(1))})),
                                       assign("g", "=", num(1))}))}),
                  5);
    EXPECT_EQ(s.f(), (Row{0, 0, 0, 1, 1}));
    EXPECT_EQ(s.g(), (Row{0, 1, 1, 1, 1}));
}

TEST(KelGraphControlWhile, EachColumnRunsItsOwnNumberOfPasses) {
    RCShdPtr<CountingNode> counter(new CountingNode);
    FloatScript s(block({loopWhile(binary("<", var("f"), var("x")), block({assign("f", "+=", num(1)), counter}))}), 5);
    EXPECT_EQ(s.f(), (Row{0, 1, 2, 3, 4}));
    EXPECT_EQ(counter->runs, 4);
    EXPECT_EQ(counter->runsWithNoActiveColumn, 0);
    EXPECT_TRUE(s.run.context().getMask().allActive());
}

// Part 4.2: a column that has gone false stays inactive, even if its condition turns true again.
TEST(KelGraphControlWhile, NarrowingAccumulatesOverPasses) {
    RCShdPtr<PassConditionNode> condition(new PassConditionNode({{1, 1, 1}, {0, 1, 1}, {1, 1, 0}, {1, 1, 1}, {0, 0, 0}}));
    FloatScript s(block({loopWhile(condition, block({assign("f", "+=", num(1))}))}), 3);
    EXPECT_EQ(s.f(), (Row{1, 4, 2}));
}

TEST(KelGraphControlWhile, AConditionFalseEverywhereNeverRunsTheBody) {
    RCShdPtr<CountingNode> counter(new CountingNode);
    FloatScript s(block({loopWhile(num(0), block({counter})), assign("f", "=", num(7))}), 3);
    EXPECT_EQ(counter->runs, 0);
    EXPECT_EQ(s.f(), (Row{7, 7, 7}));
}

TEST(KelGraphControlWhile, TheMaskOnExitEqualsTheMaskOnEntry) {
    KelContext context(GeInterval<int>(0, 4), 0);
    KelFloatPtr entry = context.newFloat(0);
    for (int x = 0; x < 4; ++x) entry->getScanline()[x] = x % 2 ? 1.0f : 0.0f;
    context.getMask().narrow(entry, 0);
    int counter = context.declareVariable("n");
    context.setVariable(counter, context.newConstantFloat(0.0f, 1));
    KelNodePtr loop = loopWhile(binary("<", var("n"), num(3)), block({assign("n", "+=", num(1))}));
    loop->check(context);
    loop->eval(context);
    EXPECT_EQ(rowOf(context.getMask().getScanline()), (Row{0, 1, 0, 1}));
    EXPECT_FALSE(context.getMask().allActive());
    EXPECT_FALSE(context.getMask().noneActive());
    EXPECT_EQ(rowOf(rcStaticCast<KelFloat>(context.getVariable(counter))->getScanline()), (Row{0, 3, 0, 3}));
}

TEST(KelGraphControlFor, NestedLoopsRestoreTheOuterMask) {
    // for (float i = 0; i < x; i++) { float j = 0; while (j < i) { j += 1; g += 1 } f += 1 }
    FloatScript s(block({loopFor(declareAs("float", "i", num(0)), binary("<", var("i"), var("x")), unary("P++", var("i")),
                                 block({declareAs("float", "j", num(0)),
                                        loopWhile(binary("<", var("j"), var("i")),
                                                  block({assign("j", "+=", num(1)), assign("g", "+=", num(1))})),
                                        assign("f", "+=", num(1))}))}),
                  6);
    EXPECT_EQ(s.f(), (Row{0, 1, 2, 3, 4, 5}));
    EXPECT_EQ(s.g(), (Row{0, 0, 1, 3, 6, 10}));
    EXPECT_TRUE(s.run.context().getMask().allActive());
}

TEST(KelGraphControlFor, InitAndIncrementMayBeAbsent) {
    FloatScript s(block({loopFor(nullptr, binary("<", var("f"), var("x")), nullptr, block({assign("f", "+=", num(1))}))}), 4);
    EXPECT_EQ(s.f(), (Row{0, 1, 2, 3}));
}

// Part 4.2: _init runs under the unnarrowed mask, _increment under the narrowed one.
TEST(KelGraphControlFor, InitRunsOnAllColumnsIncrementOnTheActiveOnes) {
    // for (g = 10; f < x; g += 1) { f += 1 }
    FloatScript s(block({loopFor(assign("g", "=", num(10)), binary("<", var("f"), var("x")), assign("g", "+=", num(1)),
                                 block({assign("f", "+=", num(1))}))}),
                  3);
    EXPECT_EQ(s.g(), (Row{10, 11, 12}));
}

// ---- check -----------------------------------------------------------------------------------

KelNodePtr statementWithCondition(const std::string& kind, const KelNodePtr& condition, int line) {
    if (kind == "if") return ifElse(condition, block({}), nullptr, line);
    if (kind == "while") return loopWhile(condition, block({}), line);
    return loopFor(nullptr, condition, nullptr, block({}), line);
}

TEST(KelGraphControlCheck, ConditionsMustBeFloats) {
    const std::pair<std::string, std::string> kinds[] = {{"if", "If condition is not a float type"},
                                                         {"while", "While condition is not a float type"},
                                                         {"for", "For condition is not a float type"}};
    for (const auto& [kind, message] : kinds) {
        for (const char* type : {"color", "image"}) {
            auto f = mainOf(block({statementWithCondition(kind, var("v"), 7)}), {input(type, "v")});
            CheckFailure failure = checkFailure(*f);
            EXPECT_EQ(failure.reason, atLine(message, 7)) << kind << " " << type;
            EXPECT_EQ(failure.line, 7);
        }
        auto voidCondition = mainOf(block({statementWithCondition(kind, KelNodePtr(new KelSyntaxTree(3)), 9)}));
        EXPECT_EQ(checkFailure(*voidCondition).reason, atLine(message, 9)) << kind;
        auto floatCondition = mainOf(block({statementWithCondition(kind, var("v"), 7)}), {input("float", "v")});
        KelContext context(checkInterval(), 0);
        EXPECT_NO_THROW(floatCondition->check(context));
    }
}

// No conversion: an image in a condition is not sampled.
TEST(KelGraphControlCheck, AnImageConditionIsNotWrapped) {
    KelNodePtr statement = ifElse(var("src"), block({}), nullptr, 2);
    auto f = mainOf(block({statement}), {input("image", "src")});
    checkFailure(*f);
    EXPECT_EQ(printed(*statement), "if ( src ) \n{\n}\n");
}

TEST(KelGraphControlCheck, AForClauseDeclarationEndsWithTheFor) {
    auto f = mainOf(block({loopFor(declareAs("float", "i", num(0)), binary("<", var("i"), num(2)), unary("P++", var("i")),
                                   block({assign("g", "=", var("i"))})),
                           assign("g", "=", var("i", 5), 5)}),
                    {output("float", "g")});
    CheckFailure failure = checkFailure(*f);
    EXPECT_EQ(failure.reason, atLine("Variable not defined: i", 5));
    EXPECT_EQ(failure.line, 5);
}

TEST(KelGraphControlCheck, ABranchDeclarationEndsWithTheBranch) {
    auto f = mainOf(block({ifElse(num(1), block({declare("float", "a")})), assign("g", "=", var("a", 4), 4)}),
                    {output("float", "g")});
    EXPECT_EQ(checkFailure(*f).reason, atLine("Variable not defined: a", 4));
    auto w = mainOf(block({loopWhile(num(0), block({declare("float", "b")})), assign("g", "=", var("b", 6), 6)}),
                    {output("float", "g")});
    EXPECT_EQ(checkFailure(*w).reason, atLine("Variable not defined: b", 6));
    auto e = mainOf(block({ifElse(num(1), block({}), block({declare("float", "c")})), assign("g", "=", var("c", 8), 8)}),
                    {output("float", "g")});
    EXPECT_EQ(checkFailure(*e).reason, atLine("Variable not defined: c", 8));
}

// Part 4.2: the body is checked before the increment, so the increment cannot see the body's names.
TEST(KelGraphControlCheck, TheIncrementCannotSeeTheBodysDeclarations) {
    auto f = mainOf(block({loopFor(nullptr, num(0), unary("P++", var("k", 3)), block({declare("float", "k")}), 3)}));
    EXPECT_EQ(checkFailure(*f).reason, atLine("Variable not defined: k", 3));
}

TEST(KelGraphControlCheck, EmptyBlockChecksAndEvaluatesToNull) {
    KelContext context(GeInterval<int>(0, 2), 0);
    KelBlockPtr b = block({});
    EXPECT_TRUE(b->check(context).isNull());
    EXPECT_TRUE(b->eval(context).isNull());
}

// ---- The deliberate difference: loops are cancellation points ----------------------------------

TEST(KelGraphControlCancel, AnEndlessLoopEndsWhenTheRenderIsCancelled) {
    for (const bool useFor : {false, true}) {
        KelBlockPtr body = block({assign("f", "+=", num(1))});
        KelNodePtr loop = useFor ? loopFor(nullptr, num(1), nullptr, body) : loopWhile(num(1), body);
        KelScriptRun run(mainOf(block({loop}), {output("float", "f")}));
        run.check();
        run.beginTile(0, 2);
        run.bindFloatOutput("f");
        PxRequestMgr::getInstance().cancel();
        EXPECT_THROW(run.runRow(0), ExCancelled);
        PxRequestMgr::getInstance().reset();
    }
}

// ---- The pool's steady state -----------------------------------------------------------------

TEST(KelGraphControlPool, ThePoolStopsGrowingAfterTheFirstRow) {
    // color c = src * 0.5; for (float i = 0; i < x; i++) { if (i < 2) { f += i } else { c += 0.1 } }
    // while (g < y) g++; out = c + f;
    KelScriptRun run(mainOf(
        block({declareAs("color", "c", binary("*", var("src"), num(0.5f))),
               loopFor(declareAs("float", "i", num(0)), binary("<", var("i"), var("x")), unary("P++", var("i")),
                       block({ifElse(binary("<", var("i"), num(2)), block({assign("f", "+=", var("i"))}),
                                     block({assign("c", "+=", num(0.1f))}))})),
               loopWhile(binary("<", var("g"), var("y")), block({unary("P++", var("g"))})),
               assign("out", "=", binary("+", var("c"), var("f")))}),
        {output("color", "out"), input("image", "src"), output("float", "f"), output("float", "g")}));
    run.check();
    run.beginTile(0, 8);
    run.bindColorOutput("out");
    run.bindImage("src", [](int x, int y) { return Color{float(x), float(y), 0.0f, 1.0f}; });
    run.bindFloatOutput("f");
    run.bindFloatOutput("g");
    run.runRow(0);
    std::size_t afterFirstRow = run.context().poolSize();
    for (int y = 1; y < 6; ++y) run.runRow(y);
    EXPECT_EQ(run.context().poolSize(), afterFirstRow);
    EXPECT_EQ(run.colors("out")[1], (Color{0.5f * 1 + 0, 0.5f * 5 + 0, 0.0f, 0.5f}));
}

}  // namespace
}  // namespace Zt::test
