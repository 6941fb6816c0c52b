// The syntax tree; the node classes below are this header's table of contents. Control flow is
// in kelGraphControl.cpp, operators and their table in kelGraphOperators.cpp, assignment,
// variables and literals in kelGraphVariables.cpp, declarations and calls in kelGraph.cpp, runs
// of statements compiled into programs of strips in kelGraphFused.cpp. A node keeps `print`,
// `check`, `eval` and `compile` together. `check` may rewrite the tree (the implicit `sample`
// wrap), and `fuse`, after it, replaces runs of statements by their program; `eval` never
// writes to a node, so one checked tree is shared by all tile threads.
#pragma once

#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "kelContext.h"

namespace Zt {

class KelSyntaxTree;
class StatementBlockNode;
class KelProgram;
class KelProgramBuilder;
struct KelFusion;
class ParameterNode;
using KelNodePtr = RCShdPtr<KelSyntaxTree>;

// ---- Operator codes -----------------------------------------------------------------------------

// The binary operators. The order is that of the operator table in kelGraphOperators.cpp;
// `None` stands for a text that is no operator. The four arithmetic operators are consecutive,
// and so are the two equality tests: the colour tables are indexed from their first.
enum class KelBinaryOp : int32_t {
    None, Add, Subtract, Multiply, Divide, Equal, NotEqual, Or, And, Less, Greater, LessEqual, GreaterEqual, Comma,
    Count
};
// "=", "+=", "-=", "*=", "/=", in the order of the assignment table in kelGraphVariables.cpp.
// An unknown text is taken as `Set`.
enum class KelAssignOp : int32_t { Set, Add, Subtract, Multiply, Divide, Count };

// True when row i of `rows` is tagged with operator `first + i`: a table indexed by an
// operator states its order, and a static_assert holds it to it.
template <class Row, std::size_t N>
constexpr bool kelRowsInOrder(const Row (&rows)[N], int first = 0) {
    for (std::size_t i = 0; i < N; ++i)
        if (int(rows[i].op) != first + int(i)) return false;
    return true;
}

// The code of the row of `rows` whose text is `text`; `unknown` when no row has it.
template <class Row, std::size_t N>
constexpr auto kelOperatorOf(const Row (&rows)[N], const std::string& text, decltype(Row::op) unknown) {
    for (const Row& row : rows)
        if (text == row.text) return row.op;
    return unknown;
}

// The forms of the IxScanlineUtil operations that the operator tables hold: a binary operation
// into a destination over the active span, and a masked store.
template <class D, class A, class B>
using KelBinaryForm = void (*)(IxScanline<D>&, const IxScanline<A>&, const IxScanline<B>&, const GeInterval<int>*);
template <class D, class S>
using KelStoreForm = void (*)(IxScanline<D>&, const IxScanline<S>&, const IxScanline<float>*, const GeInterval<int>*);

// The type of a declaration's type name: Float, Image or Color; 0 for any other text.
int kelTypeNumber(const std::string& typeName);

// The base of every node; instantiable, it is the empty statement.
class KelSyntaxTree : public RCBase<LkCounter<int>>, public KelValueTypes {
public:
    explicit KelSyntaxTree(int line = 0) : _line(line) {}
    ~KelSyntaxTree() override = default;
    // Writes the node as script-like text; print() goes to stdout.
    virtual void print(std::ostream& out) const {}
    void print() const { print(std::cout); }
    virtual RCShdPtr<KelValue> eval(KelContext& context) const { return nullptr; }
    virtual RCShdPtr<KelValue> check(KelContext& context) { return nullptr; }
    // Adds the node to a program of strips (kelProgram.h), after the check: an expression gives
    // the slot of its value, a statement KelProgramBuilder::kNoValue. A node that has no strip
    // form gives kFails (-1), and its statement stays in the tree walk.
    virtual int compile(KelProgramBuilder& program) const { return -1; }
    // Replaces the runs of statements that compile, in the blocks under this node, by programs.
    virtual void fuse(KelFusion& fusion) {}
    // True when, run as a row starts, the node stores into every column of the variable before
    // reading it: the row's starting contents cannot show (the output need not be reset).
    virtual bool writesBeforeReading(int variable) const { return false; }
    int line() const { return _line; }
    // The token this node names (its name, operator or keyword), where its errors point; the
    // parser sets it, and a node made otherwise has none (0, 0).
    const PebSourcePosition& position() const { return _position; }
    virtual void setPosition(const PebSourcePosition& position) { _position = position; }

protected:
    int32_t _line;
    PebSourcePosition _position;
};

// ---- Control flow -------------------------------------------------------------------------------

class StatementBlockNode : public KelSyntaxTree {
public:
    explicit StatementBlockNode(int line);
    void addStatement(const KelNodePtr& statement) { _statements.push_back(statement); }
    const std::vector<KelNodePtr>& statements() const { return _statements; }
    void print(std::ostream& out) const override;
    RCShdPtr<KelValue> eval(KelContext& context) const override;
    RCShdPtr<KelValue> check(KelContext& context) override;
    int compile(KelProgramBuilder& program) const override;
    void fuse(KelFusion& fusion) override;
    bool writesBeforeReading(int variable) const override;

private:
    std::vector<KelNodePtr> _statements;
};
using KelBlockPtr = RCShdPtr<StatementBlockNode>;

// A run of statements of one block and the program they compiled into (kelProgram.h). It
// evaluates as the statements would, through the program when the tile's context can bind it
// and through the statements otherwise, and it prints as they do.
class FusedStatementsNode : public KelSyntaxTree {
public:
    FusedStatementsNode(std::vector<KelNodePtr> statements, std::unique_ptr<KelProgram> program, int index);
    ~FusedStatementsNode() override;
    const KelProgram& program() const { return *_program; }
    void print(std::ostream& out) const override;
    RCShdPtr<KelValue> eval(KelContext& context) const override;
    RCShdPtr<KelValue> check(KelContext& context) override;
    bool writesBeforeReading(int variable) const override;

private:
    std::vector<KelNodePtr> _statements;
    std::unique_ptr<KelProgram> _program;
    int _index;  // of the program among the tree's: its binding's place in a context
};

class ForNode : public KelSyntaxTree {
public:
    // `init` and `increment` may be null.
    ForNode(const KelNodePtr& init, const KelNodePtr& condition, const KelNodePtr& increment, const KelBlockPtr& body, int line);
    const KelNodePtr& init() const { return _init; }
    const KelNodePtr& condition() const { return _condition; }
    const KelNodePtr& increment() const { return _increment; }
    const KelBlockPtr& body() const { return _body; }
    void print(std::ostream& out) const override;
    RCShdPtr<KelValue> eval(KelContext& context) const override;
    RCShdPtr<KelValue> check(KelContext& context) override;
    int compile(KelProgramBuilder& program) const override;
    void fuse(KelFusion& fusion) override;

private:
    KelNodePtr _init;
    KelNodePtr _condition;
    KelNodePtr _increment;
    KelBlockPtr _body;
};

class WhileNode : public KelSyntaxTree {
public:
    WhileNode(const KelNodePtr& condition, const KelBlockPtr& body, int line);
    void print(std::ostream& out) const override;
    RCShdPtr<KelValue> eval(KelContext& context) const override;
    RCShdPtr<KelValue> check(KelContext& context) override;
    int compile(KelProgramBuilder& program) const override;
    void fuse(KelFusion& fusion) override;

private:
    KelNodePtr _condition;
    KelBlockPtr _body;
};

class IfNode : public KelSyntaxTree {
public:
    IfNode(const KelNodePtr& condition, const KelBlockPtr& thenBlock, int line);
    void setElse(const KelBlockPtr& elseBlock) { _else = elseBlock; }
    const KelBlockPtr& elseBlock() const { return _else; }
    void print(std::ostream& out) const override;
    RCShdPtr<KelValue> eval(KelContext& context) const override;
    RCShdPtr<KelValue> check(KelContext& context) override;
    int compile(KelProgramBuilder& program) const override;
    void fuse(KelFusion& fusion) override;

private:
    KelNodePtr _condition;
    KelBlockPtr _then;
    KelBlockPtr _else;
};

// ---- Declarations -------------------------------------------------------------------------------

class ParameterNode : public KelSyntaxTree {
public:
    // `typeName` is "float", "image", "color" (type 1, 3, 4) or anything else (type 0).
    ParameterNode(const std::string& name, const std::string& typeName, bool isOutput, int line);
    const std::string& getName() const { return _name; }
    int getType() const { return _type; }
    bool isOutput() const { return _direction == 1; }
    void print(std::ostream& out) const override;
    RCShdPtr<KelValue> eval(KelContext& context) const override;  // aborts: bound by the interpreter
    RCShdPtr<KelValue> check(KelContext& context) override;

private:
    std::string _name;
    std::string _typeName;
    int32_t _type;
    int32_t _direction;
};
using KelParameterPtr = RCShdPtr<ParameterNode>;

class FunctionDeclarationNode : public KelSyntaxTree {
public:
    FunctionDeclarationNode(const std::string& name, const KelBlockPtr& body, int line);
    const std::string& getName() const { return _name; }
    void addParameter(const KelParameterPtr& parameter) { _parameters.push_back(parameter); }
    void declareParameters(KelContext& context) const;
    void print(std::ostream& out) const override;
    RCShdPtr<KelValue> eval(KelContext& context) const override;
    RCShdPtr<KelValue> check(KelContext& context) override;
    void fuse(KelFusion& fusion) override;
    bool writesBeforeReading(int variable) const override;

    std::vector<KelParameterPtr> _parameters;  // last declared first (the parser's stack order)

private:
    std::string _name;
    KelBlockPtr _body;
};

// ---- Operator nodes -----------------------------------------------------------------------------

class UnaryOpNode : public KelSyntaxTree {
public:
    // "!", "-", "+", "++", "--" (prefix), "P++", "P--" (postfix)
    UnaryOpNode(const std::string& op, const KelNodePtr& operand, int line);
    void print(std::ostream& out) const override;
    RCShdPtr<KelValue> eval(KelContext& context) const override;
    RCShdPtr<KelValue> check(KelContext& context) override;
    int compile(KelProgramBuilder& program) const override;

private:
    std::string _operator;
    KelNodePtr _operand;
};

class BinaryOpNode : public KelSyntaxTree {
public:
    BinaryOpNode(const std::string& op, const KelNodePtr& left, const KelNodePtr& right, int line);
    void print(std::ostream& out) const override;
    RCShdPtr<KelValue> eval(KelContext& context) const override;
    RCShdPtr<KelValue> check(KelContext& context) override;
    int compile(KelProgramBuilder& program) const override;

private:
    KelBinaryOp _op;
    std::string _operator;
    KelNodePtr _left;
    KelNodePtr _right;
};

// ---- Assignment, variables, literals ------------------------------------------------------------

class AssignNode : public KelSyntaxTree {
public:
    // `checkConst` is 1 for an assignment statement, 0 inside an InitVarAssignNode.
    AssignNode(const std::string& name, const std::string& op, const KelNodePtr& value, int line, int checkConst);
    void print(std::ostream& out) const override;
    RCShdPtr<KelValue> eval(KelContext& context) const override;
    RCShdPtr<KelValue> check(KelContext& context) override;
    int compile(KelProgramBuilder& program) const override;

private:
    std::string _name;
    std::string _operator;
    KelAssignOp _op;
    KelNodePtr _value;
    int32_t _id = -1;
    int32_t _checkConst;
};

class InitVarNode : public KelSyntaxTree {
public:
    InitVarNode(const std::string& typeName, const std::string& name, bool writable, int line);
    void print(std::ostream& out) const override;
    RCShdPtr<KelValue> eval(KelContext& context) const override;
    RCShdPtr<KelValue> check(KelContext& context) override;
    int compile(KelProgramBuilder& program) const override;

private:
    std::string _typeName;
    int32_t _type;
    std::string _name;
    int32_t _writable;
    int32_t _id = -1;
};

class InitVarAssignNode : public KelSyntaxTree {
public:
    InitVarAssignNode(const std::string& typeName, const std::string& name, const KelNodePtr& value, bool writable, int line);
    void print(std::ostream& out) const override;
    RCShdPtr<KelValue> eval(KelContext& context) const override;
    RCShdPtr<KelValue> check(KelContext& context) override;
    // Both halves name the declared variable.
    void setPosition(const PebSourcePosition& position) override;
    int compile(KelProgramBuilder& program) const override;

private:
    InitVarNode _init;
    AssignNode _assign;
};

class VariableNode : public KelSyntaxTree {
public:
    VariableNode(const std::string& name, int line);
    void print(std::ostream& out) const override;
    RCShdPtr<KelValue> eval(KelContext& context) const override;
    RCShdPtr<KelValue> check(KelContext& context) override;
    int compile(KelProgramBuilder& program) const override;

private:
    std::string _name;
    int32_t _id = -1;
};

class FloatLiteralNode : public KelSyntaxTree {
public:
    FloatLiteralNode(float value, int line);
    void print(std::ostream& out) const override;
    RCShdPtr<KelValue> eval(KelContext& context) const override;
    RCShdPtr<KelValue> check(KelContext& context) override;
    int compile(KelProgramBuilder& program) const override;

private:
    float _value;
};

// ---- Calls --------------------------------------------------------------------------------------

// Abstract: only FunctionNode<F> instances occur in a tree.
class FunctionCallNode : public KelSyntaxTree {
public:
    FunctionCallNode(const std::string& name, int line);
    const std::string& getName() const { return _name; }
    void addArgument(const KelNodePtr& argument) { _arguments.push_back(argument); }
    // Appends a parameter to overload `overload`, creating the overloads up to it as needed.
    void addOverloadParameter(int type, int overload, int mode);
    void setReturnType(int overload, int type);
    std::size_t argumentCount() const { return _arguments.size(); }
    const KelNodePtr& argument(std::size_t i) const { return _arguments[i]; }
    int overload() const { return _overload; }
    const std::vector<std::vector<int>>& parameterTypes() const { return _parameterTypes; }
    const std::vector<std::vector<int>>& parameterModes() const { return _parameterModes; }
    const std::vector<int>& returnTypes() const { return _returnTypes; }
    // Which call of its function this is, counting from 0 in reading order (the parser numbers
    // them): the call's own place in the script, whatever else the script holds.
    int ordinal() const { return _ordinal; }
    void setOrdinal(int ordinal) { _ordinal = ordinal; }

    void print(std::ostream& out) const override;
    RCShdPtr<KelValue> eval(KelContext& context) const override = 0;
    RCShdPtr<KelValue> check(KelContext& context) override;

protected:
    // The second pass of overload resolution, where an image fits a colour parameter through
    // a `sample` wrap.
    void resolveRelaxed(std::vector<RCShdPtr<KelValue>>& prototypes, KelContext& context);

    std::string _name;
    std::vector<KelNodePtr> _arguments;
    std::vector<std::vector<int>> _parameterTypes;
    std::vector<std::vector<int>> _parameterModes;
    std::vector<int> _returnTypes;
    int32_t _overload = -1;
    int32_t _ordinal = 0;
};
using KelCallPtr = RCShdPtr<FunctionCallNode>;

// One class per built-in F (kelFunctions.h). F supplies the signature and the evaluation:
//   static void declare(FunctionCallNode& node);   // addOverloadParameter / setReturnType
//   static RCShdPtr<KelValue> eval(const FunctionCallNode& node, KelContext& context);
// and, if it has a strip form, static int compile(const FunctionCallNode&, KelProgramBuilder&).
template <class F>
class FunctionNode : public FunctionCallNode {
public:
    FunctionNode(const std::string& name, int line) : FunctionCallNode(name, line) { F::declare(*this); }
    RCShdPtr<KelValue> eval(KelContext& context) const override { return F::eval(*this, context); }
    // F's strip form, when F has one: static int compile(const FunctionCallNode&, KelProgramBuilder&).
    int compile(KelProgramBuilder& program) const override {
        if constexpr (requires(KelProgramBuilder& p) { F::compile(*this, p); })
            return F::compile(*this, program);
        else
            return -1;
    }
};

// The implicit `sample` wrap: replaces `child` by sample(child) made at `line` and `position`,
// checks the new node and returns its prototype (a colour).
RCShdPtr<KelValue> wrapInSample(KelNodePtr& child, int line, KelContext& context, const PebSourcePosition& position = {});

}  // namespace Zt
