#pragma once

#include <sdbusplus/bus.hpp>
#include <sdbusplus/exception.hpp>
#include <sdbusplus/message.hpp>

namespace velmora
{

/** Takes this thread's default system-bus connection for one call. */
inline auto openSystemBus() { return sdbusplus::bus::new_default_system(); }

} // namespace velmora
