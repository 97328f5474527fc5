#include "error.hpp"

#include <iostream>

namespace pack
{

void report(const std::filesystem::path& made, std::string_view what)
{
    std::cout << "velmora-pack: " << printable(made.string()) << ": "
              << printable(what) << '\n';
}

void warn(std::string_view subject, std::string_view what)
{
    std::cerr << "velmora-pack: warning: " << printable(subject) << ": "
              << printable(what) << '\n';
}

} // namespace pack
