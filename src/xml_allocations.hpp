#pragma once

#include <libxml/xmlmemory.h>

#include <cstddef>
#include <utility>

namespace velmora
{

/** Notes whether the parser is refused memory while this object lives.
 *
 *  The parser does not always say so: an element without its name, or a
 *  search that finds nothing, would pass for what the document holds. The
 *  parser gets its memory as before, through functions that look at it.
 *
 *  An error function of the process may call the library again, so that one
 *  lives within another: each notes what happens while it is the innermost. */
class XmlAllocations
{
  public:
// Only these know of the function for atomic memory. Newer releases of the
// parser have no such function and call these deprecated.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    XmlAllocations()
    {
        if (outer_ != nullptr)
        {
            process_ = outer_->process_;
            return;
        }
        xmlGcMemGet(&process_.free, &process_.allocate,
                    &process_.allocateAtomic, &process_.reallocate,
                    &process_.duplicate);
        xmlGcMemSetup(
            process_.free, [](std::size_t size)
            { return noted(current_->process_.allocate(size)); },
            [](std::size_t size)
            { return noted(current_->process_.allocateAtomic(size)); },
            [](void* memory, std::size_t size)
            { return noted(current_->process_.reallocate(memory, size)); },
            [](const char* text)
            { return noted(current_->process_.duplicate(text)); });
    }

    XmlAllocations(const XmlAllocations&) = delete;
    XmlAllocations& operator=(const XmlAllocations&) = delete;

    ~XmlAllocations()
    {
        current_ = outer_;
        if (outer_ == nullptr)
        {
            xmlGcMemSetup(process_.free, process_.allocate,
                          process_.allocateAtomic, process_.reallocate,
                          process_.duplicate);
        }
    }
#pragma GCC diagnostic pop

    bool failed() const { return failed_; }

  private:
    /** The functions with which the process gives the parser its memory. */
    struct Process
    {
        xmlFreeFunc free = nullptr;
        xmlMallocFunc allocate = nullptr;
        xmlMallocFunc allocateAtomic = nullptr;
        xmlReallocFunc reallocate = nullptr;
        xmlStrdupFunc duplicate = nullptr;
    };

    template <typename T>
    static T* noted(T* memory)
    {
        current_->failed_ = current_->failed_ || memory == nullptr;
        return memory;
    }

    /** The innermost; null outside a call. */
    static inline XmlAllocations* current_ = nullptr;

    XmlAllocations* outer_ = std::exchange(current_, this);
    Process process_;
    bool failed_ = false;
};

} // namespace velmora
