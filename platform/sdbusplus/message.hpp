#pragma once

#include <sdbusplus/exception.hpp>
#include <systemd/sd-bus.h>

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <variant>
#include <vector>

/** @file Messages of the bus binding, for machines without sdbusplus. */

namespace sdbusplus::message
{

namespace details
{

/** D-Bus signature of a type that a variant can hold. */
template <typename T>
inline constexpr const char* SIGNATURE = nullptr;
template <>
inline constexpr const char* SIGNATURE<std::string> = "s";
template <>
inline constexpr const char* SIGNATURE<std::vector<std::uint8_t>> = "ay";

/** @throws exception::SdBusError for a negative @p result */
inline int check(int result, const char* step)
{
    if (result < 0)
    {
        throw exception::SdBusError(-result, step);
    }
    return result;
}

inline void append(sd_bus_message* m, const char* text)
{
    sd_bus_message_append_basic(m, 's', text);
}

inline void append(sd_bus_message* m, const std::string& text)
{
    append(m, text.c_str());
}

inline void append(sd_bus_message* m, bool value)
{
    const int wide = value ? 1 : 0;
    sd_bus_message_append_basic(m, 'b', &wide);
}

inline void append(sd_bus_message* m, std::uint32_t value)
{
    sd_bus_message_append_basic(m, 'u', &value);
}

inline void append(sd_bus_message* m, const std::vector<std::uint8_t>& bytes)
{
    sd_bus_message_open_container(m, 'a', "y");
    for (const std::uint8_t byte : bytes)
    {
        sd_bus_message_append_basic(m, 'y', &byte);
    }
    sd_bus_message_close_container(m);
}

inline void read(sd_bus_message* m, std::string& text)
{
    const char* raw = nullptr;
    check(sd_bus_message_read_basic(m, 's', &raw),
          "sd_bus_message_read_basic string");
    text = raw != nullptr ? raw : "";
}

inline void read(sd_bus_message* m, std::uint8_t& value)
{
    check(sd_bus_message_read_basic(m, 'y', &value),
          "sd_bus_message_read_basic fundamental");
}

inline void read(sd_bus_message* m, std::uint32_t& value)
{
    check(sd_bus_message_read_basic(m, 'u', &value),
          "sd_bus_message_read_basic fundamental");
}

inline void read(sd_bus_message* m, std::vector<std::uint8_t>& bytes)
{
    check(sd_bus_message_enter_container(m, 'a', "y"),
          "sd_bus_message_enter_container emplace_back_container");
    while (check(sd_bus_message_at_end(m, 0),
                 "sd_bus_message_at_end emplace_back_container") == 0)
    {
        std::uint8_t byte = 0;
        read(m, byte);
        bytes.push_back(byte);
    }
    check(sd_bus_message_exit_container(m),
          "sd_bus_message_exit_container emplace_back_container");
}

template <typename T>
void read(sd_bus_message* m, std::variant<T>& value)
{
    if (check(sd_bus_message_verify_type(m, 'v', SIGNATURE<T>),
              "sd_bus_message_verify_type variant") == 0)
    {
        check(sd_bus_message_skip(m, "v"), "sd_bus_message_skip variant");
        value = T{};
        return;
    }
    check(sd_bus_message_enter_container(m, 'v', SIGNATURE<T>),
          "sd_bus_message_enter_container variant");
    T content{};
    read(m, content);
    value = std::move(content);
    check(sd_bus_message_exit_container(m),
          "sd_bus_message_exit_container variant");
}

} // namespace details

/** One message, owned. */
class message
{
  public:
    /** @param raw a message whose reference is taken over, or null */
    explicit message(sd_bus_message* raw = nullptr) : raw_(raw) {}

    /** Appends the arguments in order, each with its own D-Bus type. As with
     *  the binding, the results of appending are not looked at. */
    template <typename... Args>
    void append(const Args&... args)
    {
        (details::append(raw_.get(), args), ...);
    }

    /** Reads the arguments in order; a byte array is appended to the vector.
     *  @throws exception::SdBusError with the name of the step that failed */
    template <typename... Args>
    void read(Args&... args)
    {
        (details::read(raw_.get(), args), ...);
    }

    /** The message itself, still owned. */
    sd_bus_message* get() const { return raw_.get(); }

  private:
    struct Unref
    {
        void operator()(sd_bus_message* raw) const
        {
            sd_bus_message_unref(raw);
        }
    };
    std::unique_ptr<sd_bus_message, Unref> raw_;
};

} // namespace sdbusplus::message

namespace sdbusplus
{
using message_t = message::message;
} // namespace sdbusplus
