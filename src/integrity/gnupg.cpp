// SPDX-License-Identifier: LGPL-2.1-or-later
// OpenPGP verification through the gpg tool (with a small cache of results)
// and through GPGME, and encryption to the compiled-in key through GPGME.
#include "integrity/gnupg.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
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
#include <vector>

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
constexpr size_t kCmdTextMax = 4095;      // longest text the command-line verifiers hand back
// Where the verifiers find gpg, whatever PATH holds.
constexpr char kGpgProgram[] = "/usr/bin/gpg";
// What gpg says about the signatures it checked: a few lines for each.
constexpr size_t kStatusMax = 1024 * 1024;
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

// gpg starts a key agent for an import when none runs for the home, and that
// agent would outlive the throw-away home. Our homes never need one. Nor do
// they keep a random seed file: GPGME leaves its gpg to end on its own, and
// one that saves the seed as it ends could write into a home already removed.
bool write_private_conf(const char *home) noexcept
{
    static constexpr char kConf[] = "no-autostart\nno-random-seed-file\n";
    char conf[sizeof(kHomeTemplate) + sizeof("/gpg.conf")];
    std::snprintf(conf, sizeof(conf), "%s/gpg.conf", home);
    UniqueFD fd = os::open(conf, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, 0600);
    return fd && os::write_all(fd.get(), kConf, sizeof(kConf) - 1);
}

// A new private GnuPG home holding only our gpg.conf, or nothing when none
// could be made; `who` names the caller in the trace.
bool make_private_home(const char *who, std::optional<TempHome> &home)
{
    char dir[sizeof(kHomeTemplate)];
    std::memcpy(dir, kHomeTemplate, sizeof(dir));
    if (!os::mkdtemp(dir)) {
        quenda_trace("gpg_verify, create tmp dir failed");
        return false;
    }
    quenda_trace("%s, create tmp dir success, dirName = %s", who, dir);
    home.emplace(dir);
    if (!write_private_conf(home->path())) {
        quenda_trace("%s, cannot write gpg.conf in %s", who, dir);
        return false;
    }
    return true;
}

// gpg's argument list for one action in a private home, and the command it
// amounts to as a text for the trace. A relative file name that starts with
// '-' gets "./" so that gpg cannot take it for an option.
class GpgArgs {
public:
    GpgArgs(std::string_view homedir, std::initializer_list<std::string_view> options, std::string_view file)
    {
        words_ = {std::string(kGpgProgram), "--homedir", os::host_path(homedir), "--no-tty", "--batch"};
        for (std::string_view option : options)
            words_.emplace_back(option);
        std::string path = os::host_path(file);
        if (!path.empty() && path.front() == '-')
            path.insert(0, "./");
        words_.push_back(std::move(path));
        for (const std::string &word : words_)
            argv_.push_back(word.c_str());
        argv_.push_back(nullptr);
    }
    GpgArgs(const GpgArgs &) = delete;
    GpgArgs &operator=(const GpgArgs &) = delete;
    const char *const *argv() const noexcept { return argv_.data(); }
    std::string text() const
    {
        std::string line;
        for (const std::string &word : words_)
            line += (line.empty() ? "" : " ") + word;
        return line;
    }

private:
    std::vector<std::string> words_;
    std::vector<const char *> argv_;
};

// How a gpg run ended, as far as a verification is concerned.
enum class GpgEnd {
    success, // exit status 0
    refusal, // gpg's own "no" (exit status 1 or 2): a verdict on the data
    no_run,  // not started, cut off at the time limit, killed, or any other status
};

GpgEnd gpg_end(const os::Child &child) noexcept
{
    if (!child.started || child.status == -1 || !WIFEXITED(child.status))
        return GpgEnd::no_run;
    switch (WEXITSTATUS(child.status)) {
    case 0: return GpgEnd::success;
    case 1:
    case 2: return GpgEnd::refusal;
    default: return GpgEnd::no_run;
    }
}

// A new temporary file holding the trusted key; its path, or null.
CString make_temp_pubkey() noexcept
{
    char path[] = "/tmp/pubkey_XXXXXX";
    UniqueFD fd = os::mkstemp(path);
    if (!fd)
        return nullptr;
    const TrustedKey &key = trusted_key[0];
    bool written = os::write_all(fd.get(), key.data, key.length);
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

// The answer of one command-line verification. `settled` is false when the
// answer says nothing about the file (no private home, gpg could not run or
// was cut off): such an answer is never remembered.
struct CmdOutcome {
    int32_t result;
    bool settled;
};

// Runs gpg --verify on a file in a private home. On success, *text receives
// the text gpg verified, as gpg itself writes it out, and *status what gpg
// said about the signatures.
GpgEnd gpg_verify_text(const char *homedir, const char *path, std::string *text, std::string *status)
{
    const std::string status_file = std::string(homedir) + "/status";
    GpgArgs args(homedir, {"--status-file", os::host_path(status_file), "--output", "-", "--verify"}, path);
    os::Child child = os::spawn(args.argv());
    const GpgEnd end = gpg_end(child);
    if (end == GpgEnd::success && !os::read_input(status_file.c_str(), kStatusMax, status))
        return GpgEnd::no_run;
    quenda_trace(end == GpgEnd::success ? "run_verify verify return success" : "run_verify verify return failed");
    *text = std::move(child.out);
    return end;
}

// Verifies bytes (a signed file's whole content) with gpg in a private home
// that holds only the trusted key, and hands back the text gpg itself wrote
// out for that verification. Unlike cutting the body out of the file, this
// gives exactly what the signature covers: gpg ignores trailing blanks, CRs
// and dash escapes, and skips extra armour headers when it checks. gpg reads
// a private copy, so nothing done to the caller's file meanwhile counts.
CmdOutcome verify_content(const std::string &bytes, char **content, size_t *content_len)
{
    // A clear-signed file must be exactly one message; a file without any
    // clear-signing armour hands back no text, whatever gpg says of it.
    const bool clear_signed = one_clear_signed_message(bytes);
    if (!clear_signed && mentions_clear_signing(bytes)) {
        quenda_trace("get_custom_info failed");
        return {kVerifyFailed, true};
    }
    if (os::access(kGpgProgram, X_OK) != 0) {
        quenda_trace("gpg_verify_cmd, cannot run %s", kGpgProgram);
        return {kNoPrivateHome, false};
    }
    std::optional<TempHome> home;
    if (!make_private_home("gpg_verify_cmd", home))
        return {kNoPrivateHome, false};

    TempFile key_file(make_temp_pubkey());
    if (!key_file.path()) {
        quenda_trace("write_temp_pubkey failed");
        return {kNoPrivateHome, false};
    }
    GpgArgs import(home->path(), {"--import"}, key_file.path());
    if (gpg_end(os::spawn(import.argv())) != GpgEnd::success) {
        quenda_trace("gpg_verify, import key failed = %s", import.text().c_str());
        return {kNoPrivateHome, false};
    }

    const std::string copy = std::string(home->path()) + "/signed.asc";
    {
        UniqueFD fd = os::open(copy.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, 0600);
        if (!fd || !os::write_all(fd.get(), bytes.data(), bytes.size()) || ::close(fd.release()) != 0) {
            quenda_trace("gpg_verify_cmd, cannot write %s", copy.c_str());
            return {kNoPrivateHome, false};
        }
    }
    std::string text, status;
    switch (gpg_verify_text(home->path(), copy.c_str(), &text, &status)) {
    case GpgEnd::success: break;
    case GpgEnd::refusal: quenda_trace("get_custom_info failed"); return {kVerifyFailed, true};
    case GpgEnd::no_run:
        quenda_trace("gpg_verify_cmd, %s did not run to its end", kGpgProgram);
        return {kNoPrivateHome, false};
    }
    // The keyring holds the trusted key alone; the status is checked all the same.
    if (!status_from_trusted_keys(status) || text.empty()) {
        quenda_trace("get_custom_info failed");
        return {kVerifyFailed, true};
    }
    if (clear_signed && text.size() <= kCmdTextMax) {
        CString body(dup_c(text));
        if (body && content_len)
            *content_len = text.size();
        *content = body.release();
    } else {
        *content = nullptr;
    }
    return {kGood, true};
}

CmdOutcome verify_cmd(const char *path, char **content, size_t *content_len)
{
    std::string bytes;
    int64_t mtime = 0;
    if (!read_signed_file(path, &bytes, &mtime)) {
        quenda_trace("gpg_verify_cmd, cannot read %s", path ? path : "(null)");
        return {kVerifyFailed, true};
    }
    char *text = nullptr;
    CmdOutcome outcome = verify_content(bytes, &text, content_len);
    if (outcome.result == kGood && content)
        *content = text;
    else
        std::free(text);
    return outcome;
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
    const CmdOutcome outcome = verify_content(bytes, &raw, &size);
    CString text(outcome.result == kGood ? raw : nullptr);
    if (outcome.result != kGood)
        std::free(raw);
    // Only what gpg said about these bytes is remembered; a run that could not
    // happen is tried again next time.
    if (outcome.settled)
        guarded_void([&] { gpg_cache_insert(path, mtime, digest, outcome.result, text.get(), size); });
    if (content) {
        *content = text.release();
        if (content_len)
            *content_len = *content ? size : 0;
    }
    return outcome.result;
}

// Where gpg_verify's gpg writes the signed text: the text is kept only up to
// one byte past the longest text handed back, and the rest is just counted,
// so a huge signed message costs no memory.
class CappedText {
public:
    static gpgme_data_cbs callbacks;
    // Bytes written, kept or not.
    uint64_t size() const noexcept { return total_; }

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

// A GPGME context whose gpg is kGpgProgram working in home, with the caller's
// current character set and message language handed to it. Unlike GPGME's
// usual set-up, nothing here goes through the process: GNUPGHOME and the
// process locale are left as the caller has them, and the home is given to
// this context alone. Null when gpg cannot run or the context cannot be made.
UniqueCtx private_context(const char *who, const char *home)
{
    gpgme_check_version(nullptr);
    if (os::access(kGpgProgram, X_OK) != 0) {
        quenda_trace("%s, cannot run %s", who, kGpgProgram);
        return nullptr;
    }
    gpgme_ctx_t raw = nullptr;
    if (gpgme_new(&raw) != 0)
        return nullptr;
    UniqueCtx ctx(raw);
    if (gpgme_ctx_set_engine_info(ctx.get(), GPGME_PROTOCOL_OpenPGP, os::host_path(kGpgProgram).c_str(),
                                  os::host_path(home).c_str()) != 0) {
        quenda_trace("%s, GPGME cannot use %s", who, kGpgProgram);
        return nullptr;
    }
    // setlocale() with a null locale only asks.
    for (int category : {LC_CTYPE, LC_MESSAGES}) {
        const char *name = std::setlocale(category, nullptr);
        if (name)
            gpgme_set_locale(ctx.get(), category, name);
    }
    return ctx;
}

int32_t verify_gpgme(const char *path, char **content, size_t *content_len)
{
    // Without a private home there is no keyring that holds the trusted key
    // alone, and the caller's own home is never written to.
    std::optional<TempHome> home;
    if (!make_private_home("gpg_verify", home))
        return kNoPrivateHome;
    UniqueCtx ctx = private_context("gpg_verify", home->path());
    if (!ctx)
        return kNoPrivateHome;

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

    import_trusted_keys(ctx.get());
    if (gpgme_op_verify(ctx.get(), signed_file.get(), nullptr, text.get()) != 0)
        return kVerifyFailed;
    int32_t result = evaluate_verify_result(ctx.get());
    // A signature over no text (a detached one with nothing beside it)
    // vouches for nothing.
    if (result == kGood && sink.size() == 0)
        return kVerifyFailed;
    if (result == kGood && content)
        read_verified_text(text.get(), content, content_len);
    return result;
}

// Encrypts in a private home of its own that holds the trusted key alone, so
// that no gpg.conf (such as one with extra hidden recipients) nor any key of
// the caller's home takes part.
int32_t encrypt_gpgme(const char *input, char **armoured, size_t *armoured_len)
{
    const time_t now = std::time(nullptr);
    std::optional<TempHome> home;
    if (!make_private_home("gpg_encrypt", home))
        return kNoPrivateHome;
    UniqueCtx ctx = private_context("gpg_encrypt", home->path());
    if (!ctx)
        return kNoPrivateHome;
    gpgme_set_armor(ctx.get(), 1);

    gpgme_data_t raw = nullptr;
    if (!input || gpgme_data_new_from_mem(&raw, input, std::strlen(input), 1) != 0)
        return kBadInputText;
    UniqueData plain(raw);
    raw = nullptr;
    if (gpgme_data_new(&raw) != 0)
        return kNoOutput;
    UniqueData cipher(raw);

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

bool trusted_signer(const char *signing_fpr, const char *primary_fpr, std::span<const TrustedKey> keys) noexcept
{
    for (const TrustedKey &key : keys) {
        if (signing_fpr && (std::strcmp(signing_fpr, key.fingerprint) == 0 || std::strcmp(signing_fpr, key.key_id) == 0))
            return true;
        if (primary_fpr && std::strcmp(primary_fpr, key.fingerprint) == 0)
            return true;
    }
    return false;
}

namespace {

// The primary key's fingerprint when fpr names a valid signing subkey of a
// key in ctx's keyring; "" otherwise.
std::string primary_of_signing_subkey(gpgme_ctx_t ctx, const char *fpr)
{
    gpgme_key_t raw = nullptr;
    if (!ctx || !fpr || gpgme_get_key(ctx, fpr, &raw, 0) != 0 || !raw)
        return {};
    UniqueKey key(raw);
    if (!key->subkeys || !key->subkeys->fpr || key->revoked || key->expired || key->disabled || key->invalid)
        return {};
    for (gpgme_subkey_t sub = key->subkeys->next; sub; sub = sub->next) {
        if (sub->fpr && std::strcmp(sub->fpr, fpr) == 0 && sub->can_sign && !sub->revoked && !sub->expired &&
            !sub->disabled && !sub->invalid)
            return key->subkeys->fpr;
    }
    return {};
}

} // namespace

bool signatures_from_trusted_keys(gpgme_ctx_t ctx, gpgme_signature_t signatures, std::span<const TrustedKey> keys)
{
    for (gpgme_signature_t sig = signatures; sig; sig = sig->next) {
        if (trusted_signer(sig->fpr, nullptr, keys))
            continue;
        const std::string primary = primary_of_signing_subkey(ctx, sig->fpr);
        if (primary.empty() || !trusted_signer(sig->fpr, primary.c_str(), keys))
            return false;
    }
    return true;
}

bool status_from_trusted_keys(std::string_view status, std::span<const TrustedKey> keys)
{
    static constexpr std::string_view kValid = "[GNUPG:] VALIDSIG ";
    size_t valid = 0;
    for (size_t pos = 0; pos < status.size();) {
        size_t nl = status.find('\n', pos);
        std::string_view line = status.substr(pos, nl == std::string_view::npos ? nl : nl - pos);
        pos = nl == std::string_view::npos ? status.size() : nl + 1;
        if (line.substr(0, kValid.size()) != kValid)
            continue;
        // VALIDSIG <signing fpr> <date> <time> <expires> <version> <reserved>
        //          <pubkey algo> <hash algo> <class> <primary fpr>
        std::vector<std::string> fields;
        for (size_t at = kValid.size(); at < line.size();) {
            size_t sp = line.find(' ', at);
            fields.emplace_back(line.substr(at, sp == std::string_view::npos ? sp : sp - at));
            at = sp == std::string_view::npos ? line.size() : sp + 1;
        }
        if (fields.empty() || !trusted_signer(fields[0].c_str(), fields.size() >= 10 ? fields[9].c_str() : nullptr, keys))
            return false;
        ++valid;
    }
    return valid > 0;
}

int32_t evaluate_verify_result(gpgme_ctx_t ctx, std::span<const TrustedKey> keys)
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
    return signatures_from_trusted_keys(ctx, sig, keys) ? kGood : kUntrustedSigner;
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
        // gpg would wait on a FIFO and read a device or a huge file to its
        // end: only a regular file of signed-file size is handed to it.
        struct stat st;
        tq::UniqueFD fd = path ? tq::os::open_input(path) : tq::UniqueFD();
        if (homedir && fd && ::fstat(fd.get(), &st) == 0 && static_cast<uint64_t>(st.st_size) <= tq::kSignedFileMax) {
            tq::GpgArgs args(homedir, {"--verify"}, path);
            if (tq::gpg_end(tq::os::spawn(args.argv())) == tq::GpgEnd::success) {
                quenda_trace("run_verify verify return success");
                return 1;
            }
        }
        quenda_trace("run_verify verify return failed");
        return 0;
    });
}

int32_t gpg_verify_cmd(const char *path, char **content, size_t *content_len) noexcept
{
    return tq::guarded<int32_t>(tq::kNoPrivateHome, [&] { return tq::verify_cmd(path, content, content_len).result; });
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
