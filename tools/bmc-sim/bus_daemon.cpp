#include "bus_daemon.hpp"

#include "common/files.hpp"
#include "failure.hpp"
#include "process.hpp"

namespace bmc_sim
{
namespace
{

// There is no service directory: nothing on this bus is started on demand.
constexpr auto CONFIGURATION_HEAD = R"(<busconfig>
  <type>system</type>
  <auth>EXTERNAL</auth>
  <apparmor mode="disabled"/>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_destination="*"/>
    <allow receive_sender="*"/>
  </policy>
  <limit name="max_completed_connections">10000</limit>
  <limit name="max_incomplete_connections">10000</limit>
  <limit name="max_connections_per_user">10000</limit>
)";

} // namespace

std::string startBusDaemon(const std::filesystem::path& directory)
{
    const std::string configuration = directory / "bus.conf";
    std::string address = "unix:path=" + (directory / "bus").string();
    tools::writeFile(configuration,
                     CONFIGURATION_HEAD +
                         ("<listen>" + address + "</listen>\n</busconfig>\n"));
    Pipe ready = makePipe();
    const FileDescriptor input = tools::memoryFile();
    const FileDescriptor log = tools::memoryFile();
    const int printTo = ready.writer.get();
    spawn({.arguments = {"dbus-daemon", "--config-file=" + configuration,
                         "--nofork", "--nopidfile",
                         "--print-address=" + std::to_string(printTo)},
           .input = input.get(),
           .output = log.get(),
           .error = log.get(),
           .kept = {printTo}});
    ready.writer.reset();
    // The daemon prints its address and closes the pipe once it listens.
    if (tools::readAll(ready.reader, "dbus-daemon").empty())
    {
        throw Error("dbus-daemon", firstLine(contentOf(log)));
    }
    return address;
}

} // namespace bmc_sim
