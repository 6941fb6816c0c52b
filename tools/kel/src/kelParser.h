// The front end: the parser driver `parseScript` and the tree builder `KelParserProtocol`, beside
// the scanner (kel.l) and the grammar (kel.y).
//
// The grammar's actions call the protocol's operations, each of which works on a stack of nodes
// like an opcode of a stack machine; when the parse ends the finished tree stands alone on the
// stack. The protocol knows one table, the built-in functions (kelFunctionsCatalogue.cpp);
// everything else about meaning waits for the nodes' `check`.
#pragma once

#include <deque>
#include <istream>
#include <map>
#include <stack>
#include <string>
#include <vector>

#include "Peb.h"
#include "kelGraph.h"

namespace Zt {

class KelParserProtocol : public KelValueTypes {
public:
    // Leaves the stack empty; `errors` is the caller's list, appended to and never cleared.
    explicit KelParserProtocol(Vector<PebError>* errors);
    // Releases every node still on the stack, top first.
    virtual ~KelParserProtocol();
    KelParserProtocol(const KelParserProtocol&) = delete;
    KelParserProtocol& operator=(const KelParserProtocol&) = delete;

    // The builders, one per kind of grammar action, each with its stack effect. Each returns
    // true to go on, false to end the parse: `functionCall` of an unknown name, `addError`, and
    // any builder whose tree grows too high for the recursive walks (see `push`). `line` is the
    // line the node reports its errors at; `position`, where given, is the token the node names
    // (its name, its operator or its keyword), which the node's errors point at.

    // Pops value, pushes AssignNode(name, op, value, line, 1).
    virtual bool assign(const std::string& name, const std::string& op, int line, const PebSourcePosition& position = {});
    // Pops right, pops left, pushes BinaryOpNode(op, left, right, line).
    virtual bool binaryOp(const std::string& op, int line, const PebSourcePosition& position = {});
    // Pops a StatementBlockNode and makes it the `else` of the IfNode now on top; `line` unused.
    virtual bool setElse(int line);
    // Adds the error text + " : " + detail through the next operation; returns false.
    virtual bool addError(const std::string& text, const std::string& detail, int line);
    // Appends PebError(message, line, position) to the caller's list; returns false, always.
    virtual bool addError(const std::string& message, int line, const PebSourcePosition& position = {});
    // A grammar rule's report: appends "Syntax Error: " + text + " at line " + line, pointing at
    // the token where the parser stopped (kelParserError noted it), which may stand on an earlier
    // line than `line` when the parser read on before giving up; returns false.
    bool syntaxError(const char* text, int line);
    // Which clauses a `for` statement wrote, or-ed together into `forLoop`'s `parts`.
    enum ForClauses : int { ForInit = 1, ForCondition = 2, ForIncrement = 4 };
    // Pops body (a StatementBlockNode), the increment if `parts` has ForIncrement, the condition,
    // the init if `parts` has ForInit; pushes ForNode(init, condition, increment, body, line).
    virtual bool forLoop(int parts, int line, const PebSourcePosition& position = {});
    // Pushes the built-in's call node, numbered among the calls of its function in reading order
    // (FunctionCallNode::ordinal); for an unknown name reports "Function undefined : " + name +
    // " at line " + line and returns false.
    virtual bool functionCall(const std::string& name, int line, const PebSourcePosition& position = {});
    // Pops argument, adds it to the FunctionCallNode now on top.
    virtual bool addArgument();
    // Pops the body block, then every ParameterNode beneath it (last declared first); pushes
    // FunctionDeclarationNode(name, body, line) holding them in that order.
    virtual bool functionDeclaration(const std::string& name, int line, const PebSourcePosition& position = {});
    // Pops then-block, replaces the condition on top by IfNode(condition, block, line).
    virtual bool ifStatement(int line, const PebSourcePosition& position = {});
    // Pushes InitVarNode(type, name, writable, line).
    virtual bool variableDeclaration(const std::string& type, const std::string& name, bool writable, int line,
                                     const PebSourcePosition& position = {});
    // Pops value, pushes InitVarAssignNode(type, name, value, writable, line).
    virtual bool variableInitialisation(const std::string& type, const std::string& name, bool writable, int line,
                                        const PebSourcePosition& position = {});
    // Pushes FloatLiteralNode(value of `text`, line); FLT_MAX, FLT_MIN, FLT_EPSILON by name.
    virtual bool floatLiteral(const std::string& text, int line, const PebSourcePosition& position = {});
    // Pushes ParameterNode(name, type, isOutput, line).
    virtual bool parameter(const std::string& name, const std::string& type, bool isOutput, int line,
                           const PebSourcePosition& position = {});
    // Pops statement; pushes a new block first when the stack is then empty (the script's own
    // block); adds the statement to the StatementBlockNode on top.
    virtual bool addStatement(int line);
    // Pops top, pushes StatementBlockNode(line) holding it.
    virtual bool wrapStatement(int line);
    // Pushes an empty StatementBlockNode(line).
    virtual bool startBlock(int line);
    // Pops operand, pushes UnaryOpNode(op, operand, line).
    virtual bool unaryOp(const std::string& op, int line, const PebSourcePosition& position = {});
    // Pushes VariableNode(name, line).
    virtual bool variable(const std::string& name, int line, const PebSourcePosition& position = {});
    // Pops body block, replaces the condition on top by WhileNode(condition, block, line).
    virtual bool whileLoop(int line, const PebSourcePosition& position = {});

    // The top of the stack, not popped; a new empty StatementBlockNode(1) when the stack is
    // empty (not pushed).
    RCShdPtr<KelSyntaxTree> root();

    // For tests: how many nodes are on the stack.
    std::size_t depth() const { return _stack.size(); }

    // Notes the token where the parser found the script wrong, for the syntax error that follows.
    void stoppedAt(const PebSourcePosition& position) { _stop = position; }

private:
    const RCShdPtr<KelSyntaxTree>& top() const;
    RCShdPtr<KelSyntaxTree> pop();
    RCShdPtr<KelSyntaxTree> pop(int& height);
    // Pushes `node`, the root of a tree `height` levels high; a tree too high for the recursive
    // walks reports "Error: Script too long" at line 0 instead, and returns false.
    bool push(RCShdPtr<KelSyntaxTree> node, int height);
    // Pushes a new node that names the token at `position`.
    bool push(RCShdPtr<KelSyntaxTree> node, int height, const PebSourcePosition& position);

    std::stack<RCShdPtr<KelSyntaxTree>, std::deque<RCShdPtr<KelSyntaxTree>>> _stack;
    std::stack<int, std::vector<int>> _heights;  // beside _stack: each tree's height
    Vector<PebError>* _errors;
    PebSourcePosition _stop;
    std::map<std::string, int> _callsByName;  // how many calls of each function so far
};

// The one entry into the front end. Asserts the application thread, points the
// scanner at `input` (saving the scanner's state and restoring it afterwards, also when the
// parse fails), runs the parser with `protocol`, and returns true when the script parsed. The
// errors are in the protocol's list.
bool parseScript(KelParserProtocol& protocol, std::istream& input);

// The parser's error function: notes where the parser stopped (kelStopPosition), for the error
// that the grammar's error rule reports next. "memory exhausted" and "parser stack overflow"
// become "Error: Script too long" at line 0; any other text (bison's "syntax error") gives no
// error of its own, since the grammar's error rules give the words.
void kelParserError(KelParserProtocol& protocol, const std::string& text);

// The text of a syntax error that a grammar rule reports: "Syntax Error: %s at line %d".
std::string kelSyntaxMessage(const char* text, int line);

// ---- The scanner's side (kel.l) -----------------------------------------------------------------

// Thrown by the scanner when the input ends inside a block comment (kel.l); caught by
// parseScript, which fails the parse. `line` is the line where the input ended, `opening` the
// comment's `/*`.
struct KelUnterminatedComment {
    int line;
    PebSourcePosition opening;
};

// Saves the scanner's buffer, stream and start condition and points it at `input` with the line
// flag raised; kelScannerEnd restores them. Nest like brackets.
void kelScannerBegin(std::istream& input);
void kelScannerEnd();
// One scanner call: the token code, its text into `text` (unchanged by the six
// characters without text), the line into `firstLine`, the token's column into `firstColumn`.
// 0 at the end of the input.
int kelScanToken(std::string& text, int& firstLine, int& firstColumn);
inline int kelScanToken(std::string& text, int& firstLine) {
    int column = 1;
    return kelScanToken(text, firstLine, column);
}
// Where the last token scanned stands; for the end of the input, the place right after the
// last token (1, 1 when there was none), so that it lies on a line of the script.
PebSourcePosition kelStopPosition();

// A token as the scanner hands it over, for tests and tools.
struct KelToken {
    int code;
    std::string text;
    int line;
    bool operator==(const KelToken&) const = default;
};

// Scans `input` to its end as a parse would (same save and restore, same text and line
// records), the final token 0 included. Throws KelUnterminatedComment like the parse does.
std::vector<KelToken> kelTokenize(std::istream& input);

}  // namespace Zt
