// TEMPORARY link stub for Part 1.1 parse (owner: front-end work). Delete when real.
#include "kelInterpreter.h"
#define STUB Assertions::throwProgramAborted(__FILE__, __LINE__, "not implemented")
namespace Zt {
bool KelInterpreter::parse(const std::string&, const RCShdPtr<PebRunInfo>&, Vector<PebError>*) const { STUB; }
}  // namespace Zt
