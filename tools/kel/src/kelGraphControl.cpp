// Control flow. A condition is a whole scanline, so `if`, `while` and `for`
// don't branch: they narrow the context's KelMask, run their statements (which store only at the
// active columns), and restore the mask as it was on entry. StatementBlockNode is the sequence
// and the only general scope (a scope exists only during `check`).
#include "kelGraph.h"

#include "kelProgram.h"

namespace Zt {

namespace {

// A condition must be a KelType<float> of type Float; void, colour and image fail.
void checkCondition(const KelNodePtr& condition, KelContext& context, const char* message, int line,
                    const PebSourcePosition& position) {
    KelValuePtr prototype = condition->check(context);
    if (!dynamic_cast<KelType<float>*>(prototype.get()) || !prototype->isType(KelValueTypes::Float))
        context.raiseError(message, line, position);
}

KelFloatPtr evalCondition(const KelNodePtr& condition, KelContext& context) {
    return rcStaticCast<KelFloat>(condition->eval(context));
}

// Each pass of a loop is a cancellation point, so that a script that loops for ever can still be
// cancelled by the host.
// Throws ExCancelled.
void checkCancelled() { PxRequestMgr::getInstance().checkRequest(); }

}  // namespace

// ---- StatementBlockNode -------------------------------------------------------------------------

StatementBlockNode::StatementBlockNode(int line) : KelSyntaxTree(line) {}

void StatementBlockNode::print(std::ostream& out) const {
    out << "{\n";
    for (const KelNodePtr& statement : _statements) statement->print(out);
    out << "}";
}

// No scope at run time: ids are fixed by the check.
RCShdPtr<KelValue> StatementBlockNode::eval(KelContext& context) const {
    for (const KelNodePtr& statement : _statements) statement->eval(context);
    return nullptr;
}

int StatementBlockNode::compile(KelProgramBuilder& program) const {
    for (const KelNodePtr& statement : _statements) {
        const int value = statement->compile(program);
        if (value == KelProgramBuilder::kFails) return KelProgramBuilder::kFails;
        program.discard(value);
    }
    return KelProgramBuilder::kNoValue;
}

RCShdPtr<KelValue> StatementBlockNode::check(KelContext& context) {
    context.pushScope();
    for (KelNodePtr& statement : _statements) statement->check(context);
    context.popScope();
    return nullptr;
}

// ---- IfNode -------------------------------------------------------------------------------------

IfNode::IfNode(const KelNodePtr& condition, const KelBlockPtr& thenBlock, int line)
    : KelSyntaxTree(line), _condition(condition), _then(thenBlock) {}

void IfNode::print(std::ostream& out) const {
    out << "if ( ";
    _condition->print(out);
    out << " ) \n";
    _then->print(out);
    if (_else) {
        out << "\nelse\n";
        _else->print(out);
    }
    out << "\n";
}

// The condition is evaluated once, and a change to its variables inside `_then` does
// not affect which pixels `_else` sees. A writable condition value is a variable's own object
// (`if (a)`, `if (a = b)`, `if (++a)`), so with an `_else` it is copied first; a const one (a
// temporary, a literal, an input) cannot change. Neither branch is skipped on an empty mask.
RCShdPtr<KelValue> IfNode::eval(KelContext& context) const {
    KelFloatPtr condition = evalCondition(_condition, context);
    if (_else && !condition->isConst()) {
        KelFloatPtr before = context.newFloat(0);
        IxScanlineUtil::copy(before->getScanline(), condition->getScanline(), nullptr);
        condition = before;
    }
    KelSavedMask saved(context);
    context.getMask().narrow(condition, 0);
    _then->eval(context);
    if (_else) {
        context.setMask(saved.mask());
        context.getMask().narrow(condition, 1);
        _else->eval(context);
    }
    context.setMask(saved.mask());
    return nullptr;
}

// Both masks are made from the condition before the `then` part runs.
int IfNode::compile(KelProgramBuilder& program) const {
    const int condition = _condition->compile(program);
    if (condition < 0 || program.typeOf(condition) != Float) return KelProgramBuilder::kFails;
    program.beginIf(condition);
    if (_then->compile(program) == KelProgramBuilder::kFails) return KelProgramBuilder::kFails;
    if (_else) {
        program.beginElse();
        if (_else->compile(program) == KelProgramBuilder::kFails) return KelProgramBuilder::kFails;
    }
    program.endIf();
    return KelProgramBuilder::kNoValue;
}

void IfNode::fuse(KelFusion& fusion) {
    _then->fuse(fusion);
    if (_else) _else->fuse(fusion);
}

RCShdPtr<KelValue> IfNode::check(KelContext& context) {
    checkCondition(_condition, context, "If condition is not a float type", _line, _position);
    _then->check(context);
    if (_else) _else->check(context);
    return nullptr;
}

// ---- WhileNode ----------------------------------------------------------------------------------

WhileNode::WhileNode(const KelNodePtr& condition, const KelBlockPtr& body, int line)
    : KelSyntaxTree(line), _condition(condition), _body(body) {}

void WhileNode::print(std::ostream& out) const {
    out << "while ( ";
    _condition->print(out);
    out << " ) \n";
    _body->print(out);
}

// The narrowing accumulates over the passes; the loop ends when no pixel is active.
RCShdPtr<KelValue> WhileNode::eval(KelContext& context) const {
    KelSavedMask saved(context);
    for (;;) {
        context.getMask().narrow(evalCondition(_condition, context), 0);
        if (context.getMask().noneActive()) break;
        checkCancelled();
        _body->eval(context);
    }
    context.setMask(saved.mask());
    return nullptr;
}

int WhileNode::compile(KelProgramBuilder& program) const {
    program.beginLoop();
    const int condition = _condition->compile(program);
    if (condition < 0 || program.typeOf(condition) != Float) return KelProgramBuilder::kFails;
    program.loopTest(condition);
    if (_body->compile(program) == KelProgramBuilder::kFails) return KelProgramBuilder::kFails;
    program.endLoop();
    return KelProgramBuilder::kNoValue;
}

void WhileNode::fuse(KelFusion& fusion) { _body->fuse(fusion); }

RCShdPtr<KelValue> WhileNode::check(KelContext& context) {
    checkCondition(_condition, context, "While condition is not a float type", _line, _position);
    _body->check(context);
    return nullptr;
}

// ---- ForNode ------------------------------------------------------------------------------------

ForNode::ForNode(const KelNodePtr& init, const KelNodePtr& condition, const KelNodePtr& increment, const KelBlockPtr& body,
                 int line)
    : KelSyntaxTree(line), _init(init), _condition(condition), _increment(increment), _body(body) {}

// `_init` and `_increment` are dereferenced unconditionally, so printing a `for` without them
// throws the null-pointer exception; kept so, since print is only a debugging aid.
void ForNode::print(std::ostream& out) const {
    out << "for ( ";
    _init->print(out);
    out << " , ";
    _condition->print(out);
    out << " , ";
    _increment->print(out);
    out << " ) \n";
    _body->print(out);
}

// `_init` runs under the unnarrowed mask, `_increment` under the narrowed one.
RCShdPtr<KelValue> ForNode::eval(KelContext& context) const {
    if (_init) _init->eval(context);
    KelSavedMask saved(context);
    for (;;) {
        context.getMask().narrow(evalCondition(_condition, context), 0);
        if (context.getMask().noneActive()) break;
        checkCancelled();
        _body->eval(context);
        if (_increment) _increment->eval(context);
    }
    context.setMask(saved.mask());
    return nullptr;
}

// The initialisation before the loop, under the mask of the statement; the increment after the
// body, under the loop's.
int ForNode::compile(KelProgramBuilder& program) const {
    if (_init) {
        const int init = _init->compile(program);
        if (init == KelProgramBuilder::kFails) return KelProgramBuilder::kFails;
        program.discard(init);
    }
    program.beginLoop();
    const int condition = _condition->compile(program);
    if (condition < 0 || program.typeOf(condition) != Float) return KelProgramBuilder::kFails;
    program.loopTest(condition);
    if (_body->compile(program) == KelProgramBuilder::kFails) return KelProgramBuilder::kFails;
    if (_increment) {
        const int increment = _increment->compile(program);
        if (increment == KelProgramBuilder::kFails) return KelProgramBuilder::kFails;
        program.discard(increment);
    }
    program.endLoop();
    return KelProgramBuilder::kNoValue;
}

void ForNode::fuse(KelFusion& fusion) { _body->fuse(fusion); }

// The body is checked before the increment, so the increment cannot see the body's
// declarations; those of `_init` end with the `for`.
RCShdPtr<KelValue> ForNode::check(KelContext& context) {
    context.pushScope();
    if (_init) _init->check(context);
    checkCondition(_condition, context, "For condition is not a float type", _line, _position);
    _body->check(context);
    if (_increment) _increment->check(context);
    context.popScope();
    return nullptr;
}

}  // namespace Zt
