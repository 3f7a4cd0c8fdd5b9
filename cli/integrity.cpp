// SPDX-License-Identifier: LGPL-2.1-or-later
// "tavro-quenda digest", "rsa-check", "record", "keyfile" and "base64": the
// library's integrity functions for administrators.
// RSA_free belongs to the interface load_public_key hands its key through.
#define OPENSSL_API_COMPAT 0x10100000L

#include <fcntl.h>
#include <getopt.h>
#include <sys/stat.h>
#include <unistd.h>

#include <openssl/evp.h>

#include <array>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "commands.h"
#include "common.h"
#include "tavro-quenda.h"

namespace cli {

namespace {

constexpr size_t kMaxInput = 64u << 20;
constexpr const char *kPublicKey = "/etc/tavro-quenda/public.pem";
// A record holds the text, its terminating zero and padding in 1,024 bytes.
constexpr size_t kRecordBytes = 1024;
constexpr size_t kRecordText = kRecordBytes - 1;

// ---------------------------------------------------------------- digest

const char kDigestHelp[] =
    "Usage: tavro-quenda digest [--sha256|--sha1|--md5] FILE [EXPECTED]\n"
    "Print the digest of FILE (\"-\" for standard input; a pipe such as /dev/stdin\n"
    "or <(...) is read too) as lower-case hex, or, with EXPECTED, check it: print\n"
    "\"result: N\" (1 when it matches, 0 when not) and \"FILE: OK\" or\n"
    "\"FILE: FAILED\". EXPECTED is the whole digest in hex; upper case is accepted.\n"
    "\n"
    "Options:\n"
    "  --sha256    SHA-256 (the default)\n"
    "  --sha1      SHA-1\n"
    "  --md5       MD5\n"
    "  -h, --help  show this help\n"
    "\n"
    "Exit status: 0 printed or matching; 1 not matching; 2 usage error;\n"
    "3 file unreadable.\n";

struct Algorithm {
    const char *option;
    const EVP_MD *(*md)();
    int (*check)(const char *, const char *);
    size_t hex_length;
};

const Algorithm kAlgorithms[] = {
    {"--sha256", EVP_sha256, file_check_sha256, 64},
    {"--sha1", EVP_sha1, file_check_sha1, 40},
    {"--md5", EVP_md5, file_check_md5, 32},
};

struct MdCtxDeleter {
    void operator()(EVP_MD_CTX *p) const noexcept { EVP_MD_CTX_free(p); }
};

// The digest of a file in lower-case hex, streamed; the library only
// compares digests, it does not hand them out. Like sha256sum, it reads a
// FIFO or pipe the user names (/dev/stdin, <(...)) as well as a file.
int hex_digest(const char *cmd, const char *path, const Algorithm &alg, std::string &hex)
{
    const char *shown = shown_name(path);
    int fd = -1;
    struct stat st {};
    if (int status = open_named(cmd, path, fd, st, true))
        return status;
    struct Closer {
        int fd;
        ~Closer()
        {
            if (fd > 2)
                ::close(fd);
        }
    } closer{std::strcmp(path, "-") == 0 ? -1 : fd};
    if (S_ISDIR(st.st_mode))
        return fail(kSystem, cmd, "%s: %s", shown, std::strerror(EISDIR));
    if (closer.fd >= 0 && !S_ISREG(st.st_mode) && !S_ISFIFO(st.st_mode) && !S_ISSOCK(st.st_mode))
        return fail(kSystem, cmd, "%s: not a regular file or a pipe", shown);
    std::unique_ptr<EVP_MD_CTX, MdCtxDeleter> ctx(EVP_MD_CTX_new());
    if (!ctx || EVP_DigestInit_ex(ctx.get(), alg.md(), nullptr) != 1)
        return fail(kSystem, cmd, "cannot start the digest");
    std::vector<unsigned char> buf(65536);
    for (;;) {
        ssize_t n = ::read(fd, buf.data(), buf.size());
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return fail(kSystem, cmd, "%s: %s", shown, std::strerror(errno));
        if (n == 0)
            break;
        EVP_DigestUpdate(ctx.get(), buf.data(), static_cast<size_t>(n));
    }
    unsigned char md[EVP_MAX_MD_SIZE];
    unsigned int len = 0;
    if (EVP_DigestFinal_ex(ctx.get(), md, &len) != 1)
        return fail(kSystem, cmd, "cannot finish the digest");
    hex.clear();
    for (unsigned int i = 0; i < len; ++i) {
        char two[3];
        std::snprintf(two, sizeof two, "%02x", md[i]);
        hex += two;
    }
    return kOk;
}

// ---------------------------------------------------------------- rsa-check

const char kRsaHelp[] =
    "Usage: tavro-quenda rsa-check MESSAGE-FILE SIGNATURE-BASE64\n"
    "Check an RSA-SHA256 (PKCS #1 v1.5) signature, given in Base64 (\"-\" reads it\n"
    "from standard input; line breaks and spaces are ignored), over the text in\n"
    "MESSAGE-FILE (\"-\" for standard input) with the public key in\n"
    "/etc/tavro-quenda/public.pem. Prints \"result: N\": 1 good, 0 not.\n"
    "\n"
    "Options:\n"
    "  -h, --help  show this help\n"
    "\n"
    "Exit status: 0 good signature; 1 bad signature; 2 usage error; 3 message or\n"
    "key unreadable; 4 signature not Base64 or message holding a zero byte.\n";

bool is_base64(const std::string &text)
{
    if (text.empty() || text.size() % 4 != 0)
        return false;
    size_t pad = text.size() - text.find_last_not_of('=') - 1;
    if (pad > 2)
        return false;
    for (size_t i = 0; i < text.size() - pad; ++i) {
        unsigned char ch = static_cast<unsigned char>(text[i]);
        if (!std::isalnum(ch) && ch != '+' && ch != '/')
            return false;
    }
    return true;
}

// The library prints the cleaned signature text on standard output while it
// checks; that line is not this command's output.
int rsa_check_quietly(const char *message, const char *signature)
{
    std::fflush(stdout);
    int saved = ::fcntl(1, F_DUPFD_CLOEXEC, 3);
    int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (saved >= 0 && null >= 0)
        ::dup2(null, 1);
    int result = tavro_quenda_rsa_check(message, signature);
    std::fflush(stdout);
    std::clearerr(stdout);
    if (saved >= 0 && null >= 0)
        ::dup2(saved, 1);
    if (null >= 0)
        ::close(null);
    if (saved >= 0)
        ::close(saved);
    return result;
}

// ---------------------------------------------------------------- record

const char kRecordHelp[] =
    "Usage: tavro-quenda record read FILE\n"
    "       tavro-quenda record write FILE\n"
    "Read an encrypted record file (\"-\" for standard input) and print its text as\n"
    "it is stored, or encrypt the text on standard input, exactly as given, into\n"
    "FILE (created with mode 0600, or replaced atomically by a new 0600 file; a\n"
    "link there is replaced, not followed). A record holds at most 1023\n"
    "characters and no zero byte; a longer text is refused and nothing is written.\n"
    "\n"
    "Options:\n"
    "  -h, --help  show this help\n"
    "\n"
    "Exit status: 0 done; 2 usage error; 3 file unreadable or not written;\n"
    "4 not a record, or a text too long for one.\n";

// Writes data as a new owner-only file beside path, then renames it over
// path: a reader sees the old record or the new one, never half of one, the
// record is 0600 whatever was there before, and a link at path is replaced,
// never written through.
int write_file(const char *cmd, const char *path, const unsigned char *data, size_t size)
{
    struct Temp {
        std::string path;
        int fd = -1;
        ~Temp()
        {
            if (fd >= 0)
                ::close(fd);
            if (!path.empty())
                ::unlink(path.c_str());
        }
    } temp{std::string(path) + ".XXXXXX"};
    temp.fd = ::mkostemp(temp.path.data(), O_CLOEXEC); // mode 0600
    if (temp.fd < 0) {
        temp.path.clear();
        return fail(kSystem, cmd, "%s: %s", path, std::strerror(errno));
    }
    if (!write_all(temp.fd, data, size))
        return fail(kSystem, cmd, "%s: %s", path, std::strerror(errno));
    if (::fsync(temp.fd) != 0 || ::close(std::exchange(temp.fd, -1)) != 0 ||
        ::rename(temp.path.c_str(), path) != 0)
        return fail(kSystem, cmd, "%s: %s", path, std::strerror(errno));
    temp.path.clear();
    return kOk;
}

// ---------------------------------------------------------------- keyfile

const char kKeyfileHelp[] =
    "Usage: tavro-quenda keyfile get FILE GROUP KEY\n"
    "       tavro-quenda keyfile set FILE GROUP KEY VALUE\n"
    "Print the raw value of KEY in [GROUP] of the key file FILE (\"-\" for standard\n"
    "input), or set it, creating FILE, the group or the key as needed. FILE is\n"
    "rewritten only when its content changes; comments are kept. It is replaced\n"
    "atomically, keeping its owner and mode (through a link, where it points).\n"
    "\n"
    "Options:\n"
    "  -h, --help  show this help\n"
    "\n"
    "Exit status: 0 done; 1 no such group or key; 2 usage error; 3 file unreadable\n"
    "or not written; 4 not a key file, an invalid name or a line break.\n";

// GLib's warnings and criticals (a refused name, a failed save) would reach
// the terminal in GLib's words; the tool keeps the last one instead and says
// what went wrong in its own.
std::string last_glib_message;

void keep_glib_message(const gchar *, GLogLevelFlags, const gchar *message, gpointer)
{
    last_glib_message = message ? message : "";
}

// Why GLib would refuse a group or key name, or null for a good one: a group
// name holds no '[', ']' or control character; a key name no '=' or control
// character, no blank at either end, and brackets only around a trailing
// locale ("Name[fr]").
const char *bad_name(const std::string &name, bool group)
{
    if (name.empty())
        return "is empty";
    for (unsigned char ch : name) {
        if (ch == '\n' || ch == '\r')
            return "holds a line break";
        if (ch < 0x20 || ch == 0x7f)
            return "holds a control character";
    }
    if (group)
        return name.find_first_of("[]") == std::string::npos ? nullptr : "holds '[' or ']'";
    if (name.find('=') != std::string::npos)
        return "holds '='";
    if (std::isspace(static_cast<unsigned char>(name.front())) || std::isspace(static_cast<unsigned char>(name.back())))
        return "begins or ends with a blank";
    const size_t open = name.find('[');
    if (open == std::string::npos)
        return name.find(']') == std::string::npos ? nullptr : "holds ']' outside a locale";
    if (open == 0 || name.back() != ']' || name.find_first_of("[]", open + 1) != name.size() - 1 ||
        open + 2 == name.size())
        return "holds '[' or ']' outside a locale such as Name[fr]";
    return nullptr;
}

// The file a path names at the end of its symbolic links (it need not exist
// yet), so that a key file kept behind a link is replaced where it lives.
int follow_links(const char *cmd, const char *path, std::string &out)
{
    out = path;
    for (int hops = 0; hops < 40; ++hops) {
        std::array<char, 4096> target{};
        ssize_t n = ::readlink(out.c_str(), target.data(), target.size());
        if (n < 0)
            return errno == EINVAL || errno == ENOENT ? kOk : fail(kSystem, cmd, "%s: %s", path, std::strerror(errno));
        if (static_cast<size_t>(n) == target.size())
            return fail(kSystem, cmd, "%s: %s", path, std::strerror(ENAMETOOLONG));
        std::string next(target.data(), static_cast<size_t>(n));
        const size_t slash = out.rfind('/');
        if (next.front() != '/' && slash != std::string::npos)
            next = out.substr(0, slash + 1) + next;
        out = next;
    }
    return fail(kSystem, cmd, "%s: %s", path, std::strerror(ELOOP));
}

struct KeyFileDeleter {
    void operator()(GKeyFile *p) const noexcept { g_key_file_free(p); }
};
using KeyFilePtr = std::unique_ptr<GKeyFile, KeyFileDeleter>;
struct GFreeDeleter {
    void operator()(gchar *p) const noexcept { g_free(p); }
};
using GString_ = std::unique_ptr<gchar, GFreeDeleter>;

// ---------------------------------------------------------------- base64

const char kBase64Help[] =
    "Usage: tavro-quenda base64 [-d] [--url] [FILE]\n"
    "Encode FILE (default \"-\", standard input) as Base64 on one line, or decode\n"
    "it. --url uses the URL form of the library: standard Base64 with '+', '/'\n"
    "and '=' written %2B, %2F and %3D (not the base64url alphabet). Line ends\n"
    "in the text to decode are ignored; anything else outside the alphabet is\n"
    "refused with the library's result code.\n"
    "\n"
    "Options:\n"
    "  -d, --decode  decode instead of encoding\n"
    "  --url         the percent-escaped URL form\n"
    "  -h, --help    show this help\n"
    "\n"
    "Exit status: 0 done; 2 usage error; 3 input unreadable; 4 text refused.\n";

const char *base64_why(int code)
{
    switch (code) {
    case 59: return "its length is not a multiple of 4";
    case 60: return "a character outside the Base64 alphabet";
    case 61: return "'=' out of place";
    case 64: return "a character outside the Base64 alphabet and '%'";
    case 66: return "a '%' that does not start %2B, %2F or %3D";
    default: return "the text was refused";
    }
}

} // namespace

int digest(int argc, char **argv)
{
    static const char kCmd[] = "digest";
    static const option kOptions[] = {
        {"sha256", no_argument, nullptr, 0},
        {"sha1", no_argument, nullptr, 1},
        {"md5", no_argument, nullptr, 2},
        {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    };
    const Algorithm *alg = nullptr;
    int c;
    while ((c = getopt_long(argc, argv, ":h", kOptions, nullptr)) != -1) {
        if (c >= 0 && c <= 2) {
            if (alg && alg != &kAlgorithms[c])
                return usage_error(kCmd, "%s and %s cannot be used together", alg->option, kAlgorithms[c].option);
            alg = &kAlgorithms[c];
        } else if (c == 'h') {
            std::fputs(kDigestHelp, stdout);
            return kOk;
        } else {
            return bad_option(kCmd, argv, c);
        }
    }
    if (!alg)
        alg = &kAlgorithms[0];
    if (int status = check_operands(kCmd, argc, argv, 1, 2, "no file given"))
        return status;
    const char *file = argv[optind];
    if (argc - optind == 1) {
        std::string hex;
        if (int status = hex_digest(kCmd, file, *alg, hex))
            return status;
        std::printf("%s  %s\n", hex.c_str(), file);
        return kOk;
    }
    std::string expected = argv[optind + 1];
    bool hex = expected.size() == alg->hex_length;
    for (char &ch : expected) {
        hex = hex && std::isxdigit(static_cast<unsigned char>(ch));
        ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
    }
    if (!hex)
        return usage_error(kCmd, "EXPECTED must be %zu hexadecimal digits", alg->hex_length);
    // The library reads regular files only; a stream is handed to it as a copy.
    InputPath input;
    if (int status = input.open(kCmd, file, kMaxInput, true))
        return status;
    int result = alg->check(input.path(), expected.c_str());
    std::printf("result: %d\n%s: %s\n", result, file, result == 1 ? "OK" : "FAILED");
    if (result == 1)
        return kOk;
    return fail(kNo, kCmd, "%s: digest does not match", input.shown());
}

int rsa_check(int argc, char **argv)
{
    static const char kCmd[] = "rsa-check";
    if (int status = help_only(kCmd, argc, argv, kRsaHelp); status >= 0)
        return status;
    if (int status = check_operands(kCmd, argc, argv, 2, 2, "needs MESSAGE-FILE and SIGNATURE-BASE64"))
        return status;
    const char *file = argv[optind];
    const char *signature_arg = argv[optind + 1];
    if (std::strcmp(file, "-") == 0 && std::strcmp(signature_arg, "-") == 0)
        return usage_error(kCmd, "only one of MESSAGE-FILE and SIGNATURE-BASE64 can be \"-\"");
    std::string message;
    if (int status = read_whole(kCmd, file, kMaxInput, message))
        return status;
    const char *shown = shown_name(file);
    if (message.find('\0') != std::string::npos)
        return fail(kRejected, kCmd, "%s: the message holds a zero byte", shown);
    std::string signature;
    if (std::strcmp(signature_arg, "-") == 0) {
        if (int status = read_whole(kCmd, "-", kMaxInput, signature))
            return status;
    } else {
        signature = signature_arg;
    }
    std::string cleaned;
    for (char ch : signature) {
        if (ch != '\n' && ch != '\r' && ch != ' ')
            cleaned += ch;
    }
    if (!is_base64(cleaned))
        return fail(kRejected, kCmd, "the signature is not Base64");

    // Say why the key cannot be used before the library says only that.
    int fd = ::open(kPublicKey, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0)
        return fail(kSystem, kCmd, "%s: %s", kPublicKey, std::strerror(errno));
    ::close(fd);
    RSA *key = load_public_key(kPublicKey);
    if (!key)
        return fail(kSystem, kCmd, "%s: not a PEM RSA public key", kPublicKey);
    RSA_free(key);

    int result = rsa_check_quietly(message.c_str(), cleaned.c_str());
    std::printf("result: %d\n", result);
    if (result == 1)
        return kOk;
    return fail(kNo, kCmd, "%s: bad signature", shown);
}

int record(int argc, char **argv)
{
    static const char kCmd[] = "record";
    if (int status = help_only(kCmd, argc, argv, kRecordHelp); status >= 0)
        return status;
    if (int status = check_operands(kCmd, argc, argv, 2, 2, "needs 'read FILE' or 'write FILE'"))
        return status;
    const std::string action = argv[optind];
    const char *file = argv[optind + 1];
    if (action == "read") {
        InputPath input;
        if (int status = input.open(kCmd, file, kRecordBytes))
            return status;
        struct stat st {};
        if (::stat(input.path(), &st) != 0)
            return fail(kSystem, kCmd, "%s: %s", input.shown(), std::strerror(errno));
        if (st.st_size == 0)
            return fail(kRejected, kCmd, "%s: empty, not a record", input.shown());
        if (st.st_size % 16 != 0)
            return fail(kRejected, kCmd, "%s: %lld bytes, not a multiple of 16: not a record", input.shown(),
                        static_cast<long long>(st.st_size));
        CString text(read_decrypt_file_to_str(input.path()));
        if (!text)
            return fail(kSystem, kCmd, "%s: cannot read the record", input.shown());
        std::fputs(text.get(), stdout);
        return kOk;
    }
    if (action == "write") {
        if (std::strcmp(file, "-") == 0)
            return usage_error(kCmd, "write needs a file name; the text comes from standard input");
        std::string text;
        if (int status = read_whole(kCmd, "-", kMaxInput, text))
            return status;
        if (text.size() > kRecordText)
            return fail(kRejected, kCmd, "%s: the text is %zu characters; a record holds at most %zu; nothing written",
                        file, text.size(), kRecordText);
        if (text.find('\0') != std::string::npos)
            return fail(kRejected, kCmd, "%s: the text holds a zero byte; nothing written", file);
        std::array<unsigned char, kRecordBytes> sealed{};
        int32_t length = tavro_aes_encrypt(text.c_str(), sealed.data(), kRecordBytes);
        if (length <= 0)
            return fail(kSystem, kCmd, "%s: encryption failed (result %d)", file, static_cast<int>(length));
        return write_file(kCmd, file, sealed.data(), static_cast<size_t>(length));
    }
    return usage_error(kCmd, "unknown action '%s'; use read or write", action.c_str());
}

int keyfile(int argc, char **argv)
{
    static const char kCmd[] = "keyfile";
    if (int status = help_only(kCmd, argc, argv, kKeyfileHelp); status >= 0)
        return status;
    if (optind >= argc)
        return usage_error(kCmd, "needs 'get FILE GROUP KEY' or 'set FILE GROUP KEY VALUE'");
    const std::string action = argv[optind];
    const bool set = action == "set";
    if (!set && action != "get")
        return usage_error(kCmd, "unknown action '%s'; use get or set", action.c_str());
    int wanted = set ? 5 : 4;
    if (argc - optind < wanted)
        return usage_error(kCmd, set ? "set needs FILE GROUP KEY VALUE" : "get needs FILE GROUP KEY");
    if (argc - optind > wanted)
        return usage_error(kCmd, "unexpected argument '%s'", argv[optind + wanted]);
    const char *file = argv[optind + 1];
    const char *group = argv[optind + 2];
    const char *key = argv[optind + 3];

    if (!set) {
        InputPath input;
        if (int status = input.open(kCmd, file, kMaxInput))
            return status;
        KeyFilePtr kf(key_file_load_from_file(input.path()));
        if (!kf)
            return fail(kRejected, kCmd, "%s: not a key file", input.shown());
        GString_ value(key_file_get_value(kf.get(), group, key));
        if (!value)
            return fail(kNo, kCmd, "%s: no key '%s' in group [%s]", input.shown(), key, group);
        std::printf("%s\n", value.get());
        return kOk;
    }

    if (std::strcmp(file, "-") == 0)
        return usage_error(kCmd, "set needs a file name");
    const char *value = argv[optind + 4];
    // A line break would let the value (or a name) write lines of its own:
    // keys, groups, or text that makes the file unreadable.
    if (std::strpbrk(value, "\r\n"))
        return fail(kRejected, kCmd, "%s: the value holds a line break; nothing written", file);
    for (auto [what, name, is_group] : {std::tuple{"group", group, true}, {"key", key, false}}) {
        if (const char *why = bad_name(name, is_group))
            return fail(kRejected, kCmd, "%s: the %s name '%s' %s; nothing written", file, what, name, why);
    }
    g_log_set_default_handler(keep_glib_message, nullptr);
    std::string target;
    if (int status = follow_links(kCmd, file, target))
        return status;
    KeyFilePtr kf;
    struct stat st {};
    if (::stat(target.c_str(), &st) == 0) {
        InputPath input;
        if (int status = input.open(kCmd, file, kMaxInput))
            return status;
        kf.reset(key_file_load_from_file(target.c_str()));
        if (!kf)
            return fail(kRejected, kCmd, "%s: not a key file", file);
    } else if (errno == ENOENT) {
        kf.reset(g_key_file_new());
    } else {
        return fail(kSystem, kCmd, "%s: %s", file, std::strerror(errno));
    }
    key_file_set_value(kf.get(), group, key, value);
    GString_ stored(key_file_get_value(kf.get(), group, key));
    if (!stored || std::strcmp(stored.get(), value) != 0)
        return fail(kRejected, kCmd, "%s: '%s' in group [%s] is not a name a key file can hold; nothing written",
                    file, key, group);
    gsize length = 0;
    GString_ data(key_file_to_data(kf.get(), &length));
    if (!data)
        return fail(kSystem, kCmd, "%s: cannot serialise the key file", file);
    last_glib_message.clear();
    key_file_save_to_file(kf.get(), target.c_str());
    // Saving reports nothing back; the file itself tells whether it worked,
    // and the library's warning why not.
    std::string written;
    int fd = ::open(target.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd >= 0) {
        char buf[65536];
        for (ssize_t n; (n = ::read(fd, buf, sizeof buf)) > 0;)
            written.append(buf, static_cast<size_t>(n));
        ::close(fd);
    }
    if (fd < 0 || written != std::string(data.get(), length)) {
        // "Unable to save settings3: <why>": the part after the first ": ".
        const size_t colon = last_glib_message.find(": ");
        if (colon == std::string::npos)
            return fail(kSystem, kCmd, "%s: not written", file);
        return fail(kSystem, kCmd, "%s: not written: %s", file, last_glib_message.c_str() + colon + 2);
    }
    return kOk;
}

int base64(int argc, char **argv)
{
    static const char kCmd[] = "base64";
    static const option kOptions[] = {
        {"decode", no_argument, nullptr, 'd'},
        {"url", no_argument, nullptr, 'u'},
        {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    };
    bool decode = false, url = false;
    int c;
    while ((c = getopt_long(argc, argv, ":dh", kOptions, nullptr)) != -1) {
        switch (c) {
        case 'd': decode = true; break;
        case 'u': url = true; break;
        case 'h': std::fputs(kBase64Help, stdout); return kOk;
        default: return bad_option(kCmd, argv, c);
        }
    }
    if (int status = check_operands(kCmd, argc, argv, 0, 1, ""))
        return status;
    const char *file = optind < argc ? argv[optind] : "-";
    const char *shown = shown_name(file);
    std::string in;
    if (int status = read_whole(kCmd, file, kMaxInput, in))
        return status;

    if (!decode) {
        if (in.empty())
            return kOk;
        std::vector<char> out(4 * ((in.size() + 2) / 3) + 1);
        uint32_t out_len = 0;
        int code = base64_encode(reinterpret_cast<const unsigned char *>(in.data()), static_cast<uint32_t>(in.size()),
                                 out.data(), &out_len);
        if (code != 0)
            return fail(kRejected, kCmd, "%s: not encoded (result %d)", shown, code);
        std::string text(out.data(), out_len);
        if (url) {
            std::vector<char> escaped(3 * text.size() + 1);
            uint32_t escaped_len = 0;
            code = transform_to_url(text.c_str(), static_cast<int32_t>(text.size()), escaped.data(), &escaped_len);
            if (code != 0)
                return fail(kRejected, kCmd, "%s: not encoded (result %d)", shown, code);
            text.assign(escaped.data(), escaped_len);
        }
        std::printf("%s\n", text.c_str());
        return kOk;
    }

    std::string text;
    for (char ch : in) {
        if (ch != '\n' && ch != '\r')
            text += ch;
    }
    if (text.empty())
        return kOk;
    if (url) {
        std::vector<char> plain(text.size() + 1);
        uint32_t plain_len = 0;
        int code = transform_from_url(text.c_str(), static_cast<int32_t>(text.size()), plain.data(), &plain_len);
        if (code != 0)
            return fail(kRejected, kCmd, "%s: not the URL form of Base64 (result %d: %s)", shown, code,
                        base64_why(code));
        text.assign(plain.data(), plain_len);
    }
    std::vector<unsigned char> out(text.size());
    uint32_t out_len = 0;
    int code = base64_decode(text.c_str(), static_cast<uint32_t>(text.size()), out.data(), &out_len);
    if (code != 0)
        return fail(kRejected, kCmd, "%s: not Base64 (result %d: %s)", shown, code, base64_why(code));
    if (out_len > out.size())
        return fail(kRejected, kCmd, "%s: not Base64", shown);
    std::fwrite(out.data(), 1, out_len, stdout);
    return kOk;
}

} // namespace cli
