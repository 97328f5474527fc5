#pragma once

#include <unistd.h>

#include <utility>

namespace bmc_sim
{

/** Stateless deleter made from the release function of a C object. */
template <auto Release>
struct Releaser
{
    template <typename Object>
    void operator()(Object* object) const noexcept
    {
        Release(object);
    }
};

class FileDescriptor
{
  public:
    FileDescriptor() = default;
    explicit FileDescriptor(int descriptor) noexcept : number(descriptor) {}
    FileDescriptor(FileDescriptor&& other) noexcept :
        number(std::exchange(other.number, -1))
    {
    }
    FileDescriptor& operator=(FileDescriptor&& other) noexcept
    {
        std::swap(number, other.number);
        return *this;
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor() { reset(); }

    [[nodiscard]] int get() const noexcept { return number; }

    void reset() noexcept
    {
        if (number >= 0)
        {
            ::close(std::exchange(number, -1));
        }
    }

  private:
    int number = -1;
};

} // namespace bmc_sim
