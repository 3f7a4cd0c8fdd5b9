// SPDX-License-Identifier: LGPL-2.1-or-later
// OpenPGP verification through the gpg tool (with a small cache of results)
// and through GPGME, and encryption to the compiled-in key through GPGME.
#include "integrity/gnupg.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

#include "foundation/os.h"
#include "foundation/strutil.h"
#include "tavro-quenda.h"
#include "tavro_quenda_trusted_key.h"

namespace tq {

const TrustedKey trusted_key[kTrustedKeyCount] = {{
    generated::kTrustedKeyData,
    generated::kTrustedKeyLength,
    generated::kTrustedKeyFingerprint,
    generated::kTrustedKeyId,
    generated::kTrustedKeyCreated,
}};

namespace {

// Result codes.
constexpr int32_t kGood = 0;
constexpr int32_t kVerifyFailed = 1;
constexpr int32_t kKeyMissing = 14;
constexpr int32_t kClockBeforeKey = 15;
constexpr int32_t kNoPrivateHome = 16;
constexpr int32_t kBadInputText = 44;
constexpr int32_t kEncryptFailed = 45;
constexpr int32_t kUntrustedSigner = 46;
constexpr int32_t kFileUnreadable = 49;
constexpr int32_t kRedSummary = 50;
constexpr int32_t kBadSignature = 51;
constexpr int32_t kSignatureError = 52;
constexpr int32_t kUnsigned = 53;
constexpr int32_t kNoOutput = 100;

constexpr char kSignedMarker[] = "-----BEGIN PGP SIGNED MESSAGE-----";
constexpr char kSignatureMarker[] = "-----BEGIN PGP SIGNATURE-----";
constexpr char kSignatureEnd[] = "-----END PGP SIGNATURE-----";
constexpr size_t kCustomInfoSize = 4096;  // get_custom_info's buffer
constexpr size_t kVerifiedTextMax = 4096; // longest text gpg_verify hands back
constexpr size_t kCommandMax = 512;       // gpg command lines stay below this
// A signed file is read once, whole, and must fit in this; a larger one fails
// verification. Real signed data files are a few KiB.
constexpr size_t kSignedFileMax = 4 * 1024 * 1024;

// ---- owners ----------------------------------------------------------------

struct CtxRelease {
    void operator()(gpgme_ctx_t ctx) const noexcept { gpgme_release(ctx); }
};
using UniqueCtx = std::unique_ptr<std::remove_pointer_t<gpgme_ctx_t>, CtxRelease>;

struct DataRelease {
    void operator()(gpgme_data_t data) const noexcept { gpgme_data_release(data); }
};
using UniqueData = std::unique_ptr<std::remove_pointer_t<gpgme_data_t>, DataRelease>;

struct KeyRelease {
    void operator()(gpgme_key_t key) const noexcept { gpgme_key_unref(key); }
};
using UniqueKey = std::unique_ptr<std::remove_pointer_t<gpgme_key_t>, KeyRelease>;

struct MdCtxFree {
    void operator()(EVP_MD_CTX *md) const noexcept { EVP_MD_CTX_free(md); }
};

using CString = std::unique_ptr<char, FreeDeleter>;

constexpr char kHomeTemplate[] = "/tmp/gpgdir-XXXXXX";

// A private GnuPG home, removed with everything in it when the owner goes.
// Taking ownership cannot fail, so a made home is never left behind.
class TempHome {
public:
    explicit TempHome(const char *path) noexcept { std::snprintf(path_, sizeof(path_), "%s", path); }
    TempHome(const TempHome &) = delete;
    TempHome &operator=(const TempHome &) = delete;
    ~TempHome()
    {
        remove_directory(path_);
        quenda_trace("remove_directory: %s", path_);
    }
    const char *path() const noexcept { return path_; }

private:
    char path_[sizeof(kHomeTemplate)];
};

// A temporary file, unlinked when the owner goes.
class TempFile {
public:
    explicit TempFile(CString path) noexcept : path_(std::move(path)) {}
    TempFile(const TempFile &) = delete;
    TempFile &operator=(const TempFile &) = delete;
    ~TempFile()
    {
        if (path_)
            os::unlink(path_.get());
    }
    const char *path() const noexcept { return path_.get(); }

private:
    CString path_;
};

bool write_all(int fd, const void *data, size_t size) noexcept
{
    const char *p = static_cast<const char *>(data);
    while (size > 0) {
        ssize_t n = ::write(fd, p, size);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        p += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

// gpg starts a key agent for an import when none runs for the home, and that
// agent would outlive the throw-away home. Our homes never need one.
bool disable_agent_autostart(const char *home) noexcept
{
    static constexpr char kConf[] = "no-autostart\n";
    char conf[sizeof(kHomeTemplate) + sizeof("/gpg.conf")];
    std::snprintf(conf, sizeof(conf), "%s/gpg.conf", home);
    UniqueFD fd = os::open(conf, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, 0600);
    return fd && write_all(fd.get(), kConf, sizeof(kConf) - 1);
}

// Where the key agent of the current GnuPG home listens, as gpgconf tells it
// ("" when it cannot tell).
std::string agent_socket_path()
{
    os::Pipe pipe = os::popen("gpgconf --list-dirs agent-socket 2>/dev/null");
    if (!pipe)
        return {};
    char line[PATH_MAX + 1];
    std::string escaped;
    if (std::fgets(line, sizeof(line), pipe.get()))
        escaped = line;
    if (pipe.close() != 0)
        return {};
    // gpgconf percent-escapes some characters.
    std::string path;
    for (size_t i = 0; i < escaped.size(); ++i) {
        char c = escaped[i];
        if (c == '\n' || c == '\r')
            break;
        if (c == '%' && i + 2 < escaped.size()) {
            path += static_cast<char>(std::strtol(escaped.substr(i + 1, 2).c_str(), nullptr, 16));
            i += 2;
        } else {
            path += c;
        }
    }
    return path;
}

bool agent_listening(const std::string &socket_path) noexcept
{
    struct sockaddr_un addr {};
    if (socket_path.empty() || socket_path.size() >= sizeof(addr.sun_path))
        return false;
    UniqueFD fd = os::socket(AF_UNIX, SOCK_STREAM, 0);
    if (!fd)
        return false;
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path, socket_path.c_str(), socket_path.size() + 1);
    return ::connect(fd.get(), reinterpret_cast<const struct sockaddr *>(&addr), sizeof(addr)) == 0;
}

// In a home we do not own (the caller's), gpg may start a key agent for our
// import. Stop it again when this call started it, so that nothing the call
// started outlives it; an agent that was running before is left alone.
class AgentGuard {
public:
    AgentGuard() : socket_(agent_socket_path()), was_running_(agent_listening(socket_)) {}
    AgentGuard(const AgentGuard &) = delete;
    AgentGuard &operator=(const AgentGuard &) = delete;
    ~AgentGuard()
    {
        if (!socket_.empty() && !was_running_ && agent_listening(socket_))
            os::system("gpgconf --kill gpg-agent > /dev/null 2>&1");
    }

private:
    std::string socket_;
    bool was_running_;
};

// A gpg command line in a private home. Every path is quoted for the shell,
// and a relative file name that starts with '-' gets "./" so that gpg cannot
// take it for an option. A line that would not fit is not run at all: cutting
// it could leave a shorter, different path.
std::optional<std::string> gpg_command(std::string_view action, std::string_view homedir, std::string_view file)
{
    std::string file_path(file);
    if (!file_path.empty() && file_path.front() == '-')
        file_path.insert(0, "./");
    std::string line = "gpg --homedir " + os::path_arg(homedir) + " --no-tty --batch --" + std::string(action) + " " +
                       os::path_arg(file_path) + " > /dev/null 2>&1";
    if (line.size() >= kCommandMax)
        return std::nullopt;
    return line;
}

// A new temporary file holding the trusted key; its path, or null.
CString make_temp_pubkey() noexcept
{
    char path[] = "/tmp/pubkey_XXXXXX";
    UniqueFD fd = os::mkstemp(path);
    if (!fd)
        return nullptr;
    const TrustedKey &key = trusted_key[0];
    bool written = write_all(fd.get(), key.data, key.length);
    if (::close(fd.release()) != 0)
        written = false;
    if (!written) {
        os::unlink(path);
        return nullptr;
    }
    CString copy(dup_c(path));
    if (!copy)
        os::unlink(path);
    return copy;
}

// The whole content of a caller's signed file, read once: a regular file of at
// most kSignedFileMax bytes. *mtime receives its modification time.
bool read_signed_file(const char *path, std::string *bytes, int64_t *mtime) noexcept
{
    UniqueFD fd = path ? os::open_input(path) : UniqueFD();
    struct stat st;
    if (!fd || ::fstat(fd.get(), &st) != 0 || !os::read_bounded(fd.get(), kSignedFileMax, bytes))
        return false;
    *mtime = st.st_mtime;
    return true;
}

bool blank(std::string_view line) noexcept
{
    return line.find_first_not_of(" \t\r") == std::string_view::npos;
}

// A line that is exactly an armour marker (trailing blanks allowed).
bool marker_line(std::string_view line, std::string_view marker) noexcept
{
    return line.substr(0, marker.size()) == marker && blank(line.substr(marker.size()));
}

// True when text is one clear-signed message and nothing else: blank lines
// may surround it, but every marker must stand alone on its line and appear
// once. gpg skips text around the block it verifies, so anything else could
// put unverified text where the body is cut from.
bool one_clear_signed_message(std::string_view text) noexcept
{
    enum { before, body, signature, after } state = before;
    for (size_t pos = 0; pos < text.size();) {
        size_t nl = text.find('\n', pos);
        const std::string_view line = text.substr(pos, nl == std::string_view::npos ? nl : nl - pos);
        pos = nl == std::string_view::npos ? text.size() : nl + 1;
        const bool any_marker = line.find(kSignedMarker) != std::string_view::npos ||
                                line.find(kSignatureMarker) != std::string_view::npos ||
                                line.find(kSignatureEnd) != std::string_view::npos;
        switch (state) {
        case before:
            if (marker_line(line, kSignedMarker))
                state = body;
            else if (!blank(line))
                return false;
            break;
        case body:
            if (marker_line(line, kSignatureMarker))
                state = signature;
            else if (any_marker)
                return false;
            break;
        case signature:
            if (marker_line(line, kSignatureEnd))
                state = after;
            else if (any_marker)
                return false;
            break;
        case after:
            if (!blank(line))
                return false;
            break;
        }
    }
    return state == after;
}

// Any trace of a clear-signed armour in text.
bool mentions_clear_signing(std::string_view text) noexcept
{
    return text.find(kSignedMarker) != std::string_view::npos ||
           text.find(kSignatureMarker) != std::string_view::npos || text.find(kSignatureEnd) != std::string_view::npos;
}

// The body cut out of the first 4095 bytes of a signed file's content, as
// get_custom_info does; null when there is none.
char *body_from_content(std::string_view bytes, size_t *body_len) noexcept
{
    char text[kCustomInfoSize];
    const size_t n = std::min(bytes.size(), sizeof(text) - 1);
    std::memcpy(text, bytes.data(), n);
    text[n] = '\0';
    CString body(static_cast<char *>(std::malloc(kCustomInfoSize)));
    if (!body || extract_signed_message(text, body.get(), body_len) != 0)
        return nullptr;
    return body.release();
}

// Verifies bytes (a signed file's whole content) with gpg and cuts the body
// from the very same bytes: gpg reads a private copy in the private home, so
// nothing done to the caller's file afterwards changes the answer.
int32_t verify_content(const std::string &bytes, char **content, size_t *content_len)
{
    char dir[sizeof(kHomeTemplate)];
    std::memcpy(dir, kHomeTemplate, sizeof(dir));
    if (!os::mkdtemp(dir)) {
        quenda_trace("gpg_verify, create tmp dir failed");
        return kNoPrivateHome;
    }
    quenda_trace("gpg_verify_cmd, create tmp dir success, dirName = %s", dir);
    TempHome home(dir);
    if (!disable_agent_autostart(home.path())) {
        quenda_trace("gpg_verify_cmd, cannot write gpg.conf in %s", dir);
        return kNoPrivateHome;
    }

    TempFile key_file(make_temp_pubkey());
    if (!key_file.path()) {
        quenda_trace("write_temp_pubkey failed");
        return kNoPrivateHome;
    }
    std::optional<std::string> import = gpg_command("import", home.path(), key_file.path());
    if (!import || os::system(*import) != 0) {
        quenda_trace("gpg_verify, import key failed = %s", import ? import->c_str() : "(command too long)");
        return kNoPrivateHome;
    }

    const std::string copy = std::string(home.path()) + "/signed.asc";
    {
        UniqueFD fd = os::open(copy.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, 0600);
        if (!fd || !write_all(fd.get(), bytes.data(), bytes.size()) || ::close(fd.release()) != 0) {
            quenda_trace("gpg_verify_cmd, cannot write %s", copy.c_str());
            return kNoPrivateHome;
        }
    }
    // A clear-signed file must be exactly one message; a file without any
    // clear-signing armour hands back no text, whatever gpg says of it.
    const bool clear_signed = one_clear_signed_message(bytes);
    if (!run_verify(dir, copy.c_str()) || (!clear_signed && mentions_clear_signing(bytes))) {
        quenda_trace("get_custom_info failed");
        return kVerifyFailed;
    }
    char *body = clear_signed ? body_from_content(bytes, content_len) : nullptr;
    if (content)
        *content = body;
    else
        std::free(body);
    return kGood;
}

int32_t verify_cmd(const char *path, char **content, size_t *content_len)
{
    std::string bytes;
    int64_t mtime = 0;
    if (!read_signed_file(path, &bytes, &mtime)) {
        quenda_trace("gpg_verify_cmd, cannot read %s", path ? path : "(null)");
        return kVerifyFailed;
    }
    return verify_content(bytes, content, content_len);
}

Sha256Digest sha256_of(std::string_view bytes) noexcept
{
    Sha256Digest digest{};
    unsigned int len = 0;
    EVP_Digest(bytes.data(), bytes.size(), digest.data(), &len, EVP_sha256(), nullptr);
    return digest;
}

struct GpgCache {
    GpgCacheEntry entries[kGpgCacheSize];
    size_t count = 0;
};

GpgCache &gpg_cache()
{
    static GpgCache cache;
    return cache;
}

int32_t verify_cmd_cached(const char *path, char **content, size_t *content_len)
{
    // The entry is keyed on the bytes that were verified, read once.
    std::string bytes;
    int64_t mtime = 0;
    if (!read_signed_file(path, &bytes, &mtime)) {
        quenda_trace("gpg_verify_cmd, cannot read %s", path ? path : "(null)");
        return kVerifyFailed;
    }
    const Sha256Digest digest = sha256_of(bytes);

    if (const GpgCacheEntry *hit = gpg_cache_lookup(path, mtime, digest)) {
        quenda_trace("GPG cache hit, file path: %s\n", path);
        if (content) {
            char *copy = hit->content.empty() ? nullptr : dup_c(hit->content);
            *content = copy;
            if (content_len)
                *content_len = copy ? hit->content.size() : 0;
        }
        return hit->result;
    }

    char *raw = nullptr;
    size_t size = 0;
    int32_t result = verify_content(bytes, &raw, &size);
    CString body(raw);
    guarded_void([&] { gpg_cache_insert(path, mtime, digest, result, body.get(), size); });
    if (content) {
        *content = body.release();
        if (content_len)
            *content_len = size;
    }
    return result;
}

// Where gpg_verify's gpg writes the signed text: the text is kept only up to
// one byte past the longest text handed back, and the rest is just counted,
// so a huge signed message costs no memory.
class CappedText {
public:
    static gpgme_data_cbs callbacks;

private:
    static ssize_t read(void *handle, void *buffer, size_t size) noexcept
    {
        auto *self = static_cast<CappedText *>(handle);
        if (self->pos_ >= self->kept_)
            return 0;
        const size_t n = std::min(size, self->kept_ - self->pos_);
        std::memcpy(buffer, self->text_.data() + self->pos_, n);
        self->pos_ += n;
        return static_cast<ssize_t>(n);
    }
    static ssize_t write(void *handle, const void *buffer, size_t size) noexcept
    {
        auto *self = static_cast<CappedText *>(handle);
        const size_t n = std::min(size, self->text_.size() - self->kept_);
        std::memcpy(self->text_.data() + self->kept_, buffer, n);
        self->kept_ += n;
        self->total_ += size;
        return static_cast<ssize_t>(size);
    }
    static off_t seek(void *handle, off_t offset, int whence) noexcept
    {
        auto *self = static_cast<CappedText *>(handle);
        if (offset != 0 || (whence != SEEK_SET && whence != SEEK_END)) {
            errno = EINVAL;
            return -1;
        }
        // Reading back is only ever done from the start of a kept text.
        self->pos_ = 0;
        return whence == SEEK_END ? static_cast<off_t>(self->total_) : 0;
    }

    std::array<char, kVerifiedTextMax + 1> text_;
    size_t kept_ = 0;
    uint64_t total_ = 0;
    size_t pos_ = 0;
};

gpgme_data_cbs CappedText::callbacks = {CappedText::read, CappedText::write, CappedText::seek, nullptr};

void set_gpgme_locale() noexcept
{
    gpgme_check_version(nullptr);
    std::setlocale(LC_ALL, "");
    gpgme_set_locale(nullptr, LC_CTYPE, std::setlocale(LC_CTYPE, nullptr));
}

int32_t verify_gpgme(const char *path, char **content, size_t *content_len)
{
    // GNUPGHOME points at a private home for the rest of the process: GPGME's
    // gpg reads it from the environment.
    char dir[sizeof(kHomeTemplate)];
    std::memcpy(dir, kHomeTemplate, sizeof(dir));
    std::optional<TempHome> home;
    bool own_home_ready = false;
    if (os::mkdtemp(dir)) {
        quenda_trace("gpg_verify, create tmp dir success, dirName = %s", dir);
        home.emplace(dir);
        own_home_ready = disable_agent_autostart(home->path());
        ::setenv("GNUPGHOME", os::host_path(dir).c_str(), 1);
    } else {
        quenda_trace("gpg_verify, create tmp dir failed");
    }

    set_gpgme_locale();
    gpgme_ctx_t raw_ctx = nullptr;
    if (gpgme_new(&raw_ctx) != 0)
        return kNoPrivateHome;
    UniqueCtx ctx(raw_ctx);

    // The signed file is streamed to gpg from one descriptor, never copied
    // into memory; only a regular file is read.
    UniqueFD fd = path ? os::open_input(path) : UniqueFD();
    gpgme_data_t raw = nullptr;
    if (!fd || gpgme_data_new_from_fd(&raw, fd.get()) != 0)
        return kFileUnreadable;
    UniqueData signed_file(raw);
    raw = nullptr;
    CappedText sink;
    if (gpgme_data_new_from_cbs(&raw, &CappedText::callbacks, &sink) != 0)
        return kNoOutput;
    UniqueData text(raw);

    std::optional<AgentGuard> agent;
    if (!own_home_ready)
        agent.emplace();
    import_trusted_keys(ctx.get());
    if (gpgme_op_verify(ctx.get(), signed_file.get(), nullptr, text.get()) != 0)
        return kVerifyFailed;
    int32_t result = evaluate_verify_result(ctx.get());
    if (result == kGood && content)
        read_verified_text(text.get(), content, content_len);
    return result;
}

int32_t encrypt_gpgme(const char *input, char **armoured, size_t *armoured_len)
{
    const time_t now = std::time(nullptr);
    set_gpgme_locale();
    gpgme_ctx_t raw_ctx = nullptr;
    if (gpgme_new(&raw_ctx) != 0)
        return kNoPrivateHome;
    UniqueCtx ctx(raw_ctx);
    gpgme_set_armor(ctx.get(), 1);

    gpgme_data_t raw = nullptr;
    if (!input || gpgme_data_new_from_mem(&raw, input, std::strlen(input), 1) != 0)
        return kBadInputText;
    UniqueData plain(raw);
    raw = nullptr;
    if (gpgme_data_new(&raw) != 0)
        return kNoOutput;
    UniqueData cipher(raw);

    AgentGuard agent;
    import_trusted_keys(ctx.get());
    const TrustedKey &trusted = trusted_key[0];
    gpgme_key_t raw_key = nullptr;
    if (gpgme_get_key(ctx.get(), trusted.fingerprint, &raw_key, 0) != 0 || !raw_key)
        return now < trusted.created ? kClockBeforeKey : kKeyMissing;
    UniqueKey key(raw_key);

    gpgme_key_t recipients[] = {key.get(), nullptr};
    if (gpgme_op_encrypt(ctx.get(), recipients, GPGME_ENCRYPT_ALWAYS_TRUST, plain.get(), cipher.get()) != 0)
        return kEncryptFailed;
    int32_t result = evaluate_encrypt_result(ctx.get());
    if (result == kGood && armoured)
        read_armoured_output(cipher.get(), armoured, armoured_len);
    return result;
}

// Reads all of data from its start into buf; false on an error or a short read.
bool read_whole(gpgme_data_t data, char *buf, size_t size) noexcept
{
    if (gpgme_data_seek(data, 0, SEEK_SET) != 0)
        return false;
    size_t total = 0;
    while (total < size) {
        ssize_t n = gpgme_data_read(data, buf + total, size - total);
        if (n < 0)
            return false;
        if (n == 0)
            break;
        total += static_cast<size_t>(n);
    }
    return total == size;
}

} // namespace

const GpgCacheEntry *gpg_cache_lookup(const char *path, int64_t mtime, const Sha256Digest &digest)
{
    if (!path)
        return nullptr;
    const GpgCache &cache = gpg_cache();
    for (size_t i = 0; i < cache.count; ++i) {
        const GpgCacheEntry &e = cache.entries[i];
        if (e.path == path && e.mtime == mtime && e.sha256 == digest)
            return &e;
    }
    return nullptr;
}

void gpg_cache_insert(const char *path, int64_t mtime, const Sha256Digest &digest, int32_t result,
                      const char *content, size_t content_size)
{
    GpgCache &cache = gpg_cache();
    if (cache.count == kGpgCacheSize) {
        std::move(cache.entries + 1, cache.entries + kGpgCacheSize, cache.entries);
        --cache.count;
    }
    GpgCacheEntry &e = cache.entries[cache.count];
    e.path.assign(path, strnlen(path, kGpgCachePathMax));
    e.mtime = mtime;
    e.sha256 = digest;
    e.result = result;
    if (content && content_size)
        e.content.assign(content, content_size);
    else
        e.content.clear();
    e.inserted = std::time(nullptr);
    ++cache.count;
}

size_t gpg_cache_count() noexcept { return gpg_cache().count; }

bool single_clear_signed_message(std::string_view text) noexcept { return one_clear_signed_message(text); }

void import_trusted_keys(gpgme_ctx_t ctx) noexcept
{
    for (size_t i = 0; i < kTrustedKeyCount; ++i) {
        gpgme_data_t raw = nullptr;
        const TrustedKey &key = trusted_key[i];
        if (gpgme_data_new_from_mem(&raw, reinterpret_cast<const char *>(key.data), key.length, 1) != 0)
            continue;
        UniqueData data(raw);
        gpgme_op_import(ctx, data.get());
    }
}

bool signatures_from_trusted_keys(gpgme_signature_t signatures) noexcept
{
    for (gpgme_signature_t sig = signatures; sig; sig = sig->next) {
        bool trusted = false;
        for (size_t i = 0; i < kTrustedKeyCount && !trusted; ++i) {
            trusted = sig->fpr && (std::strcmp(sig->fpr, trusted_key[i].fingerprint) == 0 ||
                                   std::strcmp(sig->fpr, trusted_key[i].key_id) == 0);
        }
        if (!trusted)
            return false;
    }
    return true;
}

int32_t evaluate_verify_result(gpgme_ctx_t ctx) noexcept
{
    gpgme_verify_result_t result = gpgme_op_verify_result(ctx);
    gpgme_signature_t sig = result ? result->signatures : nullptr;
    if (!sig)
        return kUnsigned;
    const gpgme_sigsum_t summary = sig->summary;
    const gpgme_err_code_t code = gpgme_err_code(sig->status);
    if (!(summary & (GPGME_SIGSUM_VALID | GPGME_SIGSUM_GREEN)) && code != GPG_ERR_NO_ERROR) {
        if (summary & GPGME_SIGSUM_KEY_MISSING)
            return kKeyMissing;
        if (summary & GPGME_SIGSUM_RED)
            return kRedSummary;
        if (code == GPG_ERR_BAD_SIGNATURE)
            return kBadSignature;
        return kSignatureError;
    }
    return signatures_from_trusted_keys(sig) ? kGood : kUntrustedSigner;
}

void read_verified_text(gpgme_data_t text, char **content, size_t *content_len) noexcept
{
    *content = nullptr;
    off_t size = gpgme_data_seek(text, 0, SEEK_END);
    if (size < 0 || static_cast<uint64_t>(size) > kVerifiedTextMax)
        return;
    const size_t n = static_cast<size_t>(size);
    if (content_len)
        *content_len = n;
    // One byte more than the text, zeroed, for callers that print it.
    CString buf(static_cast<char *>(std::calloc(n + 1, 1)));
    if (!buf)
        return;
    if (!read_whole(text, buf.get(), n)) {
        if (content_len)
            *content_len = 0;
        return;
    }
    *content = buf.release();
}

int32_t evaluate_encrypt_result(gpgme_ctx_t ctx) noexcept
{
    gpgme_encrypt_result_t result = gpgme_op_encrypt_result(ctx);
    for (gpgme_invalid_key_t bad = result ? result->invalid_recipients : nullptr; bad; bad = bad->next) {
        if (bad->fpr && std::strcmp(bad->fpr, trusted_key[0].fingerprint) == 0)
            return kKeyMissing;
    }
    return kGood;
}

void read_armoured_output(gpgme_data_t armoured, char **out, size_t *out_len) noexcept
{
    *out = nullptr;
    off_t size = gpgme_data_seek(armoured, 0, SEEK_END);
    if (size <= 0)
        return;
    const size_t n = static_cast<size_t>(size);
    if (out_len)
        *out_len = n;
    CString buf(static_cast<char *>(std::malloc(n + 1)));
    if (!buf || !read_whole(armoured, buf.get(), n))
        return;
    buf.get()[n] = '\0';
    *out = buf.release();
}

} // namespace tq

extern "C" {

int32_t extract_signed_message(const char *text, char *body, size_t *body_len) noexcept
{
    if (!text || !body)
        return -1;
    const std::string_view t(text);
    const size_t marker = t.find(tq::kSignedMarker);
    if (marker == std::string_view::npos)
        return -1;
    const size_t marker_end = t.find('\n', marker + std::strlen(tq::kSignedMarker));
    if (marker_end == std::string_view::npos)
        return -1;
    const size_t header_end = t.find('\n', marker_end + 1);
    if (header_end == std::string_view::npos)
        return -1;
    // Exactly one header line and one empty line are assumed before the body.
    const size_t start = header_end + 2;
    if (start > t.size())
        return -1;
    const size_t end = t.find(tq::kSignatureMarker, start);
    if (end == std::string_view::npos)
        return -1;
    const size_t n = end - start;
    std::memcpy(body, text + start, n);
    body[n] = '\0';
    if (body_len)
        *body_len = n;
    return 0;
}

char *get_custom_info(const char *path, size_t *body_len) noexcept
{
    if (!path)
        return nullptr;
    // Only the first 4095 bytes can hold a body that fits the buffer.
    std::string text;
    if (!tq::os::read_input_prefix(path, tq::kCustomInfoSize - 1, &text))
        return nullptr;
    return tq::body_from_content(text, body_len);
}

char *write_temp_pubkey(void) noexcept { return tq::make_temp_pubkey().release(); }

int32_t run_verify(const char *homedir, const char *path) noexcept
{
    return tq::guarded<int32_t>(0, [&]() -> int32_t {
        std::optional<std::string> line;
        // gpg would wait on a FIFO and read a device or a huge file to its
        // end: only a regular file of signed-file size is handed to it.
        struct stat st;
        tq::UniqueFD fd = path ? tq::os::open_input(path) : tq::UniqueFD();
        if (homedir && fd && ::fstat(fd.get(), &st) == 0 && static_cast<uint64_t>(st.st_size) <= tq::kSignedFileMax)
            line = tq::gpg_command("verify", homedir, path);
        if (line && tq::os::system(*line) == 0) {
            quenda_trace("run_verify verify return success");
            return 1;
        }
        quenda_trace("run_verify verify return failed");
        return 0;
    });
}

int32_t gpg_verify_cmd(const char *path, char **content, size_t *content_len) noexcept
{
    return tq::guarded<int32_t>(tq::kNoPrivateHome, [&] { return tq::verify_cmd(path, content, content_len); });
}

int32_t gpg_verify_cmd_cached(const char *path, char **content, size_t *content_len) noexcept
{
    return tq::guarded<int32_t>(tq::kNoPrivateHome,
                                [&] { return tq::verify_cmd_cached(path, content, content_len); });
}

int32_t gpg_verify(const char *path, char **content, size_t *content_len) noexcept
{
    return tq::guarded<int32_t>(tq::kNoPrivateHome, [&] { return tq::verify_gpgme(path, content, content_len); });
}

int32_t gpg_encrypt(const char *text, char **armoured, size_t *armoured_len) noexcept
{
    return tq::guarded<int32_t>(tq::kNoPrivateHome, [&] { return tq::encrypt_gpgme(text, armoured, armoured_len); });
}

} // extern "C"
