#include "ZtCore.h"

#include <cxxabi.h>

#include <atomic>
#include <cstdlib>
#include <thread>

namespace Zt {

ExBase::ExBase(std::string file, int line, std::string reason)
    : _file(std::move(file)), _sourceLine(line), _reason(std::move(reason)) {}
ExBase::~ExBase() = default;
ExBase* ExBase::clone() const { return new ExBase(*this); }
void ExBase::raise() const { throw *this; }

#define ZT_EX_IMPL(Name)                                  \
    ExBase* Name::clone() const { return new Name(*this); } \
    void Name::raise() const { throw *this; }
ZT_EX_IMPL(ExAssertionFailed)
ZT_EX_IMPL(ExNullPtr)
ZT_EX_IMPL(ExCastFailed)
ZT_EX_IMPL(ExProgramAborted)
ZT_EX_IMPL(ExCancelled)
#undef ZT_EX_IMPL

void Assertions::throwAssertionFailed(const char* file, int line, const char* text) {
    throw ExAssertionFailed(file, line, text);
}
void Assertions::throwProgramAborted(const char* file, int line, const char* text) {
    throw ExProgramAborted(file, line, text);
}

namespace {

// typeid names are mangled by the ABI; a message names the type as the source does.
std::string readableTypeName(const char* mangled) {
    int status = 0;
    char* readable = abi::__cxa_demangle(mangled, nullptr, nullptr, &status);
    std::string name = status == 0 && readable ? readable : mangled;
    std::free(readable);
    return name;
}

}  // namespace

void RCExUtil::throwExNullPtr(const char* typeName) {
    throw ExNullPtr("host/ZtRC", 0, "Null pointer: " + readableTypeName(typeName));
}
void RCExUtil::throwExCastFailed(const char* fromType, const char* toType) {
    throw ExCastFailed("host/ZtRC", 0, "Cast failed from " + readableTypeName(fromType) + " to " + readableTypeName(toType));
}

float LiStringUtil::convertToFloat(const std::string& text) { return std::strtof(text.c_str(), nullptr); }
std::string LiStringUtil::convertNb(int number) { return std::to_string(number); }

namespace {
std::atomic<std::thread::id>& appThread() {
    static std::atomic<std::thread::id> id{std::this_thread::get_id()};
    return id;
}
// Claim the loading thread at library load.
[[maybe_unused]] const bool claimed = (appThread().load(), true);
}  // namespace

bool PiAppThread::isCurrent() { return appThread().load() == std::this_thread::get_id(); }
void PiAppThread::setCurrent() { appThread().store(std::this_thread::get_id()); }

}  // namespace Zt
