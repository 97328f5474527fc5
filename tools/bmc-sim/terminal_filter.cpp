#include "terminal_filter.hpp"

#include "common/handles.hpp"
#include "services.hpp"

#include <seccomp.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <cstdint>

namespace bmc_services
{
namespace
{

using Filter = tools::Handle<void, seccomp_release>;

// The first types a character, the second can paste the console's selection.
constexpr std::uint64_t TYPING_REQUESTS[] = {TIOCSTI, TIOCLINUX};
// The kernel looks at no more of a request than this, whatever is above it.
constexpr std::uint64_t REQUEST_MASK = 0xffffffff;

// Processors, each with one whose programs the kernel runs as well.
constexpr std::uint32_t RELATIVES[][2] = {{SCMP_ARCH_X86_64, SCMP_ARCH_X86},
                                          {SCMP_ARCH_X86_64, SCMP_ARCH_X32},
                                          {SCMP_ARCH_AARCH64, SCMP_ARCH_ARM}};

} // namespace

void writeTerminalFilter(int file)
{
    const Filter filter(seccomp_init(SCMP_ACT_ALLOW));
    check(filter ? 0 : -ENOMEM, "seccomp_init");
    for (const auto& [own, relative] : RELATIVES)
    {
        if (own == seccomp_arch_native())
        {
            check(seccomp_arch_add(filter.get(), relative), "seccomp_arch_add");
        }
    }
    for (const std::uint64_t request : TYPING_REQUESTS)
    {
        const scmp_arg_cmp isRequest{1, SCMP_CMP_MASKED_EQ, REQUEST_MASK,
                                     request};
        check(seccomp_rule_add_array(filter.get(), SCMP_ACT_ERRNO(EPERM),
                                     SCMP_SYS(ioctl), 1, &isRequest),
              "seccomp_rule_add");
    }
    check(seccomp_export_bpf(filter.get(), file), "seccomp_export_bpf");
}

} // namespace bmc_services
