#include "target.hpp"

#include <fstream>
#include <iostream>
#include <iterator>

namespace fs = std::filesystem;

/** Gives every file of the named directories to the target once; a directory
 *  that is not there counts as empty. */
int main(int argc, char* argv[])
{
    int count = 0;
    for (const std::string directory : std::span(argv + 1, argv + argc))
    {
        std::error_code absent;
        for (const auto& entry : fs::directory_iterator(directory, absent))
        {
            std::cout << entry.path().string() << '\n' << std::flush;
            std::ifstream file(entry.path(), std::ios::binary);
            const std::string input{std::istreambuf_iterator<char>(file), {}};
            LLVMFuzzerTestOneInput(
                reinterpret_cast<const std::uint8_t*>(input.data()),
                input.size());
            ++count;
        }
    }
    std::cout << count << " inputs\n";
    return count != 0 ? 0 : 1;
}
