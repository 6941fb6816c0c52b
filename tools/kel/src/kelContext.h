// Values, the execution context and masks.
// A value of the language is a whole scanline (KelValue and its three classes), always made by
// a KelContext and returned to its pool instead of being freed. KelContext holds all run-time
// state of one tile (or the symbol table of one static check); KelMask says which columns are
// active, and `narrow` is the one operation that changes it.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

#include "IxScanlineUtil.h"
#include "Peb.h"
#include "PxImage.h"
#include "ZtRC.h"

namespace Zt {

class KelContext;
class KelProgram;
class KelProgramRun;

// Type numbers of PebInterpreterTypes (1 float, 3 image, 4 colour); 5 is void in the catalogue.
struct KelValueTypes : PebInterpreterTypes {
    static constexpr int Void = 5;
};

// A value of the language: one scanline of a type, const or writable, with a flag for a value
// known to hold one number at every column. The reference count is plain, not atomic: a value
// never leaves its context.
class KelValue : public KelValueTypes {
public:
    virtual int getType() const = 0;
    virtual ~KelValue() = default;
    // Inserts `id` into the free-id set of this value's kind in `context`.
    virtual void recycle(int id, KelContext* context) = 0;

    void addRef() { ++_refCount; }
    void removeRef();
    bool isType(int type) const { return type == getType(); }
    bool isConst() const { return _writable == 0; }
    bool isUniform() const { return _uniform; }
    void setUniform(bool uniform) { _uniform = uniform; }

    int refCount() const { return _refCount; }
    int id() const { return _id; }
    int writable() const { return _writable; }

protected:
    KelValue(KelContext* context, int id, int writable) : _context(context), _writable(writable), _id(id) {}

private:
    friend class KelContext;
class KelProgram;
class KelProgramRun;
    int32_t _refCount = 0;
    KelContext* _context;
    int32_t _writable;
    int32_t _id;
    bool _uniform = false;
};

template <class T>
struct KelTypeTraits;
template <>
struct KelTypeTraits<float> {
    static constexpr int type = KelValueTypes::Float;
    static constexpr float pad = 0.0f;
};
template <>
struct KelTypeTraits<Color> {
    static constexpr int type = KelValueTypes::Color;
    static constexpr Color pad{0.0f, 0.0f, 0.0f, 1.0f};
};

template <class T>
class KelType : public KelValue {
public:
    KelType(KelContext* context, int id, int writable);
    KelType(KelContext* context, int id, int writable, const T& fill);
    int getType() const override { return KelTypeTraits<T>::type; }
    void recycle(int id, KelContext* context) override;
    IxScanline<T>& getScanline() { return _scanline; }
    const IxScanline<T>& getScanline() const { return _scanline; }

private:
    IxScanline<T> _scanline;
};

// A scanline of image ids, each a float whose truncation indexes the image table.
class KelImage : public KelType<float> {
public:
    using KelType<float>::KelType;
    int getType() const override { return KelValueTypes::Image; }
    void recycle(int id, KelContext* context) override;
};

using KelFloat = KelType<float>;
using KelColor = KelType<Color>;
using KelValuePtr = RCShdPtr<KelValue>;
using KelFloatPtr = RCShdPtr<KelType<float>>;
using KelColorPtr = RCShdPtr<KelType<Color>>;
using KelImagePtr = RCShdPtr<KelImage>;

// How a sampler reads outside its image: transparent black (`sample`), the nearest edge pixel
// (`sampleClamp`), the image repeated (`sampleWrap`) or mirrored at each edge (`sampleMirror`).
enum class KelEdgeMode : int { Transparent, Clamp, Wrap, Mirror, Count };

// One row of the image table. Id 0 no image, 1 the output, i + 2 the i-th input.
struct KelImageEntry {
    GeRectangle<int> pixelRect;
    GeRectangle<float> nominalRect;
    RCStrongPtr<const SdTextureSampler> sampler;  // transparent edges
    // The samplers of the other edge modes, Clamp first; each only where the script reads so.
    RCStrongPtr<const SdTextureSampler> edgeSamplers[int(KelEdgeMode::Count) - 1];
    RCStrongPtr<IxScanline<Color>> scanline;
    float pixelAspectRatio = 0.0f;

    RCStrongPtr<const SdTextureSampler>& samplerFor(KelEdgeMode mode) {
        return mode == KelEdgeMode::Transparent ? sampler : edgeSamplers[int(mode) - 1];
    }
    const RCStrongPtr<const SdTextureSampler>& samplerFor(KelEdgeMode mode) const {
        return mode == KelEdgeMode::Transparent ? sampler : edgeSamplers[int(mode) - 1];
    }
};

// What rand() draws by, besides the call itself (kelFunctionsNoise.cpp): the render's seed and
// time, the pixel row being run, and for each call of the script how many numbers each column
// has drawn from it in this row, so that a call repeated by a loop draws anew on every pass.
class KelRandomKeys {
public:
    explicit KelRandomKeys(const GeInterval<int>& columns) : _columns(columns) {}
    // -0 and 0 are one time.
    void setFrame(unsigned seed, double time) {
        _seed = seed;
        _time = time + 0.0;
    }
    // Every count starts again from 0.
    void startRow(int row) {
        _row = row;
        ++_rowRun;
    }
    unsigned seed() const { return _seed; }
    double time() const { return _time; }
    int row() const { return _row; }
    // The counts of call `ordinal` in this row, indexed by column like IxScanline::data(); sized
    // once per call and tile, so that a row in the steady state allocates nothing.
    uint32_t* draws(int ordinal);

private:
    struct Draws {
        uint32_t rowRun = 0;
        std::vector<uint32_t> counts;
    };
    GeInterval<int> _columns;
    unsigned _seed = 0;
    double _time = 0.0;
    int _row = 0;
    uint32_t _rowRun = 1;
    std::vector<Draws> _draws;  // by call ordinal
};

// Which columns are active, 1.0 or 0.0 per column, with two summary flags.
class KelMask {
public:
    explicit KelMask(const GeInterval<int>& interval);
    KelMask(const KelMask& other);
    KelMask& operator=(const KelMask& other);

    float isActive(int x) const { return _scanline.data()[x]; }
    bool noneActive() const { return _noneActive; }
    bool allActive() const { return _allActive; }
    const IxScanline<float>& getScanline() const { return _scanline; }
    // Null when every column is active: the masked stores then take their unmasked path.
    const IxScanline<float>* activeScanline() const { return _allActive ? nullptr : &_scanline; }
    // The columns from the first active one to the last (empty when none is active),
    // or null when every column is active. Every column outside it is inactive, and stays so in
    // every narrower mask until this one is restored, so the operators compute only inside it:
    // a temporary's value outside it can reach no variable, since every store is masked and a
    // declaration resets its whole row. Results inside are bit for bit those
    // of the whole row.
    const GeInterval<int>* activeSpan() const { return _allActive ? nullptr : &_span; }

    // Keeps a column active when it was and the condition there is non-zero
    // (invert 1: is zero). Four columns at a time, flags from the same pass.
    void narrow(const RCShdPtr<KelType<float>>& condition, int invert);

private:
    void findSpan();

    bool _noneActive;
    bool _allActive;
    IxScanline<float> _scanline;
    GeInterval<int> _span;
};

// A set of ids that gives its smallest member first and, once sized, never allocates (the
// steady state of a tile is allocation-free): a bitmap over the pool's ids.
class KelIdSet {
public:
    bool empty() const { return _count == 0; }
    std::size_t size() const { return _count; }
    bool contains(int id) const;
    void insert(int id);
    int takeSmallest();  // precondition: !empty()
private:
    std::vector<uint64_t> _words;
    std::size_t _count = 0;
    std::size_t _firstWord = 0;  // no set bit below this word
};

class KelContext {
public:
    KelContext(const GeInterval<int>& interval, int slotCount);
    ~KelContext();
    KelContext(const KelContext&) = delete;
    KelContext& operator=(const KelContext&) = delete;

    bool isTerminating() const { return _terminating; }

    // Values: each delivers a reference for the caller, from the pool when an id is free.
    RCShdPtr<KelType<float>> newFloat(int writable);
    RCShdPtr<KelType<float>> newConstantFloat(float value, int writable);
    RCShdPtr<KelType<Color>> newColor(int writable);
    RCShdPtr<KelType<Color>> newConstantColor(const Color& value, int writable);
    RCShdPtr<KelImage> newVaryingImage(int writable);
    RCShdPtr<KelImage> newImage(float id, int writable);

    // Variables and scopes
    RCShdPtr<KelValue> getVariable(int id) const;
    void setVariable(int id, const RCShdPtr<KelValue>& value);
    int getVariableId(const std::string& name) const;
    int declareVariable(const std::string& name);
    void pushScope();
    void popScope();
    int variableCount() const { return static_cast<int>(_variables.size()); }

    // Images
    void addImage(const KelImageEntry& entry) { _images.push_back(entry); }
    KelImageEntry& getImage(int id) { return _images[std::size_t(id)]; }
    std::size_t imageCount() const { return _images.size(); }

    // Mask and interval
    KelMask& getMask() { return _mask; }
    void setMask(const KelMask& saved);
    const GeInterval<int>& getInterval() const { return _interval; }

    // The keys of rand(), set by the tile evaluation for the frame and for each row.
    KelRandomKeys& random() { return _random; }

    // Used names
    void addUsedName(const std::string& name) { _usedNames.insert(name); }
    const std::unordered_set<std::string>& usedNames() const { return _usedNames; }

    // Errors: throws KelParseEx with message + " at line " + line, pointing at `position`.
    [[noreturn]] void raiseError(const std::string& message, int line, const PebSourcePosition& position = {});

    // Pool introspection (tests, benchmarks).
    std::size_t poolSize() const { return _values.size(); }
    KelIdSet& freeIds(int type);

    // Saved masks of control flow, in strict nesting (see KelSavedMask).
    KelMask& pushSavedMask();
    void popSavedMask() { --_savedDepth; }

    // Program `index` of the tree bound to this context (kelProgram.h): made at its first run
    // here, kept for the rows that follow.
    KelProgramRun& programRun(int index, const KelProgram& program);

private:
    template <class V, class... Fill>
    RCShdPtr<V> issue(KelIdSet& freeSet, int writable, const Fill&... fill);

    KelIdSet _freeFloats;
    KelIdSet _freeColors;
    KelIdSet _freeImages;
    int32_t _variableCount = 0;
    std::vector<RCShdPtr<KelValue>> _variables;
    std::vector<std::map<std::string, int32_t>> _scopes;
    std::vector<KelImageEntry> _images;
    GeInterval<int> _interval;
    std::vector<RCShdPtr<KelValue>> _values;
    KelMask _mask;
    KelRandomKeys _random;
    bool _terminating = false;
    std::unordered_set<std::string> _usedNames;
    // The reusable copies that KelSavedMask hands out.
    std::vector<std::unique_ptr<KelMask>> _savedMasks;
    std::size_t _savedDepth = 0;
    std::vector<std::unique_ptr<KelProgramRun>> _programRuns;
};

// Control flow copies the mask on entry and restores it on exit. The copies live in a stack of
// the context and are reused from row to row, so that a row in the steady state allocates
// nothing; they nest as the statements do.
class KelSavedMask {
public:
    explicit KelSavedMask(KelContext& context) : _context(context), _saved(context.pushSavedMask()) {}
    ~KelSavedMask() { _context.popSavedMask(); }
    KelSavedMask(const KelSavedMask&) = delete;
    KelSavedMask& operator=(const KelSavedMask&) = delete;
    const KelMask& mask() const { return _saved; }

private:
    KelContext& _context;
    KelMask& _saved;
};

// A script's semantic fault, raised from `check` through raiseError; it carries the line and the
// token it is about.
class KelParseEx : public ExBase {
public:
    KelParseEx(const char* file, int sourceLine, const std::string& reason, int line, const PebSourcePosition& position = {})
        : ExBase(file, sourceLine, reason), _line(line), _position(position) {}
    ~KelParseEx() override = default;
    ExBase* clone() const override { return new KelParseEx(*this); }
    [[noreturn]] void raise() const override { throw KelParseEx(*this); }
    int getLine() const { return _line; }
    const PebSourcePosition& getPosition() const { return _position; }

private:
    int _line;
    PebSourcePosition _position;
};

}  // namespace Zt
