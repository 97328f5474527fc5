#include "inventory.hpp"

#include <cstdio>

/** @file A daemon on a platform whose own header lacks this system's purposes.
 */

int main()
{
    constexpr int LEAKMCU = 14;
    constexpr const char* PATH = "/xyz/openbmc_project/inventory/system/leak";
    if (!publish(PATH, "leak", "1.2", LEAKMCU) || modelOf(PATH) != "leak")
    {
        std::fputs("a purpose that the platform lacks is not published\n",
                   stderr);
        return 1;
    }
    return 0;
}
