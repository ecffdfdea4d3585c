// Message types as the logger finds them. Private to this folder.
#pragma once

#include <cstdint>

#include "veskrt/log.h"

namespace vesk::logging {

// The type with this identifier; null while it is not registered whole.
const LogMessageDefinition* findMessageType(std::uint32_t messageId) noexcept;

// Logger handles given out so far, the library's own included: 1 to 16.
std::int32_t loggerHandleCount() noexcept;

} // namespace vesk::logging
