// OpenPGP verification and encryption against the real gpg, with the
// development key the default build embeds.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <chrono>
#include <climits>
#include <ctime>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "fixture.h"
#include "integrity/gnupg.h"
#include "leak_check.h"
#include "tavro-quenda.h"
#include "tavro_quenda_trusted_key.h"

namespace fs = std::filesystem;

namespace {

struct FreeDeleter {
    void operator()(void *p) const noexcept { std::free(p); }
};
using CString = std::unique_ptr<char, FreeDeleter>;

const std::string kSource = TQ_SOURCE_DIR;
const std::string kDevPublic = kSource + "/tests/keys/test-only/dev-public.gpg";
const std::string kDevSecret = kSource + "/tests/keys/test-only/dev-secret.gpg";

std::string data(const std::string &name) { return tqtest::read_file(kSource + "/tests/integrity/data/gnupg/" + name); }

// The real gpg, found before a test puts a wrapper in front of it.
std::string real_gpg()
{
    std::string path = ::getenv("PATH") ? ::getenv("PATH") : "/usr/bin:/bin";
    size_t start = 0;
    while (start <= path.size()) {
        size_t end = path.find(':', start);
        std::string candidate = path.substr(start, end - start) + "/gpg";
        if (::access(candidate.c_str(), X_OK) == 0)
            return candidate;
        if (end == std::string::npos)
            break;
        start = end + 1;
    }
    return "/usr/bin/gpg";
}

// Live gpg-agent processes whose command line mentions needle.
int agents_mentioning(const std::string &needle)
{
    int found = 0;
    std::error_code ec;
    for (const auto &entry : fs::directory_iterator("/proc", ec)) {
        const std::string pid = entry.path().filename().string();
        if (pid.find_first_not_of("0123456789") != std::string::npos)
            continue;
        std::string stat = tqtest::read_file("/proc/" + pid + "/stat");
        size_t close = stat.rfind(')');
        if (stat.find("(gpg-agent)") == std::string::npos || close == std::string::npos ||
            stat.compare(close + 2, 1, "Z") == 0)
            continue;
        std::string cmdline = tqtest::read_file("/proc/" + pid + "/cmdline");
        for (char &c : cmdline) {
            if (c == '\0')
                c = ' ';
        }
        if (cmdline.find(needle) != std::string::npos)
            ++found;
    }
    return found;
}

// An agent asked to stop takes a moment to go.
bool no_agent_mentioning(const std::string &needle)
{
    for (int i = 0; i < 50; ++i) {
        if (agents_mentioning(needle) == 0)
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return false;
}

int shell(const std::string &command)
{
    int status = std::system(command.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

#define REQUIRE_DEVELOPMENT_KEY()                                                                  \
    do {                                                                                           \
        if (!tq::generated::kTrustedKeyIsDevelopment)                                              \
            GTEST_SKIP() << "the signed fixtures are signed by the development key, not embedded"; \
    } while (0)

class Gnupg : public ::testing::Test {
protected:
    void SetUp() override
    {
        const char *home = ::getenv("GNUPGHOME");
        saved_home_ = home ? std::optional<std::string>(home) : std::nullopt;
        fx_.mkdir("/tmp");
        fx_.mkdir("/var/log");
        fx_.mkdir("/data");
        // Nothing here may use the invoking user's own GnuPG home.
        fx_.mkdir("/home/gnupg");
        ::chmod(fx_.host("/home/gnupg").c_str(), 0700);
        ::setenv("GNUPGHOME", fx_.host("/home/gnupg").c_str(), 1);
        leaks_.emplace(tqtest::gnupg_temp_prefixes());
    }

    void TearDown() override
    {
        EXPECT_TRUE(leaks_->clean());
        std::vector<std::string> left;
        for (const auto &entry : fs::directory_iterator(fx_.host("/tmp")))
            left.push_back(entry.path().filename().string());
        EXPECT_TRUE(left.empty()) << "left in /tmp: " << left.front();
        EXPECT_TRUE(no_agent_mentioning(fx_.root())) << "a key agent outlived the test";
        if (saved_home_)
            ::setenv("GNUPGHOME", saved_home_->c_str(), 1);
        else
            ::unsetenv("GNUPGHOME");
    }

    // A file in the fixture; its path as the library sees it.
    std::string put(const std::string &name, const std::string &content)
    {
        fx_.write("/data/" + name, content);
        return "/data/" + name;
    }

    // Wraps the real gpg so that each start is counted; extra runs first.
    void wrap_gpg(const std::string &extra = "")
    {
        const std::string gpg = real_gpg();
        fx_.path_script("gpg", extra + "\nexec '" + gpg + "' \"$@\"");
    }
    size_t gpg_starts() const { return fx_.calls("gpg").size(); }

    tqtest::Fixture fx_;
    std::optional<tqtest::LeakCheck> leaks_;
    std::optional<std::string> saved_home_;
};

TEST(GnupgExtract, CutsTheBodyOutOfAClearSignedText)
{
    const std::string hello = data("hello-dev.asc");
    char body[512];
    size_t len = 99;
    ASSERT_EQ(0, extract_signed_message(hello.c_str(), body, &len));
    EXPECT_STREQ("hello\n", body);
    EXPECT_EQ(6u, len);
    EXPECT_EQ(0, extract_signed_message(hello.c_str(), body, nullptr));

    // Exactly one header line is assumed: a second one loses its first character.
    const std::string two_headers = "-----BEGIN PGP SIGNED MESSAGE-----\nHash: SHA256\nComment: x\n\nbody\n"
                                    "-----BEGIN PGP SIGNATURE-----\n";
    ASSERT_EQ(0, extract_signed_message(two_headers.c_str(), body, &len));
    EXPECT_STREQ("omment: x\n\nbody\n", body);
    EXPECT_EQ(std::strlen(body), len);

    // Text before the marker is skipped; dash-escaped lines stay as they are.
    const std::string escaped = "junk\n-----BEGIN PGP SIGNED MESSAGE-----\nHash: SHA1\n\n- -dash\n"
                                "-----BEGIN PGP SIGNATURE-----";
    ASSERT_EQ(0, extract_signed_message(escaped.c_str(), body, &len));
    EXPECT_STREQ("- -dash\n", body);

    len = 77;
    for (const char *bad : {"", "hello\n", "-----BEGIN PGP SIGNED MESSAGE-----",
                            "-----BEGIN PGP SIGNED MESSAGE-----\nHash: SHA1",
                            "-----BEGIN PGP SIGNED MESSAGE-----\nHash: SHA1\n\nno signature\n",
                            "-----BEGIN PGP SIGNATURE-----\n-----BEGIN PGP SIGNED MESSAGE-----\nHash: SHA1\n\n"}) {
        EXPECT_EQ(-1, extract_signed_message(bad, body, &len)) << bad;
    }
    EXPECT_EQ(77u, len);
    EXPECT_EQ(-1, extract_signed_message(nullptr, body, &len));
    EXPECT_EQ(-1, extract_signed_message(hello.c_str(), nullptr, &len));
}

TEST(GnupgExtract, NeverReadsPastATextThatEndsAfterTheHeaderLine)
{
    // Exactly sized heap copies, so that the sanitizer sees any over-read.
    for (std::string text : {"-----BEGIN PGP SIGNED MESSAGE-----\nHash: SHA1\n",
                             "-----BEGIN PGP SIGNED MESSAGE-----\n\n", "-----BEGIN PGP SIGNED MESSAGE-----\n\n\n"}) {
        std::unique_ptr<char[]> exact(new char[text.size() + 1]);
        std::memcpy(exact.get(), text.c_str(), text.size() + 1);
        std::unique_ptr<char[]> body(new char[text.size() + 1]);
        EXPECT_EQ(-1, extract_signed_message(exact.get(), body.get(), nullptr));
    }
}

TEST_F(Gnupg, GetCustomInfoReadsOnlyTheFirst4095Bytes)
{
    size_t len = 0;
    CString body(get_custom_info(put("hello.asc", data("hello-dev.asc")).c_str(), &len));
    ASSERT_TRUE(body);
    EXPECT_STREQ("hello\n", body.get());
    EXPECT_EQ(6u, len);

    const std::string head = "-----BEGIN PGP SIGNED MESSAGE-----\nHash: SHA1\n\n";
    const std::string marker = "-----BEGIN PGP SIGNATURE-----";
    // The marker's last character is the 4095th byte of the file, then the 4096th.
    std::string fits = head + std::string(4095 - head.size() - marker.size(), 'a') + marker + "\n";
    body.reset(get_custom_info(put("fits.asc", fits).c_str(), &len));
    ASSERT_TRUE(body);
    EXPECT_EQ(4095 - head.size() - marker.size(), len);

    std::string beyond = head + std::string(4096 - head.size() - marker.size(), 'a') + marker + "\n";
    len = 5;
    EXPECT_EQ(nullptr, get_custom_info(put("beyond.asc", beyond).c_str(), &len));
    EXPECT_EQ(5u, len);
    EXPECT_EQ(nullptr, get_custom_info("/data/missing.asc", &len));
    EXPECT_EQ(nullptr, get_custom_info(nullptr, &len));
}

TEST_F(Gnupg, TrustedKeyRecordMatchesWhatGpgSaysAndTheTempKeyFileHoldsIt)
{
    const tq::TrustedKey &key = tq::trusted_key[0];
    const std::string bytes = tqtest::read_file(kDevPublic);
    if (tq::generated::kTrustedKeyIsDevelopment) {
        ASSERT_EQ(bytes.size(), key.length);
        EXPECT_EQ(0, std::memcmp(bytes.data(), key.data, key.length));
    }
    // Ask gpg about the embedded bytes themselves.
    const std::string home = fx_.host("/home/gnupg");
    fx_.write("/home/gnupg/gpg.conf", "no-autostart\n");
    fx_.write("/key.gpg", std::string(reinterpret_cast<const char *>(key.data), key.length));
    const std::string listing = fx_.host("/listing");
    ASSERT_EQ(0, shell("gpg --homedir '" + home + "' --batch --with-colons --show-keys '" + fx_.host("/key.gpg") +
                       "' > '" + listing + "' 2>/dev/null"));
    const std::string colons = tqtest::read_file(listing);
    EXPECT_NE(std::string::npos, colons.find("\nfpr:::::::::" + std::string(key.fingerprint) + ":")) << colons;
    EXPECT_NE(std::string::npos, colons.find(":" + std::string(key.key_id) + ":" + std::to_string(key.created) + ":"))
        << colons;
    EXPECT_EQ(std::string(key.fingerprint).substr(24), key.key_id);

    CString path(write_temp_pubkey());
    ASSERT_TRUE(path);
    EXPECT_EQ(0, std::strncmp(path.get(), "/tmp/pubkey_", 12)) << path.get();
    const std::string host = fx_.host(path.get());
    struct stat st;
    ASSERT_EQ(0, ::stat(host.c_str(), &st));
    EXPECT_EQ(0600u, st.st_mode & 0777);
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(key.data), key.length), tqtest::read_file(host));
    ::unlink(host.c_str());
}

TEST_F(Gnupg, CommandLineVerifierAcceptsTheTrustedKeyWhateverThePath)
{
    REQUIRE_DEVELOPMENT_KEY();
    const std::string signed_text = data("hello-dev.asc");
    char *content = nullptr;
    size_t len = 0;
    ASSERT_EQ(0, gpg_verify_cmd(put("hello.asc", signed_text).c_str(), &content, &len));
    CString owned(content);
    ASSERT_TRUE(owned);
    EXPECT_STREQ("hello\n", content);
    EXPECT_EQ(6u, len);
    const std::string log = fx_.trace_log();
    EXPECT_NE(std::string::npos, log.find("gpg_verify_cmd, create tmp dir success, dirName = /tmp/gpgdir-"));
    EXPECT_NE(std::string::npos, log.find("run_verify verify return success"));
    EXPECT_NE(std::string::npos, log.find("remove_directory: /tmp/gpgdir-"));

    // Blanks and shell syntax in a path are just characters.
    const std::string odd = put("it's a $(touch pwned) `touch pwned2`; file.asc", signed_text);
    content = nullptr;
    EXPECT_EQ(0, gpg_verify_cmd(odd.c_str(), &content, &len));
    owned.reset(content);
    EXPECT_STREQ("hello\n", content);

    // A relative name that looks like an option is still a file name.
    const fs::path cwd = fs::current_path();
    fs::current_path(fx_.host("/data"));
    fx_.write("/data/--output=pwned3", signed_text);
    content = nullptr;
    int relative = gpg_verify_cmd("--output=pwned3", &content, &len);
    fs::current_path(cwd);
    owned.reset(content);
    EXPECT_EQ(0, relative);
    EXPECT_STREQ("hello\n", content);
    for (const char *planted : {"pwned", "pwned2", "pwned3"}) {
        EXPECT_FALSE(fs::exists(fx_.host("/data/") + planted) || fs::exists(cwd / planted)) << planted;
    }
}

TEST_F(Gnupg, CommandLineVerifierRejectsOtherKeysTamperingAndUnsignedFiles)
{
    std::string tampered = data("hello-dev.asc");
    tampered.replace(tampered.find("hello\n"), 6, "hellO\n");
    char sentinel = 0;
    for (const auto &[name, text] : {std::pair{"other.asc", data("hello-other.asc")}, std::pair{"tampered.asc", tampered},
                                     std::pair{"plain.txt", std::string("just text\n")}}) {
        char *content = &sentinel;
        size_t len = 42;
        EXPECT_EQ(1, gpg_verify_cmd(put(name, text).c_str(), &content, &len)) << name;
        EXPECT_EQ(&sentinel, content) << name;
        EXPECT_EQ(42u, len) << name;
    }
    char *content = &sentinel;
    EXPECT_EQ(1, gpg_verify_cmd("/data/missing.asc", &content, nullptr));
    EXPECT_EQ(&sentinel, content);
    EXPECT_NE(std::string::npos, fx_.trace_log().find("get_custom_info failed"));
    EXPECT_NE(std::string::npos, fx_.trace_log().find("run_verify verify return failed"));
    EXPECT_EQ(0, run_verify("/tmp/no-such-home", "/data/other.asc"));
    EXPECT_EQ(0, run_verify(nullptr, "/data/other.asc"));
}

TEST_F(Gnupg, CommandLineVerifierGives16WithoutAPrivateHomeOrImport)
{
    const std::string path = put("hello.asc", data("hello-dev.asc"));
    char *content = nullptr;
    size_t len = 0;
    wrap_gpg("case \"$*\" in *--import*) exit 2;; esac");
    EXPECT_EQ(16, gpg_verify_cmd(path.c_str(), &content, &len));
    EXPECT_EQ(nullptr, content);
    EXPECT_NE(std::string::npos, fx_.trace_log().find("gpg_verify, import key failed = gpg --homedir '"));
    EXPECT_EQ(1u, gpg_starts());

    fs::remove(fx_.host("/tmp"));
    EXPECT_EQ(16, gpg_verify_cmd(path.c_str(), &content, &len));
    EXPECT_NE(std::string::npos, fx_.trace_log().find("gpg_verify, create tmp dir failed"));
    EXPECT_EQ(1u, gpg_starts());
    fx_.mkdir("/tmp");
}

TEST_F(Gnupg, CacheStartsGpgOnlyForANewOrChangedFile)
{
    REQUIRE_DEVELOPMENT_KEY();
    wrap_gpg();
    const std::string path = put("hello.asc", data("hello-dev.asc"));
    char *content = nullptr;
    size_t len = 0;
    ASSERT_EQ(0, gpg_verify_cmd_cached(path.c_str(), &content, &len));
    CString owned(content);
    EXPECT_STREQ("hello\n", content);
    const size_t first = gpg_starts();
    EXPECT_EQ(2u, first); // import and verify

    content = nullptr;
    len = 0;
    ASSERT_EQ(0, gpg_verify_cmd_cached(path.c_str(), &content, &len));
    owned.reset(content);
    EXPECT_STREQ("hello\n", content);
    EXPECT_EQ(6u, len);
    EXPECT_EQ(first, gpg_starts());
    EXPECT_NE(std::string::npos, fx_.trace_log().find("GPG cache hit, file path: /data/hello.asc"));
    EXPECT_EQ(0, gpg_verify_cmd_cached(path.c_str(), nullptr, nullptr));
    EXPECT_EQ(first, gpg_starts());

    // A new modification time misses.
    const std::string host = fx_.host(path);
    struct stat st;
    ASSERT_EQ(0, ::stat(host.c_str(), &st));
    struct timespec later[2] = {{st.st_mtime + 7, 0}, {st.st_mtime + 7, 0}};
    ASSERT_EQ(0, ::utimensat(AT_FDCWD, host.c_str(), later, 0));
    EXPECT_EQ(0, gpg_verify_cmd_cached(path.c_str(), nullptr, nullptr));
    EXPECT_EQ(first + 2, gpg_starts());
    EXPECT_EQ(0, gpg_verify_cmd_cached(path.c_str(), nullptr, nullptr));
    EXPECT_EQ(first + 2, gpg_starts());

    // So does one changed byte under the same modification time.
    std::string changed = data("hello-dev.asc");
    changed.replace(changed.find("hello\n"), 6, "hellO\n");
    fx_.write(path, changed);
    ASSERT_EQ(0, ::utimensat(AT_FDCWD, host.c_str(), later, 0));
    EXPECT_EQ(1, gpg_verify_cmd_cached(path.c_str(), nullptr, nullptr));
    EXPECT_EQ(first + 4, gpg_starts());
    // The failure is remembered too.
    content = nullptr;
    len = 3;
    EXPECT_EQ(1, gpg_verify_cmd_cached(path.c_str(), &content, &len));
    EXPECT_EQ(nullptr, content);
    EXPECT_EQ(0u, len);
    EXPECT_EQ(first + 4, gpg_starts());
    EXPECT_EQ(3u, tq::gpg_cache_count());
}

TEST_F(Gnupg, CacheKeepsTheTenNewestFiles)
{
    wrap_gpg();
    const std::string text = "not signed\n";
    std::vector<std::string> paths;
    for (int i = 1; i <= 11; ++i) {
        paths.push_back(put("file" + std::to_string(i), text));
        EXPECT_EQ(1, gpg_verify_cmd_cached(paths.back().c_str(), nullptr, nullptr));
    }
    EXPECT_EQ(22u, gpg_starts());
    EXPECT_EQ(10u, tq::gpg_cache_count());
    EXPECT_EQ(1, gpg_verify_cmd_cached(paths[1].c_str(), nullptr, nullptr));
    EXPECT_EQ(1, gpg_verify_cmd_cached(paths[10].c_str(), nullptr, nullptr));
    EXPECT_EQ(22u, gpg_starts());
    EXPECT_EQ(1, gpg_verify_cmd_cached(paths[0].c_str(), nullptr, nullptr)); // evicted
    EXPECT_EQ(24u, gpg_starts());

    // A file that cannot be read bypasses the cache.
    EXPECT_EQ(1, gpg_verify_cmd_cached("/data/missing", nullptr, nullptr));
    EXPECT_EQ(1, gpg_verify_cmd_cached("/data/missing", nullptr, nullptr));
    EXPECT_EQ(28u, gpg_starts());
    EXPECT_EQ(10u, tq::gpg_cache_count());
}

TEST_F(Gnupg, GpgmeVerifierClassifiesEveryOutcome)
{
    REQUIRE_DEVELOPMENT_KEY();
    char *content = nullptr;
    size_t len = 0;
    ASSERT_EQ(0, gpg_verify(put("hello.asc", data("hello-dev.asc")).c_str(), &content, &len));
    CString owned(content);
    ASSERT_TRUE(owned);
    EXPECT_EQ("hello\n", std::string(content, len));
    EXPECT_NE(std::string::npos, fx_.trace_log().find("gpg_verify, create tmp dir success, dirName = /tmp/gpgdir-"));
    // GNUPGHOME stays on the (removed) private home.
    EXPECT_EQ(0, std::strncmp(::getenv("GNUPGHOME"), fx_.host("/tmp/gpgdir-").c_str(), fx_.host("/tmp/gpgdir-").size()));
    EXPECT_EQ(0, gpg_verify("/data/hello.asc", nullptr, nullptr));

    // Good signature over a text too long to hand back.
    char sentinel = 0;
    content = &sentinel;
    len = 1;
    EXPECT_EQ(0, gpg_verify(put("big.asc", data("big-dev.asc")).c_str(), &content, &len));
    EXPECT_EQ(nullptr, content);
    EXPECT_EQ(1u, len);

    std::string tampered = data("hello-dev.asc");
    tampered.replace(tampered.find("hello\n"), 6, "hellO\n");
    content = nullptr;
    EXPECT_EQ(14, gpg_verify(put("other.asc", data("hello-other.asc")).c_str(), &content, &len));
    // gpg marks a bad signature red, and red is asked before the status code.
    EXPECT_EQ(50, gpg_verify(put("tampered.asc", tampered).c_str(), &content, &len));
    // gpg finds no OpenPGP data at all here, and the verify operation fails.
    EXPECT_EQ(1, gpg_verify(put("plain.txt", "just text\n").c_str(), &content, &len));
    EXPECT_EQ(49, gpg_verify("/data/missing.asc", &content, &len));
    EXPECT_EQ(nullptr, content);
}

TEST_F(Gnupg, GpgmeVerifierWithoutAPrivateHomeUsesTheCurrentOne)
{
    REQUIRE_DEVELOPMENT_KEY();
    const std::string path = put("hello.asc", data("hello-dev.asc"));
    fs::remove(fx_.host("/tmp"));
    char *content = nullptr;
    size_t len = 0;
    EXPECT_EQ(0, gpg_verify(path.c_str(), &content, &len));
    CString owned(content);
    EXPECT_EQ("hello\n", std::string(content, len));
    EXPECT_NE(std::string::npos, fx_.trace_log().find("gpg_verify, create tmp dir failed"));
    EXPECT_EQ(fx_.host("/home/gnupg"), ::getenv("GNUPGHOME"));
    EXPECT_TRUE(fs::exists(fx_.host("/home/gnupg/pubring.kbx")));
    fx_.mkdir("/tmp");
}

TEST(GnupgResults, UnsignedAndUntrustedSignaturesAreTold)
{
    gpgme_check_version(nullptr);
    gpgme_ctx_t ctx = nullptr;
    ASSERT_EQ(0u, gpgme_new(&ctx));
    EXPECT_EQ(53, tq::evaluate_verify_result(ctx)); // nothing verified: no signature
    gpgme_release(ctx);

    // Every signature must come from the trusted key, by fingerprint or key ID.
    std::string fpr = tq::trusted_key[0].fingerprint, key_id = tq::trusted_key[0].key_id;
    std::string other = "0000000000000000000000000000000000000000", lower = fpr;
    for (char &c : lower)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    _gpgme_signature second{}, first{};
    first.next = &second;
    first.fpr = fpr.data();
    second.fpr = key_id.data();
    EXPECT_TRUE(tq::signatures_from_trusted_keys(&first));
    second.fpr = other.data();
    EXPECT_FALSE(tq::signatures_from_trusted_keys(&first));
    second.fpr = nullptr;
    EXPECT_FALSE(tq::signatures_from_trusted_keys(&first));
    first.next = nullptr;
    first.fpr = lower.data();
    EXPECT_FALSE(tq::signatures_from_trusted_keys(&first));
}

TEST_F(Gnupg, EncryptedTextDecryptsWithTheDevelopmentSecretKey)
{
    REQUIRE_DEVELOPMENT_KEY();
    const char *text = "a secret for the trusted key\n";
    char *armoured = nullptr;
    size_t len = 0;
    ASSERT_EQ(0, gpg_encrypt(text, &armoured, &len));
    CString owned(armoured);
    ASSERT_TRUE(owned);
    EXPECT_EQ(std::strlen(armoured), len);
    EXPECT_EQ(0, std::strncmp(armoured, "-----BEGIN PGP MESSAGE-----", 27));
    EXPECT_EQ(0, gpg_encrypt("", nullptr, nullptr));
    EXPECT_EQ(44, gpg_encrypt(nullptr, &armoured, &len));

    fx_.mkdir("/home/decrypt");
    const std::string home = fx_.host("/home/decrypt");
    ::chmod(home.c_str(), 0700);
    fx_.write("/message.asc", owned.get());
    const std::string out = fx_.host("/decrypted");
    EXPECT_EQ(0, shell("gpg --homedir '" + home + "' --batch --import '" + kDevSecret + "' 2>/dev/null && gpg --homedir '" +
                       home + "' --batch -o '" + out + "' --decrypt '" + fx_.host("/message.asc") + "' 2>/dev/null"));
    shell("gpgconf --homedir '" + home + "' --kill gpg-agent");
    EXPECT_EQ(text, tqtest::read_file(out));
}

TEST_F(Gnupg, EncryptionWithTheClockBeforeTheKeyGives15)
{
    if (::getenv("TQ_UNDER_FAKETIME")) {
        ASSERT_LT(std::time(nullptr), tq::trusted_key[0].created);
        char *armoured = nullptr;
        size_t len = 0;
        EXPECT_EQ(15, gpg_encrypt("text", &armoured, &len));
        EXPECT_EQ(nullptr, armoured);
        return;
    }
    // Run this same test again under faketime, so that gpg sees the clock too.
    char self[PATH_MAX] = {};
    ASSERT_GT(::readlink("/proc/self/exe", self, sizeof(self) - 1), 0);
    const auto *info = ::testing::UnitTest::GetInstance()->current_test_info();
    const char *asan = ::getenv("ASAN_OPTIONS");
    const std::string log = fx_.host("/faketime.log");
    const std::string command = "TQ_UNDER_FAKETIME=1 ASAN_OPTIONS='" + std::string(asan ? asan : "") +
                                ":verify_asan_link_order=0' faketime -f '@2001-01-01 00:00:00' '" + self +
                                "' --gtest_filter=" + info->test_suite_name() + "." + info->name() + " > '" + log +
                                "' 2>&1";
    EXPECT_EQ(0, shell(command)) << tqtest::read_file(log);
    EXPECT_NE(std::string::npos, tqtest::read_file(log).find("[  PASSED  ] 1 test")) << tqtest::read_file(log);
}

TEST_F(Gnupg, CommandLineToolVerifiesAndEncrypts)
{
    REQUIRE_DEVELOPMENT_KEY();
    const std::string cli = TQ_CLI;
    const std::string out = fx_.host("/out");
    const std::string hello = fx_.host(put("hello file.asc", data("hello-dev.asc")));
    const std::string other = fx_.host(put("other.asc", data("hello-other.asc")));
    for (const char *route : {"", "--cached ", "--gpgme "}) {
        EXPECT_EQ(0, shell(cli + " verify " + route + "'" + hello + "' > '" + out + "'")) << route;
        EXPECT_EQ("result: 0\nhello\n", tqtest::read_file(out)) << route;
    }
    EXPECT_EQ(1, shell(cli + " verify '" + other + "' > '" + out + "'"));
    EXPECT_EQ("result: 1\n", tqtest::read_file(out));
    EXPECT_EQ(1, shell(cli + " verify --gpgme '" + other + "' > '" + out + "'"));
    EXPECT_EQ("result: 14\n", tqtest::read_file(out));
    EXPECT_EQ(2, shell(cli + " verify 2>/dev/null"));

    EXPECT_EQ(0, shell("echo text | " + cli + " encrypt > '" + out + "'"));
    EXPECT_EQ(0u, tqtest::read_file(out).rfind("-----BEGIN PGP MESSAGE-----\n", 0));
    EXPECT_EQ(0, shell(cli + " --version > '" + out + "'"));
    EXPECT_NE(std::string::npos, tqtest::read_file(out).find(tq::trusted_key[0].fingerprint));
    // The tool ran in real /tmp: nothing of it may remain.
    EXPECT_TRUE(no_agent_mentioning(fx_.root()));
    EXPECT_TRUE(no_agent_mentioning("gpgdir-"));
}

TEST_F(Gnupg, NoKeyAgentOutlivesManyVerifications)
{
    REQUIRE_DEVELOPMENT_KEY();
    const std::string path = put("hello.asc", data("hello-dev.asc"));
    const std::string other = put("other.asc", data("hello-other.asc"));
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(0, gpg_verify_cmd(path.c_str(), nullptr, nullptr));
        EXPECT_EQ(1, gpg_verify_cmd(other.c_str(), nullptr, nullptr));
        EXPECT_EQ(0, gpg_verify(path.c_str(), nullptr, nullptr));
        EXPECT_EQ(14, gpg_verify(other.c_str(), nullptr, nullptr));
    }
    // Checked at once, not after a grace period: nothing may have started one.
    EXPECT_EQ(0, agents_mentioning("gpgdir-"));
}

} // namespace
