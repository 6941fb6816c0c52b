// TEMPORARY link stubs for Part 1.2 (owner: foundation work). Delete when real.
#include "kelInterpreter.h"
#define STUB Assertions::throwProgramAborted(__FILE__, __LINE__, "not implemented")
namespace Zt {
PxImageResult KelInterpreter::eval(const RCShdPtr<PebRunInfo>&, const Vector<PxNodePtr<const PxImageProtocol>>&,
                                   const Vector<double>&, const PxRODResult&, const IxPixelFormat&, const PxImageContext&) const { STUB; }
RCShdPtr<PebRunInfo> KelInterpreter::createRunInfo(const Vector<PebParameterInfo>&) const { STUB; }
}  // namespace Zt
