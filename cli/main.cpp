// tavro-quenda: command-line front end of libtavro-quenda.
#include <cstdio>
#include <cstring>

#include "commands.h"

namespace {

struct Command {
    const char *name;
    int (*run)(int argc, char **argv);
    const char *usage;
};

const Command kCommands[] = {
    {"identity", cli::identity, "identity [--json]   print this machine's identity report"},
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
