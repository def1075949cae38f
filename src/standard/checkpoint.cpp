// checkpoint.cpp - see checkpoint.h.
#include "checkpoint.h"

namespace tarn::standard {

void Checkpointer::step() noexcept {}

} // namespace tarn::standard
