#pragma once

#include <systemd/sd-bus.h>

#include <cerrno>
#include <exception>
#include <string>
#include <utility>

/** @file Exceptions of the bus binding, for machines without sdbusplus. */

// The daemon catches these types across the library's border.
#pragma GCC visibility push(default)

namespace sdbusplus::exception
{

/** A fault on the bus. */
struct exception : public std::exception
{
    /** @return the D-Bus error name, owned by the exception. */
    virtual const char* name() const noexcept = 0;
    /** @return the human-readable cause, owned by the exception. */
    virtual const char* description() const noexcept = 0;
    /** @return a positive errno value. */
    virtual int get_errno() const noexcept = 0;
};

/** A fault that the binding itself found. */
struct internal_exception : public exception
{
};

/** A step of sd-bus that failed. */
class SdBusError final : public internal_exception
{
  public:
    /** @param error a positive errno value
     *  @param step the sd-bus function that gave it */
    SdBusError(int error, const char* step)
    {
        sd_bus_error_set_errno(&error_, error);
        describe(step);
    }

    /** @param error taken over; null afterwards
     *  @param step the sd-bus function that gave it */
    SdBusError(sd_bus_error* error, const char* step)
    {
        sd_bus_error_move(&error_, error);
        describe(step);
    }

    SdBusError(const SdBusError&) = delete;
    SdBusError& operator=(const SdBusError&) = delete;

    SdBusError(SdBusError&& other) noexcept : what_(std::move(other.what_))
    {
        sd_bus_error_move(&error_, &other.error_);
    }

    ~SdBusError() override { sd_bus_error_free(&error_); }

    const char* name() const noexcept override { return error_.name; }

    const char* description() const noexcept override { return error_.message; }

    int get_errno() const noexcept override
    {
        return sd_bus_error_get_errno(&error_);
    }

    const char* what() const noexcept override { return what_.c_str(); }

  private:
    void describe(const char* step)
    {
        try
        {
            what_ = step;
            for (const char* part : {error_.name, error_.message})
            {
                if (part != nullptr)
                {
                    what_.append(": ").append(part);
                }
            }
        }
        catch (...)
        {
            // No destructor runs for an object that was not completed.
            sd_bus_error_free(&error_);
            throw;
        }
    }

    sd_bus_error error_{};
    std::string what_;
};

/** A string from the bus that names no enumerator. */
class InvalidEnumString final : public internal_exception
{
  public:
    const char* name() const noexcept override
    {
        return "xyz.openbmc_project.sdbusplus.Error.InvalidEnumString";
    }

    const char* description() const noexcept override
    {
        return "The string names no value of the enumeration.";
    }

    int get_errno() const noexcept override { return EINVAL; }

    const char* what() const noexcept override
    {
        return "xyz.openbmc_project.sdbusplus.Error.InvalidEnumString: "
               "The string names no value of the enumeration.";
    }
};

} // namespace sdbusplus::exception

#pragma GCC visibility pop
