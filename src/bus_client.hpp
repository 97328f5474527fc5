#pragma once

#include "log.hpp"

#include <sdbusplus/bus.hpp>
#include <sdbusplus/exception.hpp>
#include <sdbusplus/message.hpp>

#include <exception>

/** Newer revisions of the binding open the connection through the bus type
 *  itself. This template loses against the older revisions' free function of
 *  the same name, and is all there is where that function is gone. It stands
 *  at the top level so that both are found by the same look-up. */
namespace velmora_newer_binding
{
template <typename Bus = sdbusplus::bus_t>
Bus new_default_system()
{
    return Bus::new_default_system();
}
} // namespace velmora_newer_binding

namespace velmora
{

/** Takes this thread's default system-bus connection for one call. */
inline sdbusplus::bus_t openSystemBus()
{
    using namespace sdbusplus::bus;
    using namespace velmora_newer_binding;
    return new_default_system();
}

/** Reports a caught bus error; the caller then returns its failure value. */
inline void reportBusError(const std::exception& e, int line = __builtin_LINE())
{
    cerrInfo("e.what(): ", e.what(), line);
    cerrFailure(line);
}

} // namespace velmora
