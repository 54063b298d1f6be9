#pragma once

#include <functional>

namespace quernbrook::kernels {

/// What a kernel on a large matrix calls every some ten thousand cells. It may throw, which ends
/// the kernel with its result unspecified.
using Pause = std::function<void()>;

}  // namespace quernbrook::kernels
