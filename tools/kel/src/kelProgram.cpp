// Programs of strips (kelProgram.h): their compilation, what they guarantee of a variable, and
// how a tile binds and runs them.
#include "kelProgram.h"

#include <algorithm>
#include <bit>
#include <span>

#if defined(__SSE2__)
#include <xmmintrin.h>
#endif

namespace Zt {

namespace {

// Columns per strip: the rows of a program's temporaries over one strip (a kilobyte of floats,
// four of colours) stay in the first-level cache from one operation to the next.
constexpr int kStripWidth = 256;

bool isValueType(int type) { return type == KelValueTypes::Float || type == KelValueTypes::Color; }

template <class T>
void runDeclare(const KelInstruction& in, KelProgramRun& run, void*, const GeInterval<int>& strip, const KelStripMask&) {
    IxScanlineUtil::set(run.row<T>(in.result), KelTypeTraits<T>::pad, &strip);
}

void runCall(const KelInstruction& in, KelProgramRun& run, void* destination, const GeInterval<int>& strip,
             const KelStripMask& mask) {
    KelRowCall call;
    call.result = destination;
    for (int i = 0; i < 4; ++i)
        if (in.operands[i] >= 0) call.arguments[i] = run.rowPointer(in.operands[i]);
    call.active = mask.all ? nullptr : mask.row;
    call.columns = strip;
    call.image = in.image >= 0 ? run.image(in.image) : nullptr;
    reinterpret_cast<KelRowKernel>(in.operation)(call);
}

// `mask` narrowed by the condition (invert: by its negation) over the strip, into `out`; the
// same rule as KelMask::narrow, a NaN condition counting as true. Blocks of eight columns
// without a branch, as the scanline operations go.
KelStripMask narrowStrip(const KelStripMask& mask, const IxScanline<float>& condition, bool invert, IxScanline<float>& out,
                         const GeInterval<int>& strip) {
    const float* c = condition.data();
    float* o = out.data();
    const float taken = invert ? 0.0f : 1.0f, left = invert ? 1.0f : 0.0f;
    // A count of active columns, exact in float (a strip is far below 2^24 columns), and the
    // first and last block that holds one.
    float active = 0.0f;
    int first = strip.max, last = strip.min;
    auto narrow = [&](auto keepAt) {
        constexpr int kBlock = 8;
        int x = strip.min;
        for (; x + kBlock <= strip.max; x += kBlock) {
            float count = 0.0f;
KEL_IVDEP
            for (int i = 0; i < kBlock; ++i) {
                const float keep = keepAt(x + i);
                o[x + i] = keep;
                count += keep;
            }
            if (count > 0.0f) {
                first = std::min(first, x);
                last = x + kBlock;
                active += count;
            }
        }
        for (; x < strip.max; ++x) {
            o[x] = keepAt(x);
            if (o[x] != 0.0f) {
                first = std::min(first, x);
                last = x + 1;
                active += 1.0f;
            }
        }
    };
    if (mask.all) {
        narrow([&](int x) { return c[x] != 0.0f ? taken : left; });
    } else {
        const float* m = mask.row->data();
        narrow([&](int x) { return m[x] != 0.0f ? (c[x] != 0.0f ? taken : left) : 0.0f; });
    }
    const bool all = active == float(strip.size());
    return {all ? nullptr : &out, all, active > 0.0f, GeInterval<int>(first, std::max(first, last))};
}

}  // namespace

// ---- What a program guarantees ------------------------------------------------------------------

bool KelProgram::writesBeforeReading(int variable) const {
    for (std::size_t slot = 0; slot < _slots.size(); ++slot)
        if (_slots[slot].kind == KelSlot::Kind::Variable && _slots[slot].variable == variable)
            return firstUse(int(slot), 0, _code.size()) == Use::Written;
    return false;
}

// How the instructions [begin, end) first use the slot: a read of the old contents, a store
// into every column that the range's mask allows, or nothing. Both parts of an `if` together
// cover its mask (a NaN condition goes to one of them), a loop may run no pass.
KelProgram::Use KelProgram::firstUse(int slot, std::size_t begin, std::size_t end) const {
    for (std::size_t i = begin; i < end; ++i) {
        const KelInstruction& in = _code[i];
        for (int operand : in.operands)
            if (operand == slot) return Use::Read;
        switch (in.kind) {
            case KelInstruction::Kind::Store:
            case KelInstruction::Kind::Declare:
                if (in.result == slot) return in.kind == KelInstruction::Kind::Declare || in.assigns ? Use::Written : Use::Read;
                break;
            case KelInstruction::Kind::If: {
                const bool hasElse = _code[std::size_t(in.partAt)].kind == KelInstruction::Kind::Else;
                const Use then = firstUse(slot, i + 1, std::size_t(in.partAt));
                const Use otherwise = hasElse ? firstUse(slot, std::size_t(in.partAt) + 1, std::size_t(in.endAt)) : Use::None;
                if (then == Use::Written && otherwise == Use::Written) return Use::Written;
                if (then != Use::None || otherwise != Use::None) return Use::Read;
                i = std::size_t(in.endAt);
                break;
            }
            case KelInstruction::Kind::Loop:
                if (firstUse(slot, i + 1, std::size_t(in.endAt)) != Use::None) return Use::Read;
                i = std::size_t(in.endAt);
                break;
            default: break;
        }
    }
    return Use::None;
}

// ---- Compilation --------------------------------------------------------------------------------

KelProgramBuilder::KelProgramBuilder(const KelProgramScope& scope) : _scope(scope), _program(new KelProgram) {}

std::unique_ptr<KelProgram> KelProgramBuilder::finish() {
    std::unique_ptr<KelProgram> done = std::move(_program);
    _program.reset(new KelProgram);
    _freeTemporaries.clear();
    _constantSlots.clear();
    _openControl.clear();
    return done;
}

void KelProgramBuilder::begin() {
    _mark = {_program->_slots.size(), _program->_code.size(), _program->_declared.size(), _program->_images.size(),
             _program->_stored.size(),  _program->_maskCount,   _freeTemporaries,           _openControl.size()};
}

void KelProgramBuilder::commit() {}

void KelProgramBuilder::rollBack() {
    _program->_slots.resize(_mark.slots);
    _constantSlots.resize(_mark.slots);
    _program->_code.resize(_mark.code);
    _program->_declared.resize(_mark.declared);
    _program->_images.resize(_mark.images);
    _program->_stored.resize(_mark.stored);
    _program->_maskCount = _mark.masks;
    _freeTemporaries = _mark.freeTemporaries;
    _openControl.resize(_mark.openControl);
}

int KelProgramBuilder::newSlot(const KelSlot& slot) {
    _program->_slots.push_back(slot);
    _constantSlots.push_back(slot.kind == KelSlot::Kind::Literal);
    return int(_program->_slots.size()) - 1;
}

bool KelProgramBuilder::isConstant(int slot) const { return _constantSlots[std::size_t(slot)]; }

int KelProgramBuilder::literal(float value) {
    const std::vector<KelSlot>& slots = _program->_slots;
    for (std::size_t i = 0; i < slots.size(); ++i)
        if (slots[i].kind == KelSlot::Kind::Literal && std::bit_cast<uint32_t>(slots[i].value) == std::bit_cast<uint32_t>(value))
            return int(i);
    return newSlot({KelSlot::Kind::Literal, KelValueTypes::Float, -1, value});
}

int KelProgramBuilder::variable(int id) {
    if (id < 0 || std::size_t(id) >= _scope.variableTypes.size()) return kFails;
    const int type = _scope.variableTypes[std::size_t(id)];
    KelSlot::Kind kind = KelSlot::Kind::Variable;
    if (type == KelValueTypes::Image) {
        const auto& inputs = _scope.imageParameters;
        if (std::find(inputs.begin(), inputs.end(), id) == inputs.end()) return kFails;
        kind = KelSlot::Kind::Image;
    } else if (!isValueType(type)) {
        return kFails;
    }
    const std::vector<KelSlot>& slots = _program->_slots;
    for (std::size_t i = 0; i < slots.size(); ++i)
        if (slots[i].kind == kind && slots[i].variable == id) return int(i);
    return newSlot({kind, type, id});
}

int KelProgramBuilder::currentPixel(int image) {
    if (image < 0 || _program->_slots[std::size_t(image)].kind != KelSlot::Kind::Image) return kFails;
    const int id = _program->_slots[std::size_t(image)].variable;
    const std::vector<KelSlot>& slots = _program->_slots;
    for (std::size_t i = 0; i < slots.size(); ++i)
        if (slots[i].kind == KelSlot::Kind::CurrentPixel && slots[i].variable == id) return int(i);
    return newSlot({KelSlot::Kind::CurrentPixel, KelValueTypes::Color, id});
}

int KelProgramBuilder::temporary(int type) {
    for (std::size_t i = 0; i < _freeTemporaries.size(); ++i)
        if (typeOf(_freeTemporaries[i]) == type) {
            const int slot = _freeTemporaries[i];
            _freeTemporaries.erase(_freeTemporaries.begin() + std::ptrdiff_t(i));
            return slot;
        }
    return newSlot({KelSlot::Kind::Temporary, type});
}

void KelProgramBuilder::release(int slot) {
    if (slot < 0 || isConstant(slot) || _program->_slots[std::size_t(slot)].kind != KelSlot::Kind::Temporary) return;
    if (std::find(_freeTemporaries.begin(), _freeTemporaries.end(), slot) == _freeTemporaries.end())
        _freeTemporaries.push_back(slot);
}

// The result gets a temporary of its own before the operands' go back, so that no operation
// writes a row it reads but column for column.
int KelProgramBuilder::step(KelInstruction::Run run, KelInstruction::AnyFunction operation, int resultType,
                            const int* operands, std::size_t count) {
    if (count > 4) return kFails;
    bool constant = true;
    for (const int operand : std::span(operands, count)) {
        if (operand < 0) return kFails;
        const int type = typeOf(operand);
        if (!isValueType(type)) return kFails;
        constant = constant && isConstant(operand);
    }
    KelInstruction in;
    in.kind = KelInstruction::Kind::Step;
    in.run = run;
    in.operation = operation;
    in.constant = constant;
    std::copy(operands, operands + count, in.operands);
    in.result = constant ? newSlot({KelSlot::Kind::Temporary, resultType}) : temporary(resultType);
    if (constant) _constantSlots[std::size_t(in.result)] = true;
    _program->_code.push_back(in);
    for (const int operand : std::span(operands, count)) release(operand);
    return in.result;
}

int KelProgramBuilder::call(KelRowKernel kernel, int resultType, const std::vector<int>& arguments, int image) {
    int imageIndex = -1;
    if (image != -1) {
        if (image < 0 || typeOf(image) != KelValueTypes::Image) return kFails;
        _program->_images.push_back(image);
        imageIndex = int(_program->_images.size()) - 1;
    }
    const int result =
        step(&runCall, reinterpret_cast<KelInstruction::AnyFunction>(kernel), resultType, arguments.data(), arguments.size());
    if (result >= 0 && imageIndex >= 0) {
        // What an image gives depends on the row: never run once for the tile.
        KelInstruction& in = _program->_code.back();
        in.image = imageIndex;
        if (in.constant) {
            in.constant = false;
            _constantSlots[std::size_t(result)] = false;
        }
    }
    return result;
}

int KelProgramBuilder::addStore(KelInstruction::Run run, KelInstruction::AnyFunction operation, int variable, int value,
                                bool plainAssignment, bool direct) {
    if (variable < 0 || value < 0 || _program->_slots[std::size_t(variable)].kind != KelSlot::Kind::Variable ||
        !isValueType(typeOf(value)))
        return kFails;
    KelInstruction in;
    in.kind = KelInstruction::Kind::Store;
    in.run = run;
    in.operation = operation;
    in.result = variable;
    in.operands[0] = value;
    in.assigns = plainAssignment;
    std::vector<KelInstruction>& code = _program->_code;
    // The first assignment of a variable just declared, from a value that does not read it: the
    // declaration's reset and the mask would only matter at inactive columns, where nothing in
    // the variable's scope stores, so the value goes to every column and the reset goes.
    if (plainAssignment && variable == _declaredSlot && _declaredAt < code.size() &&
        code[_declaredAt].kind == KelInstruction::Kind::Declare && code[_declaredAt].result == variable &&
        std::none_of(code.begin() + std::ptrdiff_t(_declaredAt) + 1, code.end(), [&](const KelInstruction& step) {
            return std::find(std::begin(step.operands), std::end(step.operands), variable) != std::end(step.operands);
        }) && value != variable) {
        code.erase(code.begin() + std::ptrdiff_t(_declaredAt));
        in.unmasked = true;
    }
    _declaredSlot = -1;
    if (direct && !code.empty()) {
        KelInstruction& last = code.back();
        if (last.kind == KelInstruction::Kind::Step && !last.constant && last.result == value) {
            last.storeInto = variable;
        }
    }
    code.push_back(in);
    release(value);
    const int id = _program->_slots[std::size_t(variable)].variable;
    if (std::find(_program->_stored.begin(), _program->_stored.end(), id) == _program->_stored.end())
        _program->_stored.push_back(id);
    return variable;
}

int KelProgramBuilder::declare(int id, int type, int writable) {
    if (!isValueType(type)) return kFails;
    const int slot = variable(id);
    if (slot < 0 || typeOf(slot) != type) return kFails;
    auto& declared = _program->_declared;
    if (std::none_of(declared.begin(), declared.end(), [&](const KelDeclaredVariable& d) { return d.id == id; }))
        declared.push_back({id, type, writable});
    KelInstruction in;
    in.kind = KelInstruction::Kind::Declare;
    in.run = type == KelValueTypes::Float ? &runDeclare<float> : &runDeclare<Color>;
    in.result = slot;
    _declaredAt = _program->_code.size();
    _declaredSlot = slot;
    _program->_code.push_back(in);
    return slot;
}

void KelProgramBuilder::beginIf(int condition) {
    KelInstruction in;
    in.kind = KelInstruction::Kind::If;
    in.operands[0] = condition;
    in.masks[0] = _program->_maskCount++;
    in.masks[1] = _program->_maskCount++;
    _openControl.push_back(_program->_code.size());
    _program->_code.push_back(in);
    release(condition);
}

void KelProgramBuilder::beginElse() {
    KelInstruction in;
    in.kind = KelInstruction::Kind::Else;
    _program->_code[_openControl.back()].partAt = int(_program->_code.size());
    _program->_code.push_back(in);
}

void KelProgramBuilder::endIf() {
    KelInstruction in;
    in.kind = KelInstruction::Kind::EndIf;
    KelInstruction& head = _program->_code[_openControl.back()];
    head.endAt = int(_program->_code.size());
    if (head.partAt < 0) head.partAt = head.endAt;
    _program->_code.push_back(in);
    _openControl.pop_back();
}

void KelProgramBuilder::beginLoop() {
    KelInstruction in;
    in.kind = KelInstruction::Kind::Loop;
    in.masks[0] = _program->_maskCount++;
    _openControl.push_back(_program->_code.size());
    _program->_code.push_back(in);
}

void KelProgramBuilder::loopTest(int condition) {
    KelInstruction in;
    in.kind = KelInstruction::Kind::LoopTest;
    in.operands[0] = condition;
    _program->_code[_openControl.back()].partAt = int(_program->_code.size());
    _program->_code.push_back(in);
    release(condition);
}

void KelProgramBuilder::endLoop() {
    KelInstruction in;
    in.kind = KelInstruction::Kind::EndLoop;
    _program->_code[_openControl.back()].endAt = int(_program->_code.size());
    _program->_code.push_back(in);
    _openControl.pop_back();
}

// ---- Binding and running ------------------------------------------------------------------------

namespace {

// The entry of an input image variable: its value holds one id at every column.
const KelImageEntry* inputEntry(KelContext& context, int variable) {
    const KelValuePtr value = context.getVariable(variable);
    if (!value || !value->isType(KelValueTypes::Image) || !value->isUniform()) return nullptr;
    const IxScanline<float>& ids = rcStaticCast<KelImage>(value)->getScanline();
    const int id = static_cast<int>(ids.data()[ids.minimum()]);
    if (id < 0 || std::size_t(id) >= context.imageCount()) return nullptr;
    return &context.getImage(id);
}

}  // namespace

KelProgramRun::KelProgramRun(const KelProgram& program, KelContext& context) : _program(program) {
    const GeInterval<int>& columns = context.getInterval();
    const IxPaddingPolicy<float> floatPad{IxPaddingPolicy<float>::kPadWithValue, 0.0f};
    const IxPaddingPolicy<Color> colorPad{IxPaddingPolicy<Color>::kPadWithValue, KelTypeTraits<Color>::pad};
    if (columns.isEmpty()) {
        _usable = false;  // nothing to run; the tree walk has nothing to do either
        return;
    }
    // Declared variables are made as their declarations make them, so that the rows exist.
    for (const KelDeclaredVariable& d : program.declared()) {
        if (context.getVariable(d.id)) continue;
        if (d.type == KelValueTypes::Float) context.setVariable(d.id, context.newConstantFloat(0.0f, d.writable));
        else context.setVariable(d.id, context.newConstantColor(KelTypeTraits<Color>::pad, d.writable));
    }
    const std::vector<KelSlot>& slots = program.slots();
    _rows.assign(slots.size(), nullptr);
    for (std::size_t i = 0; i < slots.size() && _usable; ++i) {
        const KelSlot& slot = slots[i];
        switch (slot.kind) {
            case KelSlot::Kind::Temporary:
            case KelSlot::Kind::Literal:
                if (slot.type == KelValueTypes::Float) {
                    _floatRows.emplace_back(new IxScanline<float>(columns, floatPad));
                    if (slot.kind == KelSlot::Kind::Literal) IxScanlineUtil::set(*_floatRows.back(), slot.value, nullptr);
                    _rows[i] = _floatRows.back().get();
                } else {
                    _colorRows.emplace_back(new IxScanline<Color>(columns, colorPad));
                    _rows[i] = _colorRows.back().get();
                }
                break;
            case KelSlot::Kind::Variable: {
                const KelValuePtr value = context.getVariable(slot.variable);
                if (!value || value->getType() != slot.type) _usable = false;
                else if (slot.type == KelValueTypes::Float) _rows[i] = &rcStaticCast<KelFloat>(value)->getScanline();
                else _rows[i] = &rcStaticCast<KelColor>(value)->getScanline();
                break;
            }
            case KelSlot::Kind::CurrentPixel: {
                const KelImageEntry* entry = inputEntry(context, slot.variable);
                if (!entry || !entry->scanline) _usable = false;
                else _rows[i] = entry->scanline.get();
                break;
            }
            case KelSlot::Kind::Image:
                if (!inputEntry(context, slot.variable)) _usable = false;
                break;
        }
    }
    if (!_usable) return;
    for (int image : program.images()) _images.push_back(inputEntry(context, program.slots()[std::size_t(image)].variable));
    for (int i = 0; i < program.maskCount(); ++i) _masks.emplace_back(new IxScanline<float>(columns, floatPad));
    for (int id : program.storedVariables()) _stored.push_back(context.getVariable(id).get());
    // Steps of literals alone: once for the tile, over the whole row.
    for (const KelInstruction& in : program.code())
        if (in.constant) in.run(in, *this, rowPointer(in.result), columns, KelStripMask{});
}

void KelProgramRun::run(KelContext& context) {
    const KelMask& mask = context.getMask();
    if (mask.noneActive()) return;  // no store can happen; declarations are out of sight
    const GeInterval<int> columns = mask.allActive() ? context.getInterval() : *mask.activeSpan();
    const float* m = mask.getScanline().data();
    for (int lo = columns.min; lo < columns.max; lo += kStripWidth) {
        const GeInterval<int> strip(lo, std::min(lo + kStripWidth, columns.max));
        KelStripMask stripMask;
        stripMask.span = strip;
        if (!mask.allActive()) {
            int active = 0;
            for (int x = strip.min; x < strip.max; ++x) active += m[x] != 0.0f;
            // A strip with no active column would store nothing, and what its declarations
            // reset no later statement can read at those columns.
            if (active == 0) continue;
            stripMask.all = active == strip.size();
            stripMask.row = stripMask.all ? nullptr : &mask.getScanline();
        }
        runRange(0, _program.code().size(), strip, stripMask);
    }
    for (KelValue* value : _stored) value->setUniform(false);
}

// The runs of active columns of a partial mask over the strip, into _runs, when there are
// at most kMaxRuns of them. Masks that scripts make are mostly long runs, and a run is computed
// as a strip of its own with every column active: the unmasked form of each operation, no test
// per column. Worth it for colour rows, whose masked stores test column by column; masked float
// stores are a select per block already.
bool KelProgramRun::fewRuns(const KelStripMask& mask, const GeInterval<int>& strip) {
    constexpr std::size_t kMaxRuns = 8;
    const float* m = mask.row->data();
    _runs.clear();
    bool inRun = false;
    int start = 0;
    auto toggle = [&](int x) {
        if (!inRun) {
            if (_runs.size() == kMaxRuns) return false;
            start = x;
        } else {
            _runs.emplace_back(start, x);
        }
        inRun = !inRun;
        return true;
    };
    int x = strip.min;
#if defined(__SSE2__)
    // Groups of four that stay as the run left them are skipped whole.
    for (; x + 4 <= strip.max; x += 4) {
        const int set = _mm_movemask_ps(_mm_cmpneq_ps(_mm_loadu_ps(m + x), _mm_setzero_ps()));
        if (set == (inRun ? 0xF : 0)) continue;
        for (int i = 0; i < 4; ++i)
            if ((m[x + i] != 0.0f) != inRun && !toggle(x + i)) return false;
    }
#endif
    for (; x < strip.max; ++x)
        if ((m[x] != 0.0f) != inRun && !toggle(x)) return false;
    if (inRun) _runs.emplace_back(start, strip.max);
    return true;
}

// A step and the plain assignment of its value right after it: the step writes the variable's
// row itself where every column is active (or, for a colour, over each run of active columns),
// else into its temporary, which the store then copies at the active columns.
void KelProgramRun::runAssignment(const KelInstruction& in, const KelInstruction& store, const GeInterval<int>& strip,
                                  const KelStripMask& mask) {
    void* variable = rowPointer(in.storeInto);
    if (mask.all || store.unmasked) return in.run(in, *this, variable, strip, KelStripMask{});
    if (_program.slots()[std::size_t(in.result)].type == KelValueTypes::Color && fewRuns(mask, strip)) {
        for (const GeInterval<int>& run : _runs) in.run(in, *this, variable, run, KelStripMask{});
        return;
    }
    in.run(in, *this, rowPointer(in.result), strip, mask);
    store.run(store, *this, nullptr, strip, mask);
}

void KelProgramRun::runStore(const KelInstruction& in, const GeInterval<int>& strip, const KelStripMask& mask) {
    if (mask.all || in.unmasked) return in.run(in, *this, nullptr, strip, KelStripMask{});
    if (_program.slots()[std::size_t(in.result)].type == KelValueTypes::Color && fewRuns(mask, strip)) {
        for (const GeInterval<int>& run : _runs) in.run(in, *this, nullptr, run, KelStripMask{});
        return;
    }
    in.run(in, *this, nullptr, strip, mask);
}

void KelProgramRun::runRange(std::size_t begin, std::size_t end, const GeInterval<int>& strip, const KelStripMask& mask) {
    const std::vector<KelInstruction>& code = _program.code();
    for (std::size_t i = begin; i < end;) {
        const KelInstruction& in = code[i];
        switch (in.kind) {
            case KelInstruction::Kind::Step:
                if (in.storeInto >= 0) {
                    runAssignment(in, code[i + 1], strip, mask);
                    i += 2;
                    break;
                }
                if (!in.constant) in.run(in, *this, rowPointer(in.result), strip, mask);
                ++i;
                break;
            case KelInstruction::Kind::Store:
                runStore(in, strip, mask);
                ++i;
                break;
            case KelInstruction::Kind::Declare:
                in.run(in, *this, nullptr, strip, mask);
                ++i;
                break;
            case KelInstruction::Kind::If: i = runIf(i, strip, mask); break;
            case KelInstruction::Kind::Loop: i = runLoop(i, strip, mask); break;
            default: ++i; break;
        }
    }
}

// Both masks come from the condition before either part runs, as the tree's `if` evaluates its
// condition once. Each part runs over the span of its mask, and not at all when it has no
// active column: it could store nothing.
std::size_t KelProgramRun::runIf(std::size_t at, const GeInterval<int>& strip, const KelStripMask& mask) {
    const KelInstruction& in = _program.code()[at];
    const IxScanline<float>& condition = row<float>(in.operands[0]);
    const bool hasElse = _program.code()[std::size_t(in.partAt)].kind == KelInstruction::Kind::Else;
    const KelStripMask then = narrowStrip(mask, condition, false, *_masks[std::size_t(in.masks[0])], strip);
    const KelStripMask otherwise =
        hasElse ? narrowStrip(mask, condition, true, *_masks[std::size_t(in.masks[1])], strip) : KelStripMask{nullptr, false, false, {}};
    if (then.any) runRange(at + 1, std::size_t(in.partAt), then.span, then);
    if (otherwise.any) runRange(std::size_t(in.partAt) + 1, std::size_t(in.endAt), otherwise.span, otherwise);
    return std::size_t(in.endAt) + 1;
}

// The loop's mask only shrinks, pass after pass, until no column of the strip is left, and each
// pass runs over the span of the columns still in it; every pass is a cancellation point, as in
// the tree's loops.
std::size_t KelProgramRun::runLoop(std::size_t at, const GeInterval<int>& strip, const KelStripMask& mask) {
    const KelInstruction& in = _program.code()[at];
    const std::size_t test = std::size_t(in.partAt);
    IxScanline<float>& loopMask = *_masks[std::size_t(in.masks[0])];
    KelStripMask current = mask;
    GeInterval<int> columns = strip;
    for (;;) {
        runRange(at + 1, test, columns, current);
        current = narrowStrip(current, row<float>(_program.code()[test].operands[0]), false, loopMask, columns);
        if (!current.any) break;
        columns = current.span;
        PxRequestMgr::getInstance().checkRequest();
        runRange(test + 1, std::size_t(in.endAt), columns, current);
    }
    return std::size_t(in.endAt) + 1;
}

}  // namespace Zt
