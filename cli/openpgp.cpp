// SPDX-License-Identifier: LGPL-2.1-or-later
// "tavro-quenda verify" and "tavro-quenda encrypt": OpenPGP checks and
// encryption against the key built into the library.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "commands.h"
#include "tavro-quenda.h"

namespace {

struct FreeDeleter {
    void operator()(char *p) const noexcept { std::free(p); }
};
using CString = std::unique_ptr<char, FreeDeleter>;

// Plenty for a text meant for one small encrypted message.
constexpr size_t kMaxPlainText = 1 << 20;

int verify_usage()
{
    std::fprintf(stderr, "Usage: tavro-quenda verify [--gpgme|--cached] FILE\n");
    return 2;
}

} // namespace

namespace cli {

int verify(int argc, char **argv)
{
    auto verifier = gpg_verify_cmd;
    const char *file = nullptr;
    bool options_done = false;
    for (int i = 0; i < argc; ++i) {
        const char *arg = argv[i];
        if (!options_done && std::strcmp(arg, "--gpgme") == 0)
            verifier = gpg_verify;
        else if (!options_done && std::strcmp(arg, "--cached") == 0)
            verifier = gpg_verify_cmd_cached;
        else if (!options_done && std::strcmp(arg, "--") == 0)
            options_done = true;
        else if ((options_done || arg[0] != '-') && !file)
            file = arg;
        else
            return verify_usage();
    }
    if (!file)
        return verify_usage();

    char *raw = nullptr;
    size_t length = 0;
    int32_t result = verifier(file, &raw, &length);
    CString content(raw);
    std::printf("result: %d\n", static_cast<int>(result));
    if (content)
        std::fwrite(content.get(), 1, length, stdout);
    return result == 0 ? 0 : 1;
}

int encrypt(int argc, char **)
{
    if (argc != 0) {
        std::fprintf(stderr, "Usage: tavro-quenda encrypt < TEXT\n");
        return 2;
    }
    std::string text;
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof(buf), stdin)) > 0) {
        text.append(buf, n);
        if (text.size() > kMaxPlainText) {
            std::fprintf(stderr, "tavro-quenda: the text is longer than %zu bytes\n", kMaxPlainText);
            return 1;
        }
    }
    if (text.find('\0') != std::string::npos) {
        std::fprintf(stderr, "tavro-quenda: the text holds a zero byte\n");
        return 1;
    }
    char *raw = nullptr;
    size_t length = 0;
    int32_t result = gpg_encrypt(text.c_str(), &raw, &length);
    CString armoured(raw);
    if (result != 0 || !armoured) {
        std::fprintf(stderr, "tavro-quenda: encryption failed, result %d\n", static_cast<int>(result));
        return 1;
    }
    std::fwrite(armoured.get(), 1, length, stdout);
    return 0;
}

} // namespace cli
