#pragma once

#include <sdbusplus/exception.hpp>
#include <sdbusplus/message.hpp>
#include <systemd/sd-bus.h>

#include <cstdint>
#include <memory>

/** @file The bus connection of the binding, for machines without sdbusplus.
 *
 *  Only what the library calls, with the sd-bus steps of the binding. */

namespace sdbusplus::bus
{

/** One reference to a connection. */
class bus
{
  public:
    /** @param raw a connection whose reference is taken over, or null */
    explicit bus(sd_bus* raw) : raw_(raw) {}

    /** @throws exception::SdBusError ("sd_bus_message_new_method_call"),
     *          also where the connection could not be opened */
    message_t new_method_call(const char* service, const char* path,
                              const char* interface, const char* method)
    {
        sd_bus_message* raw = nullptr;
        message::details::check(
            sd_bus_message_new_method_call(raw_.get(), &raw, service, path,
                                           interface, method),
            "sd_bus_message_new_method_call");
        return message_t(raw);
    }

    /** Sends a method call and waits for its reply.
     *  @throws exception::SdBusError ("sd_bus_call") with the error reply */
    message_t call(message_t& m)
    {
        sd_bus_error error{};
        sd_bus_message* reply = nullptr;
        if (sd_bus_call(raw_.get(), m.get(), 0, &error, &reply) < 0)
        {
            throw exception::SdBusError(&error, "sd_bus_call");
        }
        return message_t(reply);
    }

  private:
    // Neither flushed nor closed: the daemon may hold the same default
    // connection on this thread.
    struct Unref
    {
        void operator()(sd_bus* raw) const { sd_bus_unref(raw); }
    };
    std::unique_ptr<sd_bus, Unref> raw_;
};

/** Takes a reference to this thread's default system-bus connection, opening
 *  it if need be. A failure shows when the first message is made. */
inline bus new_default_system()
{
    sd_bus* raw = nullptr;
    sd_bus_default_system(&raw);
    return bus(raw);
}

} // namespace sdbusplus::bus

namespace sdbusplus
{
using bus_t = bus::bus;
} // namespace sdbusplus
