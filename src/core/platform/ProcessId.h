#pragma once

#include <cstdint>

namespace parlune {

// Operating-system process identifier of another application.
using ProcessId = std::int32_t;

} // namespace parlune
