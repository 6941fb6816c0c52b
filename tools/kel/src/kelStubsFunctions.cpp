// TEMPORARY link stubs for the catalogue and noise (owner: built-ins work). Delete when real.
#include "kelFunctions.h"
#define STUB Assertions::throwProgramAborted(__FILE__, __LINE__, "not implemented")
namespace Zt {
std::map<std::string, KelFunctionTable::Factory> KelFunctionTable::functions;
void KelFunctionTable::build() {}
KelFunctionTable::Factory KelFunctionTable::lookup(const std::string&) { return nullptr; }
float KelNoise::cornerOffsets[8][3];
float KelNoise::gradients[16][3];
int KelNoise::permutation[512];
void KelNoise::buildTables() {}
float KelNoise::noise(float, float, float) { STUB; }
}  // namespace Zt
