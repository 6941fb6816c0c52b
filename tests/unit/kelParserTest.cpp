// Part 3.3: the parser driver and the tree builder. The trees that parses build are compared by
// their `print` text (Part 4.1), which shows every node, its operator and the order of its
// children; the protocol's operations are also driven directly for their stack effects.
#include <gtest/gtest.h>

#include <bit>
#include <cstdint>
#include <sstream>
#include <thread>

#include "kelParser.h"

using namespace Zt;

namespace {

std::string printed(const RCShdPtr<KelSyntaxTree>& node) {
    std::ostringstream out;
    node->print(out);
    return out.str();
}

// Parses `text` and returns the print of the root, or the first error.
std::string tree(const std::string& text) {
    std::vector<PebError> errors;
    std::istringstream input(text);
    KelParserProtocol protocol(&errors);
    if (!parseScript(protocol, input)) return "failed: " + (errors.empty() ? std::string("?") : errors[0].getMessage());
    EXPECT_TRUE(errors.empty());
    EXPECT_LE(protocol.depth(), 1u);  // the finished tree stands alone
    return printed(protocol.root());
}

float literalValue(const std::string& text) {
    std::vector<PebError> errors;
    KelParserProtocol protocol(&errors);
    EXPECT_TRUE(protocol.floatLiteral(text, 1));
    KelContext context(GeInterval<int>(0, 1), 0);
    RCShdPtr<KelValue> value = protocol.root()->eval(context);
    return rcCheckedCast<KelType<float>>(value)->getScanline()[0];
}

std::uint32_t bits(float value) { return std::bit_cast<std::uint32_t>(value); }

}  // namespace

// ---- Trees ---------------------------------------------------------------------------------

TEST(KelParserTrees, StatementsShareTheScriptBlock) {
    EXPECT_EQ(tree("x = 1; { y = 2; }"), "{\nx = 1{\ny = 2}}");
    EXPECT_EQ(tree("a; ; b;"), "{\nab}");
}

TEST(KelParserTrees, SemicolonAloneLeavesTheStackEmpty) {
    std::vector<PebError> errors;
    std::istringstream input(";");
    KelParserProtocol protocol(&errors);
    ASSERT_TRUE(parseScript(protocol, input));
    EXPECT_EQ(protocol.depth(), 0u);
    EXPECT_EQ(printed(protocol.root()), "{\n}");
}

TEST(KelParserTrees, Operators) {
    EXPECT_EQ(tree("x = a + b * c - d / e;"), "{\nx = ( ( a + ( b * c ) ) - ( d / e ) )}");
    EXPECT_EQ(tree("a = b = c += 1;"), "{\na = b = c += 1}");
    EXPECT_EQ(tree("a < b == c > d && e <= f || g >= h != i;"),
              "{\n( ( ( ( a < b ) == ( c > d ) ) && ( e <= f ) ) || ( ( g >= h ) != i ) )}");
    EXPECT_EQ(tree("a, b, c;"), "{\n( ( a , b ) , c )}");
    EXPECT_EQ(tree("-!+x;"), "{\n( - ( ! ( + x ) ) )}");
    EXPECT_EQ(tree("++x--;"), "{\n( ++ ( P-- x ) )}");
    EXPECT_EQ(tree("x++ ++;"), "{\n( P++ ( P++ x ) )}");
    EXPECT_EQ(tree("(a + b) * c;"), "{\n( ( a + b ) * c )}");
}

TEST(KelParserTrees, DeclarationsPrintTheirWritableFlagAsSpecified) {
    // Part 4.1 prints "const " for the writable declaration, on purpose.
    EXPECT_EQ(tree("float x;"), "{\nconst float x}");
    EXPECT_EQ(tree("const image i;"), "{\nimage i}");
    EXPECT_EQ(tree("vec4 c = d;"), "{\nconst color c with c = d}");
    EXPECT_EQ(tree("const float f = 2;"), "{\nfloat f with f = 2}");
}

TEST(KelParserTrees, CallsTakeTheirArgumentsLeftToRight) {
    EXPECT_EQ(tree("x = color(1, 2, 3, 4);"), "{\nx = color( 1,2,3,4, )}");
    EXPECT_EQ(tree("x = vec4(a, b, c, d);"), "{\nx = color( a,b,c,d, )}");
    EXPECT_EQ(tree("rand();"), "{\nrand(  )}");
    EXPECT_EQ(tree("x = sin(cos(y));"), "{\nx = sin( cos( y, ), )}");
    EXPECT_EQ(tree("sin = 1;"), "{\nsin = 1}");
    EXPECT_EQ(tree("x(c);"), "{\nx( c, )}");
}

TEST(KelParserTrees, IfElseChains) {
    EXPECT_EQ(tree("if (a) b;"), "{\nif ( a ) \n{\nb}\n}");
    EXPECT_EQ(tree("if (a) b; else c;"), "{\nif ( a ) \n{\nb}\nelse\n{\nc}\n}");
    // `else if`: the else is a block that holds the second IfNode.
    EXPECT_EQ(tree("if (a) b; else if (c) d;"), "{\nif ( a ) \n{\nb}\nelse\n{\nif ( c ) \n{\nd}\n}\n}");
    EXPECT_EQ(tree("if (a) ; else { }"), "{\nif ( a ) \n{\n}\nelse\n{\n}\n}");
    EXPECT_EQ(tree("if (a, b) { c; d; }"), "{\nif ( ( a , b ) ) \n{\ncd}\n}");
}

TEST(KelParserTrees, Loops) {
    EXPECT_EQ(tree("while (a) b;"), "{\nwhile ( a ) \n{\nb}}");
    EXPECT_EQ(tree("for (float i = 0; i < n; i++) s += i;"),
              "{\nfor ( const float i with i = 0 , ( i < n ) , ( P++ i ) ) \n{\ns += i}}");
    EXPECT_EQ(tree("if (a) b; else for (i = 0; i < 2; i += 1) ;"),
              "{\nif ( a ) \n{\nb}\nelse\n{\nfor ( i = 0 , ( i < 2 ) , i += 1 ) \n{\n}}\n}");
}

TEST(KelParserTrees, ForWithMissingClausesHasNullClauses) {
    // print dereferences the absent clauses (Part 4.1), so the null clauses show as the
    // null-pointer failure, while the whole loop parses to a ForNode.
    std::vector<PebError> errors;
    std::istringstream input("for (;x;) ;");
    KelParserProtocol protocol(&errors);
    ASSERT_TRUE(parseScript(protocol, input));
    RCShdPtr<StatementBlockNode> script = rcCheckedCast<StatementBlockNode>(protocol.root());
    ASSERT_EQ(script->statements().size(), 1u);
    const ForNode* loop = dynamic_cast<ForNode*>(script->statements()[0].get());
    ASSERT_NE(loop, nullptr);
    // Part 3.3: the two absent clauses are null links, the condition is the variable, and the
    // body `;` is an empty block (the empty statement adds nothing to it).
    EXPECT_TRUE(loop->init().isNull());
    EXPECT_TRUE(loop->increment().isNull());
    ASSERT_FALSE(loop->condition().isNull());
    EXPECT_EQ(printed(loop->condition()), "x");
    ASSERT_FALSE(loop->body().isNull());
    EXPECT_EQ(loop->body()->statements().size(), 0u);
    EXPECT_THROW(printed(script), ExNullPtr);
    // With both clauses present it prints.
    EXPECT_NO_THROW(tree("for (a; b; c) ;"));
    for (const char* text : {"for (; x; c) ;", "for (a; x;) ;"}) {
        std::istringstream other(text);
        KelParserProtocol p(&errors);
        ASSERT_TRUE(parseScript(p, other)) << text;
        EXPECT_THROW(printed(p.root()), ExNullPtr) << text;
    }
}

TEST(KelParserTrees, FunctionParametersAreReversed) {
    EXPECT_EQ(tree("void main(input float a, output color c, input image i) { c = a; }"),
              "main( \n\tIN image i\n\tOUT color c\n\tIN float a\n ) \n{\nc = a}");
    EXPECT_EQ(tree("void f() { }"), "f( \n ) \n{\n}");
    std::vector<PebError> errors;
    std::istringstream input("void main(input float a, output color c) { }");
    KelParserProtocol protocol(&errors);
    ASSERT_TRUE(parseScript(protocol, input));
    ASSERT_EQ(protocol.depth(), 1u);
    RCShdPtr<FunctionDeclarationNode> function = rcCheckedCast<FunctionDeclarationNode>(protocol.root());
    ASSERT_EQ(function->_parameters.size(), 2u);
    EXPECT_EQ(function->_parameters[0]->getName(), "c");
    EXPECT_TRUE(function->_parameters[0]->isOutput());
    EXPECT_EQ(function->_parameters[1]->getName(), "a");
    EXPECT_EQ(function->_parameters[1]->getType(), 1);
}

TEST(KelParserTrees, NodesCarryTheirLines) {
    std::vector<PebError> errors;
    std::istringstream input("\nx = 1;\n\nif (a)\n b;");
    KelParserProtocol protocol(&errors);
    ASSERT_TRUE(parseScript(protocol, input));
    RCShdPtr<StatementBlockNode> script = rcCheckedCast<StatementBlockNode>(protocol.root());
    EXPECT_EQ(script->line(), 2);  // made by the first statement
    ASSERT_EQ(script->statements().size(), 2u);
    EXPECT_EQ(script->statements()[0]->line(), 2);
    EXPECT_EQ(script->statements()[1]->line(), 4);
}

// ---- Literals ------------------------------------------------------------------------------

TEST(KelParserLiterals, NamedLimitsByBitPattern) {
    EXPECT_EQ(bits(literalValue("FLT_MAX")), 0x7F7FFFFFu);
    EXPECT_EQ(bits(literalValue("FLT_MIN")), 0x00800000u);
    EXPECT_EQ(bits(literalValue("FLT_EPSILON")), 0x34000000u);
}

TEST(KelParserLiterals, DecimalTextIsRoundedToFloat) {
    EXPECT_EQ(literalValue("3.14159265358979323846"), 3.14159265358979323846f);
    EXPECT_EQ(literalValue("2.7182818284590452354"), 2.7182818284590452354f);
    EXPECT_EQ(literalValue("1."), 1.0f);
    EXPECT_EQ(literalValue(".5"), 0.5f);
    EXPECT_EQ(literalValue("0.1"), 0.1f);
    EXPECT_EQ(literalValue("16777217"), 16777216.0f);
}

// ---- The protocol alone ------------------------------------------------------------------------

TEST(KelParserProtocolOps, RootOfAnEmptyStackIsANewBlockEachTime) {
    std::vector<PebError> errors;
    KelParserProtocol protocol(&errors);
    RCShdPtr<KelSyntaxTree> first = protocol.root();
    RCShdPtr<KelSyntaxTree> second = protocol.root();
    EXPECT_NE(first.get(), second.get());
    EXPECT_NE(dynamic_cast<StatementBlockNode*>(first.get()), nullptr);
    EXPECT_EQ(first->line(), 1);
    EXPECT_EQ(protocol.depth(), 0u);
}

TEST(KelParserProtocolOps, AddErrorAppendsAndReturnsFalse) {
    std::vector<PebError> errors{PebError("before", 7)};
    KelParserProtocol protocol(&errors);
    EXPECT_FALSE(protocol.addError("message", 3));
    EXPECT_FALSE(protocol.addError("text", "detail", 4));
    ASSERT_EQ(errors.size(), 3u);
    EXPECT_EQ(errors[0], PebError("before", 7));  // never cleared
    EXPECT_EQ(errors[1], PebError("message", 3));
    EXPECT_EQ(errors[2], PebError("text : detail", 4));
}

TEST(KelParserProtocolOps, ErrorFunctionOnlyReportsStackExhaustion) {
    std::vector<PebError> errors;
    KelParserProtocol protocol(&errors);
    kelParserError(protocol, "syntax error");
    EXPECT_TRUE(errors.empty());
    kelParserError(protocol, "memory exhausted");
    kelParserError(protocol, "parser stack overflow");
    ASSERT_EQ(errors.size(), 2u);
    EXPECT_EQ(errors[0], PebError("Error: Script too long", 0));
    EXPECT_EQ(errors[1], PebError("Error: Script too long", 0));
}

TEST(KelParserProtocolOps, FunctionCallPushesOrReports) {
    std::vector<PebError> errors;
    KelParserProtocol protocol(&errors);
    EXPECT_TRUE(protocol.functionCall("atan2", 5));
    EXPECT_EQ(protocol.depth(), 1u);
    EXPECT_TRUE(protocol.variable("a", 5));
    EXPECT_TRUE(protocol.addArgument());
    EXPECT_TRUE(protocol.floatLiteral("2", 5));
    EXPECT_TRUE(protocol.addArgument());
    EXPECT_EQ(protocol.depth(), 1u);
    EXPECT_EQ(printed(protocol.root()), "atan2( a,2, )");
    EXPECT_EQ(protocol.root()->line(), 5);
    EXPECT_FALSE(protocol.functionCall("SIN", 12));
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0], PebError("Function undefined : SIN at line 12", 12));
    EXPECT_EQ(protocol.depth(), 1u);
}

TEST(KelParserProtocolOps, ForLoopPopsItsPartsByTheBits) {
    std::vector<PebError> errors;
    KelParserProtocol protocol(&errors);
    protocol.variable("below", 1);
    protocol.variable("i", 1);
    protocol.variable("c", 1);
    protocol.variable("n", 1);
    protocol.startBlock(1);
    EXPECT_TRUE(protocol.forLoop(7, 9));
    EXPECT_EQ(protocol.depth(), 2u);
    EXPECT_EQ(printed(protocol.root()), "for ( i , c , n ) \n{\n}");
    EXPECT_EQ(protocol.root()->line(), 9);
}

TEST(KelParserProtocolOps, AddStatementMakesTheScriptBlockOnce) {
    std::vector<PebError> errors;
    KelParserProtocol protocol(&errors);
    protocol.variable("a", 3);
    EXPECT_TRUE(protocol.addStatement(3));
    EXPECT_EQ(protocol.depth(), 1u);
    EXPECT_EQ(protocol.root()->line(), 3);
    protocol.variable("b", 4);
    EXPECT_TRUE(protocol.addStatement(4));
    EXPECT_EQ(protocol.depth(), 1u);
    EXPECT_EQ(printed(protocol.root()), "{\nab}");
}

TEST(KelParserProtocolOps, CastsOfStackEntriesFail) {
    std::vector<PebError> errors;
    KelParserProtocol protocol(&errors);
    protocol.variable("a", 1);
    protocol.variable("b", 1);
    EXPECT_THROW(protocol.addArgument(), ExCastFailed);
    KelParserProtocol empty(&errors);
    EXPECT_THROW(empty.addArgument(), ExNullPtr);
    EXPECT_THROW(empty.binaryOp("+", 1), ExNullPtr);
    EXPECT_THROW(empty.setElse(1), ExNullPtr);
}

// ---- The driver ---------------------------------------------------------------------------

TEST(KelParserDriver, AssertsTheApplicationThread) {
    bool asserted = false;
    std::string file, text;
    int line = 0;
    std::thread other([&] {
        std::vector<PebError> errors;
        std::istringstream input("x;");
        KelParserProtocol protocol(&errors);
        try {
            parseScript(protocol, input);
        } catch (const ExAssertionFailed& failure) {
            asserted = true;
            file = failure.getFile();
            line = failure.getSourceLine();
            text = failure.getReason();
        }
        EXPECT_TRUE(errors.empty());
        EXPECT_EQ(protocol.depth(), 0u);
    });
    other.join();
    EXPECT_TRUE(asserted);
    EXPECT_EQ(file, "tools/kel/src/kelParser");
    EXPECT_EQ(line, 143);
    EXPECT_EQ(text, "PiAppThread::isCurrent()");
}

TEST(KelParserDriver, ScannerIsRestoredAfterParses) {
    // A scan in progress, then parses that succeed and fail (also by the unterminated comment
    // and by the stack limit) in the middle of it: the scan goes on where it stood.
    std::istringstream outer("first\nsecond third");
    kelScannerBegin(outer);
    std::string text;
    int line = 1;
    EXPECT_EQ(kelScanToken(text, line), 258);
    EXPECT_EQ(text, "first");
    std::string longScript;
    for (int i = 0; i < 2000; ++i) longScript += "x;";
    for (const std::string script : {"x = 1;", "x = ;\n\n", "a /* open\n", "foo(1);", longScript.c_str()}) {
        std::vector<PebError> errors;
        std::istringstream input(script);
        KelParserProtocol protocol(&errors);
        parseScript(protocol, input);
    }
    EXPECT_EQ(kelScanToken(text, line), 258);
    EXPECT_EQ(text, "second");
    EXPECT_EQ(line, 2);
    EXPECT_EQ(kelScanToken(text, line), 258);
    EXPECT_EQ(text, "third");
    EXPECT_EQ(kelScanToken(text, line), 0);
    kelScannerEnd();
}

TEST(KelParserDriver, LinesStartAtOneForEveryParse) {
    for (int i = 0; i < 3; ++i) {
        std::vector<PebError> errors;
        std::istringstream input("\n\nx = ;");
        KelParserProtocol protocol(&errors);
        EXPECT_FALSE(parseScript(protocol, input));
        ASSERT_EQ(errors.size(), 1u);
        EXPECT_EQ(errors[0], PebError("Syntax Error: Expected value after assign at line 3", 3));
    }
}

TEST(KelParserDriver, UnknownFunctionIsReportedOnce) {
    std::vector<PebError> errors;
    std::istringstream input("a = 1;\nb = 2;\nc = foo(1) + bar(2);");
    KelParserProtocol protocol(&errors);
    EXPECT_FALSE(parseScript(protocol, input));
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0], PebError("Function undefined : foo at line 3", 3));
}
