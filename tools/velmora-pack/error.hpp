#pragma once

#include "common/error.hpp"
#include "common/handles.hpp"

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace pack
{

using tools::Error;
using tools::FileDescriptor;
using tools::Handle;
using tools::printable;
using tools::systemError;

/** What a machine would refuse, or take otherwise than was meant. */
using Remarks = std::vector<std::string>;

/** The one line of a success. */
void report(const std::filesystem::path& made, std::string_view what);

void warn(std::string_view subject, std::string_view what);

} // namespace pack
