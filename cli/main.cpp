// SPDX-License-Identifier: LGPL-2.1-or-later
// tavro-quenda: command-line front end of libtavro-quenda.
#include <getopt.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "commands.h"
#include "common.h"
#include "tavro_quenda_trusted_key.h"

namespace {

struct Command {
    const char *name;
    int (*run)(int argc, char **argv);
    const char *summary;
};

const Command kCommands[] = {
    {"identity", cli::identity, "print this machine's identity facts"},
    {"verify", cli::verify, "check a file's OpenPGP signature; print the signed text"},
    {"encrypt", cli::encrypt, "encrypt a text to the built-in OpenPGP key"},
    {"digest", cli::digest, "print or check a file's SHA-256, SHA-1 or MD5 digest"},
    {"rsa-check", cli::rsa_check, "check an RSA-SHA256 signature with the provisioned key"},
    {"record", cli::record, "read or write an encrypted record file"},
    {"keyfile", cli::keyfile, "get or set a value in a key file"},
    {"base64", cli::base64, "encode or decode Base64 and its URL form"},
};

void usage(FILE *out)
{
    std::fprintf(out, "Usage: tavro-quenda [-h|-V] COMMAND [OPTION...] [ARG...]\n\nCommands:\n");
    for (const Command &c : kCommands)
        std::fprintf(out, "  %-10s %s\n", c.name, c.summary);
    std::fprintf(out, "\nOptions:\n"
                      "  -h, --help     show this help; 'tavro-quenda COMMAND --help' for a command\n"
                      "  -V, --version  show the version and the built-in OpenPGP key\n"
                      "\nExit status:\n"
                      "  0  success, a good signature, a matching digest\n"
                      "  1  a bad or untrusted signature, a digest mismatch, or a fact or key\n"
                      "     that is not available when it was asked for alone\n"
                      "  2  usage error\n"
                      "  3  system error: input unreadable, output not written, key file missing\n"
                      "  4  input read but refused: not Base64, not a record, not a key file,\n"
                      "     text too long\n");
}

// Output that could not be written is a failure, even when the error only
// shows when standard output is flushed at the end.
int close_stdout(int status)
{
    errno = 0;
    bool failed = std::fflush(stdout) != 0 || std::ferror(stdout);
    int saved = errno;
    if (std::fclose(stdout) != 0 && !failed) {
        failed = true;
        saved = errno;
    }
    if (!failed)
        return status;
    // EBADF: standard output was closed before the start.
    std::fprintf(stderr, "tavro-quenda: write error: %s\n", saved ? std::strerror(saved) : "unknown error");
    return status == cli::kOk || status == cli::kNo ? cli::kSystem : status;
}

int run(int argc, char **argv)
{
    static const option kOptions[] = {
        {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, 'V'},
        {nullptr, 0, nullptr, 0},
    };
    opterr = 0;
    int c;
    // '+': options after the command name belong to the command.
    while ((c = getopt_long(argc, argv, "+:hV", kOptions, nullptr)) != -1) {
        switch (c) {
        case 'h':
            usage(stdout);
            return cli::kOk;
        case 'V':
            if (optind < argc) {
                std::fprintf(stderr, "tavro-quenda: unexpected argument '%s'\n", argv[optind]);
                std::fprintf(stderr, "Try 'tavro-quenda --help'.\n");
                return cli::kUsage;
            }
            std::printf("tavro-quenda %s\n", TAVRO_QUENDA_VERSION);
            std::printf("trusted OpenPGP key: %s%s\n", tq::generated::kTrustedKeyFingerprint,
                        tq::generated::kTrustedKeyIsDevelopment ? " (development key, for tests only)" : "");
            return cli::kOk;
        default:
            if (optopt)
                std::fprintf(stderr, "tavro-quenda: invalid option -- '%c'\n", optopt);
            else
                std::fprintf(stderr, "tavro-quenda: unrecognized option '%s'\n", argv[optind - 1]);
            std::fprintf(stderr, "Try 'tavro-quenda --help'.\n");
            return cli::kUsage;
        }
    }
    if (optind >= argc) {
        std::fprintf(stderr, "tavro-quenda: no command given\n");
        std::fprintf(stderr, "Try 'tavro-quenda --help'.\n");
        return cli::kUsage;
    }
    const char *name = argv[optind];
    for (const Command &command : kCommands) {
        if (std::strcmp(name, command.name) == 0) {
            char **args = argv + optind;
            int count = argc - optind;
            optind = 0; // the command parses its own options from scratch
            return command.run(count, args);
        }
    }
    std::fprintf(stderr, "tavro-quenda: unknown command '%s'\n", name);
    std::fprintf(stderr, "Try 'tavro-quenda --help'.\n");
    return cli::kUsage;
}

} // namespace

int main(int argc, char **argv)
{
    return close_stdout(run(argc, argv));
}
