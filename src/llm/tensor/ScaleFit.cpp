#include "llm/tensor/ScaleFit.h"

#include <algorithm>
#include <cmath>

namespace parlune::llm::detail {

// Tries a range of grid spacings and refines each by least squares; keeps the one with the
// smallest error.
void fitScaleOffset(const float* x, int n, int nmax, float& scale, float& offset) {
    float lo = 0.0f;
    float hi = x[0];
    for (int i = 0; i < n; ++i) {
        lo = std::min(lo, x[i]);
        hi = std::max(hi, x[i]);
    }
    if (hi <= lo) {
        scale = 0.0f;
        offset = -lo;
        return;
    }
    float bestErr = INFINITY;
    scale = (hi - lo) / static_cast<float>(nmax);
    offset = -lo;
    for (int step = -6; step <= 12; ++step) {
        const float iscale = (static_cast<float>(nmax) + 0.1f * static_cast<float>(step)) / (hi - lo);
        double sq = 0, sqq = 0, sx = 0, sqx = 0;
        int q[256];
        for (int i = 0; i < n; ++i) {
            q[i] = std::clamp(static_cast<int>(std::lround((x[i] - lo) * iscale)), 0, nmax);
            sq += q[i];
            sqq += static_cast<double>(q[i]) * q[i];
            sx += x[i];
            sqx += q[i] * static_cast<double>(x[i]);
        }
        // Least squares for x = s * q + m.
        const double det = n * sqq - sq * sq;
        double s, m;
        if (det > 0) {
            s = (n * sqx - sq * sx) / det;
            m = (sqq * sx - sq * sqx) / det;
        } else {
            s = 0;
            m = sx / n;
        }
        if (m > 0) { // the offset may only lower values
            m = 0;
            s = sqq > 0 ? sqx / sqq : 0;
        }
        if (s < 0)
            continue;
        double err = 0;
        for (int i = 0; i < n; ++i) {
            const double e = s * q[i] + m - x[i];
            err += e * e;
        }
        if (err < bestErr) {
            bestErr = static_cast<float>(err);
            scale = static_cast<float>(s);
            offset = static_cast<float>(-m);
        }
    }
}

} // namespace parlune::llm::detail
