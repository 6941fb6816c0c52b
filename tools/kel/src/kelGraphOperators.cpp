// Parts 4.3 and 4.4: the eleven operator tables, and the unary and binary operator nodes.
// The name tables turn the scanner's texts into numbers; the dispatch tables turn an operator
// number, for one combination of operand types, into the IxScanlineUtil operation over a whole
// scanline. BinaryOpNode and AssignNode (kelGraphVariables.cpp) hold no per-operator code.
#include "kelGraph.h"

namespace Zt {

// ---- Part 4.3: the tables ------------------------------------------------------------------

std::map<std::string, int> KelOperatorTables::assignOperators;
std::map<std::string, int> KelOperatorTables::binaryOperators;
std::map<std::string, int> KelOperatorTables::typeNames;
std::map<int, KelOperatorTables::BinaryFloat> KelOperatorTables::floatOperations;
std::map<int, KelOperatorTables::BinaryColor> KelOperatorTables::colorOperations;
std::map<int, KelOperatorTables::BinaryFloatColor> KelOperatorTables::floatColorOperations;
std::map<int, KelOperatorTables::BinaryColorFloat> KelOperatorTables::colorFloatOperations;
std::map<int, KelOperatorTables::CompareColor> KelOperatorTables::colorCompareOperations;
std::map<int, KelOperatorTables::AssignFloat> KelOperatorTables::floatAssignOperations;
std::map<int, KelOperatorTables::AssignColor> KelOperatorTables::colorAssignOperations;
std::map<int, KelOperatorTables::AssignColorFloat> KelOperatorTables::colorFloatAssignOperations;

// Part 4.3, in its order. `C` is the colour of the spec's tables.
void KelOperatorTables::build() {
    using U = IxScanlineUtil;
    using C = Zt::Color;
    // clang-format off
    assignOperators = {{"=", 0}, {"+=", 1}, {"-=", 2}, {"*=", 3}, {"/=", 4}};
    binaryOperators = {{"+", 1},   {"-", 2},   {"*", 3},  {"/", 4},  {"==", 5},  {"!=", 6}, {"||", 7},
                       {"&&", 8},  {"<", 9},   {">", 10}, {"<=", 11}, {">=", 12}, {",", 13}};
    typeNames = {{"float", 1}, {"image", 3}, {"color", 4}};
    floatOperations = {
        {1,  U::addScanlines<float, float, float>},
        {2,  U::subtractScanlines<float, float, float>},
        {3,  U::multiplyScanlines<float, float, float>},
        {4,  U::divideScanlines<float, float, float>},
        {5,  U::equalScanlines<float>},
        {6,  U::notEqualScanlines<float>},
        {7,  U::orScanlines},
        {8,  U::andScanlines},
        {9,  U::lessThanScanlines},
        {10, U::greaterThanScanlines},
        {11, U::lessEqScanlines},
        {12, U::greaterEqScanlines},
    };
    colorOperations = {
        {1, U::addScanlines<C, C, C>},
        {2, U::subtractScanlines<C, C, C>},
        {3, U::multiplyScanlines<C, C, C>},
        {4, U::divideScanlines<C, C, C>},
    };
    floatColorOperations = {
        {1, U::addScanlines<C, float, C>},
        {2, U::subtractScanlines<C, float, C>},
        {3, U::multiplyScanlines<C, float, C>},
        {4, U::divideScanlines<C, float, C>},
    };
    colorFloatOperations = {
        {1, U::addScanlines<C, C, float>},
        {2, U::subtractScanlines<C, C, float>},
        {3, U::multiplyScanlines<C, C, float>},
        {4, U::divideScanlines<C, C, float>},
    };
    colorCompareOperations = {
        {5, U::equalScanlines<C>},
        {6, U::notEqualScanlines<C>},
    };
    floatAssignOperations = {
        {0, U::copyIf<float, float>},
        {1, U::accumulateScanline<float, float>},
        {2, U::decrementScanline<float, float>},
        {3, U::mulAssignScanline<float, float>},
        {4, U::divAssignScanline<float, float>},
    };
    colorAssignOperations = {
        {0, U::copyIf<C, C>},
        {1, U::accumulateScanline<C, C>},
        {2, U::decrementScanline<C, C>},
        {3, U::mulAssignScanline<C, C>},
        {4, U::divAssignScanline<C, C>},
    };
    colorFloatAssignOperations = {
        {0, U::copyIf<C, float>},
        {1, U::accumulateScanline<C, float>},
        {2, U::decrementScanline<C, float>},
        {3, U::mulAssignScanline<C, float>},
        {4, U::divAssignScanline<C, float>},
    };
    // clang-format on
}

// ---- Part 4.4: unary operators ---------------------------------------------------------------

namespace {

bool isIncrement(const std::string& op) { return op == "P++" || op == "P--" || op == "++" || op == "--"; }

template <class T>
RCShdPtr<KelType<T>> newTemporary(KelContext& context);
template <>
RCShdPtr<KelType<float>> newTemporary<float>(KelContext& context) { return context.newFloat(0); }
template <>
RCShdPtr<KelType<Zt::Color>> newTemporary<Zt::Color>(KelContext& context) { return context.newColor(0); }

// Adds (or, for "--" and "P--", subtracts) one at the active columns only.
template <class T>
void storeIncrement(const std::string& op, KelType<T>& v, KelContext& context) {
    KelFloatPtr one = context.newConstantFloat(1.0f, 0);
    const KelMask& m = context.getMask();
    if (op == "++" || op == "P++") IxScanlineUtil::accumulateScanline(v.getScanline(), one->getScanline(), m.activeScanline(), m.activeSpan());
    else IxScanlineUtil::decrementScanline(v.getScanline(), one->getScanline(), m.activeScanline(), m.activeSpan());
}

// Part 4.4's unary table for one kind T of scanline. "!" occurs on floats only (check).
template <class T>
RCShdPtr<KelValue> applyUnary(const std::string& op, const RCShdPtr<KelType<T>>& v, KelContext& context) {
    if (op == "+") return v;
    if (op == "++" || op == "--") {
        storeIncrement(op, *v, context);
        return v;
    }
    RCShdPtr<KelType<T>> r = newTemporary<T>(context);
    const GeInterval<int>* span = context.getMask().activeSpan();
    if (op == "-") {
        IxScanlineUtil::minusScanline(r->getScanline(), v->getScanline(), span);
    } else if (op == "!") {
        if constexpr (std::is_same_v<T, float>) IxScanlineUtil::notScanline(r->getScanline(), v->getScanline(), span);
    } else {
        // "P++", "P--": the old value over all pixels, then the masked store.
        IxScanlineUtil::copy(r->getScanline(), v->getScanline(), nullptr);
        storeIncrement(op, *v, context);
    }
    return r;
}

}  // namespace

UnaryOpNode::UnaryOpNode(const std::string& op, const KelNodePtr& operand, int line)
    : KelSyntaxTree(line), _operator(op), _operand(operand) {}

void UnaryOpNode::print(std::ostream& out) const {
    out << "( " << _operator << " ";
    _operand->print(out);
    out << " )";
}

RCShdPtr<KelValue> UnaryOpNode::eval(KelContext& context) const {
    KelValuePtr v = _operand->eval(context);
    if (v && v->isType(Float)) return applyUnary<float>(_operator, rcStaticCast<KelFloat>(v), context);
    if (v && v->isType(Color)) return applyUnary<Zt::Color>(_operator, rcStaticCast<KelColor>(v), context);
    return nullptr;
}

// Part 4.4, steps 1 to 8. A `sample` wrap gives a temporary, which is const: `++image` fails.
RCShdPtr<KelValue> UnaryOpNode::check(KelContext& context) {
    KelValuePtr prototype = _operand->check(context);
    if (!prototype) context.raiseError("void unary operation is not defined", _line);
    if (prototype->isType(Image)) prototype = wrapInSample(_operand, _line, context);
    if (isIncrement(_operator) && prototype->isConst())
        context.raiseError("Increment operator must be done on non-const value", _line);
    if (_operator == "--" || _operator == "++") return prototype;
    if (prototype->isType(Color) && _operator == "!") context.raiseError("Color does not support ! operator", _line);
    if (prototype->isType(Color)) return context.newColor(0);
    if (!prototype->isType(Float)) return nullptr;
    return context.newFloat(0);
}

// ---- Part 4.4: binary operators --------------------------------------------------------------

namespace {

constexpr int kComma = 13;
bool isComparison(int op) { return op == 5 || op == 6; }

// Part 4.3: a reader never inserts; `check` guarantees the number is present.
template <class Fn>
Fn dispatch(const std::map<int, Fn>& table, int op) {
    auto it = table.find(op);
    if (it == table.end()) Assertions::throwAssertionFailed("tools/kel/src/kelGraphOperators", __LINE__, "operator in table");
    return it->second;
}

RCShdPtr<KelValue> evalColorArithmetic(int op, const KelValuePtr& left, const KelValuePtr& right, KelContext& context) {
    using T = KelOperatorTables;
    KelColorPtr result = context.newColor(0);
    IxScanline<Zt::Color>& out = result->getScanline();
    const GeInterval<int>* span = context.getMask().activeSpan();
    if (!left->isType(KelValueTypes::Color))
        dispatch(T::floatColorOperations, op)(out, rcStaticCast<KelFloat>(left)->getScanline(),
                                              rcStaticCast<KelColor>(right)->getScanline(), span);
    else if (!right->isType(KelValueTypes::Color))
        dispatch(T::colorFloatOperations, op)(out, rcStaticCast<KelColor>(left)->getScanline(),
                                              rcStaticCast<KelFloat>(right)->getScanline(), span);
    else
        dispatch(T::colorOperations, op)(out, rcStaticCast<KelColor>(left)->getScanline(),
                                         rcStaticCast<KelColor>(right)->getScanline(), span);
    return result;
}

}  // namespace

BinaryOpNode::BinaryOpNode(const std::string& op, const KelNodePtr& left, const KelNodePtr& right, int line)
    : KelSyntaxTree(line), _op(0), _operator(op), _left(left), _right(right) {
    auto it = KelOperatorTables::binaryOperators.find(op);
    if (it != KelOperatorTables::binaryOperators.end()) _op = it->second;
}

void BinaryOpNode::print(std::ostream& out) const {
    out << "( ";
    _left->print(out);
    out << " " << _operator << " ";
    _right->print(out);
    out << " )";
}

// Part 4.4: both sides always run ("&&" and "||" don't short-circuit); the mask plays no part
// but for the fast path of KelMask::activeSpan: columns outside it are not computed.
RCShdPtr<KelValue> BinaryOpNode::eval(KelContext& context) const {
    KelValuePtr left = _left->eval(context);
    KelValuePtr right = _right->eval(context);
    if (_op == kComma) return right;
    bool leftColor = left->isType(Color), rightColor = right->isType(Color);
    if ((leftColor || rightColor) && !isComparison(_op)) return evalColorArithmetic(_op, left, right, context);
    KelFloatPtr result = context.newFloat(0);
    const GeInterval<int>* span = context.getMask().activeSpan();
    if (leftColor && rightColor)
        dispatch(KelOperatorTables::colorCompareOperations, _op)(result->getScanline(), rcStaticCast<KelColor>(left)->getScanline(),
                                                                 rcStaticCast<KelColor>(right)->getScanline(), span);
    else
        dispatch(KelOperatorTables::floatOperations, _op)(result->getScanline(), rcStaticCast<KelFloat>(left)->getScanline(),
                                                          rcStaticCast<KelFloat>(right)->getScanline(), span);
    return result;
}

// Part 4.4, steps 1 to 7.
RCShdPtr<KelValue> BinaryOpNode::check(KelContext& context) {
    KelValuePtr left = _left->check(context);
    KelValuePtr right = _right->check(context);
    if (_op == kComma) return right;
    if (!left || !right) context.raiseError("void binary operation is not defined", _line);
    if (left->isType(Image)) left = wrapInSample(_left, _line, context);
    if (right->isType(Image)) right = wrapInSample(_right, _line, context);
    if (left->getType() != right->getType() && isComparison(_op))
        context.raiseError("Operator " + _operator + " is not valid between different type", _line);
    if (left->isType(Color) || right->isType(Color)) {
        if (isComparison(_op)) return context.newFloat(0);
        if (_op >= 1 && _op <= 4) return context.newColor(0);
        context.raiseError("Operator " + _operator + " not valid on color type", _line);
    }
    return context.newFloat(0);
}

}  // namespace Zt
