#pragma once

namespace bmc_services
{

/** Writes a program for the kernel's seccomp to @p file, as bubblewrap takes
 *  it. What runs under it gets EPERM for the requests that put input into a
 *  terminal, where the shell behind it would read it; so does a program for
 *  the 32-bit relative of this processor. One for another is killed.
 *
 *  @throws tools::Error when it cannot be made or written */
void writeTerminalFilter(int file);

} // namespace bmc_services
