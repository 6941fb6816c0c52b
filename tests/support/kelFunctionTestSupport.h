// Test support for the built-ins (Parts 5.1 to 5.4): a small KelContext, argument nodes that
// deliver values prepared in it, and helpers to narrow its mask and to pre-fill the pool so that
// a test can see which columns a function left unwritten.
#pragma once

#include <cstring>
#include <string>
#include <vector>

#include "kelFunctions.h"

namespace Zt::test {

// A test-only argument node: its eval (and check) delivers the value held in variable `id` of the
// context, the same object at each call, as a VariableNode does.
class HeldValueNode : public KelSyntaxTree {
public:
    explicit HeldValueNode(int id) : KelSyntaxTree(1), _id(id) {}
    RCShdPtr<KelValue> eval(KelContext& context) const override {
        ++evalCount;
        return context.getVariable(_id);
    }
    // In a check context the held value is the prototype, with its type and writability.
    RCShdPtr<KelValue> check(KelContext& context) override { return context.getVariable(_id); }
    void print(std::ostream& out) const override { out << "arg" << _id; }
    mutable int evalCount = 0;

private:
    int _id;
};

// Bit-exact comparison, so that -0.0, NaN payloads and signs count.
inline bool sameBits(float a, float b) { return std::memcmp(&a, &b, sizeof a) == 0; }

// A context over the columns [lo, hi) with helpers to build calls of FunctionNode<F>.
class CallHarness {
public:
    CallHarness(int lo, int hi) : context(GeInterval<int>(lo, hi), 0), _lo(lo), _hi(hi) {}

    int lo() const { return _lo; }
    int hi() const { return _hi; }
    int width() const { return _hi - _lo; }

    // A varying float argument with one value per column, left to right.
    KelNodePtr floats(const std::vector<float>& values) {
        KelFloatPtr v = context.newFloat(1);
        for (int x = _lo; x < _hi; ++x) v->getScanline().data()[x] = values.at(std::size_t(x - _lo));
        return hold(v);
    }
    // A constant float argument (flagged uniform), as a literal delivers.
    KelNodePtr constant(float value) { return hold(context.newConstantFloat(value, 0)); }
    KelNodePtr colors(const std::vector<Color>& values, int writable = 1) {
        KelColorPtr v = context.newColor(writable);
        for (int x = _lo; x < _hi; ++x) v->getScanline().data()[x] = values.at(std::size_t(x - _lo));
        return hold(v);
    }
    KelNodePtr constantColor(const Color& value) { return hold(context.newConstantColor(value, 0)); }
    // An image value that isn't uniform, one id per column (as an assigned image variable).
    KelNodePtr imageIds(const std::vector<float>& ids) {
        KelImagePtr v = context.newVaryingImage(1);
        for (int x = _lo; x < _hi; ++x) v->getScanline().data()[x] = ids.at(std::size_t(x - _lo));
        return hold(v);
    }
    // A uniform image value, as an image parameter holds.
    KelNodePtr image(float id) { return hold(context.newImage(id, 0)); }

    // The value held behind an argument node made above.
    KelValuePtr held(const KelNodePtr& node) const { return _held.at(std::size_t(indexOf(node))); }

    template <class F>
    RCShdPtr<FunctionNode<F>> call(const std::string& name, const std::vector<KelNodePtr>& arguments) {
        RCShdPtr<FunctionNode<F>> node(new FunctionNode<F>(name, 1));
        for (const KelNodePtr& a : arguments) node->addArgument(a);
        return node;
    }

    // Narrows the mask to the columns where `active` is non-zero; the condition value goes back
    // to the pool at once.
    void narrowTo(const std::vector<float>& active) {
        KelFloatPtr condition = context.newFloat(0);
        for (int x = _lo; x < _hi; ++x) condition->getScanline().data()[x] = active.at(std::size_t(x - _lo));
        context.getMask().narrow(condition, 0);
    }

    // Makes the pool's next float (or colour) object hold `sentinel` everywhere and frees it, so
    // that the next newFloat (newColor) reissues it: columns a function doesn't write keep it.
    // Call it last before the eval, since any float freed later could be reissued first.
    void prefillFloat(float sentinel) {
        KelFloatPtr v = context.newFloat(0);
        IxScanlineUtil::set(v->getScanline(), sentinel, nullptr);
    }
    void prefillColor(const Color& sentinel) {
        KelColorPtr v = context.newColor(0);
        IxScanlineUtil::set(v->getScanline(), sentinel, nullptr);
    }

    static std::vector<float> row(const KelValuePtr& value) {
        const IxScanline<float>& s = rcStaticCast<KelFloat>(value)->getScanline();
        return std::vector<float>(s.begin(), s.begin() + s.getInterval().size());
    }
    static std::vector<Color> colorRow(const KelValuePtr& value) {
        const IxScanline<Color>& s = rcStaticCast<KelColor>(value)->getScanline();
        return std::vector<Color>(s.begin(), s.begin() + s.getInterval().size());
    }

    KelContext context;

private:
    KelNodePtr hold(const KelValuePtr& value) {
        int id = context.declareVariable("arg" + std::to_string(_held.size()));
        context.setVariable(id, value);
        _held.push_back(value);
        KelNodePtr node(new HeldValueNode(id));
        _nodes.push_back(node);
        return node;
    }
    int indexOf(const KelNodePtr& node) const {
        for (std::size_t i = 0; i < _nodes.size(); ++i)
            if (_nodes[i].get() == node.get()) return int(i);
        return -1;
    }

    int _lo, _hi;
    std::vector<KelValuePtr> _held;
    std::vector<KelNodePtr> _nodes;
};

}  // namespace Zt::test
