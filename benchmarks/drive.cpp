#include "velmora.hpp"

#include <systemd/sd-bus.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

/** Runs one operation many times in one process, for what is to be counted
 *  from outside; also shows whether anything grows.
 *
 *  Usage: velmora-drive metadata COUNT | velmora-drive validate COUNT DIR */

namespace
{

namespace fs = std::filesystem;

/** What must not grow. */
struct Holdings
{
    long residentKib = 0;
    long fileDescriptors = 0;
    long processes = 0;
    long connections = 0;

    bool operator==(const Holdings&) const = default;
};

long countEntries(const char* directory)
{
    return std::distance(fs::directory_iterator(directory),
                         fs::directory_iterator());
}

long countProcesses()
{
    return std::count_if(
        fs::directory_iterator("/proc"), fs::directory_iterator(),
        [](const fs::directory_entry& entry)
        { return std::isdigit(entry.path().filename().c_str()[0]) != 0; });
}

/** Connections on the bus; the one that asks is among them each time. */
long countConnections()
{
    sd_bus* bus = nullptr;
    sd_bus_message* reply = nullptr;
    long count = 0;
    if (sd_bus_open_system(&bus) >= 0 &&
        sd_bus_call_method(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                           "org.freedesktop.DBus", "ListNames", nullptr, &reply,
                           "") >= 0)
    {
        const char* name = nullptr;
        sd_bus_message_enter_container(reply, 'a', "s");
        while (sd_bus_message_read_basic(reply, 's', &name) > 0)
        {
            count += name[0] == ':';
        }
    }
    sd_bus_message_unref(reply);
    sd_bus_flush_close_unref(bus);
    return count;
}

Holdings measure()
{
    // An engine that has ended is reaped by the system a little later.
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    Holdings now;
    std::ifstream statm("/proc/self/statm");
    long pages = 0;
    statm >> pages >> now.residentKib;
    now.residentKib *= 4;
    statm.close();
    now.fileDescriptors = countEntries("/proc/self/fd");
    now.processes = countProcesses();
    now.connections = countConnections();
    return now;
}

void show(int round, const Holdings& now)
{
    std::printf(
        "after %d: %ld KiB resident, %ld file descriptors, %ld processes, "
        "%ld bus connections\n",
        round, now.residentKib, now.fileDescriptors, now.processes,
        now.connections);
}

bool once(const std::string& operation, const char* directory)
{
    if (operation == "metadata")
    {
        std::string block =
            R"({"ver": "1", "alg": "PS384", "sts": "1700000000"})";
        block.resize(512);
        return ValidateQOR::extract_meta_data(block) == 0;
    }
    return ValidateQOR::validateExtractedQOR(directory);
}

} // namespace

int main(int argc, char** argv)
{
    constexpr int SETTLED = 100;
    constexpr long SLACK_KIB = 256;
    const int count = argc > 2 ? std::atoi(argv[2]) : 0;
    if (count < 1)
    {
        std::puts("usage: velmora-drive metadata|validate COUNT [DIR]");
        return 2;
    }
    Holdings first;
    for (int i = 1; i <= count; ++i)
    {
        if (!once(argv[1], argc > 3 ? argv[3] : ""))
        {
            std::fprintf(stdout, "refused in round %d\n", i);
            return 1;
        }
        if (i == SETTLED)
        {
            first = measure();
            show(i, first);
        }
    }
    if (count <= SETTLED)
    {
        std::puts("nothing measured: that takes more than 100 rounds");
        return 0;
    }
    Holdings last = measure();
    show(count, last);
    const bool grown = last.residentKib > first.residentKib + SLACK_KIB;
    last.residentKib = first.residentKib;
    const bool flat = !grown && last == first;
    std::printf("%s\n", flat ? "flat" : "NOT flat");
    return flat ? 0 : 1;
}
