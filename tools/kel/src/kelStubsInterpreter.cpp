// TEMPORARY link stubs for kelInterpreter.h (owners: parse -> front-end work (Part 1.1);
// eval and createRunInfo -> foundation work (Part 1.2)). Delete each part when real.
#include "kelInterpreter.h"
#define STUB Assertions::throwProgramAborted(__FILE__, __LINE__, "not implemented")
namespace Zt {
// -- Part 1.1 (front-end work)
bool KelInterpreter::parse(const std::string&, const RCShdPtr<PebRunInfo>&, Vector<PebError>*) const { STUB; }
// -- Part 1.2 (foundation work)
PxImageResult KelInterpreter::eval(const RCShdPtr<PebRunInfo>&, const Vector<PxNodePtr<const PxImageProtocol>>&,
                                   const Vector<double>&, const PxRODResult&, const IxPixelFormat&, const PxImageContext&) const { STUB; }
RCShdPtr<PebRunInfo> KelInterpreter::createRunInfo(const Vector<PebParameterInfo>& params) const { STUB; }
}  // namespace Zt
