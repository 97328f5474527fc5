#include "services.hpp"

#include "target.hpp"

#include <sys/socket.h>

#include <array>
#include <map>
#include <string>

namespace
{

using namespace bmc_services;

struct Method
{
    const char* path;
    const char* interface;
    const char* member;
};

constexpr std::array<Method, 6> METHODS{{
    {"/xyz/openbmc_project/software", InventoryService::BUS_NAME,
     "addSWInventory"},
    {"/xyz/openbmc_project/software", InventoryService::BUS_NAME,
     "removeSWInventory"},
    {"/xyz/openbmc_project/software", InventoryService::BUS_NAME,
     "getVersionPurpose"},
    {"/xyz/openbmc_project/software/a", "org.freedesktop.DBus.Properties",
     "Get"},
    {"/xyz/openbmc_project/smad/oem", "org.freedesktop.DBus.Properties", "Get"},
    {"/xyz/openbmc_project/securityservices",
     "xyz.openbmc_project.securityservices.firmwareManifest",
     "vornFwManifestVerification"},
}};

/** Two ends of one connection, without a daemon between them. */
class Connection
{
  public:
    Connection()
    {
        std::array<int, 2> ends{};
        sd_id128_t id{};
        fuzz::expect(socketpair(AF_UNIX,
                                SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0,
                                ends.data()) == 0 &&
                     sd_bus_new(&server) >= 0 &&
                     sd_bus_set_fd(server, ends[0], ends[0]) >= 0 &&
                     sd_bus_set_server(server, 1, id) >= 0 &&
                     sd_bus_start(server) >= 0 && sd_bus_new(&client) >= 0 &&
                     sd_bus_set_fd(client, ends[1], ends[1]) >= 0 &&
                     sd_bus_start(client) >= 0);
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection()
    {
        sd_bus_close_unref(client);
        sd_bus_close_unref(server);
    }

    /** Lets both ends work until neither has anything to do. */
    void work()
    {
        bool isBusy = true;
        while (isBusy)
        {
            const int served = sd_bus_process(server, nullptr);
            const int received = sd_bus_process(client, nullptr);
            isBusy = served > 0 || received > 0;
        }
    }

    sd_bus* server = nullptr;
    sd_bus* client = nullptr;
};

/** Appends what an argument byte stands for. @return whether it could be */
bool append(sd_bus_message* call, std::uint8_t type, fuzz::Bytes value)
{
    const std::string text = fuzz::textOf(value);
    switch (type)
    {
        case 's':
            return sd_bus_message_append(call, "s", text.c_str()) >= 0;
        case 'a':
            return sd_bus_message_append_array(call, 'y', value.data(),
                                               value.size()) >= 0;
        case 'b':
            return sd_bus_message_append(call, "b", 1) >= 0;
        default:
            return sd_bus_message_append(call, "u", value.size()) >= 0;
    }
}

int countReply(sd_bus_message*, void* count, sd_bus_error*)
{
    ++*static_cast<int*>(count);
    return 0;
}

} // namespace

/** The input is one call after another: a byte for the method, one for how many
 *  arguments there are, then for each argument a byte for its type and a part
 *  for its value. */
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    PlatformService platform(0x0a1b);
    SecurityService security("key");
    InventoryService inventory(
        std::map<std::string, std::string>{{"7", "TPM"}});
    Connection connection;
    platform.publish(connection.server);
    security.publish(connection.server);
    inventory.publish(connection.server);

    int called = 0;
    int answered = 0;
    for (fuzz::Bytes input(data, size); input.size() >= 2;)
    {
        const Method& method = METHODS[input[0] % METHODS.size()];
        std::size_t count = input[1];
        input = input.subspan(2);
        sd_bus_message* call = nullptr;
        fuzz::expect(sd_bus_message_new_method_call(
                         connection.client, &call, nullptr, method.path,
                         method.interface, method.member) >= 0);
        bool isWhole = true;
        for (; isWhole && count > 0 && !input.empty(); --count)
        {
            const std::uint8_t type = input[0];
            input = input.subspan(1);
            isWhole = append(call, type, fuzz::takePart(input));
        }
        if (isWhole && sd_bus_call_async(connection.client, nullptr, call,
                                         countReply, &answered, 0) >= 0)
        {
            ++called;
        }
        sd_bus_message_unref(call);
        connection.work();
    }
    fuzz::expect(answered == called);
    return 0;
}
