#include "cause_table.hpp"
#include "common/error.hpp"
#include "common/files.hpp"
#include "log_reader.hpp"
#include "target.hpp"

using namespace velmora::front;

namespace
{

constexpr std::size_t MAX_ITEMS = 64;

CauseTable makeTable()
{
    CauseTable table{"library", "abc", {}};
    const auto add = [&table](int number, Kind kind, const char* message = "")
    {
        table.sites[number] = {"a.cpp", number, number % 1000, kind,
                               "a",     "text", message,       true};
    };
    add(1041, Kind::PASSED_ON);
    add(1067, Kind::SUCCESS);
    add(3091, Kind::ANSWER);
    add(4107, Kind::CAUSE);
    add(6205, Kind::NOTE);
    add(8100, Kind::CAUSE, "error[%d] of %s");
    add(10185, Kind::PARDON, "Continuing.");
    return table;
}

} // namespace

/** The input: 'L' and a library, or a log in any form. */
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const CauseTable TABLE = makeTable();
    static const fuzz::Scratch SCRATCH;
    static fuzz::InputFile library(SCRATCH, "library");
    const fuzz::Bytes input(data, size);
    std::size_t operations = 0;
    const auto check = [&operations](const Operation& operation)
    {
        ++operations;
        fuzz::expect(operation.details.size() <= MAX_ITEMS &&
                     operation.echoes.size() <= MAX_ITEMS &&
                     operation.notes.size() <= MAX_ITEMS &&
                     !operation.reason().empty());
    };
    try
    {
        if (size > 0 && data[0] == 'L')
        {
            library.set(input.subspan(1));
            for (const auto& [number, site] : readCauses(library.path()).sites)
            {
                fuzz::expect(number == site.number && number >= 0);
            }
            return 0;
        }
        LogReader reader(TABLE, check);
        reader.read(tools::memoryFile(fuzz::textOf(input)), "log");
    }
    catch (const tools::Error&) // NOLINT(bugprone-empty-catch)
    {
        // Said in one line, and nothing else is thrown.
    }
    // Each has a line of its own, and a process two at the most beside.
    fuzz::expect(operations <= size + 2);
    LogReader(TABLE, check).readOwn(fuzz::textOf(input));
    return 0;
}
