#include "service.hpp"

#include <algorithm>
#include <cctype>
#include <iostream>
#include <system_error>

namespace bmc_sim
{
namespace
{

/** A string for the log, which has one line for each request. */
std::string quoted(std::string text)
{
    std::ranges::replace_if(
        text, [](unsigned char c) { return std::iscntrl(c) != 0; }, '?');
    return " \"" + text + '"';
}

std::string nextArgument(sd_bus_message* call, char type,
                         const std::string& contents)
{
    if (type == SD_BUS_TYPE_STRING || type == SD_BUS_TYPE_OBJECT_PATH)
    {
        const char* text = nullptr;
        check(sd_bus_message_read_basic(call, type, &text), "read");
        return quoted(text);
    }
    if (type == SD_BUS_TYPE_BOOLEAN)
    {
        int value = 0;
        check(sd_bus_message_read_basic(call, type, &value), "read");
        return value != 0 ? " true" : " false";
    }
    if (type == SD_BUS_TYPE_UINT32)
    {
        std::uint32_t value = 0;
        check(sd_bus_message_read_basic(call, type, &value), "read");
        return ' ' + std::to_string(value);
    }
    if (type == SD_BUS_TYPE_ARRAY && contents == "y")
    {
        return " [" + std::to_string(readBytes(call).size()) + " bytes]";
    }
    check(sd_bus_message_skip(call, nullptr), "skip");
    return " ...";
}

std::string describe(sd_bus_message* call)
{
    std::string line = std::string(sd_bus_message_get_member(call)) + ' ' +
                       sd_bus_message_get_path(call);
    char type = 0;
    const char* contents = nullptr;
    while (sd_bus_message_peek_type(call, &type, &contents) > 0)
    {
        line += nextArgument(call, type, contents != nullptr ? contents : "");
    }
    check(sd_bus_message_rewind(call, 1), "rewind");
    return line;
}

int logRequest(sd_bus_message* call, void* label, sd_bus_error*) noexcept
{
    std::uint8_t type = 0;
    sd_bus_message_get_type(call, &type);
    if (type == SD_BUS_MESSAGE_METHOD_CALL)
    {
        std::cerr << std::string("bmc-sim: ") +
                         static_cast<const char*>(label) + ": " +
                         describe(call) + '\n';
    }
    return 0;
}

} // namespace

int check(int result, const char* step)
{
    if (result < 0)
    {
        throw std::system_error(-result, std::generic_category(), step);
    }
    return result;
}

const char* readString(sd_bus_message* call)
{
    const char* text = nullptr;
    check(sd_bus_message_read_basic(call, SD_BUS_TYPE_STRING, &text),
          "read a string");
    return text;
}

std::span<const std::uint8_t> readBytes(sd_bus_message* call)
{
    const void* bytes = nullptr;
    std::size_t size = 0;
    check(sd_bus_message_read_array(call, SD_BUS_TYPE_BYTE, &bytes, &size),
          "read bytes");
    return {static_cast<const std::uint8_t*>(bytes), size};
}

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
