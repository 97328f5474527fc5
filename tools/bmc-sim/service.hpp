#pragma once

#include "handles.hpp"

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <cstdint>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>

namespace bmc_sim
{

using Bus = std::unique_ptr<sd_bus, Releaser<sd_bus_flush_close_unref>>;
using BusSlot = std::unique_ptr<sd_bus_slot, Releaser<sd_bus_slot_unref>>;
using EventLoop = std::unique_ptr<sd_event, Releaser<sd_event_unref>>;
using Message = std::unique_ptr<sd_bus_message, Releaser<sd_bus_message_unref>>;

/** Throws std::system_error when a step of sd-bus failed. */
int check(int result, const char* step);

/** A request that a service refuses, with the D-Bus error it answers. */
class Refusal : public std::runtime_error
{
  public:
    Refusal(const char* errorName, const std::string& text) :
        std::runtime_error(text), busName(errorName)
    {
    }

    [[nodiscard]] const char* name() const noexcept { return busName; }

  private:
    const char* busName;
};

constexpr auto invalidArgument =
    "xyz.openbmc_project.Common.Error.InvalidArgument";
constexpr auto notAllowed = "xyz.openbmc_project.Common.Error.NotAllowed";
constexpr auto resourceNotFound =
    "xyz.openbmc_project.Common.Error.ResourceNotFound";
constexpr auto unavailable = "xyz.openbmc_project.Common.Error.Unavailable";

/** Makes a method handler for sd-bus from a member function that replies
 *  itself, or throws. */
template <typename Service, void (Service::*Method)(sd_bus_message*)>
int handle(sd_bus_message* call, void* service, sd_bus_error* error) noexcept
{
    try
    {
        (static_cast<Service*>(service)->*Method)(call);
        return 1;
    }
    catch (const Refusal& refusal)
    {
        return sd_bus_error_set(error, refusal.name(), refusal.what());
    }
    catch (const std::exception& failure)
    {
        return sd_bus_error_set(error, SD_BUS_ERROR_FAILED, failure.what());
    }
}

/** The next argument of a call, a string or an array of bytes; it lives as
 *  long as the message. */
const char* readString(sd_bus_message* call);
std::span<const std::uint8_t> readBytes(sd_bus_message* call);

/** A connection to the bus of its own for the service `label`; with
 *  `verbose` it logs each request. `label` has to outlive it. */
Bus openBus(sd_event* loop, const char* label, bool verbose);

void addInterface(sd_bus* bus, const char* path, const char* interface,
                  const sd_bus_vtable* vtable, void* service);

} // namespace bmc_sim
