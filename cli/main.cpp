// SPDX-License-Identifier: LGPL-2.1-or-later
// tavro-quenda: command-line front end of libtavro-quenda.
#include <cstdio>
#include <cstring>

#include "commands.h"
#include "tavro_quenda_trusted_key.h"

namespace {

struct Command {
    const char *name;
    int (*run)(int argc, char **argv);
    const char *usage;
};

const Command kCommands[] = {
    {"identity", cli::identity, "identity [--json]   print this machine's identity report"},
    {"verify", cli::verify, "verify [--gpgme|--cached] FILE   check FILE's OpenPGP signature; print the result and the signed text"},
    {"encrypt", cli::encrypt, "encrypt             encrypt the text on standard input to the built-in key"},
};

void usage(FILE *out)
{
    std::fprintf(out, "Usage: tavro-quenda COMMAND [OPTIONS]\n\nCommands:\n");
    for (const Command &c : kCommands)
        std::fprintf(out, "  %s\n", c.usage);
    std::fprintf(out, "\nOptions:\n  --help      show this help\n  --version   show the version\n");
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 2) {
        usage(stderr);
        return 2;
    }
    if (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0) {
        usage(stdout);
        return 0;
    }
    if (std::strcmp(argv[1], "--version") == 0) {
        std::printf("tavro-quenda %s\n", TAVRO_QUENDA_VERSION);
        std::printf("trusted OpenPGP key: %s%s\n", tq::generated::kTrustedKeyFingerprint,
                    tq::generated::kTrustedKeyIsDevelopment ? " (development key, for tests only)" : "");
        return 0;
    }
    for (const Command &c : kCommands) {
        if (std::strcmp(argv[1], c.name) == 0)
            return c.run(argc - 2, argv + 2);
    }
    std::fprintf(stderr, "tavro-quenda: unknown command '%s'\n\n", argv[1]);
    usage(stderr);
    return 2;
}
