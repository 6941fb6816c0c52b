// Part 3.1: the scanner, driven alone through kelTokenize (the same save, set-up and restore as
// a parse). Token codes are written as the spec's numbers, so the tests also check the table.
#include <gtest/gtest.h>

#include <sstream>

#include "kelParser.h"

using namespace Zt;

namespace {

enum : int {
    IDENTIFIER = 258, NUMBER, VOID, CONST, IF, FOR, ELSE, WHILE, IMAGE, FLOAT, COLOR, OUTPUT, INPUT,
    ADD_ASSIGN, SUB_ASSIGN, DIV_ASSIGN, MUL_ASSIGN, OR_OP, AND_OP, EQ_OP, NE_OP, GE_OP, LE_OP, INC_OP, DEC_OP
};
static_assert(DEC_OP == 282);

std::vector<KelToken> scan(const std::string& text) {
    std::istringstream input(text);
    return kelTokenize(input);
}

// The codes alone, without the final 0.
std::vector<int> codes(const std::string& text) {
    std::vector<int> result;
    for (const KelToken& token : scan(text)) result.push_back(token.code);
    EXPECT_EQ(result.back(), 0);
    result.pop_back();
    return result;
}

// The texts of the tokens, without the final 0.
std::vector<std::string> texts(const std::string& text) {
    std::vector<std::string> result;
    std::vector<KelToken> tokens = scan(text);
    for (std::size_t i = 0; i + 1 < tokens.size(); ++i) result.push_back(tokens[i].text);
    return result;
}

using Codes = std::vector<int>;
using Texts = std::vector<std::string>;

}  // namespace

TEST(KelScanner, EmptyInputYieldsEndAtOnce) {
    std::vector<KelToken> tokens = scan("");
    ASSERT_EQ(tokens.size(), 1u);
    EXPECT_EQ(tokens[0].code, 0);
    EXPECT_EQ(tokens[0].line, 1);
}

TEST(KelScanner, EveryNamedTokenHasItsCodeAndText) {
    const std::string text =
        "name 12 void const if for else while image float color output input += -= /= *= || && == != >= <= ++ --";
    EXPECT_EQ(codes(text), (Codes{IDENTIFIER, NUMBER, VOID, CONST, IF, FOR, ELSE, WHILE, IMAGE, FLOAT, COLOR, OUTPUT,
                                  INPUT, ADD_ASSIGN, SUB_ASSIGN, DIV_ASSIGN, MUL_ASSIGN, OR_OP, AND_OP, EQ_OP, NE_OP,
                                  GE_OP, LE_OP, INC_OP, DEC_OP}));
    EXPECT_EQ(texts(text), (Texts{"name", "12", "void", "const", "if", "for", "else", "while", "image", "float",
                                  "color", "output", "input", "+=", "-=", "/=", "*=", "||", "&&", "==", "!=", ">=",
                                  "<=", "++", "--"}));
}

TEST(KelScanner, SingleCharactersUseTheirOwnCodes) {
    EXPECT_EQ(codes(",(){};=-+*/!<>"), (Codes{',', '(', ')', '{', '}', ';', '=', '-', '+', '*', '/', '!', '<', '>'}));
}

TEST(KelScanner, PunctuationLeavesTheTextAsItWas) {
    // The six characters without text keep the previous token's text.
    std::vector<KelToken> tokens = scan("abc ( ) { } , ; =");
    for (std::size_t i = 1; i <= 6; ++i) EXPECT_EQ(tokens[i].text, "abc") << i;
    EXPECT_EQ(tokens[7].text, "=");
}

TEST(KelScanner, OperatorsCarryTheirText) {
    EXPECT_EQ(texts("= - + * / ! < >"), (Texts{"=", "-", "+", "*", "/", "!", "<", ">"}));
}

TEST(KelScanner, NumbersHaveNoSignAndNoExponent) {
    EXPECT_EQ(codes("1.2.3"), (Codes{NUMBER, NUMBER}));
    EXPECT_EQ(texts("1.2.3"), (Texts{"1.2", ".3"}));
    EXPECT_EQ(texts("1."), (Texts{"1."}));
    EXPECT_EQ(texts(".5"), (Texts{".5"}));
    EXPECT_EQ(codes("."), Codes{});
    EXPECT_EQ(codes("1e5"), (Codes{NUMBER, IDENTIFIER}));
    EXPECT_EQ(texts("1e5"), (Texts{"1", "e5"}));
    EXPECT_EQ(codes("-3"), (Codes{'-', NUMBER}));
    EXPECT_EQ(texts("007.250"), (Texts{"007.250"}));
}

TEST(KelScanner, LongestMatchForOperators) {
    EXPECT_EQ(codes("x+++y"), (Codes{IDENTIFIER, INC_OP, '+', IDENTIFIER}));
    EXPECT_EQ(codes("a---b"), (Codes{IDENTIFIER, DEC_OP, '-', IDENTIFIER}));
    EXPECT_EQ(codes("a+=-b"), (Codes{IDENTIFIER, ADD_ASSIGN, '-', IDENTIFIER}));
    EXPECT_EQ(codes("a===b"), (Codes{IDENTIFIER, EQ_OP, '=', IDENTIFIER}));
}

TEST(KelScanner, LoneAmpersandAndBarAreDropped) {
    EXPECT_EQ(codes("a&b"), (Codes{IDENTIFIER, IDENTIFIER}));
    EXPECT_EQ(texts("a&b"), (Texts{"a", "b"}));
    EXPECT_EQ(codes("a|b"), (Codes{IDENTIFIER, IDENTIFIER}));
}

TEST(KelScanner, UnwantedCharactersAreDropped) {
    EXPECT_EQ(codes("a % b"), (Codes{IDENTIFIER, IDENTIFIER}));
    EXPECT_EQ(codes("\"#$%':?@[\\]^`~"), Codes{});
    EXPECT_EQ(codes("a\xc3\xa9" "b"), (Codes{IDENTIFIER, IDENTIFIER}));  // bytes 128-255, ASCII-only names
    EXPECT_EQ(codes("a\r\nb"), (Codes{IDENTIFIER, IDENTIFIER}));
}

TEST(KelScanner, NulInTheTextIsAnUnwantedCharacter) {
    std::string text("a");
    text.push_back('\0');
    text += "b";
    EXPECT_EQ(codes(text), (Codes{IDENTIFIER, IDENTIFIER}));
}

TEST(KelScanner, Vec4IsColorWithTheTextColor) {
    EXPECT_EQ(scan("vec4 c;"), scan("color c;"));
    EXPECT_EQ(texts("vec4"), Texts{"color"});
    EXPECT_EQ(codes("vec4"), Codes{COLOR});
}

TEST(KelScanner, KeywordsAreWholeWordsAndCaseSensitive) {
    EXPECT_EQ(codes("iffy float1 Float M_PI2 FLT_MAXIMUM IF Void"),
              (Codes{IDENTIFIER, IDENTIFIER, IDENTIFIER, IDENTIFIER, IDENTIFIER, IDENTIFIER, IDENTIFIER}));
    EXPECT_EQ(codes("_a1 B_2"), (Codes{IDENTIFIER, IDENTIFIER}));
}

TEST(KelScanner, NamedConstants) {
    EXPECT_EQ(codes("M_PI M_E FLT_MAX FLT_MIN FLT_EPSILON"), (Codes{NUMBER, NUMBER, NUMBER, NUMBER, NUMBER}));
    EXPECT_EQ(texts("M_PI M_E FLT_MAX FLT_MIN FLT_EPSILON"),
              (Texts{"3.14159265358979323846", "2.7182818284590452354", "FLT_MAX", "FLT_MIN", "FLT_EPSILON"}));
}

TEST(KelScanner, LinesCountFromOne) {
    std::vector<KelToken> tokens = scan("a\nb\n\n c\n");
    ASSERT_EQ(tokens.size(), 4u);
    EXPECT_EQ(tokens[0].line, 1);
    EXPECT_EQ(tokens[1].line, 2);
    EXPECT_EQ(tokens[2].line, 4);
    EXPECT_EQ(tokens[3].line, 5);  // the end, after the last newline
}

TEST(KelScanner, BlockComments) {
    EXPECT_EQ(codes("/*/ x */"), Codes{});
    EXPECT_EQ(codes("/**/ a"), Codes{IDENTIFIER});
    EXPECT_EQ(codes("a /* b */ c"), (Codes{IDENTIFIER, IDENTIFIER}));
    EXPECT_EQ(codes("/* a /* b */ c */"), (Codes{IDENTIFIER, '*', '/'}));  // no nesting
    EXPECT_EQ(codes("/* ** / */ a"), Codes{IDENTIFIER});
}

TEST(KelScanner, LinesInsideBlockCommentsCount) {
    std::vector<KelToken> tokens = scan("/* one\ntwo\nthree */\nx");
    EXPECT_EQ(tokens[0].text, "x");
    EXPECT_EQ(tokens[0].line, 4);
    tokens = scan("a /*\n\n*/ b");
    EXPECT_EQ(tokens[1].line, 3);
}

TEST(KelScanner, NulEndsABlockComment) {
    std::string text("/* a ");
    text.push_back('\0');
    text += " b */";
    // The comment ends at the NUL: b, * and / are scanned.
    EXPECT_EQ(codes(text), (Codes{IDENTIFIER, '*', '/'}));
}

TEST(KelScanner, LineComments) {
    std::vector<KelToken> tokens = scan("a // b c\nd");
    ASSERT_EQ(tokens.size(), 3u);
    EXPECT_EQ(tokens[1].text, "d");
    EXPECT_EQ(tokens[1].line, 2);
    // At the very end without a newline the comment still counts a line.
    tokens = scan("a\n// x");
    ASSERT_EQ(tokens.size(), 2u);
    EXPECT_EQ(tokens[1].code, 0);
    EXPECT_EQ(tokens[1].line, 3);
    // A NUL ends a line comment too, and counts a line.
    std::string text("// x");
    text.push_back('\0');
    text += "y";
    tokens = scan(text);
    ASSERT_EQ(tokens.size(), 2u);
    EXPECT_EQ(tokens[0].text, "y");
    EXPECT_EQ(tokens[0].line, 2);
}

TEST(KelScanner, UnterminatedBlockCommentThrowsWithTheLastLine) {
    // The one known difference from Part 3.1: no endless loop.
    try {
        scan("a\n/* b\nc\n");
        FAIL() << "no exception";
    } catch (const KelUnterminatedComment& unterminated) {
        EXPECT_EQ(unterminated.line, 4);
    }
    EXPECT_THROW(scan("/*"), KelUnterminatedComment);
    EXPECT_THROW(scan("/* *"), KelUnterminatedComment);
    // The scanner is usable afterwards.
    EXPECT_EQ(codes("a b"), (Codes{IDENTIFIER, IDENTIFIER}));
}

TEST(KelScanner, LongTokensAndCommentsAcrossBlocks) {
    // Longer than the 16384-byte buffer and the 8192-byte blocks: the buffer grows.
    const std::string name(40000, 'n');
    std::vector<KelToken> tokens = scan("a " + name + " b");
    ASSERT_EQ(tokens.size(), 4u);
    EXPECT_EQ(tokens[1].text, name);
    EXPECT_EQ(tokens[2].text, "b");
    std::string comment = "/*" + std::string(30000, '\n') + "*/x";
    tokens = scan(comment);
    EXPECT_EQ(tokens[0].text, "x");
    EXPECT_EQ(tokens[0].line, 30001);
    // Many small tokens over many blocks.
    std::string many;
    for (int i = 0; i < 20000; ++i) many += "ab;\n";
    tokens = scan(many);
    ASSERT_EQ(tokens.size(), 40001u);
    EXPECT_EQ(tokens[39998].text, "ab");
    EXPECT_EQ(tokens[39998].line, 20000);
}

TEST(KelScanner, NestedScansRestoreTheOuterOne) {
    // Part 3.3: a scan inside a scan leaves the outer one as it was.
    std::istringstream outer("one two\nthree");
    kelScannerBegin(outer);
    std::string text;
    int line = 1;
    EXPECT_EQ(kelScanToken(text, line), IDENTIFIER);
    EXPECT_EQ(text, "one");
    std::vector<KelToken> inner = scan("x\ny\nz");
    EXPECT_EQ(inner.size(), 4u);
    EXPECT_EQ(kelScanToken(text, line), IDENTIFIER);
    EXPECT_EQ(text, "two");
    EXPECT_EQ(line, 1);
    EXPECT_EQ(kelScanToken(text, line), IDENTIFIER);
    EXPECT_EQ(text, "three");
    EXPECT_EQ(line, 2);
    EXPECT_EQ(kelScanToken(text, line), 0);
    kelScannerEnd();
}
