// Test support for the syntax tree (Parts 4.1 to 4.6): compact builders of nodes, the printed
// text of a tree, the failure of a check, and KelScriptRun, which emulates the compile step
// (Part 1.1: `check` in a check context) and the tile loop (Part 1.2: a tile context, the
// parameters bound by name, the image table, one `eval` of `main` per row) directly on a
// KelContext, so that the evaluator can be tested without the interpreter.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <initializer_list>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <unordered_set>
#include <vector>

#include "kelFunctions.h"
#include "kelGraph.h"

namespace Zt::test {

// ---- Nodes -------------------------------------------------------------------------------------

inline KelNodePtr var(const std::string& name, int line = 1) { return new VariableNode(name, line); }
inline KelNodePtr num(float value, int line = 1) { return new FloatLiteralNode(value, line); }
inline KelNodePtr unary(const std::string& op, const KelNodePtr& operand, int line = 1) {
    return new UnaryOpNode(op, operand, line);
}
inline KelNodePtr binary(const std::string& op, const KelNodePtr& left, const KelNodePtr& right, int line = 1) {
    return new BinaryOpNode(op, left, right, line);
}
// An assignment statement (checkConst 1).
inline KelNodePtr assign(const std::string& name, const std::string& op, const KelNodePtr& value, int line = 1) {
    return new AssignNode(name, op, value, line, 1);
}
inline KelNodePtr declare(const std::string& type, const std::string& name, int line = 1, bool writable = true) {
    return new InitVarNode(type, name, writable, line);
}
inline KelNodePtr declareAs(const std::string& type, const std::string& name, const KelNodePtr& value, int line = 1,
                            bool writable = true) {
    return new InitVarAssignNode(type, name, value, writable, line);
}
inline KelBlockPtr block(std::initializer_list<KelNodePtr> statements, int line = 1) {
    KelBlockPtr b(new StatementBlockNode(line));
    for (const KelNodePtr& s : statements) b->addStatement(s);
    return b;
}
inline KelNodePtr ifElse(const KelNodePtr& condition, const KelBlockPtr& thenBlock, const KelBlockPtr& elseBlock = nullptr,
                         int line = 1) {
    RCShdPtr<IfNode> node(new IfNode(condition, thenBlock, line));
    if (elseBlock) node->setElse(elseBlock);
    return node;
}
inline KelNodePtr loopWhile(const KelNodePtr& condition, const KelBlockPtr& body, int line = 1) {
    return new WhileNode(condition, body, line);
}
inline KelNodePtr loopFor(const KelNodePtr& init, const KelNodePtr& condition, const KelNodePtr& increment,
                          const KelBlockPtr& body, int line = 1) {
    return new ForNode(init, condition, increment, body, line);
}
template <class F>
RCShdPtr<FunctionNode<F>> call(const std::string& name, std::initializer_list<KelNodePtr> arguments, int line = 1) {
    RCShdPtr<FunctionNode<F>> node(new FunctionNode<F>(name, line));
    for (const KelNodePtr& a : arguments) node->addArgument(a);
    return node;
}
inline KelParameterPtr input(const std::string& type, const std::string& name, int line = 1) {
    return new ParameterNode(name, type, false, line);
}
inline KelParameterPtr output(const std::string& type, const std::string& name, int line = 1) {
    return new ParameterNode(name, type, true, line);
}
// `main` with the parameters in the order given (ids 3, 4, ... in that order).
inline RCShdPtr<FunctionDeclarationNode> mainOf(const KelBlockPtr& body, std::initializer_list<KelParameterPtr> parameters = {},
                                                int line = 1) {
    RCShdPtr<FunctionDeclarationNode> f(new FunctionDeclarationNode("main", body, line));
    for (const KelParameterPtr& p : parameters) f->addParameter(p);
    return f;
}

inline std::string printed(const KelSyntaxTree& node) {
    std::ostringstream out;
    node.print(out);
    return out.str();
}

template <class T>
std::vector<T> rowOf(const IxScanline<T>& s) {
    return std::vector<T>(s.begin(), s.begin() + s.getInterval().size());
}

// ---- Check ---------------------------------------------------------------------------------------

// The check context of Part 1.1: the interval 0..1 and no slots.
inline GeInterval<int> checkInterval() { return GeInterval<int>(0, 1); }

struct CheckFailure {
    std::string reason;
    int line = 0;
};

// The KelParseEx of `node.check` in `context`; a test failure when there is none.
inline CheckFailure checkFailure(KelSyntaxTree& node, KelContext& context) {
    try {
        node.check(context);
    } catch (const KelParseEx& e) {
        return {e.getReason(), e.getLine()};
    }
    ADD_FAILURE() << "check raised nothing";
    return {};
}
inline CheckFailure checkFailure(KelSyntaxTree& node) {
    KelContext context(checkInterval(), 0);
    return checkFailure(node, context);
}
inline std::string atLine(const std::string& message, int line) { return message + " at line " + std::to_string(line); }

// ---- Run -----------------------------------------------------------------------------------------

// Emulates compile and tile evaluation of Parts 1.1 and 1.2 for one `main`. After `check`,
// `beginTile` makes the tile context over columns [x0, x1); bind the parameters by name; then
// `runRow(y)` resets the colour outputs to opaque black, fills `x` (the column number) and `y`,
// reads the inputs' rows and evaluates `main` once.
class KelScriptRun {
public:
    using RowFill = std::function<Color(int x, int y)>;

    explicit KelScriptRun(const RCShdPtr<FunctionDeclarationNode>& function) : _function(function) {}

    void check() {
        KelContext context(checkInterval(), 0);
        _function->check(context);
        _variableCount = context.variableCount();
        _usedNames = context.usedNames();
    }
    int variableCount() const { return _variableCount; }
    const std::unordered_set<std::string>& usedNames() const { return _usedNames; }
    bool uses(const std::string& name) const { return _usedNames.count(name) != 0; }

    void beginTile(int x0, int x1) {
        _context.reset(new KelContext(GeInterval<int>(x0, x1), _variableCount));
        _function->declareParameters(*_context);
        _inputs.clear();
        _colorOutputs.clear();
        addImageEntry(Color{0.0f, 0.0f, 0.0f, 1.0f}, GeRectangle<float>());               // id 0: no image
        addImageEntry(Color{0.0f, 0.0f, 0.0f, 1.0f}, GeRectangle<float>(0, 100, 0, 50));  // id 1: the output
    }
    KelContext& context() { return *_context; }

    int idOf(const std::string& name) const {
        int id = _context->getVariableId(name);
        EXPECT_NE(id, -1) << name;
        return id;
    }
    // An input float parameter: const and uniform.
    void bindFloat(const std::string& name, float value) { _context->setVariable(idOf(name), _context->newConstantFloat(value, 0)); }
    // A float output that the test reads back; starts at 0.
    void bindFloatOutput(const std::string& name) { _context->setVariable(idOf(name), _context->newConstantFloat(0.0f, 1)); }
    // A colour output, reset to opaque black at each row as Part 1.2 does.
    void bindColorOutput(const std::string& name) {
        _context->setVariable(idOf(name), _context->newColor(0));
        _colorOutputs.push_back(idOf(name));
    }
    // An input image parameter whose row y holds fill(x, y); gets the next image id (2, 3, ...).
    int bindImage(const std::string& name, RowFill fill, const GeRectangle<float>& nominal = GeRectangle<float>(0, 10, 0, 10)) {
        int id = addImageEntry(Color{0.0f, 0.0f, 0.0f, 0.0f}, nominal);
        _inputs.push_back({id, std::move(fill)});
        _context->setVariable(idOf(name), _context->newImage(float(id), 0));
        return id;
    }

    void runRow(int y) {
        for (int id : _colorOutputs) IxScanlineUtil::set(colorScanline(id), Color{0.0f, 0.0f, 0.0f, 1.0f}, nullptr);
        fillFloat(0, [](int x) { return float(x); });
        fillFloat(1, [y](int) { return float(y); });
        for (const Input& in : _inputs) {
            IxScanline<Color>& row = *_context->getImage(in.id).scanline;
            for (int x = row.minimum(); x < row.maximum(); ++x) row[x] = in.fill(x, y);
        }
        _function->eval(*_context);
    }

    std::vector<float> floats(const std::string& name) const {
        const IxScanline<float>& s = rcStaticCast<KelFloat>(_context->getVariable(idOf(name)))->getScanline();
        return std::vector<float>(s.begin(), s.begin() + s.getInterval().size());
    }
    std::vector<Color> colors(const std::string& name) const {
        const IxScanline<Color>& s = colorScanline(idOf(name));
        return std::vector<Color>(s.begin(), s.begin() + s.getInterval().size());
    }

private:
    struct Input {
        int id;
        RowFill fill;
    };

    int addImageEntry(const Color& fill, const GeRectangle<float>& nominal) {
        KelImageEntry entry;
        entry.nominalRect = nominal;
        entry.pixelRect = GeRectangle<int>(int(nominal.xMin), int(nominal.xMax), int(nominal.yMin), int(nominal.yMax));
        entry.pixelAspectRatio = 1.0f;
        entry.scanline = new IxScanline<Color>(_context->getInterval(), IxPaddingPolicy<Color>{4, fill});
        IxScanlineUtil::set(*entry.scanline, fill, nullptr);
        _context->addImage(entry);
        return int(_context->imageCount()) - 1;
    }
    IxScanline<Color>& colorScanline(int id) const { return rcStaticCast<KelColor>(_context->getVariable(id))->getScanline(); }
    template <class Fn>
    void fillFloat(int id, Fn value) {
        IxScanline<float>& s = rcStaticCast<KelFloat>(_context->getVariable(id))->getScanline();
        for (int x = s.minimum(); x < s.maximum(); ++x) s[x] = value(x);
    }

    RCShdPtr<FunctionDeclarationNode> _function;
    int _variableCount = 0;
    std::unordered_set<std::string> _usedNames;
    std::unique_ptr<KelContext> _context;
    std::vector<Input> _inputs;
    std::vector<int> _colorOutputs;
};

}  // namespace Zt::test
