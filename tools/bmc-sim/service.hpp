#pragma once

#include "process.hpp"

#include <systemd/sd-bus.h>

namespace bmc_sim
{

using Bus = tools::Handle<sd_bus, sd_bus_flush_close_unref>;
using BusSlot = tools::Handle<sd_bus_slot, sd_bus_slot_unref>;
using Message = tools::Handle<sd_bus_message, sd_bus_message_unref>;

// The D-Bus errors with which the services refuse.
constexpr auto INVALID_ARGUMENT =
    "xyz.openbmc_project.Common.Error.InvalidArgument";
constexpr auto NOT_ALLOWED = "xyz.openbmc_project.Common.Error.NotAllowed";
constexpr auto RESOURCE_NOT_FOUND =
    "xyz.openbmc_project.Common.Error.ResourceNotFound";
constexpr auto UNAVAILABLE = "xyz.openbmc_project.Common.Error.Unavailable";

/** A connection to the bus of its own for the service @p label, which has to
 *  outlive it; with @p verbose it logs each request. */
Bus openBus(sd_event* loop, const char* label, bool verbose);

void addInterface(sd_bus* bus, const char* path, const char* interface,
                  const sd_bus_vtable* vtable, void* service);

} // namespace bmc_sim
