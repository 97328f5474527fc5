#pragma once

/** Version and build-id of the library of the build that a tool comes from.
 *  The tool does not load it. */
extern const char* const LIBRARY_VERSION;
