#pragma once

#include <functional>
#include <string>

/** @file What the library writes while it works, kept apart from the answer. */

namespace velmora::front
{

/** A log that was caught during one piece of work. */
class LibraryLog
{
  public:
    explicit LibraryLog(std::string text) : text_(std::move(text)) {}

    const std::string& text() const { return text_; }

    bool has(const std::string& part) const
    {
        return text_.find(part) != std::string::npos;
    }

    /** Text of the last caught bus error, empty when there was none. */
    std::string busError() const;

    /** Message of the last stderr-style FAILURE line, or empty. */
    std::string lastFailure() const;

    /** Number of cerr-style FAILURE lines. */
    std::size_t failures() const;

  private:
    std::string text_;
};

/** Runs @p work with the descriptors of stdout and stderr led into memory, so
 *  that neither the library nor a program that it starts mixes with the
 *  answer. The text goes to stderr afterwards when @p verbose, also when the
 *  work throws.
 *
 *  @throws tools::Error when the descriptors cannot be had; whatever the
 *          work throws */
LibraryLog caught(bool verbose, const std::function<void()>& work);

} // namespace velmora::front
