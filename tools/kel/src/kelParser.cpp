// Part 3.3: the parser driver and the tree builder. See kelParser.h for each operation's stack
// effect; this file says only what the code cannot.
#include "kelParser.h"

#include <bit>
#include <cstdint>

#include "kelFunctions.h"

// The bison parser (kel.y); its result is 0 accepted, 1 failed by an action, 2 out of stack.
int kelparse(Zt::KelParserProtocol& protocol);

namespace Zt {

KelParserProtocol::KelParserProtocol(Vector<PebError>* errors) : _errors(errors) {}

KelParserProtocol::~KelParserProtocol() {
    while (!_stack.empty()) _stack.pop();
}

// The grammar never asks for more than the stack holds; if a broken caller does, it gets the
// framework's null-pointer failure instead of undefined behaviour.
const RCShdPtr<KelSyntaxTree>& KelParserProtocol::top() const {
    if (_stack.empty()) RCExUtil::throwExNullPtr(typeid(KelSyntaxTree).name());
    return _stack.top();
}

RCShdPtr<KelSyntaxTree> KelParserProtocol::pop() {
    RCShdPtr<KelSyntaxTree> node = top();
    _stack.pop();
    return node;
}

bool KelParserProtocol::assign(const std::string& name, const std::string& op, int line) {
    RCShdPtr<KelSyntaxTree> value = pop();
    _stack.push(new AssignNode(name, op, value, line, 1));
    return true;
}

bool KelParserProtocol::binaryOp(const std::string& op, int line) {
    RCShdPtr<KelSyntaxTree> right = pop();
    RCShdPtr<KelSyntaxTree> left = pop();
    _stack.push(new BinaryOpNode(op, left, right, line));
    return true;
}

bool KelParserProtocol::setElse(int line) {
    KelBlockPtr elseBlock = rcCheckedCast<StatementBlockNode>(pop());
    rcCheckedCast<IfNode>(top())->setElse(elseBlock);
    return true;
}

bool KelParserProtocol::addError(const std::string& text, const std::string& detail, int line) {
    return addError(text + " : " + detail, line);
}

bool KelParserProtocol::addError(const std::string& message, int line) {
    _errors->push_back(PebError(message, line));
    return false;
}

bool KelParserProtocol::forLoop(int parts, int line) {
    KelBlockPtr body = rcCheckedCast<StatementBlockNode>(pop());
    RCShdPtr<KelSyntaxTree> third;
    if (parts & 4) third = pop();
    RCShdPtr<KelSyntaxTree> condition = pop();
    RCShdPtr<KelSyntaxTree> first;
    if (parts & 1) first = pop();
    _stack.push(new ForNode(first, condition, third, body, line));
    return true;
}

bool KelParserProtocol::functionCall(const std::string& name, int line) {
    KelFunctionTable::Factory factory = KelFunctionTable::lookup(name);
    if (factory == nullptr)
        return addError("Function undefined : " + name + " at line " + LiStringUtil::convertNb(line), line);
    _stack.push(factory(line));
    return true;
}

bool KelParserProtocol::addArgument() {
    RCShdPtr<KelSyntaxTree> argument = pop();
    rcCheckedCast<FunctionCallNode>(top())->addArgument(argument);
    return true;
}

bool KelParserProtocol::functionDeclaration(const std::string& name, int line) {
    KelBlockPtr body = rcCheckedCast<StatementBlockNode>(pop());
    RCShdPtr<FunctionDeclarationNode> function(new FunctionDeclarationNode(name, body, line));
    // Only parameters lie under the block here; popping them reverses them, so `_parameters`
    // holds the last declared first, the order of the check and of the variable ids.
    while (!_stack.empty()) function->addParameter(rcCheckedCast<ParameterNode>(pop()));
    _stack.push(function);
    return true;
}

bool KelParserProtocol::ifStatement(int line) {
    KelBlockPtr thenBlock = rcCheckedCast<StatementBlockNode>(pop());
    RCShdPtr<KelSyntaxTree> condition = pop();
    _stack.push(new IfNode(condition, thenBlock, line));
    return true;
}

bool KelParserProtocol::variableDeclaration(const std::string& type, const std::string& name, bool writable, int line) {
    _stack.push(new InitVarNode(type, name, writable, line));
    return true;
}

bool KelParserProtocol::variableInitialisation(const std::string& type, const std::string& name, bool writable,
                                               int line) {
    RCShdPtr<KelSyntaxTree> value = pop();
    _stack.push(new InitVarAssignNode(type, name, value, writable, line));
    return true;
}

bool KelParserProtocol::floatLiteral(const std::string& text, int line) {
    // The three limits by bit pattern: their values are not written as decimal text (Part 3.1).
    float value;
    if (text == "FLT_MAX")
        value = std::bit_cast<float>(std::uint32_t(0x7F7FFFFF));
    else if (text == "FLT_MIN")
        value = std::bit_cast<float>(std::uint32_t(0x00800000));
    else if (text == "FLT_EPSILON")
        value = std::bit_cast<float>(std::uint32_t(0x34000000));
    else
        value = LiStringUtil::convertToFloat(text);
    _stack.push(new FloatLiteralNode(value, line));
    return true;
}

bool KelParserProtocol::parameter(const std::string& name, const std::string& type, bool isOutput, int line) {
    _stack.push(new ParameterNode(name, type, isOutput, line));
    return true;
}

bool KelParserProtocol::addStatement(int line) {
    RCShdPtr<KelSyntaxTree> statement = pop();
    // The first statement of a script without a function makes the script's block, which stays
    // at the bottom of the stack for good.
    if (_stack.empty()) startBlock(line);
    rcCheckedCast<StatementBlockNode>(top())->addStatement(statement);
    return true;
}

bool KelParserProtocol::wrapStatement(int line) {
    RCShdPtr<StatementBlockNode> block(new StatementBlockNode(line));
    block->addStatement(pop());
    _stack.push(block);
    return true;
}

bool KelParserProtocol::startBlock(int line) {
    _stack.push(new StatementBlockNode(line));
    return true;
}

bool KelParserProtocol::unaryOp(const std::string& op, int line) {
    RCShdPtr<KelSyntaxTree> operand = pop();
    _stack.push(new UnaryOpNode(op, operand, line));
    return true;
}

bool KelParserProtocol::variable(const std::string& name, int line) {
    _stack.push(new VariableNode(name, line));
    return true;
}

bool KelParserProtocol::whileLoop(int line) {
    KelBlockPtr body = rcCheckedCast<StatementBlockNode>(pop());
    RCShdPtr<KelSyntaxTree> condition = pop();
    _stack.push(new WhileNode(condition, body, line));
    return true;
}

RCShdPtr<KelSyntaxTree> KelParserProtocol::root() {
    if (_stack.empty()) return new StatementBlockNode(1);
    return _stack.top();
}

void kelParserError(KelParserProtocol& protocol, const std::string& text) {
    if (text == "parser stack overflow" || text == "memory exhausted") protocol.addError("Error: Script too long", 0);
}

std::string kelSyntaxMessage(const char* text, int line) {
    return std::string("Syntax Error: ") + text + " at line " + LiStringUtil::convertNb(line);
}

namespace {
// Restores the scanner however the parse ends (steps 8 and 9), an exception included.
struct KelScannerSession {
    explicit KelScannerSession(std::istream& input) { kelScannerBegin(input); }
    ~KelScannerSession() { kelScannerEnd(); }
    KelScannerSession(const KelScannerSession&) = delete;
    KelScannerSession& operator=(const KelScannerSession&) = delete;
};
}  // namespace

bool parseScript(KelParserProtocol& protocol, std::istream& input) {
    // The source path and line are the spec's (Part 3.3 step 1), not this file's.
    if (!PiAppThread::isCurrent())
        Assertions::throwAssertionFailed("tools/kel/src/kelParser", 143, "PiAppThread::isCurrent()");
    // Step 2, the current protocol, is the parser's parse-param here (kel.y).
    int result;
    {
        KelScannerSession session(input);
        try {
            result = kelparse(protocol);
        } catch (const KelUnterminatedComment& unterminated) {
            // The one known difference from Part 3.1 (kel.l): the parse fails instead of hanging.
            protocol.addError(kelSyntaxMessage("Unterminated comment", unterminated.line), unterminated.line);
            result = 1;
        }
    }
    return result == 0;
}

std::vector<KelToken> kelTokenize(std::istream& input) {
    KelScannerSession session(input);
    std::vector<KelToken> tokens;
    // As the parser holds them: one text string kept between tokens, a line starting at 1.
    std::string text;
    int line = 1;
    for (;;) {
        int code = kelScanToken(text, line);
        tokens.push_back({code, text, line});
        if (code == 0) return tokens;
    }
}

}  // namespace Zt
