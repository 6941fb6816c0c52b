// Assignment, variables and literals, and the table of assignment operators. A variable is one long-lived writable value in
// a slot of the KelContext, addressed by the id that `check` gave it; an assignment stores into
// its scanline at the active columns only, which is how control flow reaches the pixels.
#include "kelGraph.h"

#include <iterator>

#include "kelProgram.h"

namespace Zt {

namespace {

using U = IxScanlineUtil;
using Limit = U::Limit;
using Mask = const IxScanline<float>*;
using F = float;
using C = Zt::Color;
using Assign = KelAssignOp;

// Each assignment operator with its masked store into a float (or an image's ids), a colour
// from a colour, and a colour from a float (all four channels).
struct AssignOperator {
    Assign op;
    const char* text;
    KelStoreForm<F, F> floats;
    KelStoreForm<C, C> colors;
    KelStoreForm<C, F> colorFloat;
};
// clang-format off
constexpr AssignOperator kAssignOperators[] = {
    {Assign::Set,      "=",  U::copyIf<F, F>,             U::copyIf<C, C>,             U::copyIf<C, F>},
    {Assign::Add,      "+=", U::accumulateScanline<F, F>, U::accumulateScanline<C, C>, U::accumulateScanline<C, F>},
    {Assign::Subtract, "-=", U::decrementScanline<F, F>,  U::decrementScanline<C, C>,  U::decrementScanline<C, F>},
    {Assign::Multiply, "*=", U::mulAssignScanline<F, F>,  U::mulAssignScanline<C, C>,  U::mulAssignScanline<C, F>},
    {Assign::Divide,   "/=", U::divAssignScanline<F, F>,  U::divAssignScanline<C, C>,  U::divAssignScanline<C, F>},
};
// clang-format on
static_assert(std::size(kAssignOperators) == std::size_t(Assign::Count), "one row per assignment operator");
static_assert(kelRowsInOrder(kAssignOperators), "rows in the order of KelAssignOp");

const Zt::Color kOpaqueBlack{0.0f, 0.0f, 0.0f, 1.0f};

// Hands `use` the store of `row` for a variable and a value of these types: `eval` runs it,
// `compile` puts it in a program. A float variable's store serves an image's ids too.
template <class Use>
auto withStore(const AssignOperator& row, int variableType, int valueType, Use&& use) {
    if (variableType != KelValueTypes::Color) return use(row.floats);
    if (valueType == KelValueTypes::Color) return use(row.colors);
    return use(row.colorFloat);
}

// The element types of a store: the variable's, the value's.
template <class Fn>
struct StoreTypes;
template <class D, class S>
struct StoreTypes<void (*)(IxScanline<D>&, const IxScanline<S>&, Mask, Limit)> {
    using Variable = D;
    using Value = S;
};

}  // namespace

// ---- AssignNode ---------------------------------------------------------------------------------

AssignNode::AssignNode(const std::string& name, const std::string& op, const KelNodePtr& value, int line, int checkConst)
    : KelSyntaxTree(line),
      _name(name),
      _operator(op),
      _op(kelOperatorOf(kAssignOperators, op, Assign::Set)),
      _value(value),
      _checkConst(checkConst) {}

void AssignNode::print(std::ostream& out) const {
    out << _name << " " << _operator << " ";
    _value->print(out);
}

// The value is computed over all pixels; only the store is masked.
RCShdPtr<KelValue> AssignNode::eval(KelContext& context) const {
    const AssignOperator& row = kAssignOperators[int(_op)];
    KelValuePtr value = _value->eval(context);
    KelValuePtr variable = context.getVariable(_id);
    const IxScanline<float>* mask = context.getMask().activeScanline();
    // No active column lies outside the span: the store need not look there.
    const GeInterval<int>* span = context.getMask().activeSpan();
    withStore(row, variable->getType(), value->getType(), [&](auto store) {
        using Types = StoreTypes<decltype(store)>;
        store(static_cast<KelType<typename Types::Variable>&>(*variable).getScanline(),
              static_cast<const KelType<typename Types::Value>&>(*value).getScanline(), mask, span);
        return 0;
    });
    variable->setUniform(false);
    return variable;
}

int AssignNode::compile(KelProgramBuilder& program) const {
    const int value = _value->compile(program);
    const int variable = value < 0 ? value : program.variable(_id);
    if (variable < 0) return KelProgramBuilder::kFails;
    return withStore(kAssignOperators[int(_op)], program.typeOf(variable), program.typeOf(value),
                     [&](auto store) { return program.store(store, variable, value, _op == Assign::Set); });
}

// The value is checked first, then the name is looked up before the value is tested for void
// (the messages come in that order), and an assignment is no use of the name (no addUsedName).
// An image takes only `=` from an image; a colour takes an image through a `sample` wrap.
RCShdPtr<KelValue> AssignNode::check(KelContext& context) {
    KelValuePtr prototype = _value->check(context);
    _id = context.getVariableId(_name);
    if (_id == -1) context.raiseError("Undefined variable: " + _name, _line, _position);
    if (!prototype) context.raiseError("Cannot assign the value of type void", _line, _position);
    KelValuePtr variable = context.getVariable(_id);
    if (variable->isConst() && _checkConst == 1) context.raiseError("Cannot assign a const variable: " + _name, _line, _position);
    switch (variable->getType()) {
        case Float:
            if (!prototype->isType(Float))
                context.raiseError("Cannot assign a float with anything other than float", _line, _position);
            break;
        case Image:
            if (!prototype->isType(Image) || _op != Assign::Set)
                context.raiseError("Cannot assign a image with anything other than image", _line, _position);
            break;
        case Color:
            if (prototype->isType(Image)) wrapInSample(_value, _line, context, _position);
            break;
        default: break;
    }
    return variable;
}

// ---- InitVarNode --------------------------------------------------------------------------------

InitVarNode::InitVarNode(const std::string& typeName, const std::string& name, bool writable, int line)
    : KelSyntaxTree(line),
      _typeName(typeName),
      _type(kelTypeNumber(typeName)),
      _name(name),
      _writable(writable ? 1 : 0) {}

// "const " is printed for the writable declaration (an inverted flag); kept so, since print is
// only a debugging aid.
void InitVarNode::print(std::ostream& out) const {
    if (_writable != 0) out << "const ";
    out << _typeName << " " << _name;
}

// A reset takes no mask, so a declaration in a branch or a body clears all pixels
// each time it runs. The first run in a tile context finds the slot empty and makes the value.
RCShdPtr<KelValue> InitVarNode::eval(KelContext& context) const {
    KelValuePtr variable = context.getVariable(_id);
    if (variable) {
        if (variable->isType(Color)) IxScanlineUtil::set(rcStaticCast<KelColor>(variable)->getScanline(), kOpaqueBlack, nullptr);
        else IxScanlineUtil::set(rcStaticCast<KelFloat>(variable)->getScanline(), 0.0f, nullptr);
        return variable;
    }
    switch (_type) {
        case Float: variable = context.newConstantFloat(0.0f, _writable); break;
        case Image: variable = context.newImage(0.0f, _writable); break;
        case Color: variable = context.newConstantColor(kOpaqueBlack, _writable); break;
        default: break;
    }
    context.setVariable(_id, variable);
    return variable;
}

int InitVarNode::compile(KelProgramBuilder& program) const { return program.declare(_id, _type, _writable); }

// The lookup runs through all open scopes, so no declaration shadows another.
RCShdPtr<KelValue> InitVarNode::check(KelContext& context) {
    if (context.getVariableId(_name) != -1) context.raiseError("Variable already defined: " + _name, _line, _position);
    _id = context.declareVariable(_name);
    return eval(context);
}

// ---- InitVarAssignNode --------------------------------------------------------------------------

// The AssignNode inside is made with checkConst 0, so that a const receives its initial value.
InitVarAssignNode::InitVarAssignNode(const std::string& typeName, const std::string& name, const KelNodePtr& value,
                                     bool writable, int line)
    : KelSyntaxTree(line), _init(typeName, name, writable, line), _assign(name, "=", value, line, 0) {}

void InitVarAssignNode::print(std::ostream& out) const {
    _init.print(out);
    out << " with ";
    _assign.print(out);
}

RCShdPtr<KelValue> InitVarAssignNode::eval(KelContext& context) const {
    _init.eval(context);
    return _assign.eval(context);
}

int InitVarAssignNode::compile(KelProgramBuilder& program) const {
    return _init.compile(program) < 0 ? KelProgramBuilder::kFails : _assign.compile(program);
}

RCShdPtr<KelValue> InitVarAssignNode::check(KelContext& context) {
    _init.check(context);
    return _assign.check(context);
}

void InitVarAssignNode::setPosition(const PebSourcePosition& position) {
    KelSyntaxTree::setPosition(position);
    _init.setPosition(position);
    _assign.setPosition(position);
}

// ---- VariableNode -------------------------------------------------------------------------------

VariableNode::VariableNode(const std::string& name, int line) : KelSyntaxTree(line), _name(name) {}

void VariableNode::print(std::ostream& out) const { out << _name; }

// The variable's own value, not a copy: a caller that needs the old content copies it.
RCShdPtr<KelValue> VariableNode::eval(KelContext& context) const { return context.getVariable(_id); }

int VariableNode::compile(KelProgramBuilder& program) const { return program.variable(_id); }

RCShdPtr<KelValue> VariableNode::check(KelContext& context) {
    _id = context.getVariableId(_name);
    if (_id == -1) context.raiseError("Variable not defined: " + _name, _line, _position);
    context.addUsedName(_name);
    return context.getVariable(_id);
}

// ---- FloatLiteralNode ---------------------------------------------------------------------------

FloatLiteralNode::FloatLiteralNode(float value, int line) : KelSyntaxTree(line), _value(value) {}

void FloatLiteralNode::print(std::ostream& out) const { out << _value; }

// A new const, uniform temporary at each evaluation.
RCShdPtr<KelValue> FloatLiteralNode::eval(KelContext& context) const { return context.newConstantFloat(_value, 0); }

RCShdPtr<KelValue> FloatLiteralNode::check(KelContext& context) { return eval(context); }

int FloatLiteralNode::compile(KelProgramBuilder& program) const { return program.literal(_value); }

}  // namespace Zt
