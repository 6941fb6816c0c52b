// The host framework's general services that the engine calls: the vector, the exception base, assertions, counted-pointer failures, string
// conversions and the application thread.
#pragma once

#include <exception>
#include <string>
#include <vector>

namespace Zt {

template <class T>
using Vector = std::vector<T>;

// The framework's exception base. `clone` copies the exception on the heap and `raise` throws
// a copy of it; derived exceptions override both (KelParseEx does).
class ExBase : public std::exception {
public:
    ExBase(std::string file, int line, std::string reason);
    ~ExBase() override;
    const std::string& getReason() const { return _reason; }
    const std::string& getFile() const { return _file; }
    int getSourceLine() const { return _sourceLine; }
    const char* what() const noexcept override { return _reason.c_str(); }
    virtual ExBase* clone() const;
    [[noreturn]] virtual void raise() const;

private:
    std::string _file;
    int _sourceLine;
    std::string _reason;
};

// A programming fault: an assertion, a null pointer, a failed cast, an abort.
class ExAssertionFailed : public ExBase { public: using ExBase::ExBase; ExBase* clone() const override; [[noreturn]] void raise() const override; };
class ExNullPtr : public ExBase { public: using ExBase::ExBase; ExBase* clone() const override; [[noreturn]] void raise() const override; };
class ExCastFailed : public ExBase { public: using ExBase::ExBase; ExBase* clone() const override; [[noreturn]] void raise() const override; };
class ExProgramAborted : public ExBase { public: using ExBase::ExBase; ExBase* clone() const override; [[noreturn]] void raise() const override; };
// Thrown by PxRequestMgr::checkRequest when the render was cancelled.
class ExCancelled : public ExBase { public: using ExBase::ExBase; ExBase* clone() const override; [[noreturn]] void raise() const override; };

struct Assertions {
    // Reports the failure by throwing ExAssertionFailed whose reason is `text`.
    [[noreturn]] static void throwAssertionFailed(const char* file, int line, const char* text);
    [[noreturn]] static void throwProgramAborted(const char* file, int line, const char* text);
};

struct RCExUtil {
    [[noreturn]] static void throwExNullPtr(const char* typeName);
    [[noreturn]] static void throwExCastFailed(const char* fromType, const char* toType);
};

struct LiStringUtil {
    // Decimal text to float, as strtof (round to nearest); text that is no number gives 0.
    static float convertToFloat(const std::string& text);
    static std::string convertNb(int number);
};

// The application thread is the one that loaded the host library (the thread that started the
// host); `setCurrent` lets a host that starts elsewhere claim it.
struct PiAppThread {
    static bool isCurrent();
    static void setCurrent();
};

}  // namespace Zt
