#include <xyz/openbmc_project/Software/Version/common.hpp>

/** The platform's table has to be in this object, for others to find. */
extern const void* const KEPT_TABLE;
const void* const KEPT_TABLE =
    &sdbusplus::common::xyz::openbmc_project::software::details::
        mappingVersionVersionPurpose;
