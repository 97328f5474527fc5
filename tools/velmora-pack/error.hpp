#pragma once

#include "common/error.hpp"
#include "common/handles.hpp"

#include <string_view>

namespace pack
{

using tools::Error;
using tools::FileDescriptor;
using tools::Handle;
using tools::printable;
using tools::systemError;

void warn(std::string_view subject, std::string_view what);

} // namespace pack
