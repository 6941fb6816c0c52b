// Values and their pool, the execution context, masks. Every value comes from the context's pool
// and returns to it when its last reference goes, so a tile's rows after the first allocate
// nothing.
#include "kelContext.h"

#include <algorithm>
#include "kelProgram.h"

#include <bit>
#include <cstdio>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace Zt {

namespace {
constexpr const char* kContextFile = "tools\\kel\\src\\kelContext";
}

// ---- Values -------------------------------------------------------------------------------------

void KelValue::removeRef() {
    --_refCount;
    if (_refCount == 1) {
        // Only the pool's reference is left.
        recycle(_id, _context);
    } else if (_refCount == 0) {
        if (!_context->isTerminating())
            Assertions::throwAssertionFailed(kContextFile, 157, "_context->isTerminating()");
        delete this;
    }
}

template <class T>
KelType<T>::KelType(KelContext* context, int id, int writable)
    : KelValue(context, id, writable),
      _scanline(context->getInterval(), IxPaddingPolicy<T>{IxPaddingPolicy<T>::kPadWithValue, KelTypeTraits<T>::pad}) {}

template <class T>
KelType<T>::KelType(KelContext* context, int id, int writable, const T& fill) : KelType(context, id, writable) {
    IxScanlineUtil::set(_scanline, fill, nullptr);
    setUniform(true);
}

// A value that was lent a row (the current pixel of an image) gives it back with the value.
template <class T>
void KelType<T>::recycle(int id, KelContext* context) {
    _scanline.reclaim();
    context->freeIds(KelTypeTraits<T>::type).insert(id);
}

void KelImage::recycle(int id, KelContext* context) { context->freeIds(Image).insert(id); }

template class KelType<float>;
template class KelType<Color>;

// ---- Free-id sets -------------------------------------------------------------------------------

bool KelIdSet::contains(int id) const {
    std::size_t w = std::size_t(id) / 64;
    return w < _words.size() && (_words[w] >> (id % 64) & 1u);
}

void KelIdSet::insert(int id) {
    std::size_t w = std::size_t(id) / 64;
    if (w >= _words.size()) _words.resize(w + 1, 0);
    uint64_t bit = uint64_t(1) << (id % 64);
    if (_words[w] & bit) return;
    _words[w] |= bit;
    ++_count;
    if (w < _firstWord) _firstWord = w;
}

int KelIdSet::takeSmallest() {
    while (_words[_firstWord] == 0) ++_firstWord;
    uint64_t word = _words[_firstWord];
    int bit = std::countr_zero(word);
    _words[_firstWord] = word & (word - 1);
    --_count;
    return int(_firstWord * 64) + bit;
}

// ---- Masks --------------------------------------------------------------------------------------

namespace {
const IxPaddingPolicy<float> kMaskPadding{IxPaddingPolicy<float>::kPadWithValue, 0.0f};
}

KelMask::KelMask(const GeInterval<int>& interval)
    : _noneActive(false), _allActive(true), _scanline(interval, kMaskPadding), _span(interval) {
    IxScanlineUtil::set(_scanline, 1.0f, nullptr);
}

KelMask::KelMask(const KelMask& other)
    : _noneActive(other._noneActive),
      _allActive(other._allActive),
      _scanline(other._scanline.getInterval(), kMaskPadding),
      _span(other._span) {
    IxScanlineUtil::copy(_scanline, other._scanline, nullptr);
}

KelMask& KelMask::operator=(const KelMask& other) {
    _noneActive = other._noneActive;
    _allActive = other._allActive;
    _span = other._span;
    IxScanlineUtil::copy(_scanline, other._scanline, nullptr);
    return *this;
}

void KelMask::findSpan() {
    const GeInterval<int>& all = _scanline.getInterval();
    if (_allActive) {
        _span = all;
        return;
    }
    if (_noneActive) {
        _span = GeInterval<int>(all.min, all.min);
        return;
    }
    const float* m = _scanline.data();
    int lo = all.min, hi = all.max;
    while (lo < hi && m[lo] == 0.0f) ++lo;
    while (hi > lo && m[hi - 1] == 0.0f) --hi;
    _span = GeInterval<int>(lo, hi);
}

void KelMask::narrow(const RCShdPtr<KelType<float>>& condition, int invert) {
    const IxScanline<float>& cond = condition->getScanline();
    const int n = _scanline.getInterval().size();
    float* m = _scanline.begin();
    const float* c = cond.begin();
    int x = 0;
#if defined(__SSE2__)
    // Groups of four aligned columns; compare, AND (or AND NOT) into the mask, and
    // gather both flags in the same pass.
    const __m128 zero = _mm_setzero_ps();
    __m128 anyActive = zero;
    __m128 allActive = _mm_set1_ps(1.0f);
    const int groups = n / 4;
    for (int g = 0; g < groups; ++g, x += 4) {
        __m128 nonZero = _mm_cmpneq_ps(_mm_load_ps(c + x), zero);  // NaN counts as non-zero
        __m128 mask = _mm_load_ps(m + x);
        __m128 result = invert == 1 ? _mm_andnot_ps(nonZero, mask) : _mm_and_ps(nonZero, mask);
        _mm_store_ps(m + x, result);
        anyActive = _mm_or_ps(anyActive, result);
        allActive = _mm_and_ps(allActive, result);
    }
    _noneActive = _mm_movemask_ps(_mm_cmpneq_ps(anyActive, zero)) == 0;
    _allActive = _mm_movemask_ps(_mm_cmpeq_ps(allActive, zero)) == 0;
#else
    _noneActive = true;
    _allActive = true;
#endif
    for (; x < n; ++x) {
        bool keep = m[x] != 0.0f && (invert == 1 ? c[x] == 0.0f : c[x] != 0.0f);
        m[x] = keep ? 1.0f : 0.0f;
        if (keep) _noneActive = false; else _allActive = false;
    }
    findSpan();
}

// ---- The context --------------------------------------------------------------------------------

KelContext::KelContext(const GeInterval<int>& interval, int slotCount)
    : _variables(std::size_t(slotCount > 0 ? slotCount : 0)), _interval(interval), _mask(interval), _random(interval) {
    pushScope();
    for (const char* name : {"x", "y", "t"}) {
        int id = declareVariable(name);
        setVariable(id, newFloat(0));
    }
}

KelContext::~KelContext() {
    _terminating = true;
    for (auto& v : _variables) v = nullptr;
    for (auto& v : _values) v = nullptr;
    // The members then die in reverse order of declaration: values first release their ids into
    // the free-id sets, which go last: used names, mask, pool storage, images, scopes, variable storage, then the free-id sets
    // _freeImages, _freeColors, _freeFloats.
}

KelIdSet& KelContext::freeIds(int type) {
    switch (type) {
        case KelValueTypes::Float: return _freeFloats;
        case KelValueTypes::Color: return _freeColors;
        default: return _freeImages;
    }
}

template <class V, class... Fill>
RCShdPtr<V> KelContext::issue(KelIdSet& freeSet, int writable, const Fill&... fill) {
    V* value;
    if (!freeSet.empty()) {
        value = static_cast<V*>(_values[std::size_t(freeSet.takeSmallest())].get());
        value->_uniform = false;
        value->_writable = writable;
    } else {
        value = new V(this, int(_values.size()), writable);
        _values.emplace_back(value);
    }
    RCShdPtr<V> result(value);
    if constexpr (sizeof...(Fill) == 1) {
        IxScanlineUtil::set(value->getScanline(), fill..., nullptr);
        value->_uniform = true;
    }
    return result;
}

RCShdPtr<KelType<float>> KelContext::newFloat(int writable) { return issue<KelType<float>>(_freeFloats, writable); }
RCShdPtr<KelType<float>> KelContext::newConstantFloat(float value, int writable) {
    return issue<KelType<float>>(_freeFloats, writable, value);
}
RCShdPtr<KelType<Color>> KelContext::newColor(int writable) { return issue<KelType<Color>>(_freeColors, writable); }
RCShdPtr<KelType<Color>> KelContext::newConstantColor(const Color& value, int writable) {
    return issue<KelType<Color>>(_freeColors, writable, value);
}
RCShdPtr<KelImage> KelContext::newVaryingImage(int writable) { return issue<KelImage>(_freeImages, writable); }
RCShdPtr<KelImage> KelContext::newImage(float id, int writable) { return issue<KelImage>(_freeImages, writable, id); }

RCShdPtr<KelValue> KelContext::getVariable(int id) const {
    // Compared unsigned, so that the id -1 of an unknown name fires the assertion.
    if (!(std::size_t(unsigned(id)) < _variables.size()))
        Assertions::throwAssertionFailed(kContextFile, 514, "id < _variables.size()");
    return _variables[std::size_t(id)];
}

void KelContext::setVariable(int id, const RCShdPtr<KelValue>& value) {
    if (!(std::size_t(unsigned(id)) < _variables.size()))
        Assertions::throwAssertionFailed(kContextFile, 598, "id < _variables.size()");
    _variables[std::size_t(id)] = value;
}

int KelContext::getVariableId(const std::string& name) const {
    for (const auto& scope : _scopes) {
        auto it = scope.find(name);
        if (it != scope.end()) return it->second;
    }
    return -1;
}

int KelContext::declareVariable(const std::string& name) {
    int id = std::min<int>(_variableCount, int(_variables.size()));
    _scopes.back()[name] = id;
    if (std::size_t(id) == _variables.size()) _variables.emplace_back();
    ++_variableCount;
    return id;
}

void KelContext::pushScope() { _scopes.emplace_back(); }
void KelContext::popScope() {
    if (!_scopes.empty()) _scopes.pop_back();
}

void KelContext::setMask(const KelMask& saved) { _mask = saved; }

uint32_t* KelRandomKeys::draws(int ordinal) {
    if (std::size_t(ordinal) >= _draws.size()) _draws.resize(std::size_t(ordinal) + 1);
    Draws& d = _draws[std::size_t(ordinal)];
    if (d.rowRun != _rowRun) {
        d.counts.assign(std::size_t(std::max(_columns.max - _columns.min, 0)), 0u);
        d.rowRun = _rowRun;
    }
    return d.counts.data() - _columns.min;
}

KelMask& KelContext::pushSavedMask() {
    if (_savedDepth == _savedMasks.size()) _savedMasks.push_back(std::make_unique<KelMask>(_mask));
    else *_savedMasks[_savedDepth] = _mask;
    return *_savedMasks[_savedDepth++];
}

KelProgramRun& KelContext::programRun(int index, const KelProgram& program) {
    if (_programRuns.size() <= std::size_t(index)) _programRuns.resize(std::size_t(index) + 1);
    std::unique_ptr<KelProgramRun>& run = _programRuns[std::size_t(index)];
    if (!run) run = std::make_unique<KelProgramRun>(program, *this);
    return *run;
}

void KelContext::raiseError(const std::string& message, int line, const PebSourcePosition& position) {
    char number[16];
    std::snprintf(number, sizeof number, "%d", line);
    throw KelParseEx(kContextFile, 847, message + " at line " + number, line, position);
}

}  // namespace Zt
