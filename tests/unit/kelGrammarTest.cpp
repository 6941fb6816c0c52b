// Part 3.2: the grammar and its syntax errors. The grammar itself is checked against bison's
// report and tables (127 rules as numbered, 42 terminals in order, 38 non-terminals, 193
// states, no conflicts); then every report rule's words with their line, the order of failure,
// and the 1000-entry stack limit on both sides, for a long statement list and for deep
// parentheses.
#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <sstream>

#include "kelParser.h"

using namespace Zt;

namespace {

struct Outcome {
    bool parsed;
    std::vector<PebError> errors;
};

Outcome parse(const std::string& text) {
    std::vector<PebError> errors;
    std::istringstream input(text);
    KelParserProtocol protocol(&errors);
    bool parsed = parseScript(protocol, input);
    return {parsed, errors};
}

// Expects the parse to fail with exactly this one error.
void expectError(const std::string& text, const std::string& message, int line) {
    Outcome outcome = parse(text);
    EXPECT_FALSE(outcome.parsed) << text;
    ASSERT_EQ(outcome.errors.size(), 1u) << text;
    EXPECT_EQ(outcome.errors[0].getMessage(), message) << text;
    EXPECT_EQ(outcome.errors[0].getLine(), line) << text;
}

void expectSyntaxError(const std::string& text, const std::string& words, int line) {
    expectError(text, "Syntax Error: " + words + " at line " + std::to_string(line), line);
}

void expectParses(const std::string& text) {
    Outcome outcome = parse(text);
    EXPECT_TRUE(outcome.parsed) << text;
    EXPECT_TRUE(outcome.errors.empty()) << text << ": " << (outcome.errors.empty() ? "" : outcome.errors[0].getMessage());
}

std::string readFile(const std::string& path) {
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

#ifdef KEL_GRAMMAR_REPORT
const std::string kReport = KEL_GRAMMAR_REPORT;
#else
const std::string kReport;
#endif

// The generated parser beside the report.
std::string generatedParser() { return kReport.substr(0, kReport.rfind('/')) + "/kel.tab.cpp"; }

// Part 3.2's rules 2 to 127 as bison's report writes them (rule 1 is bison's $accept rule 0,
// so bison's number is the spec's less one).
const char* const kRules[] = {
    "program: function_definition",                                           // 2
    "program: statement_list",                                                // 3
    "function_definition: VOID IDENTIFIER '(' parameter_list_opt ')' block",  // 4
    "function_definition: VOID error",                                        // 5
    "block: block_open statement_list_opt '}'",                               // 6
    "block: error",                                                           // 7
    "body: block",                                                            // 8
    "body: expression ';'",                                                   // 9
    "body: ';'",                                                              // 10
    "body: expression error",                                                 // 11
    "block_open: '{'",                                                        // 12
    "statement_list_opt: ε",                                                  // 13
    "statement_list_opt: statement_list",                                     // 14
    "statement_list: statement",                                              // 15
    "statement_list: statement statement_list",                               // 16
    "statement: expression ';'",                                              // 17
    "statement: block",                                                       // 18
    "statement: control",                                                     // 19
    "statement: ';'",                                                         // 20
    "statement: expression error",                                            // 21
    "control: if_statement",                                                  // 22
    "control: while_statement",                                               // 23
    "control: for_statement",                                                 // 24
    "if_statement: if_head",                                                  // 25
    "if_statement: if_head ELSE body",                                        // 26
    "if_statement: if_head ELSE control",                                     // 27
    "if_head: IF '(' expression_list ')' body",                               // 28
    "if_head: IF '(' expression_list error",                                  // 29
    "if_head: IF '(' error",                                                  // 30
    "if_head: IF error",                                                      // 31
    "while_statement: WHILE '(' expression_list ')' body",                    // 32
    "while_statement: WHILE '(' expression_list error",                       // 33
    "while_statement: WHILE '(' error",                                       // 34
    "while_statement: WHILE error",                                           // 35
    "for_statement: FOR '(' expression ';' expression ';' expression ')' body",  // 36
    "for_statement: FOR '(' ';' expression ';' expression ')' body",          // 37
    "for_statement: FOR '(' expression ';' expression ';' ')' body",          // 38
    "for_statement: FOR '(' ';' expression ';' ')' body",                     // 39
    "for_statement: FOR error",                                               // 40
    "expression: expression_list",                                            // 41
    "expression: type IDENTIFIER",                                            // 42
    "expression: type IDENTIFIER '=' assignment",                             // 43
    "expression: CONST type IDENTIFIER",                                      // 44
    "expression: CONST type IDENTIFIER '=' assignment",                       // 45
    "expression: type error",                                                 // 46
    "expression: CONST type error",                                           // 47
    "expression: IDENTIFIER IDENTIFIER",                                      // 48
    "expression_list: assignment",                                            // 49
    "expression_list: expression_list ',' assignment",                        // 50
    "assignment: IDENTIFIER assign_op assignment",                            // 51
    "assignment: or_expr",                                                    // 52
    "assignment: IDENTIFIER assign_op error",                                 // 53
    "parameter_list_opt: ε",                                                  // 54
    "parameter_list_opt: parameter_list",                                     // 55
    "parameter_list: parameter",                                              // 56
    "parameter_list: parameter ',' parameter_list",                           // 57
    "parameter: OUTPUT type IDENTIFIER",                                      // 58
    "parameter: INPUT type IDENTIFIER",                                       // 59
    "parameter: OUTPUT IDENTIFIER",                                           // 60
    "parameter: INPUT IDENTIFIER",                                            // 61
    "parameter: IDENTIFIER",                                                  // 62
    "parameter: error",                                                       // 63
    "argument_list_opt: ε",                                                   // 64
    "argument_list_opt: argument_list",                                       // 65
    "argument_list: argument",                                                // 66
    "argument_list: argument ',' argument_list",                              // 67
    "argument: assignment",                                                   // 68
    "call: call_head argument_list_opt ')'",                                  // 69
    "call: call_head error",                                                  // 70
    "call_head: IDENTIFIER '('",                                              // 71
    "call_head: COLOR '('",                                                   // 72
    "primary: IDENTIFIER",                                                    // 73
    "primary: NUMBER",                                                        // 74
    "primary: call",                                                          // 75
    "primary: '(' expression ')'",                                            // 76
    "primary: '(' error",                                                     // 77
    "primary: '(' expression error",                                          // 78
    "postfix: primary",                                                       // 79
    "postfix: postfix incdec",                                                // 80
    "unary: postfix",                                                         // 81
    "unary: unary_op unary",                                                  // 82
    "unary: unary_op error",                                                  // 83
    "unary_op: '+'",                                                          // 84
    "unary_op: '-'",                                                          // 85
    "unary_op: '!'",                                                          // 86
    "unary_op: incdec",                                                       // 87
    "incdec: INC_OP",                                                         // 88
    "incdec: DEC_OP",                                                         // 89
    "mul_expr: unary",                                                        // 90
    "mul_expr: mul_expr '*' unary",                                           // 91
    "mul_expr: mul_expr '/' unary",                                           // 92
    "mul_expr: mul_expr '/' error",                                           // 93
    "mul_expr: mul_expr '*' error",                                           // 94
    "add_expr: mul_expr",                                                     // 95
    "add_expr: add_expr '+' mul_expr",                                        // 96
    "add_expr: add_expr '-' mul_expr",                                        // 97
    "add_expr: add_expr '+' error",                                           // 98
    "add_expr: add_expr '-' error",                                           // 99
    "rel_expr: add_expr",                                                     // 100
    "rel_expr: rel_expr '<' add_expr",                                        // 101
    "rel_expr: rel_expr '>' add_expr",                                        // 102
    "rel_expr: rel_expr LE_OP add_expr",                                      // 103
    "rel_expr: rel_expr GE_OP add_expr",                                      // 104
    "rel_expr: rel_expr LE_OP error",                                         // 105
    "rel_expr: rel_expr GE_OP error",                                         // 106
    "rel_expr: rel_expr '<' error",                                           // 107
    "rel_expr: rel_expr '>' error",                                           // 108
    "eq_expr: rel_expr",                                                      // 109
    "eq_expr: eq_expr EQ_OP rel_expr",                                        // 110
    "eq_expr: eq_expr NE_OP rel_expr",                                        // 111
    "eq_expr: eq_expr EQ_OP error",                                           // 112
    "eq_expr: eq_expr NE_OP error",                                           // 113
    "and_expr: eq_expr",                                                      // 114
    "and_expr: and_expr AND_OP eq_expr",                                      // 115
    "and_expr: and_expr AND_OP error",                                        // 116
    "or_expr: and_expr",                                                      // 117
    "or_expr: or_expr OR_OP and_expr",                                        // 118
    "or_expr: or_expr OR_OP error",                                           // 119
    "assign_op: '='",                                                         // 120
    "assign_op: ADD_ASSIGN",                                                  // 121
    "assign_op: SUB_ASSIGN",                                                  // 122
    "assign_op: DIV_ASSIGN",                                                  // 123
    "assign_op: MUL_ASSIGN",                                                  // 124
    "type: FLOAT",                                                            // 125
    "type: COLOR",                                                            // 126
    "type: IMAGE",                                                            // 127
};
static_assert(std::size(kRules) == 126, "rules 2 to 127");

}  // namespace

// ---- The grammar as bison built it ----------------------------------------------------------

TEST(KelGrammarTables, ReportHasTheRulesOfPart32InTheirOrder) {
    ASSERT_FALSE(kReport.empty()) << "KEL_GRAMMAR_REPORT is not defined for this test";
    const std::string report = readFile(kReport);
    ASSERT_FALSE(report.empty()) << kReport;
    const std::size_t begin = report.find("Grammar\n");
    const std::size_t end = report.find("\nTerminals, with rules");
    ASSERT_NE(begin, std::string::npos);
    ASSERT_NE(end, std::string::npos);
    std::istringstream grammar(report.substr(begin, end - begin));
    const std::regex first(R"(^\s*(\d+) (\S+): (.*)$)");
    const std::regex alternative(R"(^\s*(\d+)\s+\| (.*)$)");
    std::vector<std::string> rules;
    std::string lhs;
    std::string line;
    std::smatch match;
    while (std::getline(grammar, line)) {
        if (std::regex_match(line, match, first)) {
            EXPECT_EQ(std::stoul(match[1]), rules.size()) << line;
            lhs = match[2];
            rules.push_back(lhs + ": " + std::string(match[3]));
        } else if (std::regex_match(line, match, alternative)) {
            EXPECT_EQ(std::stoul(match[1]), rules.size()) << line;
            rules.push_back(lhs + ": " + std::string(match[2]));
        }
    }
    // Rule 0 of the report is rule 1 of the spec.
    ASSERT_EQ(rules.size(), 127u);
    EXPECT_EQ(rules[0], "$accept: program $end");
    for (std::size_t i = 1; i < rules.size(); ++i) EXPECT_EQ(rules[i], kRules[i - 1]) << "spec rule " << i + 1;
}

TEST(KelGrammarTables, ReportHas193StatesAndNoConflicts) {
    ASSERT_FALSE(kReport.empty()) << "KEL_GRAMMAR_REPORT is not defined for this test";
    const std::string report = readFile(kReport);
    ASSERT_FALSE(report.empty());
    EXPECT_EQ(report.find("conflict"), std::string::npos);
    std::istringstream lines(report);
    std::string line;
    int states = 0;
    int last = -1;
    while (std::getline(lines, line))
        if (line.rfind("State ", 0) == 0) {
            ++states;
            last = std::stoi(line.substr(6));
        }
    EXPECT_EQ(states, 193);
    EXPECT_EQ(last, 192);
}

TEST(KelGrammarTables, TablesCount127Rules42Terminals38NonTerminals193States) {
    ASSERT_FALSE(kReport.empty()) << "KEL_GRAMMAR_REPORT is not defined for this test";
    const std::string parser = readFile(generatedParser());
    ASSERT_FALSE(parser.empty());
    EXPECT_NE(parser.find("#define YYNRULES  127\n"), std::string::npos);
    EXPECT_NE(parser.find("#define YYNSTATES  193\n"), std::string::npos);
    EXPECT_NE(parser.find("#define YYNTOKENS  42\n"), std::string::npos);
    EXPECT_NE(parser.find("#define YYNNTS  38\n"), std::string::npos);
    // The terminal order of Part 3.2: end, error, undefined, the 25 named tokens in code order,
    // then the characters in the order of their first use.
    const std::string names = R"("\"end of file\"", "error", "\"invalid token\"", "IDENTIFIER", "NUMBER",
  "VOID", "CONST", "IF", "FOR", "ELSE", "WHILE", "IMAGE", "FLOAT", "COLOR",
  "OUTPUT", "INPUT", "ADD_ASSIGN", "SUB_ASSIGN", "DIV_ASSIGN",
  "MUL_ASSIGN", "OR_OP", "AND_OP", "EQ_OP", "NE_OP", "GE_OP", "LE_OP",
  "INC_OP", "DEC_OP", "'('", "')'", "'}'", "';'", "'{'", "'='", "','",
  "'+'", "'-'", "'!'", "'*'", "'/'", "'<'", "'>'", "$accept")";
    EXPECT_NE(parser.find(names), std::string::npos);
}

// ---- What parses --------------------------------------------------------------------------

TEST(KelGrammar, AcceptedForms) {
    expectParses(";");
    expectParses("x = 1;");
    expectParses("void main() { }");
    expectParses("void main(input float a, output color c) { c = color(a, a, a, 1); }");
    expectParses("if (a) b; else if (c) d; else while (e) f;");
    expectParses("if (a, b) ; else ;");
    expectParses("for (float i = 0; i < 3; i++) x += i;");
    expectParses("for (;x;) ;");
    expectParses("for (; i < 2; i = i + 1) { }");
    expectParses("for (i = 0; i < 2;) { }");
    expectParses("(float x = 1);");
    expectParses("const color c = vec4(1, 2, 3, 4);");
    expectParses("image i; x = -+!++--y++--;");
    expectParses("a = b += c -= d /= e *= f;");
    expectParses("x = a || b && c == d != e < f > g <= h >= i + j - k * l / m;");
    expectParses("sin = 1;");  // a built-in's name without a parenthesis is a variable
    expectParses("x = rand() + getOutputImage();");
    expectParses("{ { } ; } x;");
}

// ---- Every report, with its line ------------------------------------------------------------

TEST(KelGrammar, InvalidStatementBlock) {
    expectSyntaxError(" ", "Invalid statement block", 1);
    expectSyntaxError("\n\n  // only a comment\n/* and a block */", "Invalid statement block", 4);
    expectSyntaxError("void main()", "Invalid statement block", 1);
    expectSyntaxError("const x;", "Invalid statement block", 1);
    expectSyntaxError("void main() { }\nvoid other() { }", "Invalid statement block", 2);
    expectSyntaxError("if (a) if (b) x;", "Invalid statement block", 1);
    expectSyntaxError("while (a)\nfor (;b;) x;", "Invalid statement block", 2);
    expectSyntaxError("x; }", "Invalid statement block", 1);
    expectSyntaxError("void main() { } x;", "Invalid statement block", 1);
}

TEST(KelGrammar, InvalidFunctionDeclaration) {
    expectSyntaxError("void\n3", "Invalid function declaration", 2);
    expectSyntaxError("void x\n;", "Invalid function declaration", 2);
    expectSyntaxError("void main( { }", "Invalid parameter declaration", 1);
}

TEST(KelGrammar, ExpectedSemicolon) {
    expectSyntaxError("x = 1", "Invalid statement, expected ;", 1);      // rule 21 at the end
    expectSyntaxError("x = 1\ny = 2;", "Invalid statement, expected ;", 2);  // the look-ahead's line
    expectSyntaxError("if (a) x\n}", "Invalid statement, expected ;", 2);  // rule 11, a body
    expectSyntaxError("{ x }", "Invalid statement, expected ;", 1);
}

TEST(KelGrammar, IfWhileFor) {
    expectSyntaxError("if x", "Expected '(' after 'if'", 1);
    expectSyntaxError("if (\n)", "Expected condition in 'if'", 2);
    expectSyntaxError("if (a b", "Expected ')' after 'if' condition", 1);
    expectSyntaxError("if (a\n\n;", "Expected ')' after 'if' condition", 3);
    expectSyntaxError("while\nx", "Expected '(' after 'while'", 2);
    expectSyntaxError("while ()", "Expected condition in 'while'", 1);
    expectSyntaxError("while (a;", "Expected ')' after 'while' condition", 1);
    expectSyntaxError("for x", "Invalid for structure", 1);
    expectSyntaxError("for (x; y)", "Invalid for structure", 1);
    expectSyntaxError("for (x;\n;) ;", "Invalid for structure", 2);  // the middle clause is required
    expectSyntaxError("if (float x) ;", "Expected condition in 'if'", 1);  // a condition can't declare
}

TEST(KelGrammar, Declarations) {
    expectSyntaxError("float;", "Expected variable name after type", 1);
    expectSyntaxError("float x = ;", "Expected variable name after type", 1);
    expectSyntaxError("const float\n3;", "Expected variable name after type", 2);
    expectSyntaxError("myType x;", "Invalid type", 1);
    expectSyntaxError("a % b;", "Invalid type", 1);
    expectSyntaxError("x = ;", "Expected value after assign", 1);
    expectSyntaxError("x +=\n\n;", "Expected value after assign", 3);
}

TEST(KelGrammar, Parameters) {
    expectSyntaxError("void main(x) { }", "Invalid parameter direction", 1);
    expectSyntaxError("void main(input x) { }", "Invalid parameter type", 1);
    expectSyntaxError("void main(input float a,\noutput b) { }", "Invalid parameter type", 2);
    expectSyntaxError("void main(float x) { }", "Invalid parameter declaration", 1);
    expectSyntaxError("void main(3) { }", "Invalid parameter declaration", 1);
}

TEST(KelGrammar, CallsAndParentheses) {
    expectSyntaxError("sin(1 2);", "Incorrect function call arguments list", 1);
    expectSyntaxError("x = sin(1,\n;", "Incorrect function call arguments list", 2);
    expectSyntaxError("(1", "Expected )", 1);
    expectSyntaxError("();", "Expected expression after (", 1);
    expectSyntaxError("x = (1\n;", "Expected )", 2);
}

TEST(KelGrammar, Operators) {
    expectSyntaxError("- ;", "Expected expression", 1);
    expectSyntaxError("!\n;", "Expected expression", 2);
    expectSyntaxError("a / ;", "Expected expression after /", 1);
    expectSyntaxError("a * ;", "Expected expression after *", 1);
    expectSyntaxError("a + ;", "Expected expression after +", 1);
    expectSyntaxError("a - ;", "Expected expression after -", 1);
    expectSyntaxError("a <= ;", "Expected expression after <=", 1);
    expectSyntaxError("a >= ;", "Expected expression after >=", 1);
    expectSyntaxError("a < ;", "Expected expression after '<'", 1);
    expectSyntaxError("a > ;", "Expected expression after '>'", 1);
    expectSyntaxError("a == ;", "Expected expression after ==", 1);
    expectSyntaxError("a != ;", "Expected expression after !=", 1);
    expectSyntaxError("a && ;", "Expected expression after &&", 1);
    expectSyntaxError("a || ;", "Expected expression after ||", 1);
    expectSyntaxError("x = 1;\ny = a +\n\n  ;", "Expected expression after +", 4);
}

TEST(KelGrammar, OnlyTheFirstErrorIsReported) {
    expectSyntaxError("a + ;\nb * ;\nc = ;", "Expected expression after +", 1);
}

TEST(KelGrammar, UnknownFunctionFailsAtTheCallHead) {
    expectError("x;\n\nfoo(1);", "Function undefined : foo at line 3", 3);
    expectError("Sin(1);", "Function undefined : Sin at line 1", 1);
    // An unknown function fails before its bad argument list is seen.
    expectError("f(1 2);", "Function undefined : f at line 1", 1);
}

TEST(KelGrammar, UnterminatedCommentFailsInsteadOfLooping) {
    // The one known difference from Part 3.1: the line is where the input ended.
    expectSyntaxError("x = 1;\n/* open\n\n", "Unterminated comment", 4);
    expectSyntaxError("/*", "Unterminated comment", 1);
    expectSyntaxError("x = 1 /* a\nb", "Unterminated comment", 2);
    // A closed comment at the end is fine.
    expectParses("x = 1; /* a\nb */");
}

// ---- The stack limit ----------------------------------------------------------------------

namespace {
std::string statements(int count) {
    std::string text;
    for (int i = 0; i < count; ++i) text += "x;\n";
    return text;
}
std::string parentheses(int depth) { return "y = " + std::string(depth, '(') + "x" + std::string(depth, ')') + ";"; }
std::string arguments(int count) {
    std::string text = "y = color(";
    for (int i = 0; i < count; ++i) text += i ? ",x" : "x";
    return text + ");";
}
}  // namespace

// The measured limits: the last count that fits, and one more fails with "Error: Script too
// long" at line 0 (the error function's text "memory exhausted"). A state stack of 1000 entries
// fails when a push makes it hold 1000: a list of N statements needs N + 2 entries at its
// deepest (state 0, N - 1 finished statements, the last one's expression and ';'); a function
// adds VOID IDENTIFIER '(' ')' and the block's two entries; each parenthesis is one entry; each
// argument but the last two (the argument and its ',').
constexpr int kMaxStatements = 997;
constexpr int kMaxStatementsInFunction = 991;
constexpr int kMaxParentheses = 994;
constexpr int kMaxArguments = 498;

TEST(KelGrammarStack, LongStatementList) {
    expectParses(statements(kMaxStatements));
    expectError(statements(kMaxStatements + 1), "Error: Script too long", 0);
    // Inside a function the enclosing block costs entries too.
    expectParses("void main() {" + statements(kMaxStatementsInFunction) + "}");
    expectError("void main() {" + statements(kMaxStatementsInFunction + 1) + "}", "Error: Script too long", 0);
}

TEST(KelGrammarStack, DeepParentheses) {
    expectParses(parentheses(kMaxParentheses));
    expectError(parentheses(kMaxParentheses + 1), "Error: Script too long", 0);
}

TEST(KelGrammarStack, ManyArguments) {
    // The check, not the grammar, refuses the wrong argument count: this is a parse only.
    expectParses(arguments(kMaxArguments));
    expectError(arguments(kMaxArguments + 1), "Error: Script too long", 0);
}

TEST(KelGrammarStack, LongFlatExpressionsDoNotFillTheStack) {
    // Left recursion reduces as it goes: a long sum takes no stack.
    std::string sum = "y = x";
    for (int i = 0; i < 5000; ++i) sum += " + x";
    expectParses(sum + ";");
}

// The tree's height is bounded instead (kelParser.cpp): the walks over the tree recurse once
// per level, so a 1 MB chain used to overflow the stack in check (and in the release of the
// nodes). The root block, the statement, and one level per operator and the first operand.
TEST(KelGrammarStack, LongChainsStopAtTheTreeHeight) {
    const auto chain = [](const std::string& head, const std::string& link, int count) {
        std::string text = head;
        for (int i = 0; i < count; ++i) text += link;
        return text + ";";
    };
    expectParses(chain("y = x", " + x", 9997));
    expectError(chain("y = x", " + x", 9998), "Error: Script too long", 0);
    expectParses(chain("x", "++", 9998));
    expectError(chain("x", "++", 9999), "Error: Script too long", 0);
    // A megabyte of sum is refused, not a crash.
    expectError(chain("y = x", " + x", 250000), "Error: Script too long", 0);
}
