// Programs of strips (kelProgram.h): their compilation, what they guarantee of a variable, and
// how a tile binds and runs them.
#include "kelProgram.h"

#include <algorithm>
#include <array>
#include <bit>
#include <span>
#include <utility>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace Zt {

namespace {

// Columns per strip. A strip's operations each cost a dispatch, so strips are wide (kelBuiltinsBench
// walk_33_additions: 309 us at 64 columns, 163 at 256, 132 at 1024; kelEffects E3 0.38x the
// loop at 64, 0.30 at 1024; E7 1.86 and 1.66; E6 and E8 best from 512), but for a short program
// that streams an input's rows, which goes faster in narrow strips (E2 1.45-1.5x the loop at 64
// columns, 1.55 at 128, 1.75 at 256; E5 2.0-2.2 at 64, 2.25 at 32, 2.4-2.5 at 128).
constexpr int kStripWidth = 1024;
constexpr int kStreamingStripWidth = 64;
constexpr std::size_t kShortProgram = 8;  // instructions, but for those run once a tile

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

// ---- Chains of colour arithmetic ----------------------------------------------------------------

// A colour as four lanes: the language's colour operations (CoColor.h) are lane by lane, so one
// SIMD instruction gives the four channels' bits. A float operand is that float in every lane,
// which gives the bits of the mixed form. Without SSE, the colour operators themselves.
#if defined(__SSE2__)
using Lanes = __m128;
inline Lanes lanesOf(const Color& c) { return _mm_loadu_ps(&c.r); }
inline Lanes lanesOf(float f) { return _mm_set1_ps(f); }
inline void store(Color& c, Lanes v) { _mm_storeu_ps(&c.r, v); }
template <int Op>
Lanes combine(Lanes p, Lanes q) {
    if constexpr (Op == 0) return _mm_add_ps(p, q);
    if constexpr (Op == 1) return _mm_sub_ps(p, q);
    if constexpr (Op == 2) return _mm_mul_ps(p, q);
    return _mm_div_ps(p, q);
}
#else
using Lanes = Color;
inline Lanes lanesOf(const Color& c) { return c; }
inline Lanes lanesOf(float f) { return Color(f); }
inline void store(Color& c, Lanes v) { c = v; }
template <int Op>
Lanes combine(const Lanes& p, const Lanes& q) {
    if constexpr (Op == 0) return p + q;
    if constexpr (Op == 1) return p - q;
    if constexpr (Op == 2) return p * q;
    return p / q;
}
#endif

// One link over a block of N running colours, whose operands get(i) gives.
template <int N, int Op, bool Right, class Get>
[[gnu::always_inline]] inline void chainLink(Lanes* acc, Get get) {
#pragma GCC unroll 8
    for (int i = 0; i < N; ++i) acc[i] = Right ? combine<Op>(get(i), acc[i]) : combine<Op>(acc[i], get(i));
}

template <int N, class Get>
[[gnu::always_inline]] inline void chainLink(const KelInstruction::Link& link, Lanes* acc, Get get) {
    switch (link.op * 2 + int(link.onRight)) {
        case 0: return chainLink<N, 0, false>(acc, get);
        case 1: return chainLink<N, 0, true>(acc, get);
        case 2: return chainLink<N, 1, false>(acc, get);
        case 3: return chainLink<N, 1, true>(acc, get);
        case 4: return chainLink<N, 2, false>(acc, get);
        case 5: return chainLink<N, 2, true>(acc, get);
        case 6: return chainLink<N, 3, false>(acc, get);
        default: return chainLink<N, 3, true>(acc, get);
    }
}

// Link k's operand when it is uniform: its value at the strip's first column, in every lane.
Lanes uniformOperand(const KelInstruction& in, KelProgramRun& run, int k, const GeInterval<int>& strip) {
    const int slot = in.operands[k + 1];
    return in.links[k].operand == 2 ? lanesOf(run.row<Color>(slot).data()[strip.min])
                                    : lanesOf(run.row<float>(slot).data()[strip.min]);
}

// The operands of a chain's links over one strip.
struct ChainOperands {
    const Color* colors[KelInstruction::kMaxLinks] = {};
    const float* floats[KelInstruction::kMaxLinks] = {};
    Lanes uniform[KelInstruction::kMaxLinks];
};

// Columns x to x + N - 1 of the chain: the running colours stay in registers from the first
// operation to the last.
template <int N>
[[gnu::always_inline]] inline void chainBlock(const KelInstruction& in, const ChainOperands& operands, const Color* a,
                                              Color* d, int x) {
    Lanes acc[N];
#pragma GCC unroll 8
    for (int i = 0; i < N; ++i) acc[i] = lanesOf(a[x + i]);
    for (int k = 0; k < in.linkCount; ++k) {
        const KelInstruction::Link& link = in.links[k];
        if (link.operand == 0) {
            const Color* c = operands.colors[k] + x;
            chainLink<N>(link, acc, [c](int i) { return lanesOf(c[i]); });
        } else if (link.operand == 1) {
            const float* f = operands.floats[k] + x;
            chainLink<N>(link, acc, [f](int i) { return lanesOf(f[i]); });
        } else {
            const Lanes u = operands.uniform[k];
            chainLink<N>(link, acc, [u](int) { return u; });
        }
    }
#pragma GCC unroll 8
    for (int i = 0; i < N; ++i) store(d[x + i], acc[i]);
}

// The chain over the strip, eight columns at a time and the rest one at a time: the strip is
// read and written once, where one operation after another would write and read it again for
// each.
void runChain(const KelInstruction& in, KelProgramRun& run, void* destination, const GeInterval<int>& strip,
              const KelStripMask&) {
    Color* d = static_cast<IxScanline<Color>*>(destination)->data();
    const Color* a = run.row<Color>(in.operands[0]).data();
    ChainOperands operands;
    for (int k = 0; k < in.linkCount; ++k) {
        const int slot = in.operands[k + 1];
        switch (in.links[k].operand) {
            case 0: operands.colors[k] = run.row<Color>(slot).data(); break;
            case 1: operands.floats[k] = run.row<float>(slot).data(); break;
            default: operands.uniform[k] = uniformOperand(in, run, k, strip); break;
        }
    }
    int x = strip.min;
    for (; x + 8 <= strip.max; x += 8) chainBlock<8>(in, operands, a, d, x);
    for (; x < strip.max; ++x) chainBlock<1>(in, operands, a, d, x);
}

// A chain of one or two links whose operands are all uniform (a colour of literals, a gain), as
// a grade is: its operations are fixed when the program is made, so the loop over the strip
// chooses nothing per block. The same lane operations as runChain, in the same order.
template <int Links, int Op0, bool Right0, int Op1, bool Right1>
void runUniformChain(const KelInstruction& in, KelProgramRun& run, void* destination, const GeInterval<int>& strip,
                     const KelStripMask&) {
    Color* d = static_cast<IxScanline<Color>*>(destination)->data();
    const Color* a = run.row<Color>(in.operands[0]).data();
    const Lanes u0 = uniformOperand(in, run, 0, strip);
    const Lanes u1 = Links > 1 ? uniformOperand(in, run, 1, strip) : u0;
#pragma GCC unroll 4
    for (int x = strip.min; x < strip.max; ++x) {
        Lanes acc = lanesOf(a[x]);
        acc = Right0 ? combine<Op0>(u0, acc) : combine<Op0>(acc, u0);
        if constexpr (Links > 1) acc = Right1 ? combine<Op1>(u1, acc) : combine<Op1>(acc, u1);
        store(d[x], acc);
    }
}

// The forms of a link (its operation and side) number 0 to 7 as op * 2 + onRight; a table per
// link count holds a loop for each combination of forms.
template <std::size_t... Form>
constexpr std::array<KelInstruction::Run, sizeof...(Form)> oneLinkChains(std::index_sequence<Form...>) {
    return {&runUniformChain<1, int(Form / 2), Form % 2 == 1, 0, false>...};
}
template <std::size_t... Forms>
constexpr std::array<KelInstruction::Run, sizeof...(Forms)> twoLinkChains(std::index_sequence<Forms...>) {
    return {&runUniformChain<2, int(Forms / 16), Forms / 8 % 2 == 1, int(Forms % 8 / 2), Forms % 2 == 1>...};
}
constexpr auto kOneLinkChains = oneLinkChains(std::make_index_sequence<8>());
constexpr auto kTwoLinkChains = twoLinkChains(std::make_index_sequence<64>());

// The loop of its own for a chain of uniform operands, else runChain.
KelInstruction::Run chainLoop(const KelInstruction& in) {
    auto form = [&](int k) { return std::size_t(in.links[k].op * 2 + int(in.links[k].onRight)); };
    const bool uniform = std::all_of(in.links, in.links + in.linkCount, [](const KelInstruction::Link& l) { return l.operand >= 2; });
    if (!uniform || in.linkCount > 2) return &runChain;
    return in.linkCount == 1 ? kOneLinkChains[form(0)] : kTwoLinkChains[form(0) * 8 + form(1)];
}

// ---- Channels and their comparisons with a constant -------------------------------------------

template <int Channel>
void runChannel(const KelInstruction& in, KelProgramRun& run, void* destination, const GeInterval<int>& strip,
                const KelStripMask&) {
    IxScanlineUtil::extractChannel(*static_cast<IxScanline<float>*>(destination), Channel, run.row<Color>(in.operands[0]),
                                   IxScanlineUtilTypes::NoInvert, &strip);
}
constexpr KelInstruction::Run kChannels[] = {&runChannel<0>, &runChannel<1>, &runChannel<2>, &runChannel<3>};

// The comparisons, numbered as kComparisons lists them: <, >, <=, >=, ==, !=. Each gives 1.0 or
// 0.0 as the comparison operators do; NaN compares false but for !=, in SSE's ordered forms and
// in C++'s alike.
template <int Op>
bool compare(float p, float q) {
    if constexpr (Op == 0) return p < q;
    if constexpr (Op == 1) return p > q;
    if constexpr (Op == 2) return p <= q;
    if constexpr (Op == 3) return p >= q;
    if constexpr (Op == 4) return p == q;
    return p != q;
}
#if defined(__SSE2__)
template <int Op>
__m128 compare(__m128 p, __m128 q) {
    if constexpr (Op == 0) return _mm_cmplt_ps(p, q);
    if constexpr (Op == 1) return _mm_cmpgt_ps(p, q);
    if constexpr (Op == 2) return _mm_cmple_ps(p, q);
    if constexpr (Op == 3) return _mm_cmpge_ps(p, q);
    if constexpr (Op == 4) return _mm_cmpeq_ps(p, q);
    return _mm_cmpneq_ps(p, q);
}
#endif

// Whether a condition held at every column seen, or at none: four columns at a time as SSE masks,
// the rest one at a time.
class UniformityTally {
public:
#if defined(__SSE2__)
    void add(__m128 holds) {
        _any = _mm_or_ps(_any, holds);
        _all = _mm_and_ps(_all, holds);
    }
#endif
    void add(bool holds) {
        _anyTrue = _anyTrue || holds;
        _anyFalse = _anyFalse || !holds;
    }
    KelUniformity result() const {
#if defined(__SSE2__)
        const bool anyTrue = _anyTrue || _mm_movemask_ps(_any) != 0, anyFalse = _anyFalse || _mm_movemask_ps(_all) != 0xF;
#else
        const bool anyTrue = _anyTrue, anyFalse = _anyFalse;
#endif
        return {!anyFalse, !anyTrue};
    }

private:
#if defined(__SSE2__)
    __m128 _any = _mm_setzero_ps(), _all = _mm_castsi128_ps(_mm_set1_epi32(-1));
#endif
    bool _anyTrue = false, _anyFalse = false;
};

// The channel of each colour compared with the constant operand, in one pass over the colours
// that also finds whether the answer is the same at every column (for the `if` it may feed).
template <int Channel, int Op>
void runChannelComparison(const KelInstruction& in, KelProgramRun& run, void* destination, const GeInterval<int>& strip,
                          const KelStripMask&) {
    float* d = static_cast<IxScanline<float>*>(destination)->data();
    const Color* c = run.row<Color>(in.operands[0]).data();
    const float limit = run.row<float>(in.operands[1]).data()[strip.min];
    UniformityTally tally;
    int x = strip.min;
#if defined(__SSE2__)
    const __m128 q = _mm_set1_ps(limit), one = _mm_set1_ps(1.0f);
    for (; x + 4 <= strip.max; x += 4) {
        const __m128 holds = compare<Op>(IxScanlineUtil::channelOfFour<Channel>(c + x), q);
        _mm_storeu_ps(d + x, _mm_and_ps(holds, one));
        tally.add(holds);
    }
#endif
    for (; x < strip.max; ++x) {
        const bool holds = compare<Op>(c[x][Channel], limit);
        d[x] = holds ? 1.0f : 0.0f;
        tally.add(holds);
    }
    run.noteComparison(tally.result());
}
template <std::size_t... Form>
constexpr std::array<KelInstruction::Run, sizeof...(Form)> channelComparisons(std::index_sequence<Form...>) {
    return {&runChannelComparison<int(Form / 6), int(Form % 6)>...};
}
constexpr auto kChannelComparisons = channelComparisons(std::make_index_sequence<24>());

// Whether the condition is true (not 0.0, NaN included) at every column of the strip, or at
// none: most strips of a coherent condition are one or the other, and then a full mask needs no
// row written. Reads only.
KelUniformity uniformity(const IxScanline<float>& condition, const GeInterval<int>& strip) {
    const float* c = condition.data();
    UniformityTally tally;
    int x = strip.min;
#if defined(__SSE2__)
    for (; x + 4 <= strip.max; x += 4) tally.add(_mm_cmpneq_ps(_mm_loadu_ps(c + x), _mm_setzero_ps()));
#endif
    for (; x < strip.max; ++x) tally.add(c[x] != 0.0f);
    return tally.result();
}

// `mask` narrowed by the condition (invert: by its negation) over the strip, into `out`; the
// same rule as KelMask::narrow, a NaN condition counting as true. Four columns at a time, as
// `narrow` goes, with the count of active columns and their span (to the group of four) on the
// way.
KelStripMask narrowStrip(const KelStripMask& mask, const IxScanline<float>& condition, bool invert, IxScanline<float>& out,
                         const GeInterval<int>& strip) {
    const float* m = mask.all ? nullptr : mask.row->data();
    const float* c = condition.data();
    float* o = out.data();
    float active = 0.0f;  // exact: a strip is far below 2^24 columns
    int first = strip.max, last = strip.min;  // of the groups that hold an active column
    int x = strip.min;
#if defined(__SSE2__)
    const __m128 zero = _mm_setzero_ps(), one = _mm_set1_ps(1.0f);
    const __m128 flip = invert ? _mm_castsi128_ps(_mm_set1_epi32(-1)) : zero;
    __m128 count = zero;
    for (; x + 4 <= strip.max; x += 4) {
        __m128 keep = _mm_xor_ps(_mm_cmpneq_ps(_mm_loadu_ps(c + x), zero), flip);  // NaN counts as non-zero
        if (m) keep = _mm_and_ps(keep, _mm_cmpneq_ps(_mm_loadu_ps(m + x), zero));
        const __m128 ones = _mm_and_ps(keep, one);
        _mm_storeu_ps(o + x, ones);
        count = _mm_add_ps(count, ones);
        const bool held = _mm_movemask_ps(keep) != 0;
        first = held && first == strip.max ? x : first;
        last = held ? x + 4 : last;
    }
    float lanes[4];
    _mm_storeu_ps(lanes, count);
    active = (lanes[0] + lanes[1]) + (lanes[2] + lanes[3]);
#endif
    for (; x < strip.max; ++x) {
        const bool keep = (!m || m[x] != 0.0f) && ((c[x] != 0.0f) != invert);
        o[x] = keep ? 1.0f : 0.0f;
        active += o[x];
        first = keep && first == strip.max ? x : first;
        last = keep ? x + 1 : last;
    }
    const bool all = active == float(strip.size()), any = active > 0.0f;
    return {all ? nullptr : &out, all, any, GeInterval<int>(first, std::max(first, last))};
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
    const auto& slots = _program->_slots;
    const auto& code = _program->_code;
    const bool streams = std::any_of(slots.begin(), slots.end(), [](const KelSlot& s) { return s.kind == KelSlot::Kind::CurrentPixel; });
    const auto work = std::count_if(code.begin(), code.end(), [](const KelInstruction& in) { return !in.constant; });
    for (KelInstruction& in : _program->_code)
        if (in.run == &runChain) in.run = chainLoop(in);
    _program->_stripWidth = streams && !_program->_hasLoop && std::size_t(work) <= kShortProgram ? kStreamingStripWidth : kStripWidth;
    if (_program->_stripWidth == kStreamingStripWidth) {
        const std::vector<int>& stored = _program->_stored;
        for (std::size_t i = 0; i < slots.size(); ++i) {
            const KelSlot& s = slots[i];
            if (s.kind == KelSlot::Kind::CurrentPixel) _program->_streamedReads.push_back(int(i));
            else if (s.kind == KelSlot::Kind::Variable && s.type == KelValueTypes::Color &&
                     std::find(stored.begin(), stored.end(), s.variable) != stored.end())
                _program->_streamedWrites.push_back(int(i));
        }
    }
    std::unique_ptr<KelProgram> done = std::move(_program);
    _program.reset(new KelProgram);
    _freeTemporaries.clear();
    _constantSlots.clear();
    _openControl.clear();
    return done;
}

void KelProgramBuilder::begin() {
    _mark = {_program->_slots.size(), _program->_code.size(), _program->_declared.size(), _program->_images.size(),
             _program->_stored.size(),  _program->_maskCount,   _freeTemporaries,           _openControl.size(),
             _program->_hasLoop};
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
    _program->_hasLoop = _mark.hasLoop;
}

void KelProgramBuilder::discard(int slot) {
    if (slot < 0 || isConstant(slot) || _program->_slots[std::size_t(slot)].kind != KelSlot::Kind::Temporary) return;
    std::vector<KelInstruction>& code = _program->_code;
    auto reads = [slot](const KelInstruction& in) {
        return std::find(std::begin(in.operands), std::end(in.operands), slot) != std::end(in.operands);
    };
    for (std::size_t i = code.size(); i-- > 0;) {
        const KelInstruction& in = code[i];
        if (in.kind == KelInstruction::Kind::Step && in.result == slot && in.storeInto < 0) {
            if (std::none_of(code.begin() + std::ptrdiff_t(i) + 1, code.end(), reads)) code.erase(code.begin() + std::ptrdiff_t(i));
            break;
        }
        if (in.kind != KelInstruction::Kind::Step && in.kind != KelInstruction::Kind::Store) break;
    }
    release(slot);
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

int KelProgramBuilder::colorArithmetic(KelInstruction::AnyFunction operation, int a, int b) {
    using U = IxScanlineUtil;
    using C = Color;
    using F = float;
    // Each colour form of the arithmetic operators: its link operation, and which operands are
    // colours.
    struct Form {
        KelInstruction::AnyFunction operation;
        uint8_t op;
        bool leftColor, rightColor;
    };
    auto any = [](auto f) { return reinterpret_cast<KelInstruction::AnyFunction>(f); };
    // clang-format off
    static const Form kForms[] = {
        {any(&U::addScanlines<C, C, C>),      0, true,  true}, {any(&U::addScanlines<C, C, F>),      0, true,  false},
        {any(&U::addScanlines<C, F, C>),      0, false, true}, {any(&U::subtractScanlines<C, C, C>), 1, true,  true},
        {any(&U::subtractScanlines<C, C, F>), 1, true,  false}, {any(&U::subtractScanlines<C, F, C>), 1, false, true},
        {any(&U::multiplyScanlines<C, C, C>), 2, true,  true}, {any(&U::multiplyScanlines<C, C, F>), 2, true,  false},
        {any(&U::multiplyScanlines<C, F, C>), 2, false, true}, {any(&U::divideScanlines<C, C, C>),   3, true,  true},
        {any(&U::divideScanlines<C, C, F>),   3, true,  false}, {any(&U::divideScanlines<C, F, C>),   3, false, true},
    };
    // clang-format on
    const Form* form = nullptr;
    for (const Form& f : kForms)
        if (f.operation == operation) form = &f;
    if (!form) return kNotFused;
    if (a < 0 || b < 0) return kFails;
    auto kindOf = [&](int slot, bool color) -> uint8_t { return uint8_t((color ? 0 : 1) + (isConstant(slot) ? 2 : 0)); };
    std::vector<KelInstruction>& code = _program->_code;
    // The chain that computed one operand just before takes this operation as its next link.
    // Steps of literals alone in between (the other operand, `color(0.05, 0.02, 0, 0)`) run
    // once a tile before any strip and read no chain, so the chain moves after them.
    auto latest = std::find_if(code.rbegin(), code.rend(), [](const KelInstruction& in) {
        return !(in.kind == KelInstruction::Kind::Step && in.constant);
    });
    if (latest != code.rend() && latest->run == &runChain && !latest->constant) {
        std::rotate(latest.base() - 1, latest.base(), code.end());
    }
    if (!code.empty()) {
        KelInstruction& last = code.back();
        const bool extends = last.run == &runChain && !last.constant && last.linkCount < KelInstruction::kMaxLinks;
        const bool left = extends && last.result == a && form->leftColor;
        const bool right = extends && !left && last.result == b && form->rightColor;
        if (left || right) {
            const int operand = left ? b : a;
            if (operand == last.result) return kFails;  // never: a temporary has one use
            last.links[last.linkCount] = {form->op, kindOf(operand, left ? form->rightColor : form->leftColor), right};
            last.operands[++last.linkCount] = operand;
            release(operand);
            return last.result;
        }
    }
    const bool accumulatorLeft = form->leftColor;
    const int operands[] = {accumulatorLeft ? a : b, accumulatorLeft ? b : a};
    const int result = step(&runChain, nullptr, KelValueTypes::Color, operands, 2);
    if (result < 0) return result;
    KelInstruction& chain = code.back();
    chain.links[0] = {form->op, kindOf(operands[1], accumulatorLeft ? form->rightColor : form->leftColor), !accumulatorLeft};
    chain.linkCount = 1;
    return result;
}

int KelProgramBuilder::channel(int color, int index) {
    if (color < 0 || typeOf(color) != KelValueTypes::Color || index < 0 || index > 3) return kFails;
    return step(kChannels[index], nullptr, KelValueTypes::Float, &color, 1);
}

int KelProgramBuilder::channelComparison(KelInstruction::AnyFunction operation, int a, int b) {
    using U = IxScanlineUtil;
    auto any = [](auto f) { return reinterpret_cast<KelInstruction::AnyFunction>(f); };
    // In the numbering of `compare`; `mirrored` is the comparison with its operands swapped.
    struct Comparison {
        KelInstruction::AnyFunction operation;
        int op, mirrored;
    };
    static const Comparison kComparisons[] = {
        {any(&U::lessThanScanlines), 0, 1}, {any(&U::greaterThanScanlines), 1, 0}, {any(&U::lessEqScanlines), 2, 3},
        {any(&U::greaterEqScanlines), 3, 2}, {any(&U::equalScanlines<float>), 4, 4}, {any(&U::notEqualScanlines<float>), 5, 5},
    };
    const Comparison* comparison = nullptr;
    for (const Comparison& c : kComparisons)
        if (c.operation == operation) comparison = &c;
    if (!comparison || a < 0 || b < 0 || _program->_code.empty()) return kNotFused;
    KelInstruction& last = _program->_code.back();
    const auto channel = std::find(std::begin(kChannels), std::end(kChannels), last.run);
    if (channel == std::end(kChannels) || last.constant || (last.result != a && last.result != b)) return kNotFused;
    const bool channelLeft = last.result == a;
    const int limit = channelLeft ? b : a;
    if (!isConstant(limit)) return kNotFused;  // the channel's own result is not constant either
    const int op = channelLeft ? comparison->op : comparison->mirrored;
    last.run = kChannelComparisons[std::size_t(channel - std::begin(kChannels)) * 6 + std::size_t(op)];
    last.operands[1] = limit;
    release(limit);
    return last.result;
}

int KelProgramBuilder::call(KelRowKernel kernel, int resultType, const std::vector<int>& arguments, int image,
                            KelRowKernel addInto) {
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
        in.addInto = reinterpret_cast<KelInstruction::AnyFunction>(addInto);
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
    if (!plainAssignment && addsInto(operation, variable, value)) return variable;
    if (direct && !code.empty()) {
        KelInstruction& last = code.back();
        if (last.kind == KelInstruction::Kind::Step && !last.constant && last.result == value) {
            last.storeInto = variable;
        }
    }
    code.push_back(in);
    release(value);
    noteStored(variable);
    return variable;
}

// `colour += call` where the call, just before, can add into a row: the call becomes that kernel
// over the variable's row, which it reads (an operand, for what the program guarantees) and
// writes at the active columns, and the store goes. The sum's operands are in the store's order.
bool KelProgramBuilder::addsInto(KelInstruction::AnyFunction operation, int variable, int value) {
    const auto add = reinterpret_cast<KelInstruction::AnyFunction>(&IxScanlineUtil::accumulateScanline<Color, Color>);
    std::vector<KelInstruction>& code = _program->_code;
    if (operation != add || code.empty() || typeOf(variable) != KelValueTypes::Color) return false;
    KelInstruction& last = code.back();
    if (last.kind != KelInstruction::Kind::Step || !last.addInto || last.constant || last.result != value ||
        std::find(std::begin(last.operands), std::end(last.operands), value) != std::end(last.operands))
        return false;
    int* free = std::find(std::begin(last.operands), std::end(last.operands), -1);
    if (free == std::end(last.operands)) return false;
    *free = variable;
    last.operation = last.addInto;
    last.addInto = nullptr;
    last.result = variable;
    release(value);
    noteStored(variable);
    return true;
}

void KelProgramBuilder::noteStored(int variable) {
    const int id = _program->_slots[std::size_t(variable)].variable;
    if (std::find(_program->_stored.begin(), _program->_stored.end(), id) == _program->_stored.end())
        _program->_stored.push_back(id);
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

KelInstruction& KelProgramBuilder::append(KelInstruction::Kind kind) {
    _program->_code.emplace_back();
    _program->_code.back().kind = kind;
    return _program->_code.back();
}

// The open If or Loop takes the index of the part that starts here.
void KelProgramBuilder::markPart(bool end) {
    KelInstruction& head = _program->_code[_openControl.back()];
    (end ? head.endAt : head.partAt) = int(_program->_code.size());
}

void KelProgramBuilder::beginIf(int condition) {
    _openControl.push_back(_program->_code.size());
    const std::vector<KelInstruction>& code = _program->_code;
    const bool answered = !code.empty() && code.back().result == condition &&
                          std::find(kChannelComparisons.begin(), kChannelComparisons.end(), code.back().run) != kChannelComparisons.end();
    KelInstruction& in = append(KelInstruction::Kind::If);
    in.operands[0] = condition;
    in.answered = answered;
    in.masks[0] = _program->_maskCount++;
    in.masks[1] = _program->_maskCount++;
    release(condition);
}

void KelProgramBuilder::beginElse() {
    markPart(false);
    append(KelInstruction::Kind::Else);
}

void KelProgramBuilder::endIf() {
    markPart(true);
    KelInstruction& head = _program->_code[_openControl.back()];
    if (head.partAt < 0) head.partAt = head.endAt;
    append(KelInstruction::Kind::EndIf);
    _openControl.pop_back();
}

void KelProgramBuilder::beginLoop() {
    _program->_hasLoop = true;
    _openControl.push_back(_program->_code.size());
    append(KelInstruction::Kind::Loop).masks[0] = _program->_maskCount++;
}

void KelProgramBuilder::loopTest(int condition) {
    markPart(false);
    append(KelInstruction::Kind::LoopTest).operands[0] = condition;
    release(condition);
}

void KelProgramBuilder::endLoop() {
    markPart(true);
    append(KelInstruction::Kind::EndLoop);
    const std::size_t loop = _openControl.back();
    _program->_code[loop].counted = counts(loop);
    _openControl.pop_back();
}

// A loop over a counter, `for (float i = -3; i <= 3; i++)`: the counter is set to a constant just
// before the loop, its test compares it with a constant, and the body changes it only by its
// last statement, a store of a constant under the loop's own mask. Every active column then
// holds the same counter on every pass, so the test gives one answer for all of them.
bool KelProgramBuilder::counts(std::size_t loop) const {
    const std::vector<KelInstruction>& code = _program->_code;
    const KelInstruction& head = code[loop];
    const std::size_t test = std::size_t(head.partAt), end = std::size_t(head.endAt);
    if (loop == 0 || test != loop + 2 || end < test + 2) return false;
    const KelInstruction& compare = code[loop + 1];
    if (compare.kind != KelInstruction::Kind::Step || compare.constant || compare.image >= 0 ||
        compare.result != code[test].operands[0] ||
        compare.operands[2] >= 0 || compare.operands[0] < 0 || compare.operands[1] < 0)
        return false;
    const int first = compare.operands[0], second = compare.operands[1];
    const int counter = isConstant(first) ? second : first;
    if (!isConstant(first == counter ? second : first) || _program->_slots[std::size_t(counter)].kind != KelSlot::Kind::Variable)
        return false;
    auto setsConstant = [&](const KelInstruction& in) {
        return in.kind == KelInstruction::Kind::Store && in.result == counter && isConstant(in.operands[0]);
    };
    const KelInstruction& init = code[loop - 1];
    if (!setsConstant(init) || !init.assigns || !setsConstant(code[end - 1])) return false;
    return std::none_of(code.begin() + std::ptrdiff_t(test) + 1, code.begin() + std::ptrdiff_t(end) - 1, [&](const KelInstruction& in) {
        return in.result == counter || in.storeInto == counter;
    });
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

namespace {

// The colour rows that a program of narrow strips streams through: the inputs' current rows that
// it reads and the colour variables that it stores (the output's row, lent from the frame). A
// strip computes from the cache while memory brings the next strip of them (kelEffects E5,
// switched in one process: 1.11-1.37x the loop with, 1.25-1.67x without).
class StreamedRows {
public:
    StreamedRows(KelProgramRun& run, const KelProgram& program) {
        // Rows are lent afresh for each row of a tile: their addresses are read here.
        for (int slot : program.streamedReads())
            if (_reads < kMax) _rows[_reads++] = run.row<Color>(slot).data();
        _count = _reads;
        for (int slot : program.streamedWrites())
            if (_count < 2 * kMax) _rows[_count++] = run.row<Color>(slot).data();
    }
    void prefetch(int lo, int hi) const {
        if (_count == 0) return;  // a program of wide strips streams nothing: no pass over the columns
        for (int x = lo; x < hi; x += kColorsPerLine) {
            for (int i = 0; i < _reads; ++i) __builtin_prefetch(_rows[i] + x, 0);
            for (int i = _reads; i < _count; ++i) __builtin_prefetch(_rows[i] + x, 1);
        }
    }

private:
    static constexpr int kMax = 4;
    static constexpr int kColorsPerLine = 64 / int(sizeof(Color));
    const Color* _rows[2 * kMax] = {};  // [0, _reads) read, [_reads, _count) written
    int _reads = 0, _count = 0;
};

}  // namespace

void KelProgramRun::run(KelContext& context) {
    const KelMask& mask = context.getMask();
    if (mask.noneActive()) return;  // no store can happen; declarations are out of sight
    const GeInterval<int> columns = mask.allActive() ? context.getInterval() : *mask.activeSpan();
    const float* m = mask.getScanline().data();
    const int width = _program.stripWidth();
    const StreamedRows streamed(*this, _program);
    for (int lo = columns.min; lo < columns.max; lo += width) {
        const GeInterval<int> strip(lo, std::min(lo + width, columns.max));
        streamed.prefetch(strip.max, std::min(strip.max + width, columns.max));
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

// A column that the mask holds: strips without one never run.
int KelProgramRun::firstActive(const KelStripMask& mask, const GeInterval<int>& strip) {
    if (mask.all) return strip.min;
    const float* m = mask.row->data();
    int x = std::max(strip.min, mask.span.min);
    while (x + 1 < strip.max && m[x] == 0.0f) ++x;
    return x;
}

// The runs of columns where the row is not 0.0 (NaN included) over the strip, into `runs`, when
// there are at most KelRuns::kMax of them. Masks and conditions that scripts make are mostly long
// runs, and a run is computed as a strip of its own with every column active: the unmasked form
// of each operation, no test per column. Worth it for colour rows, whose masked stores test
// column by column; masked float stores are a select per block already.
bool KelProgramRun::runsOf(const IxScanline<float>& row, const GeInterval<int>& strip, KelRuns& runs) {
    const float* m = row.data();
    runs.count = 0;
    bool inRun = false;
    int start = 0;
    auto toggle = [&](int x) {
        if (!inRun) {
            if (runs.count == KelRuns::kMax) return false;
            start = x;
        } else {
            runs.at[runs.count++] = GeInterval<int>(start, x);
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
    if (inRun) runs.at[runs.count++] = GeInterval<int>(start, strip.max);
    return true;
}

// A step and the plain assignment of its value right after it: the step writes the variable's
// row itself where every column is active (or, for a colour, over each run of active columns),
// else into its temporary, which the store then copies at the active columns.
void KelProgramRun::runAssignment(const KelInstruction& in, const KelInstruction& store, const GeInterval<int>& strip,
                                  const KelStripMask& mask) {
    void* variable = rowPointer(in.storeInto);
    if (mask.all || store.unmasked) return in.run(in, *this, variable, strip, KelStripMask{});
    if (_program.slots()[std::size_t(in.result)].type == KelValueTypes::Color && runsOf(*mask.row, strip, _runs)) {
        for (const GeInterval<int>& run : _runs) in.run(in, *this, variable, run, KelStripMask{});
        return;
    }
    in.run(in, *this, rowPointer(in.result), strip, mask);
    store.run(store, *this, nullptr, strip, mask);
}

void KelProgramRun::runStore(const KelInstruction& in, const GeInterval<int>& strip, const KelStripMask& mask) {
    if (mask.all || in.unmasked) return in.run(in, *this, nullptr, strip, KelStripMask{});
    if (_program.slots()[std::size_t(in.result)].type == KelValueTypes::Color && runsOf(*mask.row, strip, _runs)) {
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
    // Under a full mask, a condition of few runs (one, most often: the test without a branch
    // tells it first) runs each part over its own runs with every column active, the runs in the
    // order of the columns: each column is computed from itself alone, and the two parts store
    // at different columns.
    KelRuns runs;
    const KelUniformity u = !mask.all ? KelUniformity{} : in.answered ? _lastComparison : uniformity(condition, strip);
    if (u.allTrue || u.allFalse) {
        runs.count = u.allTrue ? 1 : 0;
        runs.at[0] = strip;
    }
    if (u.allTrue || u.allFalse || (mask.all && runsOf(condition, strip, runs))) {
        auto part = [&](std::size_t begin, std::size_t end, int lo, int hi) {
            if (lo < hi) runRange(begin, end, GeInterval<int>(lo, hi), KelStripMask{nullptr, true, true, GeInterval<int>(lo, hi)});
        };
        int done = strip.min;
        for (const GeInterval<int>& run : runs) {
            if (hasElse) part(std::size_t(in.partAt) + 1, std::size_t(in.endAt), done, run.min);
            part(at + 1, std::size_t(in.partAt), run.min, run.max);
            done = run.max;
        }
        if (hasElse) part(std::size_t(in.partAt) + 1, std::size_t(in.endAt), done, strip.max);
        return std::size_t(in.endAt) + 1;
    }
    const KelStripMask then = narrowStrip(mask, condition, false, *_masks[std::size_t(in.masks[0])], strip);
    KelStripMask otherwise{nullptr, false, false, {}};
    if (hasElse) otherwise = narrowStrip(mask, condition, true, *_masks[std::size_t(in.masks[1])], strip);
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
    if (in.counted) {
        // The test at one active column answers for all; the mask stays as it is.
        const int column = firstActive(mask, strip);
        const GeInterval<int> one(column, column + 1);
        const float& answer = row<float>(_program.code()[test].operands[0]).data()[column];
        for (;;) {
            runRange(at + 1, test, one, KelStripMask{nullptr, true, true, one});
            if (answer == 0.0f) break;
            PxRequestMgr::getInstance().checkRequest();
            runRange(test + 1, std::size_t(in.endAt), strip, mask);
        }
        return std::size_t(in.endAt) + 1;
    }
    IxScanline<float>& loopMask = *_masks[std::size_t(in.masks[0])];
    KelStripMask current = mask;
    GeInterval<int> columns = strip;
    for (;;) {
        runRange(at + 1, test, columns, current);
        const IxScanline<float>& condition = row<float>(_program.code()[test].operands[0]);
        const KelUniformity u = current.all ? uniformity(condition, columns) : KelUniformity{};
        if (u.allFalse) break;
        if (!u.allTrue) current = narrowStrip(current, condition, false, loopMask, columns);
        if (!current.any) break;
        columns = current.span;
        PxRequestMgr::getInstance().checkRequest();
        runRange(test + 1, std::size_t(in.endAt), columns, current);
    }
    return std::size_t(in.endAt) + 1;
}

}  // namespace Zt
