// SPDX-License-Identifier: LGPL-2.1-or-later
// OpenPGP verification and encryption against the real gpg, with the
// development key the default build embeds.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <clocale>
#include <ctime>
#include <filesystem>
#include <optional>
#include <regex>
#include <thread>

#include "built_program.h"
#include "fixture.h"
#include "integrity/gnupg.h"
#include "leak_check.h"
#include "results.h"
#include "tavro-quenda.h"
#include "tavro_quenda_trusted_key.h"

namespace fs = std::filesystem;
using tqtest::contains;

namespace {

const std::string kSource = TQ_SOURCE_DIR;
const std::string kTestKeys = kSource + "/tests/keys/test-only/";
// The gpg the library runs, by this absolute path whatever PATH holds. The
// test's own gpg runs use it too: PATH holds decoys.
const std::string kGpg = "/usr/bin/gpg";

std::string data(const std::string &name) { return tqtest::read_file(kSource + "/tests/integrity/data/gnupg/" + name); }

// Replaces the first match of from in text.
std::string edited(std::string text, const std::string &from, const std::string &to)
{
    return text.replace(text.find(from), from.size(), to);
}

// Live gpg-agent processes whose command line mentions needle (a zombie's is empty).
int agents_mentioning(const std::string &needle)
{
    int found = 0;
    std::error_code ec;
    for (const auto &entry : fs::directory_iterator("/proc", ec)) {
        const std::string cmdline = tqtest::read_file(entry.path() / "cmdline");
        found += contains(cmdline, "gpg-agent") && contains(cmdline, needle);
    }
    return found;
}

// A shell command line's wait status: 0 when it ran and exited with 0.
int shell(const std::string &command) { return std::system(command.c_str()); }

// What a verifier hands back, as "code|content|length": "<null>" for no
// content, "-" for a length it left alone.
using Verifier = int32_t (*)(const char *, char **, size_t *);
constexpr size_t kUntouched = 4242;
std::string outcome(Verifier verify, const std::string &path)
{
    char *content = nullptr;
    size_t len = kUntouched;
    const int32_t code = verify(path.c_str(), &content, &len);
    return std::to_string(code) + "|" + tqtest::take(content) + "|" + (len == kUntouched ? "-" : std::to_string(len));
}

class Gnupg : public ::testing::Test {
protected:
    void SetUp() override
    {
        for (const char *dir : {"/tmp", "/data", "/home/gnupg"})
            fx_.mkdir(dir);
        // GPGME looks for its helpers through PATH once, before the decoys are planted.
        gpgme_check_version(nullptr);
        gpgme_engine_info_t engines = nullptr;
        gpgme_get_engine_info(&engines);
        // The caller's GnuPG home, locale (not the one the environment names)
        // and PATH (decoy gpg and gpgconf first) may be neither used nor changed.
        fs::permissions(fx_.host("/home/gnupg"), fs::perms::owner_all);
        if (const char *home = ::getenv("GNUPGHOME"))
            saved_home_ = home;
        ::setenv("GNUPGHOME", fx_.host("/home/gnupg").c_str(), 1);
        std::setlocale(LC_CTYPE, "C.UTF-8");
        locale_ = std::setlocale(LC_ALL, nullptr);
        path_ = ::getenv("PATH");
        fx_.path_script("gpg", "exit 0");
        fx_.path_script("gpgconf", "exit 0");
        leaks_.emplace(tqtest::gnupg_temp_prefixes());
        wrap_gpg();
    }

    void TearDown() override
    {
        EXPECT_TRUE(leaks_->clean());
        EXPECT_TRUE(fs::is_empty(fx_.host("/tmp"))) << "something was left in the fixture's /tmp";
        // An agent asked to stop takes a moment to go.
        for (int i = 0; i < 50 && agents_mentioning(fx_.root()) > 0; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        EXPECT_EQ(0, agents_mentioning(fx_.root())) << "a key agent outlived the test";
        EXPECT_STREQ(fx_.host("/home/gnupg").c_str(), ::getenv("GNUPGHOME"));
        EXPECT_EQ(locale_, std::setlocale(LC_ALL, nullptr));
        EXPECT_EQ(0u, fx_.calls("gpg").size() + fx_.calls("gpgconf").size()) << "a decoy on PATH ran";
        saved_home_ ? ::setenv("GNUPGHOME", saved_home_->c_str(), 1) : ::unsetenv("GNUPGHOME");
        std::setlocale(LC_ALL, "C");
    }

    // The library's gpg under the fixture's root: the real one, each start
    // counted (fx_.calls(kGpg)); the shell text first runs before it.
    void wrap_gpg(std::string first = "") { fx_.script(kGpg, first + "\nexec " + kGpg + " \"$@\""); }

    // A GnuPG home of the test's own, and the start of a gpg command line using it.
    std::string own_gpg(const std::string &home, const std::string &conf = "no-autostart\n")
    {
        fx_.write(home + "/gpg.conf", conf);
        fs::permissions(fx_.host(home), fs::perms::owner_all);
        return kGpg + " --homedir '" + fx_.host(home) + "' --batch ";
    }
    // Standard output of a shell command, whatever its exit status.
    std::string output_of(const std::string &command)
    {
        shell(command + " > '" + fx_.host("/output") + "' 2>/dev/null");
        return fx_.read("/output");
    }

    tqtest::Fixture fx_;
    std::optional<tqtest::LeakCheck> leaks_;
    std::optional<std::string> saved_home_;
    std::string locale_, path_;
};

// The signed fixtures are signed by the development key.
class SignedGnupg : public Gnupg {
    void SetUp() override
    {
        Gnupg::SetUp();
        if (!tq::generated::kTrustedKeyIsDevelopment)
            GTEST_SKIP() << "the signed fixtures need the development key, which this build does not trust";
    }
};

TEST_F(Gnupg, TheSignedBodyIsCutOutOfTheTextAndOnlyTheFirst4095BytesAreRead)
{
    const std::string head = "-----BEGIN PGP SIGNED MESSAGE-----\n", top = head + "Hash: SHA1\n\n";
    const std::string marker = "-----BEGIN PGP SIGNATURE-----\n";
    const std::pair<std::string, std::string> cases[] = {
        {data("hello-dev.asc"), "0|hello\n|6"},
        // Exactly one header line is assumed: a second one loses its first character.
        {head + "Hash: SHA256\nComment: x\n\nbody\n" + marker, "0|omment: x\n\nbody\n|16"},
        // Text before the marker is skipped; dash-escaped lines stay as they are.
        {"junk\n" + top + "- -dash\n-----BEGIN PGP SIGNATURE-----", "0|- -dash\n|8"},
        {"", "-1||77"}, {"hello\n", "-1||77"}, {"-----BEGIN PGP SIGNED MESSAGE-----", "-1||77"},
        {top + "no signature\n", "-1||77"},
        // Texts that end right after the header line.
        {head + "Hash: SHA1\n", "-1||77"}, {head + "\n\n", "-1||77"},
    };
    for (const auto &[text, expected] : cases) {
        // Exactly sized heap buffers, so that the sanitizer sees any over-read.
        std::vector<char> in(text.c_str(), text.c_str() + text.size() + 1), body(text.size() + 1);
        size_t len = 77;
        const int32_t rc = extract_signed_message(in.data(), body.data(), &len);
        EXPECT_EQ(expected, std::to_string(rc) + "|" + (rc == 0 ? body.data() : "") + "|" + std::to_string(len)) << text;
    }
    char body[8];
    EXPECT_EQ(-1, extract_signed_message(nullptr, body, nullptr));
    EXPECT_EQ(-1, extract_signed_message("x", nullptr, nullptr));

    // The marker's last character is the 4095th byte of the file, then the 4096th.
    const size_t fits = 4095 - top.size() - marker.size() + 1;
    size_t len = 5;
    fx_.write("/data/a", top + std::string(fits, 'a') + marker);
    EXPECT_NE("<null>", tqtest::take(get_custom_info("/data/a", &len)));
    EXPECT_EQ(fits, len);
    len = 5;
    fx_.write("/data/b", top + std::string(fits + 1, 'a') + marker);
    EXPECT_EQ(nullptr, get_custom_info("/data/b", &len));
    EXPECT_EQ(nullptr, get_custom_info("/data/missing.asc", &len));
    EXPECT_EQ(nullptr, get_custom_info(nullptr, &len));
    EXPECT_EQ(5u, len);
}

TEST_F(SignedGnupg, EachVerifierHandsBackOnlyTheTextGpgVerifiedWithTheTrustedKey)
{
    const std::string hello = data("hello-dev.asc"), ok = "0|hello\n|6", no = "1|<null>|-", cr = "0|hello\r\n|7";
    const std::string crlf = std::regex_replace(hello, std::regex("\n"), "\r\n"), no_run = "16|<null>|-";
    // gpg skips text around the block it verifies; a forged block whose
    // markers carry a prefix was once cut out as the body.
    const std::string forged = "x-----BEGIN PGP SIGNED MESSAGE-----\nHash: SHA512\n\nforged\n"
                               "x-----BEGIN PGP SIGNATURE-----\n\n";
    const struct {
        std::string name;
        std::optional<std::string> text; // none: no such file
        std::string by_cmd, by_gpgme;
        std::string gpg; // shell text that runs before the real gpg
    } rows[] = {
        // Blanks and shell syntax in a path are just characters.
        {"it's a $(touch pwned) `touch pwned2`; file.asc", hello, ok, ok, ""},
        // A good signature over a text too long to hand back.
        {"big.asc", data("big-dev.asc"), "0|<null>|-", "0|<null>|-", ""},
        // Signed, but not clear-signed: only GPGME hands the text back.
        {"hello.gpg", data("hello-dev.gpg"), "0|<null>|-", ok, ""},
        // A detached signature over empty data, alone: it vouches for no text.
        {"empty.asc", data("empty-dev.asc"), no, no, ""},
        {"other.asc", data("hello-other.asc"), no, "14|<null>|-", ""},
        // gpg marks a bad signature red, and red is asked before the status code.
        {"tampered.asc", edited(hello, "hello\n", "hellO\n"), no, "50|<null>|-", ""},
        // gpg finds no OpenPGP data at all here, and the verify operation fails.
        {"plain.txt", "just text\n", no, no, ""},
        {"missing.asc", std::nullopt, no, "49|<null>|-", ""},
        // The command-line route takes one clear-signed message and nothing else.
        {"forged.asc", forged + hello, no, ok, ""},
        {"after.asc", hello + "text\n", no, ok, ""},
        // Blank lines around the one message are fine, and so are CR LF line ends.
        {"blank.asc", "\n \n" + hello + "\n\t\n", ok, ok, ""},
        {"crlf.asc", crlf, cr, cr, ""},
        // Edits the signature does not see: the text is gpg's, never the edited one.
        {"dash.asc", edited(hello, "hello\n", "- hello\n"), ok, ok, ""},
        // When gpg cannot run or no private home can be made, the answer is 16.
        {"nogpg.asc", hello, no_run, no_run, ""},
        {"notmp.asc", hello, no_run, no_run, ""},
        {"import.asc", hello, no_run, "14|<null>|-", "case \"$*\" in *--import*) exit 2;; esac"},
        {"killed.asc", hello, no_run, ok, "case \"$*\" in *--verify*) kill -KILL $$;; esac"},
        {"slow.asc", hello, no_run, ok, "case \"$*\" in *--verify*) sleep 2;; esac"},
    };
    for (const auto &row : rows) {
        const std::string path = "/data/" + row.name;
        if (row.text)
            fx_.write(path, *row.text);
        wrap_gpg(row.gpg);
        if (row.name == "nogpg.asc")
            fs::remove(fx_.host(kGpg));
        if (row.name == "notmp.asc")
            fs::rename(fx_.host("/tmp"), fx_.host("/tmp-away"));
        tq::os::testing::set_helper_time_limit_ms(row.name == "slow.asc" ? 1000 : 0);
        EXPECT_EQ(row.by_cmd, outcome(gpg_verify_cmd, path)) << row.name;
        // The cached route hands back a zero length where the other leaves it
        // alone; an unreadable file bypasses the cache.
        std::string cached = row.by_cmd;
        if (row.text && cached.back() == '-')
            cached.back() = '0';
        EXPECT_EQ(cached, outcome(gpg_verify_cmd_cached, path)) << row.name;
        EXPECT_EQ(row.by_gpgme, outcome(gpg_verify, path)) << row.name;
        if (row.name == "notmp.asc")
            fs::rename(fx_.host("/tmp-away"), fx_.host("/tmp"));
        // The same again from the cache; a run that could not happen was not remembered.
        wrap_gpg();
        EXPECT_EQ(row.by_cmd == no_run ? ok : cached, outcome(gpg_verify_cmd_cached, path)) << row.name;
    }
    tq::os::testing::set_helper_time_limit_ms(0);
    EXPECT_FALSE(fs::exists(fx_.host("/home/gnupg/pubring.kbx"))) << "the caller's GnuPG home was used";
    const std::string good = "/data/" + rows[0].name;
    for (Verifier verify : {gpg_verify_cmd, gpg_verify_cmd_cached, gpg_verify})
        EXPECT_EQ(0, verify(good.c_str(), nullptr, nullptr));
    // The private homes' removal is seen only in the trace.
    for (const char *trace : {"run_verify verify return success", "remove_directory: /tmp/gpgdir-"})
        EXPECT_TRUE(contains(fx_.trace_log(), trace)) << trace;
    // Checked at once, not after a grace period: nothing may have started a key agent.
    EXPECT_EQ(0, agents_mentioning("gpgdir-"));

    // run_verify, in a home of the caller's that holds the trusted key. A
    // relative name that looks like an option is still a file name.
    shell(own_gpg("/home/verify") + "--import " + kTestKeys + "dev-public.gpg 2>/dev/null");
    EXPECT_EQ(1, run_verify("/home/verify", good.c_str()));
    EXPECT_EQ(0, run_verify("/home/verify", "/data/other.asc"));
    EXPECT_EQ(0, run_verify(nullptr, good.c_str()));
    const fs::path cwd = fs::current_path();
    fs::current_path(fx_.host("/data"));
    fx_.write("/data/--output=pwned3", hello);
    const int relative = run_verify("/home/verify", "--output=pwned3");
    fs::current_path(cwd);
    EXPECT_EQ(1, relative);
    for (const char *planted : {"pwned", "pwned2", "pwned3"})
        EXPECT_FALSE(fs::exists(fx_.host("/data/") + planted) || fs::exists(cwd / planted)) << planted;
}

TEST_F(SignedGnupg, CacheStartsGpgOnlyForANewOrChangedFileAndKeepsTheTenNewest)
{
    const std::string hello = data("hello-dev.asc"), path = "/data/cached.asc";
    fx_.write(path, hello);
    // Two verifications in a row; gpg starts twice (import and verify) for the first only.
    const auto twice = [&](const std::string &want, size_t starts) {
        EXPECT_EQ(want, outcome(gpg_verify_cmd_cached, path));
        EXPECT_EQ(want, outcome(gpg_verify_cmd_cached, path));
        EXPECT_EQ(starts, fx_.calls(kGpg).size());
    };
    twice("0|hello\n|6", 2);
    EXPECT_TRUE(contains(fx_.trace_log(), "GPG cache hit, file path: /data/cached.asc"));
    // A new modification time misses.
    const auto later = fs::last_write_time(fx_.host(path)) + std::chrono::seconds(7);
    fs::last_write_time(fx_.host(path), later);
    twice("0|hello\n|6", 4);
    // So does one changed byte under the same modification time; the failure is remembered too.
    fx_.write(path, edited(hello, "hello\n", "hellO\n"));
    fs::last_write_time(fx_.host(path), later);
    twice("1|<null>|0", 6);
    // Ten files are kept: the eleventh newer one evicts the oldest.
    for (int i = 0; i < 10; ++i) {
        fx_.write("/data/file" + std::to_string(i), "unsigned\n");
        EXPECT_EQ("1|<null>|0", outcome(gpg_verify_cmd_cached, "/data/file" + std::to_string(i)));
    }
    EXPECT_EQ(10u, tq::gpg_cache_count());
    EXPECT_EQ("1|<null>|0", outcome(gpg_verify_cmd_cached, "/data/file9"));
    EXPECT_EQ(26u, fx_.calls(kGpg).size());
    EXPECT_EQ("1|<null>|0", outcome(gpg_verify_cmd_cached, path)); // evicted
    EXPECT_EQ(28u, fx_.calls(kGpg).size());

    // gpg replaces the file by a forged one right after it read it: gpg
    // verified a private copy, whose text is handed back and whose bytes the
    // cache holds, so the forged ones are verified anew, and fail.
    fx_.write("/data/swapped.asc", hello);
    fx_.write("/forged.asc", edited(hello, "hello\n", "forged\n"));
    wrap_gpg("case \"$*\" in *--verify*) " + kGpg + " \"$@\"; rc=$?; cp '" + fx_.host("/forged.asc") + "' '" +
             fx_.host("/data/swapped.asc") + "'; exit $rc;; esac");
    EXPECT_EQ("0|hello\n|6", outcome(gpg_verify_cmd_cached, "/data/swapped.asc"));
    EXPECT_EQ("1|<null>|0", outcome(gpg_verify_cmd_cached, "/data/swapped.asc"));
}

TEST_F(Gnupg, EncryptionIsToTheBuiltInKeyAloneWhateverAGpgConfAround)
{
    const tq::TrustedKey &key = tq::trusted_key[0];
    if (::getenv("TQ_UNDER_FAKETIME")) {
        // The clock is set before the key's creation, for gpg too.
        ASSERT_LT(std::time(nullptr), key.created);
        char *armoured = nullptr;
        EXPECT_EQ(15, gpg_encrypt("text", &armoured, nullptr));
        EXPECT_EQ(nullptr, armoured);
        return;
    }
    // The embedded key record agrees with what gpg says of its bytes, and
    // write_temp_pubkey writes those bytes to a private file.
    const std::string bytes(reinterpret_cast<const char *>(key.data), key.length);
    EXPECT_EQ(tq::generated::kTrustedKeyIsDevelopment ? tqtest::read_file(kTestKeys + "dev-public.gpg") : bytes, bytes);
    fx_.write("/key.gpg", bytes);
    const std::string colons = output_of(own_gpg("/home/list") + "--with-colons --show-keys " + fx_.host("/key.gpg"));
    EXPECT_TRUE(contains(colons, "\nfpr:::::::::" + std::string(key.fingerprint) + ":")) << colons;
    EXPECT_TRUE(contains(colons, ":" + std::string(key.key_id) + ":" + std::to_string(key.created) + ":")) << colons;
    const std::string path = tqtest::take(write_temp_pubkey());
    EXPECT_EQ(0u, path.rfind("/tmp/pubkey_", 0)) << path;
    EXPECT_EQ(fs::perms::owner_read | fs::perms::owner_write, fs::status(fx_.host(path)).permissions());
    EXPECT_EQ(bytes, fx_.read(path));
    fs::remove(fx_.host(path));

    // A second key and a gpg.conf that adds it as a hidden recipient (one
    // packet all the same where the build trusts that very key), in
    // the caller's home and in a folder named like the library's homes.
    for (const std::string home : {"/home/gnupg", "/tmp/gpgdir-planted"})
        shell(own_gpg(home, "no-autostart\nhidden-encrypt-to 07B9F611D2C4E8E1\n") + "--import " + kTestKeys +
              "other-secret.gpg 2>/dev/null");
    const char *text = "a secret for the trusted key\n";
    char *armoured = nullptr;
    size_t len = 0;
    ASSERT_EQ(0, gpg_encrypt(text, &armoured, &len));
    const std::string message = tqtest::take(armoured);
    fs::remove_all(fx_.host("/tmp/gpgdir-planted"));
    EXPECT_EQ(message.size(), len);
    EXPECT_EQ(0u, message.rfind("-----BEGIN PGP MESSAGE-----", 0));
    EXPECT_EQ(0, gpg_encrypt("", nullptr, nullptr));
    EXPECT_EQ(44, gpg_encrypt(nullptr, &armoured, &len));
    fx_.write("/message.asc", message);
    const auto packets = tqtest::lines_of(output_of(own_gpg("/home/list") + "--list-packets " + fx_.host("/message.asc")));
    const auto recipient = [](const std::string &line) { return line.rfind(":pubkey enc packet:", 0) == 0; };
    EXPECT_EQ(1, std::count_if(packets.begin(), packets.end(), recipient)) << message;

    // Run this same test again under faketime, so that gpg sees the clock too.
    const std::string self = fs::read_symlink("/proc/self/exe"), log = fx_.host("/faketime.log");
    const auto *info = ::testing::UnitTest::GetInstance()->current_test_info();
    const char *asan = ::getenv("ASAN_OPTIONS");
    EXPECT_EQ(0, shell("PATH='" + path_ + "' TQ_UNDER_FAKETIME=1 ASAN_OPTIONS='" + std::string(asan ? asan : "") +
                       ":verify_asan_link_order=0' faketime -f '@2001-01-01 00:00:00' " + tqtest::built_program(self) +
                       " --gtest_filter=" + info->test_suite_name() + "." + info->name() + " > '" + log + "' 2>&1"))
        << tqtest::read_file(log);
    EXPECT_TRUE(contains(tqtest::read_file(log), "[  PASSED  ] 1 test")) << tqtest::read_file(log);

    if (!tq::generated::kTrustedKeyIsDevelopment)
        GTEST_SKIP() << "decrypting needs the development key's secret half, and this build trusts another key";
    const std::string gpg = own_gpg("/home/decrypt", "");
    EXPECT_EQ(0, shell(gpg + "--import " + kTestKeys + "dev-secret.gpg 2>/dev/null && " + gpg + "-o '" +
                       fx_.host("/decrypted") + "' --decrypt '" + fx_.host("/message.asc") + "' 2>/dev/null"));
    EXPECT_EQ(0, shell("/usr/bin/gpgconf --homedir '" + fx_.host("/home/decrypt") + "' --kill gpg-agent"));
    EXPECT_EQ(text, fx_.read("/decrypted"));
}

// A test-only key whose signing is done by a subkey.
const tq::TrustedKey kSubkeyKey = {nullptr, 0, "77217DC81CED619F7B74C8C1D23AFA2B2FCFB862", "D23AFA2B2FCFB862", 0};

TEST_F(Gnupg, ASignatureByASigningSubkeyOfTheTrustedKeyCounts)
{
    const std::string fpr = tq::trusted_key[0].fingerprint, key_id = tq::trusted_key[0].key_id, other(40, '0');
    std::string lower = fpr;
    std::transform(fpr.begin(), fpr.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
    // By fingerprint or key ID, with the case as given; or a subkey whose primary key is the trusted one.
    const std::tuple<const char *, const char *, bool> rows[] = {
        {fpr.c_str(), nullptr, true},   {key_id.c_str(), nullptr, true}, {lower.c_str(), nullptr, false},
        {other.c_str(), nullptr, false}, {nullptr, nullptr, false},        {other.c_str(), fpr.c_str(), true},
        {other.c_str(), lower.c_str(), false}};
    for (const auto &[signing, primary, trusted] : rows)
        EXPECT_EQ(trusted, tq::trusted_signer(signing, primary)) << (signing ? signing : "null") << " "
                                                                  << (primary ? primary : "null");

    // A real subkey signature, as gpg and GPGME report it.
    const std::string gpg = own_gpg("/home/sub"), home = fx_.host("/home/sub");
    const std::string signed_file = kSource + "/tests/integrity/data/gnupg/hello-subkey.asc";
    shell(gpg + "--import " + kTestKeys + "subkey-public.gpg 2>/dev/null");
    const std::string status = output_of(gpg + "--status-fd 1 --verify " + signed_file);
    EXPECT_TRUE(tq::status_from_trusted_keys(status, {&kSubkeyKey, 1})) << status;
    EXPECT_FALSE(tq::status_from_trusted_keys(status)) << status;
    EXPECT_FALSE(tq::status_from_trusted_keys("", {&kSubkeyKey, 1}));

    gpgme_ctx_t ctx = nullptr;
    ASSERT_EQ(0u, gpgme_new(&ctx));
    EXPECT_EQ(53, tq::evaluate_verify_result(ctx)); // nothing verified: no signature
    ASSERT_EQ(0u, gpgme_ctx_set_engine_info(ctx, GPGME_PROTOCOL_OpenPGP, kGpg.c_str(), home.c_str()));
    gpgme_data_t in = nullptr, out = nullptr;
    ASSERT_EQ(0u, gpgme_data_new_from_file(&in, signed_file.c_str(), 1));
    ASSERT_EQ(0u, gpgme_data_new(&out));
    ASSERT_EQ(0u, gpgme_op_verify(ctx, in, nullptr, out));
    EXPECT_EQ(0, tq::evaluate_verify_result(ctx, {&kSubkeyKey, 1}));
    EXPECT_EQ(46, tq::evaluate_verify_result(ctx));
    gpgme_data_release(in);
    gpgme_data_release(out);
    gpgme_release(ctx);
}

} // namespace
