// TEMPORARY: PxImageTexture (foundation work replaces this with the bilinear sampler).
#include "PxImage.h"
namespace Zt {
PxImageTexture::PxImageTexture(const PxNodePtr<const PxImageProtocol>& node, const PxTimeScaleContext& context,
                               const SdTextureParams& params) : _node(node), _context(context), _params(params) {}
RCStrongPtr<const SdTextureSampler> PxImageTexture::createSampler() const {
    Assertions::throwProgramAborted(__FILE__, __LINE__, "not implemented");
}
}  // namespace Zt
