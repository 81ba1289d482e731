#pragma once

namespace parlune::llm::detail {

// Fits x ~ scale * q - offset over one sub-block of `n` values (n <= 256), q in [0, nmax],
// offset >= 0: the affine K-quant formats store a scale and an offset per sub-block.
void fitScaleOffset(const float* x, int n, int nmax, float& scale, float& offset);

} // namespace parlune::llm::detail
