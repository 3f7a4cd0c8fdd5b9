// SPDX-License-Identifier: LGPL-2.1-or-later
// "tavro-quenda verify" and "tavro-quenda encrypt": OpenPGP checks and
// encryption against the key built into the library.
#include <getopt.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "commands.h"
#include "common.h"
#include "tavro-quenda.h"

namespace {

// The most signed text the library hands back: through gpg, and through GPGME.
constexpr size_t kMaxCmdText = 4095;
constexpr size_t kMaxGpgmeText = 4096;
// Signed files worth checking are small; this only guards memory.
constexpr size_t kMaxSignedFile = 64u << 20;
// Plenty for a text meant for one small encrypted message.
constexpr size_t kMaxPlainText = 1u << 20;

const char kVerifyHelp[] =
    "Usage: tavro-quenda verify [--gpgme|--cached] [-J[pretty|short]] FILE\n"
    "Check that FILE (\"-\" for standard input) carries a good OpenPGP signature by\n"
    "the built-in trusted key. Prints \"result: N\" (the library's result code),\n"
    "then the signed text.\n"
    "\n"
    "Options:\n"
    "  --gpgme                    check through GPGME instead of the gpg program\n"
    "  --cached                   check through gpg, reusing an earlier result for\n"
    "                             an unchanged file (only within this process)\n"
    "  -J, --json[=pretty|short]  JSON output: file, result, good, text\n"
    "  -h, --help                 show this help\n"
    "\n"
    "Exit status: 0 good signature; 1 bad, untrusted or missing signature;\n"
    "2 usage error; 3 file unreadable or the check could not run.\n";

const char kEncryptHelp[] =
    "Usage: tavro-quenda encrypt [FILE]\n"
    "Encrypt the text in FILE (default \"-\", standard input) to the built-in\n"
    "OpenPGP key and print it ASCII-armoured. The text may not hold a zero byte.\n"
    "\n"
    "Options:\n"
    "  -h, --help  show this help\n"
    "\n"
    "Exit status: 0 encrypted; 2 usage error; 3 input unreadable or encryption\n"
    "failed; 4 text refused (zero byte, longer than 1 MiB).\n";

// Why a check failed, in words, for the codes the verifiers give.
const char *why(int32_t code)
{
    switch (code) {
    case 1: return "bad signature or not signed by the trusted key";
    case 14:
    case 46: return "not signed by the trusted key";
    case 15: return "the clock is set before the trusted key was made";
    case 16: return "the check could not run (no private GnuPG home, or /usr/bin/gpg cannot run)";
    case 49: return "cannot read the file";
    case 50:
    case 51: return "bad signature";
    case 52: return "the signature could not be checked";
    case 53: return "not signed";
    case 100: return "the check gave no answer";
    default: return "verification failed";
    }
}

// Codes that say something about the file rather than about this machine.
bool is_verdict(int32_t code)
{
    return code == 1 || code == 14 || code == 46 || code == 50 || code == 51 || code == 52 || code == 53;
}

} // namespace

namespace cli {

int verify(int argc, char **argv)
{
    static const char kCmd[] = "verify";
    static const option kOptions[] = {
        {"gpgme", no_argument, nullptr, 'g'},
        {"cached", no_argument, nullptr, 'c'},
        {"json", optional_argument, nullptr, 'J'},
        {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    };
    auto verifier = gpg_verify_cmd;
    const char *chosen = nullptr;
    Json json = Json::kNone;
    int c;
    while ((c = getopt_long(argc, argv, ":J::h", kOptions, nullptr)) != -1) {
        switch (c) {
        case 'g':
        case 'c':
            if (chosen && std::strcmp(chosen, argv[optind - 1]) != 0)
                return usage_error(kCmd, "%s and %s cannot be used together", chosen, argv[optind - 1]);
            chosen = argv[optind - 1];
            verifier = c == 'g' ? gpg_verify : gpg_verify_cmd_cached;
            break;
        case 'J':
            if (!parse_json_mode(optarg, json))
                return usage_error(kCmd, "--json takes pretty or short, not '%s'", optarg);
            break;
        case 'h':
            std::fputs(kVerifyHelp, stdout);
            return kOk;
        default:
            return bad_option(kCmd, argv, c);
        }
    }
    if (optind >= argc)
        return usage_error(kCmd, "no file given");
    if (argc - optind > 1)
        return usage_error(kCmd, "unexpected argument '%s'", argv[optind + 1]);

    InputPath input;
    if (int status = input.open(kCmd, argv[optind], kMaxSignedFile))
        return status;
    char *raw = nullptr;
    size_t length = 0;
    int32_t result = verifier(input.path(), &raw, &length);
    CString content(raw);

    // The gpg program only says yes or no; GPGME can tell why not.
    int32_t reason = result;
    if (result == 1) {
        char *ignored = nullptr;
        size_t ignored_length = 0;
        reason = gpg_verify(input.path(), &ignored, &ignored_length);
        CString drop(ignored);
        if (reason == 0)
            reason = 1;
    }
    const char *reason_text = why(reason);
    if (reason == 1) {
        // GPGME refuses data that holds no OpenPGP message at all.
        std::string data;
        if (read_whole(kCmd, input.path(), kMaxSignedFile, data) == kOk) {
            bool armoured = data.find("-----BEGIN PGP ") != std::string::npos;
            bool binary = !data.empty() && (static_cast<unsigned char>(data[0]) & 0x80) != 0;
            reason_text = armoured || binary ? "not a valid OpenPGP signature" : "not signed";
        }
    }

    if (json != Json::kNone) {
        JsonPtr root(cJSON_CreateObject());
        if (!root || !cJSON_AddStringToObject(root.get(), "file", argv[optind]) ||
            !cJSON_AddNumberToObject(root.get(), "result", result) ||
            !cJSON_AddBoolToObject(root.get(), "good", result == 0) ||
            !(content ? cJSON_AddStringToObject(root.get(), "text", std::string(content.get(), length).c_str())
                      : cJSON_AddNullToObject(root.get(), "text")))
            return fail(kSystem, kCmd, "out of memory");
        print_json(root.get(), json);
    } else {
        std::printf("result: %d\n", static_cast<int>(result));
        if (content)
            std::fwrite(content.get(), 1, length, stdout);
    }
    if (result == 0) {
        std::string data;
        if (!content && read_whole(kCmd, input.path(), kMaxSignedFile, data) == kOk) {
            if (data.find("-----BEGIN PGP SIGNED MESSAGE-----") == std::string::npos)
                fail(kOk, kCmd, "%s: signed, but not clear-signed, so no text is returned", input.shown());
            else
                fail(kOk, kCmd, "%s: signed text is longer than %zu bytes and is not shown", input.shown(),
                     verifier == gpg_verify ? kMaxGpgmeText : kMaxCmdText);
        }
        return kOk;
    }
    return fail(is_verdict(reason) ? kNo : kSystem, kCmd, "%s: %s", input.shown(), reason_text);
}

int encrypt(int argc, char **argv)
{
    static const char kCmd[] = "encrypt";
    if (int status = help_only(kCmd, argc, argv, kEncryptHelp); status >= 0)
        return status;
    if (argc - optind > 1)
        return usage_error(kCmd, "unexpected argument '%s'", argv[optind + 1]);
    const char *file = optind < argc ? argv[optind] : "-";
    std::string text;
    if (int status = read_whole(kCmd, file, kMaxPlainText, text))
        return status;
    const char *shown = shown_name(file);
    if (text.find('\0') != std::string::npos)
        return fail(kRejected, kCmd, "%s: the text holds a zero byte", shown);
    char *raw = nullptr;
    size_t length = 0;
    int32_t result = gpg_encrypt(text.c_str(), &raw, &length);
    CString armoured(raw);
    if (result != 0 || !armoured)
        return fail(kSystem, kCmd, "encryption failed (result %d: %s)", static_cast<int>(result),
                    result == 15   ? "the clock is set before the trusted key was made"
                    : result == 16 ? "cannot set up a private GnuPG home"
                    : result == 44 ? "the text was refused"
                                   : "the key could not be used");
    std::fwrite(armoured.get(), 1, length, stdout);
    return kOk;
}

} // namespace cli
