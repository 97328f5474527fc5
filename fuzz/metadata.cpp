#include "target.hpp"
#include "velmora.hpp"

/** The input: a metadata block, of any length. */
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    metadata_algo.clear();
    std::string block = fuzz::textOf({data, size});
    const int status = ValidateQOR::extract_meta_data(block);
    fuzz::expect(block.size() == size);
    fuzz::expect(status == 0 || (status >= 9 && status <= 13));
    fuzz::expect(status != 0 || !metadata_algo.empty());
    return 0;
}
