/* The grammar of the KEL language (GNU bison 3.8, LALR(1), yacc.c skeleton).
 *
 * 127 rules (counting the start rule as rule 1, so bison's report shows each number below one
 * less), 42 terminals, 38 non-terminals, no conflicts. Every action is one call of
 * KelParserProtocol, or a report of a syntax error: a false result ends the parse (YYABORT).
 *
 * Values are std::string, a token's text; a rule without an action hands up the text of its
 * first symbol. Locations are bison's four-field record: first_line is the line the scanner
 * stood on, first_column the token's column; `at(@N)` makes the position of symbol N's first
 * token, which a node keeps for its messages.
 * The stacks are fixed at 1000 entries (YYINITDEPTH == YYMAXDEPTH), so a full stack calls the
 * error function with "memory exhausted" (kelParserError turns it into "Error: Script too
 * long", line 0). bison takes an api.value.type for trivial and so compiles its memcpy relocation of
 * the stacks, which would be wrong for std::string; it is dead code here, since with the
 * initial depth at the maximum the first overflow check exhausts before relocating (hence
 * -Wno-class-memaccess on the generated file). the parser tests measure where the limit trips.
 */

%require "3.8"
%define api.prefix {kel}
%define api.pure full
%define api.value.type {std::string}
%locations
%parse-param {Zt::KelParserProtocol& protocol}

%code requires {
#include <string>
namespace Zt { class KelParserProtocol; }
}

%code {
#include "kelParser.h"

using P = Zt::KelParserProtocol;

// Three parser stacks of 1000 entries that never grow: a script nested deeper is "too long".
#define YYINITDEPTH 1000
#define YYMAXDEPTH 1000
static_assert(YYINITDEPTH == YYMAXDEPTH, "the stacks must never be relocated: std::string values");

// The scanner (kel.l) writes the text into the parser's value, the line into first_line and the
// token's column into first_column.
static int kellex(KELSTYPE* value, KELLTYPE* location, Zt::KelParserProtocol&) {
    return Zt::kelScanToken(*value, location->first_line, location->first_column);
}

static Zt::PebSourcePosition at(const KELLTYPE& location) { return {location.first_line, location.first_column}; }

static void kelerror(KELLTYPE*, Zt::KelParserProtocol& protocol, const char* text) {
    Zt::kelParserError(protocol, text);
}

// An action that is a builder: a false result ends the parse with failure.
#define BUILD(call) do { if (!(call)) YYABORT; } while (0)
// The report action: the rule's words with the line of the look-ahead, where the scanner stands.
#define REPORT(text) BUILD(protocol.syntaxError(text, yylloc.first_line))
}

%lex-param {Zt::KelParserProtocol& protocol}

/* Token codes from 258, in this order: kelTokenize hands them to tools as numbers. */
%token IDENTIFIER NUMBER VOID CONST IF FOR ELSE WHILE IMAGE FLOAT COLOR OUTPUT INPUT
%token ADD_ASSIGN SUB_ASSIGN DIV_ASSIGN MUL_ASSIGN OR_OP AND_OP EQ_OP NE_OP GE_OP LE_OP INC_OP DEC_OP

%start program

%%

/* 1. program $end: accept */

program
    : function_definition                                       /* 2 */
    | statement_list                                            /* 3 */
    ;

function_definition
    : VOID IDENTIFIER '(' parameter_list_opt ')' block          /* 4 */ { BUILD(protocol.functionDeclaration($2, @2.first_line, at(@2))); }
    | VOID error                                                /* 5 */ { REPORT("Invalid function declaration"); }
    ;

block
    : block_open statement_list_opt '}'                         /* 6 */
    | error                                                     /* 7 */ { REPORT("Invalid statement block"); }
    ;

body
    : block                                                     /* 8 */
    | expression ';'                                            /* 9 */ { BUILD(protocol.wrapStatement(@1.first_line)); }
    | ';'                                                       /* 10 */ { BUILD(protocol.startBlock(@1.first_line)); }
    | expression error                                          /* 11 */ { REPORT("Invalid statement, expected ;"); }
    ;

block_open
    : '{'                                                       /* 12 */ { BUILD(protocol.startBlock(@1.first_line)); }
    ;

statement_list_opt
    : %empty                                                    /* 13 */
    | statement_list                                            /* 14 */
    ;

statement_list
    : statement                                                 /* 15 */
    | statement statement_list                                  /* 16 */
    ;

statement
    : expression ';'                                            /* 17 */ { BUILD(protocol.addStatement(@1.first_line)); }
    | block                                                     /* 18 */ { BUILD(protocol.addStatement(@1.first_line)); }
    | control                                                   /* 19 */ { BUILD(protocol.addStatement(@1.first_line)); }
    | ';'                                                       /* 20 */
    | expression error                                          /* 21 */ { REPORT("Invalid statement, expected ;"); }
    ;

control
    : if_statement                                              /* 22 */
    | while_statement                                           /* 23 */
    | for_statement                                             /* 24 */
    ;

if_statement
    : if_head                                                   /* 25 */
    | if_head ELSE body                                         /* 26 */ { BUILD(protocol.setElse(@1.first_line)); }
    | if_head ELSE control                                      /* 27 */ { BUILD(protocol.wrapStatement(@1.first_line)); BUILD(protocol.setElse(@1.first_line)); }
    ;

if_head
    : IF '(' expression_list ')' body                           /* 28 */ { BUILD(protocol.ifStatement(@1.first_line, at(@1))); }
    | IF '(' expression_list error                              /* 29 */ { REPORT("Expected ')' after 'if' condition"); }
    | IF '(' error                                              /* 30 */ { REPORT("Expected condition in 'if'"); }
    | IF error                                                  /* 31 */ { REPORT("Expected '(' after 'if'"); }
    ;

while_statement
    : WHILE '(' expression_list ')' body                        /* 32 */ { BUILD(protocol.whileLoop(@1.first_line, at(@1))); }
    | WHILE '(' expression_list error                           /* 33 */ { REPORT("Expected ')' after 'while' condition"); }
    | WHILE '(' error                                           /* 34 */ { REPORT("Expected condition in 'while'"); }
    | WHILE error                                               /* 35 */ { REPORT("Expected '(' after 'while'"); }
    ;

for_statement
    : FOR '(' expression ';' expression ';' expression ')' body /* 36 */ { BUILD(protocol.forLoop(P::ForInit | P::ForCondition | P::ForIncrement, @1.first_line, at(@1))); }
    | FOR '(' ';' expression ';' expression ')' body            /* 37 */ { BUILD(protocol.forLoop(P::ForCondition | P::ForIncrement, @1.first_line, at(@1))); }
    | FOR '(' expression ';' expression ';' ')' body            /* 38 */ { BUILD(protocol.forLoop(P::ForInit | P::ForCondition, @1.first_line, at(@1))); }
    | FOR '(' ';' expression ';' ')' body                       /* 39 */ { BUILD(protocol.forLoop(P::ForCondition, @1.first_line, at(@1))); }
    | FOR error                                                 /* 40 */ { REPORT("Invalid for structure"); }
    ;

expression
    : expression_list                                           /* 41 */
    | type IDENTIFIER                                           /* 42 */ { BUILD(protocol.variableDeclaration($1, $2, true, @1.first_line, at(@2))); }
    | type IDENTIFIER '=' assignment                            /* 43 */ { BUILD(protocol.variableInitialisation($1, $2, true, @1.first_line, at(@2))); }
    | CONST type IDENTIFIER                                     /* 44 */ { BUILD(protocol.variableDeclaration($2, $3, false, @1.first_line, at(@3))); }
    | CONST type IDENTIFIER '=' assignment                      /* 45 */ { BUILD(protocol.variableInitialisation($2, $3, false, @1.first_line, at(@3))); }
    | type error                                                /* 46 */ { REPORT("Expected variable name after type"); }
    | CONST type error                                          /* 47 */ { REPORT("Expected variable name after type"); }
    | IDENTIFIER IDENTIFIER                                     /* 48 */ { REPORT("Invalid type"); }
    ;

expression_list
    : assignment                                                /* 49 */
    | expression_list ',' assignment                            /* 50 */ { BUILD(protocol.binaryOp(",", @2.first_line, at(@2))); }
    ;

assignment
    : IDENTIFIER assign_op assignment                           /* 51 */ { BUILD(protocol.assign($1, $2, @1.first_line, at(@1))); }
    | or_expr                                                   /* 52 */
    | IDENTIFIER assign_op error                                /* 53 */ { REPORT("Expected value after assign"); }
    ;

parameter_list_opt
    : %empty                                                    /* 54 */
    | parameter_list                                            /* 55 */
    ;

parameter_list
    : parameter                                                 /* 56 */
    | parameter ',' parameter_list                              /* 57 */
    ;

parameter
    : OUTPUT type IDENTIFIER                                    /* 58 */ { BUILD(protocol.parameter($3, $2, true, @3.first_line, at(@3))); }
    | INPUT type IDENTIFIER                                     /* 59 */ { BUILD(protocol.parameter($3, $2, false, @3.first_line, at(@3))); }
    | OUTPUT IDENTIFIER                                         /* 60 */ { REPORT("Invalid parameter type"); }
    | INPUT IDENTIFIER                                          /* 61 */ { REPORT("Invalid parameter type"); }
    | IDENTIFIER                                                /* 62 */ { REPORT("Invalid parameter direction"); }
    | error                                                     /* 63 */ { REPORT("Invalid parameter declaration"); }
    ;

argument_list_opt
    : %empty                                                    /* 64 */
    | argument_list                                             /* 65 */
    ;

argument_list
    : argument                                                  /* 66 */
    | argument ',' argument_list                                /* 67 */
    ;

argument
    : assignment                                                /* 68 */ { BUILD(protocol.addArgument()); }
    ;

call
    : call_head argument_list_opt ')'                           /* 69 */
    | call_head error                                           /* 70 */ { REPORT("Incorrect function call arguments list"); }
    ;

call_head
    : IDENTIFIER '('                                            /* 71 */ { BUILD(protocol.functionCall($1, @1.first_line, at(@1))); }
    | COLOR '('                                                 /* 72 */ { BUILD(protocol.functionCall("color", @1.first_line, at(@1))); }
    ;

primary
    : IDENTIFIER                                                /* 73 */ { BUILD(protocol.variable($1, @1.first_line, at(@1))); }
    | NUMBER                                                    /* 74 */ { BUILD(protocol.floatLiteral($1, @1.first_line, at(@1))); }
    | call                                                      /* 75 */
    | '(' expression ')'                                        /* 76 */
    | '(' error                                                 /* 77 */ { REPORT("Expected expression after ("); }
    | '(' expression error                                      /* 78 */ { REPORT("Expected )"); }
    ;

postfix
    : primary                                                   /* 79 */
    | postfix incdec                                            /* 80 */ { BUILD(protocol.unaryOp("P" + $2, @2.first_line, at(@2))); }
    ;

unary
    : postfix                                                   /* 81 */
    | unary_op unary                                            /* 82 */ { BUILD(protocol.unaryOp($1, @1.first_line, at(@1))); }
    | unary_op error                                            /* 83 */ { REPORT("Expected expression"); }
    ;

unary_op
    : '+'                                                       /* 84 */
    | '-'                                                       /* 85 */
    | '!'                                                       /* 86 */
    | incdec                                                    /* 87 */
    ;

incdec
    : INC_OP                                                    /* 88 */
    | DEC_OP                                                    /* 89 */
    ;

mul_expr
    : unary                                                     /* 90 */
    | mul_expr '*' unary                                        /* 91 */ { BUILD(protocol.binaryOp($2, @2.first_line, at(@2))); }
    | mul_expr '/' unary                                        /* 92 */ { BUILD(protocol.binaryOp($2, @2.first_line, at(@2))); }
    | mul_expr '/' error                                        /* 93 */ { REPORT("Expected expression after /"); }
    | mul_expr '*' error                                        /* 94 */ { REPORT("Expected expression after *"); }
    ;

add_expr
    : mul_expr                                                  /* 95 */
    | add_expr '+' mul_expr                                     /* 96 */ { BUILD(protocol.binaryOp($2, @2.first_line, at(@2))); }
    | add_expr '-' mul_expr                                     /* 97 */ { BUILD(protocol.binaryOp($2, @2.first_line, at(@2))); }
    | add_expr '+' error                                        /* 98 */ { REPORT("Expected expression after +"); }
    | add_expr '-' error                                        /* 99 */ { REPORT("Expected expression after -"); }
    ;

rel_expr
    : add_expr                                                  /* 100 */
    | rel_expr '<' add_expr                                     /* 101 */ { BUILD(protocol.binaryOp($2, @2.first_line, at(@2))); }
    | rel_expr '>' add_expr                                     /* 102 */ { BUILD(protocol.binaryOp($2, @2.first_line, at(@2))); }
    | rel_expr LE_OP add_expr                                   /* 103 */ { BUILD(protocol.binaryOp($2, @2.first_line, at(@2))); }
    | rel_expr GE_OP add_expr                                   /* 104 */ { BUILD(protocol.binaryOp($2, @2.first_line, at(@2))); }
    | rel_expr LE_OP error                                      /* 105 */ { REPORT("Expected expression after <="); }
    | rel_expr GE_OP error                                      /* 106 */ { REPORT("Expected expression after >="); }
    | rel_expr '<' error                                        /* 107 */ { REPORT("Expected expression after '<'"); }
    | rel_expr '>' error                                        /* 108 */ { REPORT("Expected expression after '>'"); }
    ;

eq_expr
    : rel_expr                                                  /* 109 */
    | eq_expr EQ_OP rel_expr                                    /* 110 */ { BUILD(protocol.binaryOp($2, @2.first_line, at(@2))); }
    | eq_expr NE_OP rel_expr                                    /* 111 */ { BUILD(protocol.binaryOp($2, @2.first_line, at(@2))); }
    | eq_expr EQ_OP error                                       /* 112 */ { REPORT("Expected expression after =="); }
    | eq_expr NE_OP error                                       /* 113 */ { REPORT("Expected expression after !="); }
    ;

and_expr
    : eq_expr                                                   /* 114 */
    | and_expr AND_OP eq_expr                                   /* 115 */ { BUILD(protocol.binaryOp($2, @2.first_line, at(@2))); }
    | and_expr AND_OP error                                     /* 116 */ { REPORT("Expected expression after &&"); }
    ;

or_expr
    : and_expr                                                  /* 117 */
    | or_expr OR_OP and_expr                                    /* 118 */ { BUILD(protocol.binaryOp($2, @2.first_line, at(@2))); }
    | or_expr OR_OP error                                       /* 119 */ { REPORT("Expected expression after ||"); }
    ;

assign_op
    : '='                                                       /* 120 */
    | ADD_ASSIGN                                                /* 121 */
    | SUB_ASSIGN                                                /* 122 */
    | DIV_ASSIGN                                                /* 123 */
    | MUL_ASSIGN                                                /* 124 */
    ;

type
    : FLOAT                                                     /* 125 */
    | COLOR                                                     /* 126 */
    | IMAGE                                                     /* 127 */
    ;

%%
