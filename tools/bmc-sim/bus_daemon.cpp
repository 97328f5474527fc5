#include "bus_daemon.hpp"

#include "failure.hpp"
#include "process.hpp"

#include <fstream>

namespace bmc_sim
{
namespace
{

// There is no service directory: nothing on this bus is started on demand.
constexpr auto configurationHead = R"(<busconfig>
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
    std::string address = "unix:path=" + (directory / "bus").string();
    const std::string configuration = directory / "bus.conf";
    std::ofstream file(configuration);
    file << configurationHead << "  <listen>" << address
         << "</listen>\n</busconfig>\n";
    file.close();
    if (!file)
    {
        throw systemFailure(configuration);
    }

    Pipe ready = makePipe();
    const FileDescriptor input = makeBuffer();
    const FileDescriptor log = makeBuffer();
    const int printTo = ready.writer.get();
    spawn({.arguments = {"dbus-daemon", "--config-file=" + configuration,
                         "--nofork", "--nopidfile",
                         "--print-address=" + std::to_string(printTo)},
           .input = input.get(),
           .output = log.get(),
           .error = log.get(),
           .kept = {printTo},
           .isBound = true});
    ready.writer.reset();
    // The daemon prints its address and closes the pipe once it listens.
    if (readAll(ready.reader).empty())
    {
        throw Failure("dbus-daemon: " + firstLine(bufferContent(log)));
    }
    return address;
}

} // namespace bmc_sim
