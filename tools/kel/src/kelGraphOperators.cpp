// The unary and binary operator nodes, and the table that gives each binary operator its text
// and, for each pair of operand types it accepts, the IxScanlineUtil operation that computes it
// over a whole scanline. BinaryOpNode holds no per-operator code: adding an operator is a row
// here and a rule in the grammar.
#include "kelGraph.h"

#include <iterator>

#include "kelProgram.h"

namespace Zt {

namespace {

using Op = KelBinaryOp;
using U = IxScanlineUtil;
using Limit = U::Limit;
using F = float;
using C = Zt::Color;

// Every binary operator with its float operation (null: `,`, which yields its right operand,
// and `None`, which no script reaches).
struct BinaryOperator {
    Op op;
    const char* text;
    KelBinaryForm<F, F, F> floats;
};
// clang-format off
constexpr BinaryOperator kBinaryOperators[] = {
    {Op::None,         "",   nullptr},
    {Op::Add,          "+",  U::addScanlines<F, F, F>},
    {Op::Subtract,     "-",  U::subtractScanlines<F, F, F>},
    {Op::Multiply,     "*",  U::multiplyScanlines<F, F, F>},
    {Op::Divide,       "/",  U::divideScanlines<F, F, F>},
    {Op::Equal,        "==", U::equalScanlines<F>},
    {Op::NotEqual,     "!=", U::notEqualScanlines<F>},
    {Op::Or,           "||", U::orScanlines},
    {Op::And,          "&&", U::andScanlines},
    {Op::Less,         "<",  U::lessThanScanlines},
    {Op::Greater,      ">",  U::greaterThanScanlines},
    {Op::LessEqual,    "<=", U::lessEqScanlines},
    {Op::GreaterEqual, ">=", U::greaterEqScanlines},
    {Op::Comma,        ",",  nullptr},
};
// clang-format on
static_assert(std::size(kBinaryOperators) == std::size_t(Op::Count), "one row per binary operator");
static_assert(kelRowsInOrder(kBinaryOperators), "rows in the order of KelBinaryOp");

// The arithmetic operators on colours: colour and colour, float and colour, colour and float.
// Any other operator with a colour operand is refused by the check.
struct ColorArithmetic {
    Op op;
    KelBinaryForm<C, C, C> colors;
    KelBinaryForm<C, F, C> floatColor;
    KelBinaryForm<C, C, F> colorFloat;
};
// clang-format off
constexpr ColorArithmetic kColorArithmetic[] = {
    {Op::Add,      U::addScanlines<C, C, C>,      U::addScanlines<C, F, C>,      U::addScanlines<C, C, F>},
    {Op::Subtract, U::subtractScanlines<C, C, C>, U::subtractScanlines<C, F, C>, U::subtractScanlines<C, C, F>},
    {Op::Multiply, U::multiplyScanlines<C, C, C>, U::multiplyScanlines<C, F, C>, U::multiplyScanlines<C, C, F>},
    {Op::Divide,   U::divideScanlines<C, C, C>,   U::divideScanlines<C, F, C>,   U::divideScanlines<C, C, F>},
};
// clang-format on
static_assert(kelRowsInOrder(kColorArithmetic, int(Op::Add)), "rows in the order of KelBinaryOp from Add");

// The equality tests, the only comparisons defined between two colours (all four channels).
struct ColorComparison {
    Op op;
    KelBinaryForm<F, C, C> colors;
};
constexpr ColorComparison kColorComparisons[] = {
    {Op::Equal,    U::equalScanlines<C>},
    {Op::NotEqual, U::notEqualScanlines<C>},
};
static_assert(kelRowsInOrder(kColorComparisons, int(Op::Equal)), "rows in the order of KelBinaryOp from Equal");

bool isColorArithmetic(Op op) { return op >= Op::Add && op <= Op::Divide; }
bool isComparison(Op op) { return op == Op::Equal || op == Op::NotEqual; }

// The check refuses every operand pair without an operation, so a null one is a program fault.
template <class Fn>
Fn operation(Fn fn) {
    if (fn == nullptr) Assertions::throwAssertionFailed("tools/kel/src/kelGraphOperators", __LINE__, "operator in table");
    return fn;
}

// Hands `use` the operation of `op` for operands of these kinds: `eval` runs it over the row,
// `compile` puts it in a program. `,` has none.
template <class Use>
auto withBinaryOperation(Op op, bool leftColor, bool rightColor, Use&& use) {
    if ((leftColor || rightColor) && !isComparison(op)) {
        if (!isColorArithmetic(op)) Assertions::throwAssertionFailed("tools/kel/src/kelGraphOperators", __LINE__, "operator in table");
        const ColorArithmetic& row = kColorArithmetic[int(op) - int(Op::Add)];
        if (!leftColor) return use(row.floatColor);
        if (!rightColor) return use(row.colorFloat);
        return use(row.colors);
    }
    if (leftColor && rightColor) return use(operation(kColorComparisons[int(op) - int(Op::Equal)].colors));
    return use(operation(kBinaryOperators[int(op)].floats));
}

// The element types of a binary operation: result, left, right.
template <class Fn>
struct BinaryTypes;
template <class D, class A, class B>
struct BinaryTypes<void (*)(IxScanline<D>&, const IxScanline<A>&, const IxScanline<B>&, Limit)> {
    using Result = D;
    using Left = A;
    using Right = B;
};

template <class T>
const IxScanline<T>& scanlineOf(const KelValuePtr& value) {
    return static_cast<const KelType<T>*>(value.get())->getScanline();
}

}  // namespace

// ---- Unary operators ----------------------------------------------------------------------------

namespace {

bool isIncrement(const std::string& op) { return op == "P++" || op == "P--" || op == "++" || op == "--"; }

template <class T>
RCShdPtr<KelType<T>> newTemporary(KelContext& context);
template <>
RCShdPtr<KelType<float>> newTemporary<float>(KelContext& context) { return context.newFloat(0); }
template <>
RCShdPtr<KelType<Zt::Color>> newTemporary<Zt::Color>(KelContext& context) { return context.newColor(0); }

// The store of an increment: adds one ("++", "P++") or subtracts it ("--", "P--").
template <class T>
auto incrementOf(const std::string& op) {
    return op == "++" || op == "P++" ? &IxScanlineUtil::accumulateScanline<T, float> : &IxScanlineUtil::decrementScanline<T, float>;
}

// Adds (or subtracts) one at the active columns only.
template <class T>
void storeIncrement(const std::string& op, KelType<T>& v, KelContext& context) {
    KelFloatPtr one = context.newConstantFloat(1.0f, 0);
    const KelMask& m = context.getMask();
    incrementOf<T>(op)(v.getScanline(), one->getScanline(), m.activeScanline(), m.activeSpan());
}

// The unary operators for one kind T of scanline. "!" occurs on floats only (check).
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

// The same operators in a program: an increment is a store of the literal one.
template <class T>
int compileUnary(const std::string& op, int v, KelProgramBuilder& program) {
    if (op == "+") return v;
    if (op == "-") return program.unary(&IxScanlineUtil::minusScanline<T>, v);
    if (op == "!") {
        if constexpr (std::is_same_v<T, float>) return program.unary(&IxScanlineUtil::notScanline, v);
        return KelProgramBuilder::kFails;
    }
    if (op == "++" || op == "--") return program.store(incrementOf<T>(op), v, program.literal(1.0f), false);
    const int old = program.unary(&IxScanlineUtil::copy<T>, v);
    if (old < 0 || program.store(incrementOf<T>(op), v, program.literal(1.0f), false) < 0) return KelProgramBuilder::kFails;
    return old;
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

int UnaryOpNode::compile(KelProgramBuilder& program) const {
    const int v = _operand->compile(program);
    if (v < 0) return KelProgramBuilder::kFails;
    if (program.typeOf(v) == Float) return compileUnary<float>(_operator, v, program);
    if (program.typeOf(v) == Color) return compileUnary<Zt::Color>(_operator, v, program);
    return KelProgramBuilder::kFails;
}

// An image operand is sampled first. A `sample` wrap gives a temporary, which is const: `++image`
// fails.
RCShdPtr<KelValue> UnaryOpNode::check(KelContext& context) {
    KelValuePtr prototype = _operand->check(context);
    if (!prototype) context.raiseError("void unary operation is not defined", _line, _position);
    if (prototype->isType(Image)) prototype = wrapInSample(_operand, _line, context, _position);
    if (isIncrement(_operator) && prototype->isConst())
        context.raiseError("Increment operator must be done on non-const value", _line, _position);
    if (_operator == "--" || _operator == "++") return prototype;
    if (prototype->isType(Color) && _operator == "!") context.raiseError("Color does not support ! operator", _line, _position);
    if (prototype->isType(Color)) return context.newColor(0);
    if (!prototype->isType(Float)) return nullptr;
    return context.newFloat(0);
}

// ---- Binary operators ---------------------------------------------------------------------------

BinaryOpNode::BinaryOpNode(const std::string& op, const KelNodePtr& left, const KelNodePtr& right, int line)
    : KelSyntaxTree(line), _op(kelOperatorOf(kBinaryOperators, op, Op::None)), _operator(op), _left(left), _right(right) {}

void BinaryOpNode::print(std::ostream& out) const {
    out << "( ";
    _left->print(out);
    out << " " << _operator << " ";
    _right->print(out);
    out << " )";
}

// Both sides always run ("&&" and "||" don't short-circuit); the mask plays no part
// but for the fast path of KelMask::activeSpan: columns outside it are not computed.
RCShdPtr<KelValue> BinaryOpNode::eval(KelContext& context) const {
    KelValuePtr left = _left->eval(context);
    KelValuePtr right = _right->eval(context);
    if (_op == Op::Comma) return right;
    const GeInterval<int>* span = context.getMask().activeSpan();
    return withBinaryOperation(_op, left->isType(Color), right->isType(Color), [&](auto operation) -> KelValuePtr {
        using Types = BinaryTypes<decltype(operation)>;
        RCShdPtr<KelType<typename Types::Result>> result = newTemporary<typename Types::Result>(context);
        operation(result->getScanline(), scanlineOf<typename Types::Left>(left), scanlineOf<typename Types::Right>(right), span);
        return result;
    });
}

int BinaryOpNode::compile(KelProgramBuilder& program) const {
    const int left = _left->compile(program);
    const int right = left < 0 ? left : _right->compile(program);
    if (right < 0) return KelProgramBuilder::kFails;
    if (_op == Op::Comma) {
        program.discard(left);
        return right;
    }
    return withBinaryOperation(_op, program.typeOf(left) == Color, program.typeOf(right) == Color,
                               [&](auto operation) { return program.binary(operation, left, right); });
}

// Image operands are sampled; `==` and `!=` need two operands of one type; a colour operand
// takes only the arithmetic operators and the equality tests.
RCShdPtr<KelValue> BinaryOpNode::check(KelContext& context) {
    KelValuePtr left = _left->check(context);
    KelValuePtr right = _right->check(context);
    if (_op == Op::Comma) return right;
    if (!left || !right) context.raiseError("void binary operation is not defined", _line, _position);
    if (left->isType(Image)) left = wrapInSample(_left, _line, context, _position);
    if (right->isType(Image)) right = wrapInSample(_right, _line, context, _position);
    if (left->getType() != right->getType() && isComparison(_op))
        context.raiseError("Operator " + _operator + " is not valid between different type", _line, _position);
    if (left->isType(Color) || right->isType(Color)) {
        if (isComparison(_op)) return context.newFloat(0);
        if (isColorArithmetic(_op)) return context.newColor(0);
        context.raiseError("Operator " + _operator + " not valid on color type", _line, _position);
    }
    return context.newFloat(0);
}

}  // namespace Zt
