#pragma once

#include <string>

/** The library that this process has loaded: its file, links followed, and
 *  its build-id. */
std::string loadedLibrary();
