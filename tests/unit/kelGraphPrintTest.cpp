// Part 4.1: the print text of every node, the empty statement and the print of `for` with an
// absent clause; `print()` without a stream goes to standard output.
#include <gtest/gtest.h>

#include "kelTreeBuilder.h"

namespace Zt::test {
namespace {

TEST(KelGraphPrint, ExpressionsAndLiterals) {
    EXPECT_EQ(printed(*var("abc")), "abc");
    EXPECT_EQ(printed(*num(1.5f)), "1.5");
    EXPECT_EQ(printed(*num(2.0f)), "2");
    EXPECT_EQ(printed(*num(0.1f)), "0.1");
    EXPECT_EQ(printed(*unary("P++", var("a"))), "( P++ a )");
    EXPECT_EQ(printed(*binary("+", var("a"), binary("*", num(2), var("b")))), "( a + ( 2 * b ) )");
    EXPECT_EQ(printed(*binary(",", var("a"), var("b"))), "( a , b )");
}

TEST(KelGraphPrint, AssignmentsAndDeclarations) {
    EXPECT_EQ(printed(*assign("a", "+=", num(1))), "a += 1");
    // Kept on purpose: "const " marks the writable declaration, not the constant one.
    EXPECT_EQ(printed(*declare("float", "a", 1, true)), "const float a");
    EXPECT_EQ(printed(*declare("color", "c", 1, false)), "color c");
    EXPECT_EQ(printed(*declareAs("float", "a", num(3), 1, false)), "float a with a = 3");
    EXPECT_EQ(printed(*declareAs("image", "i", var("j"), 1, true)), "const image i with i = j");
}

TEST(KelGraphPrint, CallsPutACommaBehindEveryArgument) {
    EXPECT_EQ(printed(*call<FunctionRand>("rand", {})), "rand(  )");
    EXPECT_EQ(printed(*call<FunctionSin>("sin", {var("x")})), "sin( x, )");
    EXPECT_EQ(printed(*call<FunctionPow>("pow", {var("x"), num(2)})), "pow( x,2, )");
}

TEST(KelGraphPrint, Blocks) {
    EXPECT_EQ(printed(*block({})), "{\n}");
    EXPECT_EQ(printed(*block({assign("a", "=", num(1)), assign("b", "=", num(2))})), "{\na = 1b = 2}");
}

TEST(KelGraphPrint, IfWithAndWithoutElse) {
    EXPECT_EQ(printed(*ifElse(var("c"), block({assign("a", "=", num(1))}))), "if ( c ) \n{\na = 1}\n");
    EXPECT_EQ(printed(*ifElse(var("c"), block({}), block({assign("a", "=", num(2))}))), "if ( c ) \n{\n}\nelse\n{\na = 2}\n");
}

TEST(KelGraphPrint, Loops) {
    EXPECT_EQ(printed(*loopWhile(var("c"), block({}))), "while ( c ) \n{\n}");
    EXPECT_EQ(printed(*loopFor(declareAs("float", "i", num(0)), binary("<", var("i"), num(3)), unary("P++", var("i")), block({}))),
              "for ( const float i with i = 0 , ( i < 3 ) , ( P++ i ) ) \n{\n}");
}

// Part 4.1: `for` prints `_init` and `_increment` unconditionally.
TEST(KelGraphPrint, ForWithAnAbsentClauseThrowsTheNullPointerException) {
    KelNodePtr noInit = loopFor(nullptr, var("c"), var("i"), block({}));
    KelNodePtr noIncrement = loopFor(var("i"), var("c"), nullptr, block({}));
    EXPECT_THROW(printed(*noInit), ExNullPtr);
    EXPECT_THROW(printed(*noIncrement), ExNullPtr);
    // The message names the pointee's type as the source spells it, not the ABI's mangled name.
    try {
        printed(*noInit);
        FAIL() << "print did not throw";
    } catch (const ExNullPtr& e) {
        EXPECT_EQ(e.getReason(), "Null pointer: Zt::KelSyntaxTree");
    }
}

TEST(KelGraphPrint, FunctionDeclarationAndParameters) {
    EXPECT_EQ(printed(*input("image", "src")), "\tIN image src\n");
    EXPECT_EQ(printed(*output("color", "out")), "\tOUT color out\n");
    auto f = mainOf(block({assign("out", "=", var("src"))}), {output("color", "out"), input("image", "src")});
    EXPECT_EQ(printed(*f), "main( \n\tOUT color out\n\tIN image src\n ) \n{\nout = src}");
}

TEST(KelGraphPrint, TheEmptyStatementPrintsNothingAndYieldsNull) {
    KelSyntaxTree empty(4);
    EXPECT_EQ(printed(empty), "");
    KelContext context(GeInterval<int>(0, 4), 0);
    EXPECT_TRUE(empty.check(context).isNull());
    EXPECT_TRUE(empty.eval(context).isNull());
    // In a child position it behaves as an empty node.
    KelBlockPtr b = block({KelNodePtr(new KelSyntaxTree(2)), assign("x", "=", num(1))});
    EXPECT_EQ(printed(*b), "{\nx = 1}");
}

TEST(KelGraphPrint, PrintWithoutAStreamWritesToStandardOutput) {
    testing::internal::CaptureStdout();
    binary("-", var("a"), num(0.5f))->print();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "( a - 0.5 )");
}

// The sample wrap shows in the printed tree after check.
TEST(KelGraphPrint, TheSampleWrapShowsAfterCheck) {
    auto f = mainOf(block({assign("out", "=", binary("+", var("src"), num(1)))}), {output("color", "out"), input("image", "src")});
    KelContext context(checkInterval(), 0);
    f->check(context);
    EXPECT_EQ(printed(*f), "main( \n\tOUT color out\n\tIN image src\n ) \n{\nout = ( sample( src, ) + 1 )}");
}

// Part 4.1: a base KelSyntaxTree prints nothing in any child position, not only as a statement
// of a block: as the value of an assignment or a declaration, as an operand, as a call argument
// (its comma stays), as a condition, and as the clauses of a `for`, where, unlike an absent
// clause, it prints without the null-pointer exception.
TEST(KelGraphPrint, TheEmptyStatementPrintsNothingInAnyChildPosition) {
    const auto empty = [] { return KelNodePtr(new KelSyntaxTree(3)); };
    EXPECT_EQ(printed(*assign("a", "=", empty())), "a = ");
    EXPECT_EQ(printed(*assign("a", "*=", empty())), "a *= ");
    EXPECT_EQ(printed(*declareAs("float", "a", empty(), 1, false)), "float a with a = ");
    EXPECT_EQ(printed(*call<FunctionSin>("sin", {empty()})), "sin( , )");
    EXPECT_EQ(printed(*call<FunctionPow>("pow", {empty(), var("b")})), "pow( ,b, )");
    EXPECT_EQ(printed(*call<FunctionPow>("pow", {var("a"), empty()})), "pow( a,, )");
    EXPECT_EQ(printed(*binary("+", var("a"), empty())), "( a +  )");
    EXPECT_EQ(printed(*binary("*", empty(), var("b"))), "(  * b )");
    EXPECT_EQ(printed(*unary("P++", empty())), "( P++  )");
    EXPECT_EQ(printed(*ifElse(empty(), block({}))), "if (  ) \n{\n}\n");
    EXPECT_EQ(printed(*ifElse(var("c"), block({empty()}), block({empty()}))), "if ( c ) \n{\n}\nelse\n{\n}\n");
    EXPECT_EQ(printed(*loopWhile(empty(), block({}))), "while (  ) \n{\n}");
    EXPECT_EQ(printed(*loopFor(empty(), var("c"), empty(), block({}))), "for (  , c ,  ) \n{\n}");
}

}  // namespace
}  // namespace Zt::test
