#include "service.hpp"

#include "failure.hpp"

#include <cerrno>
#include <cstdint>
#include <iostream>

namespace bmc_sim
{
namespace
{

int logRequest(sd_bus_message* call, void* label, sd_bus_error*) noexcept
{
    std::uint8_t kind = 0;
    sd_bus_message_get_type(call, &kind);
    if (kind != SD_BUS_MESSAGE_METHOD_CALL)
    {
        return 0;
    }
    std::string line =
        std::string("bmc-sim: ") + static_cast<const char*>(label) + ": " +
        sd_bus_message_get_member(call) + ' ' + sd_bus_message_get_path(call);
    char type = 0;
    while (sd_bus_message_peek_type(call, &type, nullptr) > 0)
    {
        const char* text = nullptr;
        if (type == SD_BUS_TYPE_STRING)
        {
            sd_bus_message_read(call, "s", &text);
            line += " \"" + tools::printable(text) + '"';
        }
        else if (sd_bus_message_skip(call, nullptr) < 0)
        {
            break;
        }
    }
    std::cerr << line + '\n';
    return sd_bus_message_rewind(call, 1) < 0 ? -EBADMSG : 0;
}

} // namespace

Bus openBus(sd_event* loop, const char* label, bool verbose)
{
    sd_bus* opened = nullptr;
    check(sd_bus_open_system(&opened), "system bus");
    Bus bus(opened);
    check(sd_bus_attach_event(opened, loop, SD_EVENT_PRIORITY_NORMAL),
          "event loop");
    if (verbose)
    {
        check(sd_bus_add_filter(opened, nullptr, logRequest,
                                const_cast<char*>(label)),
              "filter");
    }
    return bus;
}

void addInterface(sd_bus* bus, const char* path, const char* interface,
                  const sd_bus_vtable* vtable, void* service)
{
    check(sd_bus_add_object_vtable(bus, nullptr, path, interface, vtable,
                                   service),
          interface);
}

} // namespace bmc_sim
