#pragma once

#include <unistd.h>

#include <memory>
#include <utility>

namespace pack
{

template <auto Release>
struct Releaser
{
    template <typename T>
    void operator()(T* object) const
    {
        Release(object);
    }
};

/** The owner of a C object; each unit names the kinds that it uses. */
template <typename T, auto Release>
using Handle = std::unique_ptr<T, Releaser<Release>>;

class FileDescriptor
{
  public:
    FileDescriptor() = default;
    explicit FileDescriptor(int opened) : descriptor(opened) {}
    FileDescriptor(FileDescriptor&& other) noexcept :
        descriptor(std::exchange(other.descriptor, -1))
    {
    }
    FileDescriptor& operator=(FileDescriptor&& other) noexcept
    {
        std::swap(descriptor, other.descriptor);
        return *this;
    }
    ~FileDescriptor()
    {
        if (descriptor >= 0)
        {
            close(descriptor);
        }
    }

    int get() const { return descriptor; }

  private:
    int descriptor = -1;
};

} // namespace pack
