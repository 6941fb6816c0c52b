// The parser driver and the tree builder. See kelParser.h for each operation's stack effect;
// this file says only what the code cannot.
#include "kelParser.h"

#include <algorithm>
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

// The tree walks (check, eval, print, and the release of the nodes) recurse once per level; a
// left-recursive chain (`1 + 1 + ...`, `x++ ++ ...`) takes no parser stack, so without this
// bound a long one overflows the thread's stack. Far above any script the stack limit lets nest.
// Listed among the limits in docs/language.md, section 8.
constexpr int kMaxTreeHeight = 10000;

bool KelParserProtocol::push(RCShdPtr<KelSyntaxTree> node, int height) {
    if (height > kMaxTreeHeight) return addError("Error: Script too long", 0, kelStopPosition());
    _stack.push(std::move(node));
    _heights.push(height);
    return true;
}

bool KelParserProtocol::push(RCShdPtr<KelSyntaxTree> node, int height, const PebSourcePosition& position) {
    node->setPosition(position);
    return push(std::move(node), height);
}

// The grammar never asks for more than the stack holds; if a broken caller does, it gets the
// framework's null-pointer failure instead of undefined behaviour.
const RCShdPtr<KelSyntaxTree>& KelParserProtocol::top() const {
    if (_stack.empty()) RCExUtil::throwExNullPtr(typeid(KelSyntaxTree).name());
    return _stack.top();
}

RCShdPtr<KelSyntaxTree> KelParserProtocol::pop() {
    int height;
    return pop(height);
}

RCShdPtr<KelSyntaxTree> KelParserProtocol::pop(int& height) {
    RCShdPtr<KelSyntaxTree> node = top();
    _stack.pop();
    height = _heights.top();
    _heights.pop();
    return node;
}

bool KelParserProtocol::assign(const std::string& name, const std::string& op, int line, const PebSourcePosition& position) {
    int height;
    RCShdPtr<KelSyntaxTree> value = pop(height);
    return push(new AssignNode(name, op, value, line, 1), height + 1, position);
}

bool KelParserProtocol::binaryOp(const std::string& op, int line, const PebSourcePosition& position) {
    int rightHeight, leftHeight;
    RCShdPtr<KelSyntaxTree> right = pop(rightHeight);
    RCShdPtr<KelSyntaxTree> left = pop(leftHeight);
    return push(new BinaryOpNode(op, left, right, line), std::max(leftHeight, rightHeight) + 1, position);
}

bool KelParserProtocol::setElse(int line) {
    int elseHeight, ifHeight;
    KelBlockPtr elseBlock = rcCheckedCast<StatementBlockNode>(pop(elseHeight));
    RCShdPtr<KelSyntaxTree> node = pop(ifHeight);
    rcCheckedCast<IfNode>(node)->setElse(elseBlock);
    return push(node, std::max(ifHeight, elseHeight + 1));
}

bool KelParserProtocol::addError(const std::string& text, const std::string& detail, int line) {
    return addError(text + " : " + detail, line);
}

bool KelParserProtocol::addError(const std::string& message, int line, const PebSourcePosition& position) {
    _errors->push_back(PebError(message, line, position));
    return false;
}

bool KelParserProtocol::syntaxError(const char* text, int line) {
    return addError(kelSyntaxMessage(text, line), line, _stop);
}

bool KelParserProtocol::forLoop(int parts, int line, const PebSourcePosition& position) {
    int bodyHeight, incrementHeight = 0, conditionHeight, initHeight = 0;
    KelBlockPtr body = rcCheckedCast<StatementBlockNode>(pop(bodyHeight));
    RCShdPtr<KelSyntaxTree> increment;
    if (parts & ForIncrement) increment = pop(incrementHeight);
    RCShdPtr<KelSyntaxTree> condition = pop(conditionHeight);
    RCShdPtr<KelSyntaxTree> init;
    if (parts & ForInit) init = pop(initHeight);
    return push(new ForNode(init, condition, increment, body, line),
                std::max({bodyHeight, incrementHeight, conditionHeight, initHeight}) + 1, position);
}

// Each call also learns which call of its function it is, in reading order (FunctionCallNode's
// ordinal): `rand` draws its own numbers by it.
bool KelParserProtocol::functionCall(const std::string& name, int line, const PebSourcePosition& position) {
    KelFunctionTable::Factory factory = KelFunctionTable::lookup(name);
    if (factory == nullptr)
        return addError("Function undefined : " + name + " at line " + LiStringUtil::convertNb(line), line, position);
    RCShdPtr<FunctionCallNode> call = factory(line);
    call->setOrdinal(_callsByName[name]++);
    return push(call, 1, position);
}

bool KelParserProtocol::addArgument() {
    int argumentHeight, callHeight;
    RCShdPtr<KelSyntaxTree> argument = pop(argumentHeight);
    RCShdPtr<KelSyntaxTree> call = pop(callHeight);
    rcCheckedCast<FunctionCallNode>(call)->addArgument(argument);
    return push(call, std::max(callHeight, argumentHeight + 1));
}

bool KelParserProtocol::functionDeclaration(const std::string& name, int line, const PebSourcePosition& position) {
    int bodyHeight;
    KelBlockPtr body = rcCheckedCast<StatementBlockNode>(pop(bodyHeight));
    RCShdPtr<FunctionDeclarationNode> function(new FunctionDeclarationNode(name, body, line));
    // Only parameters lie under the block here; popping them reverses them, so `_parameters`
    // holds the last declared first, the order of the check and of the variable ids.
    while (!_stack.empty()) function->addParameter(rcCheckedCast<ParameterNode>(pop()));
    return push(function, std::max(bodyHeight, 1) + 1, position);
}

bool KelParserProtocol::ifStatement(int line, const PebSourcePosition& position) {
    int thenHeight, conditionHeight;
    KelBlockPtr thenBlock = rcCheckedCast<StatementBlockNode>(pop(thenHeight));
    RCShdPtr<KelSyntaxTree> condition = pop(conditionHeight);
    return push(new IfNode(condition, thenBlock, line), std::max(thenHeight, conditionHeight) + 1, position);
}

bool KelParserProtocol::variableDeclaration(const std::string& type, const std::string& name, bool writable, int line,
                                            const PebSourcePosition& position) {
    return push(new InitVarNode(type, name, writable, line), 1, position);
}

bool KelParserProtocol::variableInitialisation(const std::string& type, const std::string& name, bool writable,
                                               int line, const PebSourcePosition& position) {
    int height;
    RCShdPtr<KelSyntaxTree> value = pop(height);
    return push(new InitVarAssignNode(type, name, value, writable, line), height + 1, position);
}

bool KelParserProtocol::floatLiteral(const std::string& text, int line, const PebSourcePosition& position) {
    // The three limits by bit pattern, exact on every platform: the scanner passes their names,
    // not decimal text.
    float value;
    if (text == "FLT_MAX")
        value = std::bit_cast<float>(std::uint32_t(0x7F7FFFFF));
    else if (text == "FLT_MIN")
        value = std::bit_cast<float>(std::uint32_t(0x00800000));
    else if (text == "FLT_EPSILON")
        value = std::bit_cast<float>(std::uint32_t(0x34000000));
    else
        value = LiStringUtil::convertToFloat(text);
    return push(new FloatLiteralNode(value, line), 1, position);
}

bool KelParserProtocol::parameter(const std::string& name, const std::string& type, bool isOutput, int line,
                                  const PebSourcePosition& position) {
    return push(new ParameterNode(name, type, isOutput, line), 1, position);
}

bool KelParserProtocol::addStatement(int line) {
    int statementHeight, blockHeight;
    RCShdPtr<KelSyntaxTree> statement = pop(statementHeight);
    // The first statement of a script without a function makes the script's block, which stays
    // at the bottom of the stack for good.
    if (_stack.empty()) startBlock(line);
    RCShdPtr<KelSyntaxTree> block = pop(blockHeight);
    rcCheckedCast<StatementBlockNode>(block)->addStatement(statement);
    return push(block, std::max(blockHeight, statementHeight + 1));
}

bool KelParserProtocol::wrapStatement(int line) {
    int height;
    RCShdPtr<StatementBlockNode> block(new StatementBlockNode(line));
    block->addStatement(pop(height));
    return push(block, height + 1);
}

bool KelParserProtocol::startBlock(int line) {
    return push(new StatementBlockNode(line), 1);
}

bool KelParserProtocol::unaryOp(const std::string& op, int line, const PebSourcePosition& position) {
    int height;
    RCShdPtr<KelSyntaxTree> operand = pop(height);
    return push(new UnaryOpNode(op, operand, line), height + 1, position);
}

bool KelParserProtocol::variable(const std::string& name, int line, const PebSourcePosition& position) {
    return push(new VariableNode(name, line), 1, position);
}

bool KelParserProtocol::whileLoop(int line, const PebSourcePosition& position) {
    int bodyHeight, conditionHeight;
    KelBlockPtr body = rcCheckedCast<StatementBlockNode>(pop(bodyHeight));
    RCShdPtr<KelSyntaxTree> condition = pop(conditionHeight);
    return push(new WhileNode(condition, body, line), std::max(bodyHeight, conditionHeight) + 1, position);
}

RCShdPtr<KelSyntaxTree> KelParserProtocol::root() {
    if (_stack.empty()) return new StatementBlockNode(1);
    return _stack.top();
}

void kelParserError(KelParserProtocol& protocol, const std::string& text) {
    protocol.stoppedAt(kelStopPosition());
    if (text == "parser stack overflow" || text == "memory exhausted")
        protocol.addError("Error: Script too long", 0, kelStopPosition());
}

std::string kelSyntaxMessage(const char* text, int line) {
    return std::string("Syntax Error: ") + text + " at line " + LiStringUtil::convertNb(line);
}

namespace {
// Restores the scanner however the parse ends, an exception included.
struct KelScannerSession {
    explicit KelScannerSession(std::istream& input) { kelScannerBegin(input); }
    ~KelScannerSession() { kelScannerEnd(); }
    KelScannerSession(const KelScannerSession&) = delete;
    KelScannerSession& operator=(const KelScannerSession&) = delete;
};
}  // namespace

bool parseScript(KelParserProtocol& protocol, std::istream& input) {
    // The assertion names a fixed place (kelParser, line 143), which does not move when this
    // file is edited: hosts match on it.
    if (!PiAppThread::isCurrent())
        Assertions::throwAssertionFailed("tools/kel/src/kelParser", 143, "PiAppThread::isCurrent()");
    // The protocol reaches the grammar's actions as the parser's parse-param (kel.y).
    int result;
    {
        KelScannerSession session(input);
        try {
            result = kelparse(protocol);
        } catch (const KelUnterminatedComment& unterminated) {
            // An unterminated block comment fails the parse (kel.l) rather than hang it.
            protocol.addError(kelSyntaxMessage("Unterminated comment", unterminated.line), unterminated.line,
                              unterminated.opening);
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
    int line = 1, column = 1;
    for (;;) {
        int code = kelScanToken(text, line, column);
        tokens.push_back({code, text, line});
        if (code == 0) return tokens;
    }
}

}  // namespace Zt
