// TEMPORARY link stub for FunctionSample (owner: evaluator work). Delete when real.
#include "kelFunctions.h"
#define STUB Assertions::throwProgramAborted(__FILE__, __LINE__, "not implemented")
namespace Zt {
void FunctionSample::declare(FunctionCallNode&) {}
RCShdPtr<KelValue> FunctionSample::eval(const FunctionCallNode&, KelContext&) { STUB; }
}  // namespace Zt
