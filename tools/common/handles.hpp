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
    explicit FileDescriptor(int descriptor) noexcept : descriptor_(descriptor)
    {
    }
    FileDescriptor(FileDescriptor&& other) noexcept :
        descriptor_(std::exchange(other.descriptor_, -1))
    {
    }
    FileDescriptor& operator=(FileDescriptor&& other) noexcept
    {
        std::swap(descriptor_, other.descriptor_);
        return *this;
    }
    ~FileDescriptor() { reset(); }

    int get() const noexcept { return descriptor_; }

    void reset() noexcept
    {
        if (descriptor_ >= 0)
        {
            close(std::exchange(descriptor_, -1));
        }
    }

  private:
    int descriptor_ = -1;
};

} // namespace tools
