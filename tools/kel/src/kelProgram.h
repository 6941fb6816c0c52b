// Statements compiled into a program that runs strip by strip. Every operation of the language
// but a few (`rand`, image variables, the image queries, the channel setters) gives a column's
// result from that column's values alone, so a run of such statements gives the same pixels
// whether each statement goes over the whole row before the next starts, as the tree walk does,
// or all statements go over a strip of columns before the next strip. A program does the
// latter: the rows of its temporaries stay in the processor's cache between the operations of a
// strip, each literal's row is filled once a tile, the last operation of an assignment writes
// into the variable's row when every column of the strip is active, and `if`, `while` and `for`
// narrow a mask per strip, so a loop ends on each strip when its own columns are done.
//
// KelProgramBuilder compiles a run of statements (the nodes' `compile`); KelProgram is the
// result, shared read-only by every tile thread; KelProgramRun binds it to one tile's context
// (rows for its temporaries and literals, its variables and images) and runs it row after row.
// The operations are those of the tree walk (the same IxScanlineUtil functions and built-in
// kernels), called with the strip as their column limit, but for colour arithmetic, whose
// operations go in chains that keep the running colours in registers from the first to the
// last (the same operations of CoColor.h, lane by lane): the pixels are the tree walk's, bit
// for bit.
#pragma once

#include <cstdint>
#include <memory>
#include <type_traits>
#include <vector>

#include "kelContext.h"

namespace Zt {

class KelProgramRun;

// One call of a built-in over a strip: `result` is an IxScanline<float> or <Color>, the
// arguments likewise in the order of the call; `active` is null when every column is active;
// `image` is the entry of the call's image argument (sample's), when it has one.
struct KelRowCall {
    void* result = nullptr;
    const void* arguments[4] = {};
    const IxScanline<float>* active = nullptr;
    GeInterval<int> columns;
    const KelImageEntry* image = nullptr;
};
using KelRowKernel = void (*)(const KelRowCall& call);

// The mask of one strip: `row` is null when every column of the strip is active. `span` holds
// every active column; the parts under a narrowed mask run over it alone.
struct KelStripMask {
    const IxScanline<float>* row = nullptr;
    bool all = true;
    bool any = true;
    GeInterval<int> span;
};

// Runs of columns, at most kMax of them, in the order of the columns.
struct KelRuns {
    static constexpr int kMax = 8;
    GeInterval<int> at[kMax];
    int count = 0;
    const GeInterval<int>* begin() const { return at; }
    const GeInterval<int>* end() const { return at + count; }
};

// One instruction. Steps and stores carry a typed thunk (`run`) and the operation it calls;
// control flow carries the instruction indices of its parts.
struct KelInstruction {
    enum class Kind : uint8_t { Step, Store, Declare, If, Else, EndIf, Loop, LoopTest, EndLoop };
    using AnyFunction = void (*)();
    using Run = void (*)(const KelInstruction& instruction, KelProgramRun& run, void* destination,
                         const GeInterval<int>& strip, const KelStripMask& mask);

    Kind kind = Kind::Step;
    Run run = nullptr;
    AnyFunction operation = nullptr;
    int result = -1;         // Step: the slot written; Store, Declare: the variable's slot
    int operands[4] = {-1, -1, -1, -1};
    int image = -1;          // Step of a built-in with an image argument: the program's image
    int storeInto = -1;      // Step: the variable that the plain assignment right after it stores into
    bool assigns = false;    // Store: `=`, which writes the whole value (the others combine)
    bool unmasked = false;   // Store: the first of a variable just declared, so at every column
    bool constant = false;   // Step: all operands constant; run once a tile, not per strip
    bool counted = false;    // Loop: its test gives one answer at every active column (kelProgram.cpp)
    bool answered = false;   // If: its condition is the channel comparison just before, which tells the
                             // run whether it holds at every column of the strip, or at none
    AnyFunction addInto = nullptr;  // Step of a built-in: its kernel that adds its colours to the result's
    int masks[2] = {-1, -1};  // If: then and else masks; Loop: the loop's mask
    // A chain of colour arithmetic: the running colour starts as operands[0] and each link
    // combines it with the next operand (kelProgram.cpp).
    struct Link {
        uint8_t op = 0;        // 0 +, 1 -, 2 *, 3 /
        uint8_t operand = 0;   // 0 a colour row, 1 a float row, 2 a uniform colour, 3 a uniform float
        bool onRight = false;  // the running colour is the right operand
    };
    static constexpr int kMaxLinks = 3;
    Link links[kMaxLinks];
    int linkCount = 0;
    int partAt = -1;         // If: its Else (or EndIf); Loop: its LoopTest
    int endAt = -1;          // If: its EndIf; Loop: its EndLoop
};

// Where a slot's row comes from when a tile binds the program.
struct KelSlot {
    enum class Kind : uint8_t { Temporary, Literal, Variable, CurrentPixel, Image } kind;
    int type;            // KelValueTypes::Float, Color or Image
    int variable = -1;   // Variable, CurrentPixel, Image: the variable's id
    float value = 0.0f;  // Literal
};

// A variable that the program declares: made, if the tile has not yet, as the declaration
// makes it.
struct KelDeclaredVariable {
    int id;
    int type;
    int writable;
};

class KelProgram {
public:
    const std::vector<KelSlot>& slots() const { return _slots; }
    const std::vector<KelInstruction>& code() const { return _code; }
    const std::vector<KelDeclaredVariable>& declared() const { return _declared; }
    const std::vector<int>& images() const { return _images; }
    const std::vector<int>& storedVariables() const { return _stored; }
    int maskCount() const { return _maskCount; }
    // Columns per strip, chosen for the program when it is finished.
    int stripWidth() const { return _stripWidth; }
    // In a program of narrow strips, the slots of the colour rows that it streams through, read
    // and written (kelProgram.cpp).
    const std::vector<int>& streamedReads() const { return _streamedReads; }
    const std::vector<int>& streamedWrites() const { return _streamedWrites; }

    // True when, run under a full mask, the program stores into every column of `variable`
    // before anything reads it: the variable's old contents cannot show.
    bool writesBeforeReading(int variable) const;

private:
    friend class KelProgramBuilder;
    enum class Use { None, Read, Written };
    Use firstUse(int variableSlot, std::size_t begin, std::size_t end) const;

    std::vector<KelSlot> _slots;
    std::vector<KelInstruction> _code;
    std::vector<KelDeclaredVariable> _declared;
    std::vector<int> _images;  // slots of kind Image that calls read through
    std::vector<int> _stored;  // variable ids that stores write
    std::vector<int> _streamedReads, _streamedWrites;
    int _maskCount = 0;
    bool _hasLoop = false;
    int _stripWidth = 0;
};

// What the compilation needs to know of the script: the type of each variable id (from the
// static check) and which image variables are input parameters, whose value never changes.
struct KelProgramScope {
    std::vector<int> variableTypes;
    std::vector<int> imageParameters;
};

// What `fuse` carries through the tree: the scope that programs compile in, and how many
// programs the tree has so far (each program's index).
struct KelFusion {
    KelProgramScope scope;
    int programs = 0;
};

// The nodes' `compile` calls these. An expression's compile returns the slot of its value, a
// statement's kNoValue, and a node without a strip form kFails; a failed statement leaves the
// program as it was before it (`begin` and `commit` or `rollBack`).
class KelProgramBuilder {
public:
    static constexpr int kFails = -1;
    static constexpr int kNoValue = -2;

    explicit KelProgramBuilder(const KelProgramScope& scope);

    bool empty() const { return _program->_code.empty(); }
    std::unique_ptr<KelProgram> finish();

    // A statement at a time: everything since `begin` is kept or taken back.
    void begin();
    void commit();
    void rollBack();

    int typeOf(int slot) const { return _program->_slots[std::size_t(slot)].type; }

    // Operands.
    int literal(float value);
    int variable(int id);  // float, colour, or an input image (for `sample`)
    int currentPixel(int image);  // sample(image): the input's current row itself

    // Steps: an operation of IxScanlineUtil over the strip, the result in a new temporary.
    template <class D, class A, class B>
    int binary(void (*operation)(IxScanline<D>&, const IxScanline<A>&, const IxScanline<B>&, const GeInterval<int>*),
               int a, int b) {
        const auto any = reinterpret_cast<KelInstruction::AnyFunction>(operation);
        if constexpr (std::is_same_v<D, Color>) {
            const int chained = colorArithmetic(any, a, b);
            if (chained != kNotFused) return chained;
        }
        if constexpr (std::is_same_v<A, float> && std::is_same_v<B, float>) {
            const int compared = channelComparison(any, a, b);
            if (compared != kNotFused) return compared;
        }
        const int operands[] = {a, b};
        return step(&runBinary<D, A, B>, any, typeNumber<D>(), operands, 2);
    }
    template <class D, class S>
    int unary(void (*operation)(IxScanline<D>&, const IxScanline<S>&, const GeInterval<int>*), int a) {
        return step(&runUnary<D, S>, reinterpret_cast<KelInstruction::AnyFunction>(operation), typeNumber<D>(), &a, 1);
    }
    // A channel of a colour (0 red to 3 alpha): a step of its own, so that a comparison of it
    // with a constant, a keyer's test, reads the colours and writes the answer in one pass.
    int channel(int color, int index);
    // A built-in's kernel over its argument slots; `image` is the slot of its image argument.
    // `addInto`, when given, adds the call's colours to the result row's (result = result + colour),
    // so that a colour variable's `+=` of the call is that kernel alone.
    int call(KelRowKernel kernel, int resultType, const std::vector<int>& arguments, int image = -1,
             KelRowKernel addInto = nullptr);

    // Statements. A store is masked by the strip's mask, a declaration is not.
    template <class D, class S>
    int store(void (*operation)(IxScanline<D>&, const IxScanline<S>&, const IxScanline<float>*, const GeInterval<int>*),
              int variable, int value, bool plainAssignment) {
        return addStore(&runStore<D, S>, reinterpret_cast<KelInstruction::AnyFunction>(operation), variable, value,
                        plainAssignment, plainAssignment && typeNumber<D>() == typeNumber<S>());
    }
    int declare(int id, int type, int writable);
    // A value that nothing uses: its temporary is free again, and the step that computed it, which
    // has no other effect, goes (the old value of a statement `i++`).
    void discard(int slot);

    // Control flow: If [then] Else [else] EndIf; Loop [condition] LoopTest [body] EndLoop.
    void beginIf(int condition);
    void beginElse();
    void endIf();
    void beginLoop();
    void loopTest(int condition);
    void endLoop();

private:
    template <class T>
    static constexpr int typeNumber() {
        return KelTypeTraits<T>::type;
    }
    template <class D, class A, class B>
    static void runBinary(const KelInstruction& in, KelProgramRun& run, void* destination, const GeInterval<int>& strip,
                          const KelStripMask&);
    template <class D, class S>
    static void runUnary(const KelInstruction& in, KelProgramRun& run, void* destination, const GeInterval<int>& strip,
                         const KelStripMask&);
    template <class D, class S>
    static void runStore(const KelInstruction& in, KelProgramRun& run, void* destination, const GeInterval<int>& strip,
                         const KelStripMask& mask);

    int step(KelInstruction::Run run, KelInstruction::AnyFunction operation, int resultType, const int* operands,
             std::size_t count);
    // Colour arithmetic goes into chains: a link added to the chain that gave one operand just
    // before, or a new chain. kNotFused for any other operation.
    static constexpr int kNotFused = -3;
    int colorArithmetic(KelInstruction::AnyFunction operation, int a, int b);
    // A comparison of the channel that the step just before read with a constant becomes part of
    // that step. kNotFused for any other operation or operands.
    int channelComparison(KelInstruction::AnyFunction operation, int a, int b);
    int addStore(KelInstruction::Run run, KelInstruction::AnyFunction operation, int variable, int value,
                 bool plainAssignment, bool direct);
    bool addsInto(KelInstruction::AnyFunction operation, int variable, int value);
    void noteStored(int variable);
    KelInstruction& append(KelInstruction::Kind kind);
    void markPart(bool end);
    int newSlot(const KelSlot& slot);
    int temporary(int type);
    void release(int slot);
    bool isConstant(int slot) const;
    bool counts(std::size_t loop) const;

    const KelProgramScope& _scope;
    std::unique_ptr<KelProgram> _program;
    std::vector<int> _freeTemporaries;   // slots of temporaries not in use
    std::vector<bool> _constantSlots;    // literals and results of constant steps
    std::vector<std::size_t> _openControl;  // If and Loop instructions not yet closed
    std::size_t _declaredAt = 0;             // the last Declare instruction, and its variable
    int _declaredSlot = -1;
    struct Mark {
        std::size_t slots, code, declared, images, stored;
        int masks;
        std::vector<int> freeTemporaries;
        std::size_t openControl;
        bool hasLoop;
    } _mark{};
};

// Whether a condition holds at every column of a strip, or at none.
struct KelUniformity {
    bool allTrue = false, allFalse = false;
};

// A program bound to one tile's context: the rows of its slots, its masks, its images. Made
// the first time the program runs in a context, it lives as long as the context.
class KelProgramRun {
public:
    KelProgramRun(const KelProgram& program, KelContext& context);
    // False when the context holds something the program was not compiled for (an image
    // variable that is not one input): the statements then run through the tree walk.
    bool usable() const { return _usable; }
    // Runs the program once over the context's row, under its current mask.
    void run(KelContext& context);

    template <class T>
    IxScanline<T>& row(int slot) {
        return *static_cast<IxScanline<T>*>(_rows[std::size_t(slot)]);
    }
    void* rowPointer(int slot) { return _rows[std::size_t(slot)]; }
    const KelImageEntry* image(int index) const { return _images[std::size_t(index)]; }
    // A channel comparison's finding over the strip it has just written, for the `if` after it.
    void noteComparison(KelUniformity found) { _lastComparison = found; }

private:
    void runRange(std::size_t begin, std::size_t end, const GeInterval<int>& strip, const KelStripMask& mask);
    std::size_t runIf(std::size_t at, const GeInterval<int>& strip, const KelStripMask& mask);
    std::size_t runLoop(std::size_t at, const GeInterval<int>& strip, const KelStripMask& mask);
    void runAssignment(const KelInstruction& in, const KelInstruction& store, const GeInterval<int>& strip,
                       const KelStripMask& mask);
    void runStore(const KelInstruction& in, const GeInterval<int>& strip, const KelStripMask& mask);
    static bool runsOf(const IxScanline<float>& row, const GeInterval<int>& strip, KelRuns& runs);
    static int firstActive(const KelStripMask& mask, const GeInterval<int>& strip);

    const KelProgram& _program;
    bool _usable = true;
    std::vector<void*> _rows;
    std::vector<std::unique_ptr<IxScanline<float>>> _floatRows;
    std::vector<std::unique_ptr<IxScanline<Color>>> _colorRows;
    std::vector<std::unique_ptr<IxScanline<float>>> _masks;
    std::vector<const KelImageEntry*> _images;
    std::vector<KelValue*> _stored;
    KelRuns _runs;
    KelUniformity _lastComparison;
};

template <class D, class A, class B>
void KelProgramBuilder::runBinary(const KelInstruction& in, KelProgramRun& run, void* destination,
                                  const GeInterval<int>& strip, const KelStripMask&) {
    using Operation = void (*)(IxScanline<D>&, const IxScanline<A>&, const IxScanline<B>&, const GeInterval<int>*);
    reinterpret_cast<Operation>(in.operation)(*static_cast<IxScanline<D>*>(destination), run.row<A>(in.operands[0]),
                                             run.row<B>(in.operands[1]), &strip);
}

template <class D, class S>
void KelProgramBuilder::runUnary(const KelInstruction& in, KelProgramRun& run, void* destination,
                                 const GeInterval<int>& strip, const KelStripMask&) {
    using Operation = void (*)(IxScanline<D>&, const IxScanline<S>&, const GeInterval<int>*);
    reinterpret_cast<Operation>(in.operation)(*static_cast<IxScanline<D>*>(destination), run.row<S>(in.operands[0]), &strip);
}

template <class D, class S>
void KelProgramBuilder::runStore(const KelInstruction& in, KelProgramRun& run, void*, const GeInterval<int>& strip,
                                 const KelStripMask& mask) {
    using Operation = void (*)(IxScanline<D>&, const IxScanline<S>&, const IxScanline<float>*, const GeInterval<int>*);
    reinterpret_cast<Operation>(in.operation)(run.row<D>(in.result), run.row<S>(in.operands[0]), mask.all ? nullptr : mask.row,
                                             &strip);
}

}  // namespace Zt
