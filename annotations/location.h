// Location expressions of annotation tables.
#pragma once

#include "annotations/byte_reader.h"
#include "veskrt/annotations.h"

namespace vesk::annotations {

// Fills the record's expression, hasLocation and location from the expression at the reader. False when the
// expression does not lie inside the reader's bytes.
bool decodeLocation(ByteReader reader, VESK_QEL_RECORD& record) noexcept;

// A comment in the log.
void note(const char* text) noexcept;

} // namespace vesk::annotations
