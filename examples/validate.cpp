#include <velmora.hpp>

#include <exception>
#include <iostream>

/** @file The least that a daemon does with the library: unpacks a package into
 *  an empty directory and has it judged. update_daemon/ shows what belongs
 *  around that. */

int main(int argc, char** argv)
try
{
    if (argc != 3)
    {
        std::cerr << "usage: validate PACKAGE DIRECTORY\n";
        return 2;
    }
    const bool trusted = ValidateQOR::unZip(argv[1], argv[2]) &&
                         ValidateQOR::validateExtractedQOR(argv[2]);
    std::cout << (trusted ? "accepted\n" : "refused\n");
    return trusted ? 0 : 1;
}
catch (const std::exception& e)
{
    std::cerr << "refused: " << e.what() << '\n';
    return 1;
}
