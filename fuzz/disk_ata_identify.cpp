// SPDX-License-Identifier: LGPL-2.1-or-later
// Arbitrary ATA identify blocks: the identity is the graphic bytes of the
// 40-byte model field (offset 54) and the 20-byte serial field (offset 20),
// joined by "_", whatever the rest of the block holds.
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "disk/disk_readers.h"

namespace {

std::string graphic(const std::string &block, size_t offset, size_t size)
{
    std::string out;
    for (size_t i = offset; i < offset + size; ++i) {
        if (std::isgraph(static_cast<unsigned char>(block[i])))
            out += block[i];
    }
    return out;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string_view bytes(reinterpret_cast<const char *>(data), size);
    std::string id = tq::ata_identity_from_block(bytes);
    std::string block(bytes.substr(0, 512));
    block.resize(512, '\0');
    if (id != graphic(block, 54, 40) + "_" + graphic(block, 20, 20))
        std::abort();
    return 0;
}
