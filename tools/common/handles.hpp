#pragma once

#include <unistd.h>

#include <memory>
#include <utility>

namespace tools
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

/** The owner of a C object; each unit names the kinds that it uses. */
template <typename Object, auto Release>
using Handle = std::unique_ptr<Object, Releaser<Release>>;

class FileDescriptor
{
  public:
    FileDescriptor() = default;
    explicit FileDescriptor(int number) noexcept : number_(number) {}
    FileDescriptor(FileDescriptor&& other) noexcept :
        number_(std::exchange(other.number_, -1))
    {
    }
    FileDescriptor& operator=(FileDescriptor&& other) noexcept
    {
        std::swap(number_, other.number_);
        return *this;
    }
    ~FileDescriptor() { reset(); }

    int get() const noexcept { return number_; }

    void reset() noexcept
    {
        if (number_ >= 0)
        {
            close(std::exchange(number_, -1));
        }
    }

  private:
    int number_ = -1;
};

} // namespace tools
