// Makes a case that fails smaller while it goes on failing, so that somebody can read it.
#pragma once

#include "model/Description.h"

#include <functional>

namespace Velantrix::Test::Random {

/// @param fails whether a description still shows what is to be shown
Description shrink(const Description& pki, const std::function<bool(const Description&)>& fails);

}  // namespace Velantrix::Test::Random
