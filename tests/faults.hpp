#pragma once

#include "support.hpp"

#include <functional>
#include <string>
#include <vector>

/** Definitions of the test executable stand in front of the libraries': each
 *  can make one call that the library makes fail, and each notes releases. */

namespace velmora::test
{

/** Functions that can be made to fail. */
std::vector<std::string> faultyFunctions();

/** Runs @p work with the @p nth call of @p function failing, or with
 *  @p before run in front of that call, which is then made.
 *
 *  An exception that the fault causes ends the work and no more.
 *
 *  @return whether there was such a call */
bool withFault(const std::string& function, int nth,
               const std::function<void()>& work,
               const std::function<void()>& before = {});

/** What gpgme_op_verify_result and xmlXPathEvalExpression give when they are
 *  made to fail; owned as their results are. */
extern void* insteadOfResult;

/** What the chain verifier was last asked with, besides the texts. */
struct ChainQuestion
{
    std::size_t length = 0;
    std::int64_t time = 0;
};
extern ChainQuestion chainQuestion;

/** Objects that the library released meanwhile, in order, by the names of the
 *  releasing functions. */
Lines releasesOf(const std::function<void()>& work);

template <typename Operation, typename... Arguments>
Lines releasesOf(Operation operation, const Arguments&... arguments)
{
    return releasesOf(std::function<void()>([&] { operation(arguments...); }));
}

} // namespace velmora::test
