// SPDX-License-Identifier: LGPL-2.1-or-later
// Arbitrary bytes as an encrypted record, decrypted in memory exactly as a
// record file's bytes are: the answer is a C string inside the record buffer,
// or null for what cannot be a record. The same bytes as a text encrypt to a
// record of the promised length that decrypts back to that text.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "integrity/aes_record.h"
#include "tavro-quenda.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    char *text = tq::decrypt_record(data, size);
    if (text) {
        if (size == 0 || size > tq::kRecordMax || ::strnlen(text, tq::kRecordMax) >= tq::kRecordMax)
            std::abort();
        std::free(text);
    } else if (size > 0 && size <= tq::kRecordMax) {
        std::abort();
    }

    // The input up to its first NUL as a text to protect.
    std::string plain(reinterpret_cast<const char *>(data), ::strnlen(reinterpret_cast<const char *>(data), size));
    std::string padded = plain;
    padded.resize(tq::kRecordMax, '\0'); // the encryptor reads a whole record's worth
    unsigned char record[tq::kRecordMax];
    const int32_t n = tavro_aes_encrypt(padded.c_str(), record, tq::kRecordMax);
    if (plain.size() >= tq::kRecordMax) {
        if (n != -1)
            std::abort();
        return 0;
    }
    if (n <= 0 || n % 16 != 0 || static_cast<size_t>(n) != (plain.size() + 16) / 16 * 16)
        std::abort();
    char *back = tq::decrypt_record(record, static_cast<size_t>(n));
    if (!back || plain != back)
        std::abort();
    std::free(back);
    return 0;
}
